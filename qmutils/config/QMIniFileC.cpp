#include "qmutils/config/QMIniFileC.h"

#include <cstdio>
#include <new>
#include <string>
#include <utility>

#include "qmutils/data/QMGUIDEncryptC.h"
#include "qmutils/foundation/FileBuffer.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/profile.h"
#include "qmutils/platform/replacement_file.h"
#include "qmutils/platform/temporary_file.h"

using QMErrors::QMErrorT;

namespace {

constexpr const char* kInitialise = "QMIniFileC::Initialise(): ";
constexpr const char* kRead = "QMIniFileC::_Read(): ";
constexpr const char* kWrite = "QMIniFileC::_Write(): ";
constexpr const char* kFlush = "QMIniFileC::Flush(): ";
constexpr const char* kList = "QMIniFileC::List(): ";

bool isOutOfMemory() { return qm::platform::lastError() == ERROR_NOT_ENOUGH_MEMORY; }

/// Up to the first NUL, as texts end there.
CString copyOf(const std::string& text) {
  CString copy(text.c_str());
  if (copy.IsEmpty() && text.c_str()[0] != '\0') throw std::bad_alloc();
  return copy;
}

const char* lastErrorText() { return QMErrToStr(QMErrors::fromOsError(qm::platform::lastError())); }

}  // namespace

QMIniFileC::QMIniFileC(const char* path, int bEncoded) noexcept : m_bEncoded(bEncoded) {
  const char* const given = path != nullptr ? path : "";
  if (auto copy = qm::SharedText::copyOf(given)) m_FilePath = std::move(*copy);
}

QMIniFileC::~QMIniFileC() { Flush(); }

QMErrorT QMIniFileC::Initialise() {
  if (m_bInitialised != 0) return QMErrors::NoError;
  if (m_FilePath.c_str() == nullptr) return qm::logNoMemory(kInitialise);
  if (m_bEncoded == 0) {
    m_WorkingPath = m_FilePath;
    m_bInitialised = 1;
    return QMErrors::NoError;
  }
  m_pTemporaryFile.reset(new (std::nothrow) qm::platform::TemporaryFile);
  if (m_pTemporaryFile == nullptr || m_pTemporaryFile->get() == nullptr) {
    m_pTemporaryFile.reset();
    qm::logError(kInitialise, "failed to create temporary file for extraction.");
    return QMErrors::ResourceAllocationFailed;
  }
  auto path = qm::SharedText::copyOf(m_pTemporaryFile->path());
  if (!path) return qm::logNoMemory(kInitialise);
  m_WorkingPath = std::move(*path);
  const QMErrorT result = Decode();
  m_bInitialised = result == QMErrors::NoError;
  return result;
}

QMErrorT QMIniFileC::Decode() {
  qm::FileBuffer buffer(m_pTemporaryFile->get());
  std::iostream stream(&buffer);
  const QMErrorT result =
      QMGUIDEncryptC::Decode(m_FilePath.c_str(), stream, QMGUIDEncryptC::PUBLIC_KEY);
  if (result != QMErrors::NoError || stream.flush()) return result;
  qm::logError(kInitialise, "failed to write the temporary file.");
  return QMErrors::FailedToWriteToFile;
}

std::unique_ptr<QMstrstream> QMIniFileC::GetStream() noexcept try {
  return std::make_unique<QMstrstream>();
} catch (const std::bad_alloc&) {
  return nullptr;
}

QMErrorT QMIniFileC::Read(const char* section, const char* key, const CString* pDefault,
                          CString& value) {
  const auto stream = GetStream();
  if (stream == nullptr) return QMErrors::ResourceAllocationFailed;
  if (pDefault != nullptr) *stream << static_cast<const char*>(*pDefault);
  *stream << std::ends;
  if (!*stream) return QMErrors::ResourceAllocationFailed;
  const QMErrorT result = _Read(section, key, *stream);
  const int before = value.GetLength();
  const std::string_view text = stream->text();
  value += text.data();
  const bool appended = value.GetLength() == before + static_cast<int>(text.size());
  return appended ? result : QMErrors::MemoryAllocationFailed;
}

