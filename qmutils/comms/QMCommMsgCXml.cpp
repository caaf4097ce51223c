// The XML form of QMCommMsgC: one element, the numbers and texts in its attributes.

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "qmutils/comms/QMCommMsgC.h"
#include "qmutils/foundation/LogLine.h"

namespace {

using QMErrors::QMErrorT;

constexpr const char* kElementName = "QMCommMsgC";
constexpr const char* kLogLabel = "QMCommMsgC::FromString(): ";
constexpr int kEndOfStream = std::istream::traits_type::eof();

constexpr const char* kWhileReadingObjectName =
    "unexpected object termination while reading object name: ";
constexpr const char* kWhileReadingName =
    "unexpected object termination while reading parameter name: ";
constexpr const char* kWhileSeekingValue =
    "unexpected object termination while seeking parameter value.";
constexpr const char* kWhileReadingValue =
    "unexpected object termination while reading parameter value: ";

void writeAttributeName(std::ostream& os, const char* name) { os << ' ' << name << "=\""; }

/// Independent of the stream's flags: readers know lower-case hexadecimal without prefix only.
void writeHex(std::ostream& os, const char* name, std::uint32_t value) {
  char digits[8];
  const char* end = std::to_chars(digits, digits + sizeof digits, value, 16).ptr;
  writeAttributeName(os, name);
  os.write(digits, end - digits);
  os.put('"');
}

/// What a byte becomes in an attribute when it does not stand for itself.
const char* entityOf(char c) {
  switch (c) {
    case '"':
      return "&quot;";
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    default:
      return nullptr;
  }
}

bool isLetter(int c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(int c) { return c >= '0' && c <= '9'; }

enum class Entity { Decoded, InputEnded, Bad };

/// Behind "&#": decimal digits and a semicolon.
Entity decodeNumber(std::istream& in, char* character) {
  constexpr unsigned kLimit = 65'536;
  unsigned value = 0;
  for (;;) {
    const int c = in.get();
    if (c == kEndOfStream) return Entity::InputEnded;
    if (c == ';') break;
    if (!isDigit(c)) return Entity::Bad;
    value = std::min(value * 10 + static_cast<unsigned>(c - '0'), kLimit);
  }
  if (value >= kLimit) return Entity::Bad;
  *character = static_cast<char>(value);
  return Entity::Decoded;
}

/// Behind "&", whose first following character is `c`: up to four letters and a semicolon. "gt" is
/// not among the names: installed programs refuse a text that holds ">", and so must every reader.
Entity decodeName(std::istream& in, int c, char* character) {
  constexpr std::size_t kLongestName = 4;
  char name[kLongestName + 1] = "";
  for (std::size_t length = 0; c != ';'; c = in.get()) {
    if (c == kEndOfStream) return Entity::InputEnded;
    if (!isLetter(c) || length == kLongestName) return Entity::Bad;
    name[length++] = static_cast<char>(c);
  }
  if (std::strcmp(name, "quot") == 0) {
    *character = '"';
  } else if (std::strcmp(name, "amp") == 0) {
    *character = '&';
  } else if (std::strcmp(name, "lt") == 0) {
    *character = '<';
  } else {
    return Entity::Bad;
  }
  return Entity::Decoded;
}

/// A hexadecimal number; `former` when there is none. Only its low 32 bits count.
std::uint32_t hexOr(const char* text, std::uint32_t former) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 16);
  return end == text ? former : static_cast<std::uint32_t>(value);
}

/// A decimal number, 0 when there is none.
std::int32_t decimal(const char* text) {
  const long long value = std::strtoll(text, nullptr, 10);
  return static_cast<std::int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

}  // namespace

QMErrorT QMCommMsgC::ToXMLString(std::ostream& os) const {
  os << '<' << kElementName;
  writeHex(os, "m_Type", static_cast<std::uint32_t>(m_Type));
  writeHex(os, "m_Code", static_cast<std::uint32_t>(m_Code));
  writeHex(os, "m_ID", m_ID);
  writeHex(os, "m_Val", static_cast<std::uint32_t>(m_Val));
  writeAttributeName(os, "m_pString");
  ToXMLAttribute(os, m_pString.orEmpty());
  os << '"';
  writeAttributeName(os, "m_pQualifier");
  ToXMLAttribute(os, m_pQualifier.orEmpty());
  os << "\" />";
  return QMErrors::NoError;
}

void QMCommMsgC::ToXMLAttribute(std::ostream& os, const char* text) const {
  // Callers find the stream in decimal afterwards.
  os << std::dec;
  for (; *text != '\0'; ++text) {
    const char c = *text;
    if (const char* entity = entityOf(c)) {
      os << entity;
    } else if (c >= 0x20 && c <= 0x7E) {
      os.put(c);
    } else {
      // The byte as a signed character in 16 bits: 0xE9 is 65513. Readers take the low 8 bits.
      const auto number = static_cast<std::uint16_t>(static_cast<signed char>(c));
      char digits[5];
      const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
      os << "&#";
      os.write(digits, end - digits);
      os.put(';');
    }
  }
}

int QMCommMsgC::isXMLwhite(char c) noexcept {
  return c == '\t' || c == ' ' || c == '\n' || c == '\r' ? 1 : 0;
}

void QMCommMsgC::eatXMLwhite(std::istream& is) {
  for (int c = is.peek(); c != kEndOfStream && isXMLwhite(static_cast<char>(c)) != 0;
       c = is.peek()) {
    is.get();
  }
}

