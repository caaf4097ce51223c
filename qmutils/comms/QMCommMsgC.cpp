#include "qmutils/comms/QMCommMsgC.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "qmutils/comms/QMMessageText.h"
#include "qmutils/foundation/LogLine.h"

namespace {

using QMErrors::QMErrorT;

/// What the pool carries in one message.
constexpr std::size_t kQ2TextSize = 256;
constexpr std::size_t kQ2PartSize = 2048;
constexpr int kEndMark = 0xFF;

}  // namespace

QMCommMsgC::QMCommMsgC(bool bXML) noexcept : m_bXMLFormat(bXML ? 1 : 0) {}

QMCommMsgC::QMCommMsgC(const QMCommMsgC& other) noexcept = default;

QMCommMsgC::~QMCommMsgC() = default;

QMCommMsgC& QMCommMsgC::operator=(const QMCommMsgC& other) {
  Clone(other);
  return *this;
}

void QMCommMsgC::Clear() noexcept {
  m_pString = {};
  m_pQualifier = {};
  m_nStringLen = 0;
  m_nQualifierLen = 0;
  m_LastError = QMErrors::NoError;
}

int QMCommMsgC::SetFormat(int bXML) const noexcept { return std::exchange(m_bXMLFormat, bXML); }

QMErrorT QMCommMsgC::SetMessageString(const char* text) noexcept {
  return DuplicateString(text, &m_pString, &m_nStringLen);
}

QMErrorT QMCommMsgC::SetQualifierString(const char* text) noexcept {
  return DuplicateString(text, &m_pQualifier, &m_nQualifierLen);
}

/// The source may be the target's own text.
QMErrorT QMCommMsgC::DuplicateString(const char* source, qm::SharedText* target,
                                     std::uint16_t* length) noexcept {
  const qm::SharedText former = std::exchange(*target, {});
  *length = 0;
  if (source == nullptr || *source == '\0') return QMErrors::NoError;
  return StoreText(source, target, length);
}

/// Stores a copy, also of an empty text.
QMErrorT QMCommMsgC::StoreText(const char* source, qm::SharedText* target,
                               std::uint16_t* length) noexcept {
  std::optional<qm::SharedText> copy = qm::SharedText::copyOf(std::string_view(source));
  if (!copy) return QMErrors::MemoryAllocationFailed;
  *target = std::move(*copy);
  *length = static_cast<std::uint16_t>(std::min<std::size_t>(std::strlen(source) + 1, UINT16_MAX));
  return QMErrors::NoError;
}

QMErrorT QMCommMsgC::Clone(const QMCommMsgC& other) {
  if (&other == this) return QMErrors::NoError;
  m_Type = other.m_Type;
  m_Code = other.m_Code;
  m_ID = other.m_ID;
  m_Val = other.m_Val;
  m_bXMLFormat = other.m_bXMLFormat;
  m_LastError = other.m_LastError;
  const QMErrorT string = SetMessageString(other.GetMessageString());
  const QMErrorT qualifier = SetQualifierString(other.GetQualifierString());
  const QMErrorT code = string != QMErrors::NoError ? string : qualifier;
  if (code != QMErrors::NoError) {
    qm::logError("QMCommMsgC::Clone(): failed - ", QMErrToStr(code));
  }
  return code;
}

QMErrorT QMCommMsgC::ToString(std::ostream& os, int bNoTerminator) const {
  m_LastError = m_bXMLFormat != 0 ? ToXMLString(os) : ToQ2String(os);
  if (bNoTerminator == 0) os << std::ends;
  return m_LastError;
}

QMErrorT QMCommMsgC::FromString(std::istream& is) {
  return m_bXMLFormat != 0 ? FromXMLString(is) : FromQ2String(is);
}

QMErrorT QMCommMsgC::ToQ2String(std::ostream& os) const {
  char text[kQ2TextSize];
  m_LastError = QMCreateMessage(m_Type, m_Code, m_ID, m_Val, GetMessageString(),
                                GetQualifierString(), text, sizeof text);
  if (m_LastError == QMErrors::NoError) os << text;
  return m_LastError;
}

QMErrorT QMCommMsgC::FromQ2String(std::istream& is) {
  constexpr int kEndOfStream = std::istream::traits_type::eof();
  char string[kQ2PartSize] = "";
  char qualifier[kQ2PartSize] = "";
  try {
    std::string text;
    // Peeked first, so that the end of the stream is met without failing it.
    while (is.peek() != kEndOfStream) {
      const int c = is.get();
      if (c == kEndMark) break;
      text += static_cast<char>(c);
    }
    m_LastError = QMExtractMessage(text.c_str(), &m_Type, &m_Code, &m_ID, &m_Val, string,
                                   sizeof string, qualifier, sizeof qualifier);
  } catch (const std::bad_alloc&) {
    m_LastError = QMErrors::MemoryAllocationFailed;
  }
  if (m_LastError != QMErrors::NoError) string[0] = qualifier[0] = '\0';
  const QMErrorT stored = std::max(SetMessageString(string), SetQualifierString(qualifier));
  if (m_LastError == QMErrors::NoError) m_LastError = stored;
  return m_LastError;
}

std::ostream& operator<<(std::ostream& os, const QMCommMsgC& message) {
  message.ToString(os, 1);
  return os;
}

std::istream& operator>>(std::istream& is, QMCommMsgC& message) {
  message.FromString(is);
  return is;
}
