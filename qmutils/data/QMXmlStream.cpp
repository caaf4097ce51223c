// Writing a tree, and trees in files.
#include <cstdio>
#include <istream>
#include <new>
#include <ostream>
#include <string_view>

#include "qmutils/data/QMXmlC.h"
#include "qmutils/data/XmlReader.h"
#include "qmutils/foundation/FileBuffer.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/file.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr const char* kToStream = "QMXmlC::ToStream(): ";

/// Text goes straight to the buffer: no width, fill or other format of the stream touches it.
void put(std::ostream& os, std::string_view text) {
  os.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void indentBy(std::ostream& os, unsigned blanks) {
  constexpr std::string_view kBlanks = "                                ";
  for (; blanks > kBlanks.size(); blanks -= kBlanks.size()) put(os, kBlanks);
  put(os, kBlanks.substr(0, blanks));
}

}  // namespace

QMErrors::QMErrorT QMXmlC::WriteStartTag(std::ostream& os, unsigned indent) const {
  if (!m_bNamed || m_ObjectName.empty()) {
    qm::logError(kToStream, m_bNamed ? "m_pObjectName is empty: object invalid"
                                     : "m_pObjectName is NULL: object invalid");
    return QMErrors::NullObjectProvided;
  }
  if (!qm::isReadableName(m_ObjectName)) {
    qm::logError(kToStream, "the name would be read as something else: ", m_ObjectName);
    return QMErrors::ErrorBadlyFormedXML;
  }
  indentBy(os, indent);
  put(os, "<");
  put(os, m_ObjectName);
  const std::string_view separator = m_bForceNewline ? kLineEnd : std::string_view(" ");
  if (m_pProperties != nullptr) put(os, separator);
  for (const PropertiesC* p = m_pProperties.get(); p != nullptr; p = p->m_pNext.get()) {
    put(os, p->m_Name);
    put(os, " = \"");
    put(os, p->m_Value);
    put(os, "\"");
    put(os, separator);
  }
  if (m_pFirstChild == nullptr && m_Text.empty()) {
    put(os, " />");
    put(os, kLineEnd);
    return QMErrors::NoError;
  }
  put(os, ">");
  if (m_pFirstChild != nullptr) put(os, kLineEnd);
  put(os, m_Text);
  return QMErrors::NoError;
}

/// Nothing for an element that closed itself.
void QMXmlC::WriteEndTag(std::ostream& os, unsigned indent) const {
  if (m_pFirstChild == nullptr && m_Text.empty()) return;
  if (m_bForceNewline || m_pFirstChild != nullptr) indentBy(os, indent);
  put(os, "</");
  put(os, m_ObjectName);
  put(os, " >");
  put(os, kLineEnd);
}

QMErrors::QMErrorT QMXmlC::ToStream(std::ostream& os, unsigned indent) const {
  const QMXmlC* node = this;
  for (;;) {
    const QMErrors::QMErrorT result = node->WriteStartTag(os, indent);
    if (result != QMErrors::NoError) return result;
    if (!os) return QMErrors::FailedToWriteXMLObject;
    if (node->m_pFirstChild != nullptr) {
      node = node->m_pFirstChild;
      ++indent;
      continue;
    }
    node->WriteEndTag(os, indent);
    while (node != this && node->m_pNext == nullptr) {
      node = node->m_pOwner;
      node->WriteEndTag(os, --indent);
    }
    if (node == this) return os ? QMErrors::NoError : QMErrors::FailedToWriteXMLObject;
    node = node->m_pNext;
  }
}

QMErrors::QMErrorT QMXmlC::FromStream(std::istream& is) { return qm::XmlReader(is, *this).read(); }

QMErrors::QMErrorT QMXmlC::Load(const char* file) try {
  const qm::platform::FilePtr in(file != nullptr ? qm::platform::openFile(file, "rb") : nullptr);
  QMErrors::QMErrorT result = QMErrors::FailedToOpenFile;
  if (in != nullptr) {
    qm::FileBuffer buffer(in.get());
    std::istream is(&buffer);
    result = FromStream(is);
  }
  if (result != QMErrors::NoError) {
    qm::logError("QMXmlC::Load(): failed for file:", file != nullptr ? file : "null");
  }
  return result;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMErrors::QMErrorT QMXmlC::Save(const char* file) const try {
  using namespace qm::platform;
  const std::string target = file != nullptr ? file : "";
  const std::string temporary = target + ".tmp";
  FilePtr out;
  if (file != nullptr && mayReplaceFile(file)) out.reset(openFile(temporary.c_str(), "wb"));
  if (out == nullptr) {
    qm::logError("QMXmlC::Save(): failed to open:", file != nullptr ? file : "null");
    return QMErrors::FailedToOpenFile;
  }
  qm::FileBuffer buffer(out.get());
  std::ostream os(&buffer);
  QMErrors::QMErrorT result = ToStream(os, 0);
  const bool written = flushToDisk(out.get());
  const bool closed = std::fclose(out.release()) == 0;
  if (result == QMErrors::NoError &&
      (!written || !closed || !replaceFile(temporary.c_str(), file))) {
    result = QMErrors::FailedToWriteXMLObject;
  }
  if (result != QMErrors::NoError) {
    deleteFile(temporary.c_str());
    qm::logError("QMXmlC::Save(): failed for file:", file);
  }
  return result;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

std::ostream& operator<<(std::ostream& os, const QMXmlC& node) {
  (void)node.ToStream(os, 0);
  return os;
}

std::istream& operator>>(std::istream& is, QMXmlC& node) {
  if (node.FromStream(is) != QMErrors::NoError) is.setstate(std::ios::failbit);
  return is;
}

QMLogStreamC& operator<<(QMLogStreamC& log, const QMXmlC& node) {
  if (!log.IsValidDebugLevel()) return log;
  if (std::ostream* os = log.GetOstream()) (void)node.ToStream(*os, 0);
  return log;
}