/// The stream gives the default and takes the value; after a failure it has the default.
QMErrorT QMIniFileC::_Read(const char* section, const char* key, QMstrstream& stream) try {
  const QMErrorT result = Initialise();
  if (result != QMErrors::NoError) return result;
  std::string text;
  if (!qm::platform::readProfile(m_WorkingPath.c_str(), section, key, stream.text().data(),
                                 &text)) {
    if (isOutOfMemory()) throw std::bad_alloc();
    qm::logWarning(0, kRead,
                   "the default is taken, as this could not be read: ", m_WorkingPath.c_str(), ": ",
                   lastErrorText());
  }
  text += '\0';
  stream.str(std::move(text));
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  qm::logError(kRead, "failed to create temporary string buffer");
  return QMErrors::MemoryAllocationFailed;
}

QMErrorT QMIniFileC::Write(const char* section, const char* key, const char* value) {
  const auto stream = GetStream();
  if (stream == nullptr) return QMErrors::ResourceAllocationFailed;
  *stream << (value != nullptr ? value : "") << std::ends;
  if (!*stream) return QMErrors::ResourceAllocationFailed;
  return _Write(section, key, *stream);
}

QMErrorT QMIniFileC::_Write(const char* section, const char* key, QMstrstream& stream) {
  const QMErrorT result = Initialise();
  if (result != QMErrors::NoError) return result;
  if (!qm::platform::writeProfile(m_WorkingPath.c_str(), section, key, stream.text().data())) {
    qm::logError(kWrite, "Failed to write to: ", m_WorkingPath.c_str());
    return QMErrors::FailedToWriteToFile;
  }
  m_bDirty = m_bEncoded;
  return QMErrors::NoError;
}

QMErrorT QMIniFileC::List(const char* section, std::vector<SectionS>& sections) try {
  sections.clear();
  const QMErrorT result = Initialise();
  if (result != QMErrors::NoError) return result;
  std::vector<qm::platform::ProfileSection> found;
  if (!qm::platform::listProfile(m_WorkingPath.c_str(), section, &found)) {
    if (isOutOfMemory()) throw std::bad_alloc();
    qm::logError(kList, "failed reading from file: ", m_WorkingPath.c_str(), ": ", lastErrorText());
    return QMErrors::FailedToReadFromFile;
  }
  for (const auto& [name, values] : found) {
    SectionS& copy = sections.emplace_back();
    copy.name = copyOf(name);
    for (const auto& [key, value] : values) copy.values.emplace_back(copyOf(key), copyOf(value));
  }
  return QMErrors::NoError;
} catch (const std::bad_alloc&) {
  sections.clear();
  return qm::logNoMemory(kList);
}

QMErrorT QMIniFileC::Flush() {
  if (m_bInitialised == 0) return QMErrors::NoError;
  const QMErrorT result = m_bDirty != 0 ? Encode() : QMErrors::NoError;
  if (result != QMErrors::NoError) return result;
  m_pTemporaryFile.reset();
  m_WorkingPath = {};
  m_bInitialised = 0;
  m_bDirty = 0;
  return QMErrors::NoError;
}

/// Puts the decoded copy, encoded, in the place of the stored file, in one step.
QMErrorT QMIniFileC::Encode() try {
  const char* const path = m_FilePath.c_str();
  qm::platform::ReplacementFile file(path);
  if (file.get() == nullptr) {
    qm::logError(kFlush, "failed to open file: ", path, ": ", lastErrorText());
    return QMErrors::FailedToOpenFile;
  }
  // The stream may have read what was written by the path since.
  std::fflush(m_pTemporaryFile->get());
  std::rewind(m_pTemporaryFile->get());
  qm::FileBuffer from(m_pTemporaryFile->get()), to(file.get());
  std::iostream source(&from), destination(&to);
  QMErrorT result = QMGUIDEncryptC::Encode(source, destination, QMGUIDEncryptC::PUBLIC_KEY);
  // After a write that failed, commit() sets the last error.
  const bool wasTried = result == QMErrors::NoError || std::ferror(file.get()) != 0;
  if (wasTried && !file.commit()) result = QMErrors::FailedToWriteToFile;
  if (result != QMErrors::NoError) qm::logError(kFlush, "failed encoding: ", path);
  return result;
} catch (const std::bad_alloc&) {
  qm::logError(kFlush, "failed encoding: ", m_FilePath.c_str());
  return QMErrors::MemoryAllocationFailed;
}