/// Reads the end mark if it comes next.
int QMCommMsgC::isXMLObjEnd(std::istream& is) {
  if (is.peek() != '/') return 0;
  is.get();
  if (is.peek() == '>') {
    is.get();
    return 1;
  }
  // The end of the stream behind the "/" is no failure yet.
  if (is.eof()) is.clear(is.rdstate() & ~(std::ios::eofbit | std::ios::failbit));
  is.unget();
  return 0;
}

QMErrorT QMCommMsgC::failReading(std::istream& is, QMErrorT code, const char* message,
                                 std::string_view readSoFar) const {
  qm::logError(kLogLabel, message, readSoFar);
  m_LastError = code;
  is.setstate(std::ios::failbit | std::ios::badbit);
  return code;
}

QMErrorT QMCommMsgC::FromXMLString(std::istream& is) {
  try {
    eatXMLwhite(is);
    for (int c = is.get(); c != '<' && c != kEndOfStream;) c = is.get();
    eatXMLwhite(is);
    std::string name;
    for (;;) {
      const bool ended = isXMLObjEnd(is) != 0;
      const int c = ended ? kEndOfStream : is.get();
      if (c == kEndOfStream) {
        return failReading(is, QMErrors::FailedToReadXMLObject, kWhileReadingObjectName, name);
      }
      if (isXMLwhite(static_cast<char>(c)) != 0) break;
      name += static_cast<char>(c);
    }
    if (name != kElementName) {
      return failReading(is, QMErrors::InvalidObjectName,
                         "Invalid comms object name, expected: \"QMCommMsgC\", read: \"",
                         name + '"');
    }
    m_LastError = FromXMLAttributes(is);
  } catch (const std::bad_alloc&) {
    m_LastError = QMErrors::MemoryAllocationFailed;
  }
  return m_LastError;
}

/// Reads attributes up to the end mark.
QMErrorT QMCommMsgC::FromXMLAttributes(std::istream& is) {
  for (;;) {
    eatXMLwhite(is);
    std::string name;
    for (;;) {
      if (isXMLObjEnd(is) != 0) {
        return failReading(is, QMErrors::FailedToReadXMLObject, kWhileReadingName, name);
      }
      const int c = is.get();
      if (c == kEndOfStream || c == '=' || isXMLwhite(static_cast<char>(c)) != 0) break;
      name += static_cast<char>(c);
    }
    for (int c = 0; c != '"';) {
      c = isXMLObjEnd(is) != 0 ? kEndOfStream : is.get();
      if (c == kEndOfStream) {
        return failReading(is, QMErrors::FailedToSeekInXMLObject, kWhileSeekingValue, "");
      }
    }
    QMstrstream raw;
    for (;;) {
      const int c = isXMLObjEnd(is) != 0 ? kEndOfStream : is.get();
      if (c == kEndOfStream) {
        return failReading(is, QMErrors::FailedToReadXMLObject, kWhileReadingValue, raw.text());
      }
      if (c == '"') break;
      raw.put(static_cast<char>(c));
    }
    QMstrstream value;
    if (!FromXMLAttribute(raw, value)) {
      return failReading(is, QMErrors::FailedToReadXMLObject, kWhileReadingValue, raw.text());
    }
    // A stream that could not grow has turned bad and holds only the beginning.
    if (raw.bad() || value.bad()) return QMErrors::MemoryAllocationFailed;
    const QMErrorT stored = StoreParameter(name.c_str(), std::string(value.text()).c_str());
    if (stored != QMErrors::NoError) return stored;
    eatXMLwhite(is);
    if (isXMLObjEnd(is) != 0) return QMErrors::NoError;
  }
}

bool QMCommMsgC::FromXMLAttribute(QMstrstream& in, QMstrstream& out) const {
  for (int c = in.get(); c != kEndOfStream; c = in.get()) {
    char character = static_cast<char>(c);
    if (c == '&') {
      const int next = in.get();
      const Entity entity =
          next == '#' ? decodeNumber(in, &character) : decodeName(in, next, &character);
      if (entity == Entity::Bad) return false;
      if (entity == Entity::InputEnded) return true;
    }
    out.put(character);
  }
  return true;
}

QMErrorT QMCommMsgC::StoreParameter(const char* name, const char* value) {
  const std::string_view parameter = name;
  if (parameter == "m_Type") {
    // Decimal, although it is written in hexadecimal: installed programs read it so.
    m_Type = decimal(value);
  } else if (parameter == "m_Code") {
    m_Code = static_cast<std::int32_t>(hexOr(value, static_cast<std::uint32_t>(m_Code)));
  } else if (parameter == "m_ID") {
    m_ID = static_cast<std::uint16_t>(hexOr(value, m_ID));
  } else if (parameter == "m_Val") {
    m_Val = static_cast<std::int32_t>(hexOr(value, static_cast<std::uint32_t>(m_Val)));
  } else if (parameter == "m_pString") {
    return StoreText(value, &m_pString, &m_nStringLen);
  } else if (parameter == "m_pQualifier") {
    return StoreText(value, &m_pQualifier, &m_nQualifierLen);
  } else {
    qm::logError("QMCommMsgC::StoreParameter(): ", "Invalid parameter:", name, " = ", value);
    return QMErrors::BadCommandLineArguments;
  }
  return QMErrors::NoError;
}
