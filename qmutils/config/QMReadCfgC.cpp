#include "qmutils/config/QMReadCfgC.h"

#include <algorithm>
#include <cstdio>
#include <istream>
#include <locale>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "qmutils/data/NumberStream.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMStringStream.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/replacement_file.h"

using QMErrors::QMErrorT;

namespace {

constexpr const char* kOpen = "QMReadCfgC::OpenFileName(): ";
constexpr const char* kRead = "QMReadCfgC::ReadToken(): ";
constexpr const char* kWrite = "QMReadCfgC::WriteToken(): ";
constexpr const char* kClose = "QMReadCfgC::CloseFile(): ";

QMErrorT fail(QMErrorT code, const char* label, const char* what, const char* path) {
  qm::logError(label, what, path != nullptr ? path : "null");
  return code;
}

std::string_view orEmpty(const char* token) { return token != nullptr ? token : ""; }

/// The rest of a file; nothing when it cannot be read to its end.
std::optional<std::string> readAll(std::FILE* file) {
  std::string text;
  char block[16 * 1024];
  for (std::size_t got; (got = std::fread(block, 1, sizeof block, file)) > 0;) {
    text.append(block, got);
  }
  return std::ferror(file) == 0 ? std::optional(std::move(text)) : std::nullopt;
}

std::string lineOf(std::string_view token, const double* values, unsigned int count) {
  QMostrstream line;
  line << token << '\t';
  for (unsigned int i = 0; i < count; ++i) line << ' ' << values[i];
  line << '\n';
  if (!line) throw std::bad_alloc();
  return std::move(line).str();
}

}  // namespace

QMReadCfgC::~QMReadCfgC() = default;

QMErrorT QMReadCfgC::OpenFileName(const char* path) try {
  const qm::platform::FilePtr file(qm::platform::openFile(path, "r"));
  // A device may have no end.
  if (file == nullptr || !qm::platform::isRegularFile(file.get())) {
    return fail(QMErrors::FailedToOpenFile, kOpen, "failed to open file: ", path);
  }
  std::optional<std::string> read = readAll(file.get());
  if (!read) {
    return fail(QMErrors::FailedToReadFromFile, kOpen, "failed reading from file: ", path);
  }
  auto text = std::make_shared<const std::string>(std::move(*read));
  auto name = qm::SharedText::copyOf(path);
  if (!name) return qm::logNoMemory(kOpen);
  m_pText = std::move(text);
  m_TextLength = m_pText->size() + 1;
  m_FileName = std::move(*name);
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(kOpen);
} catch (const std::length_error&) {
  return qm::logNoMemory(kOpen);
}

QMErrorT QMReadCfgC::ReadToken(const char* token, double* values, unsigned int count,
                               int bContinue) {
  return _ReadToken(token, values, count, bContinue);
}

QMErrorT QMReadCfgC::_ReadToken(const char* token, double* values, unsigned int count,
                                int bContinue) {
  if (m_pText == nullptr) {
    qm::logError(kRead, "File has not been opened!!");
    return QMErrors::FailedToOpenFile;
  }
  if (bContinue == 0) m_ReadPosition = 0;
  const std::string_view text = *m_pText, searched = orEmpty(token);
  const std::size_t found = text.find(searched, m_ReadPosition);
  if (found == std::string_view::npos) return QMErrors::EndOfFileError;
  m_ReadPosition = found + searched.size();

  // With its NUL, so that a number behind the last one fails as any other does, and is 0.
  const std::string_view whole(text.data(), text.size() + 1);
  qm::TextViewBuffer buffer(whole.substr(m_ReadPosition));
  std::istream stream(&buffer);
  stream.imbue(std::locale::classic());
  for (unsigned int i = 0; i < count; ++i) {
    if (stream >> values[i]) continue;
    qm::logError(kRead, "failed while reading object: ", i, " of ", count, ", ", values[i]);
    return QMErrors::FailedToReadFromFile;
  }
  m_ReadPosition = whole.size() - static_cast<std::size_t>(buffer.in_avail());
  return QMErrors::NoError;
}

QMErrorT QMReadCfgC::WriteToken(const char* token, const double* values, unsigned int count,
                                int bContinue) {
  return _WriteToken(token, values, count, bContinue);
}

QMErrorT QMReadCfgC::_WriteToken(const char* token, const double* values, unsigned int count,
                                 int bContinue) try {
  const std::string_view old = m_pText != nullptr ? std::string_view(*m_pText) : "";
  const std::size_t from = bContinue == 0 ? 0 : m_WritePosition;
  std::size_t at = old.find(orEmpty(token), from);
  if (at == std::string_view::npos) at = std::min(old.find('\0'), old.size());
  std::string text(old.substr(0, at));
  text += lineOf(orEmpty(token), values, count);

  // A place in the new text, looked for in the old one: the rest of a longer old line is cut off
  // by that, and lines behind a shorter one are lost. Programs have laid their files out for it.
  const std::size_t position = text.size() + 1;
  const std::size_t lineEnd = old.find_first_of("\n\r", position);
  std::size_t length = m_TextLength;
  if (lineEnd < m_TextLength) {
    // The length counts the NUL at the end of the old text, which is then at that of the new one.
    const bool isWhole = m_TextLength > old.size();
    text += old.substr(lineEnd, std::min(m_TextLength, old.size()) - lineEnd);
    length = text.size() + (isWhole ? 1 : 0);
  }
  m_pText = std::make_shared<const std::string>(std::move(text));
  m_WritePosition = position;
  m_TextLength = length;
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(kWrite);
} catch (const std::length_error&) {
  return qm::logNoMemory(kWrite);
}

QMErrorT QMReadCfgC::CloseFile(int bWrite) {
  QMErrorT result = QMErrors::NoError;
  if (m_FileName.c_str() == nullptr) {
    qm::logInfo(1, kClose, "NULL == m_pFileName - nothing to close!!!: ");
  } else if (bWrite != 0 && m_pText != nullptr) {
    result = WriteBack();
  }
  m_FileName = {};
  m_pText.reset();
  return result;
}

QMErrorT QMReadCfgC::WriteBack() const try {
  const char* const path = m_FileName.c_str();
  qm::platform::ReplacementFile file(path);
  if (file.get() == nullptr) {
    return fail(QMErrors::FailedToOpenFile, kClose, "failed to open file: ", path);
  }
  std::fputs(m_pText->c_str(), file.get());  // a failure is commit()'s
  if (!file.commit()) {
    return fail(QMErrors::FailedToWriteToFile, kClose, "failed writing to file: ", path);
  }
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(kClose);
}
