#include "qmutils/comms/QMMessageText.h"

#include <charconv>
#include <cstddef>
#include <cstring>

#include "qmutils/foundation/QMTextFile.h"

namespace qm {
namespace {

using QMErrors::QMErrorT;

constexpr char16_t kLastAscii = 127;
constexpr char kSeparator = ';';
constexpr std::size_t kSeparators = 5;
/// Texts are read through a buffer of this size, NUL included.
constexpr std::size_t kWorkSize = 1024;
constexpr std::size_t kLogTextSize = 256;

/// Fills a buffer from its start, always leaving room for one NUL.
class MessageWriter {
 public:
  MessageWriter(char* buffer, std::size_t size) noexcept : buffer_(buffer), size_(size) {
    std::memset(buffer, 0, size);
  }

  bool number(int value) noexcept {
    char digits[12];
    const char* end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return append(digits, static_cast<std::size_t>(end - digits), true);
  }
  bool text(const char* text, bool separator) noexcept {
    return text == nullptr ? append("", 0, separator) : append(text, std::strlen(text), separator);
  }

 private:
  bool append(const char* text, std::size_t length, bool separator) noexcept {
    const std::size_t needed = length + (separator ? 1 : 0);
    if (position_ + needed >= size_) return false;
    std::memcpy(buffer_ + position_, text, length);
    position_ += length;
    if (separator) buffer_[position_++] = kSeparator;
    return true;
  }

  char* buffer_;
  std::size_t size_;
  std::size_t position_ = 0;
};

/// A text under work: NUL-terminated, with nothing but NULs behind it.
struct WorkText {
  char text[kWorkSize] = {};
  std::size_t length = 0;
  /// Where the string and the qualifier begin.
  std::size_t string = 0;
  std::size_t qualifier = 0;

  QMErrorT load(const char* from, std::size_t wideLimit) noexcept;
  void split() noexcept;

 private:
  QMErrorT loadWide(const char* bytes, std::size_t limit) noexcept;
};

QMErrorT WorkText::load(const char* from, std::size_t wideLimit) noexcept {
  const auto first = static_cast<unsigned char>(from[0]);
  const auto second = first == 0 ? 0 : static_cast<unsigned char>(from[1]);
  if (first == 0xFE && second == 0xFF) return QMErrors::ReverseByteOrderMarkUnsupported;
  if (first == 0xFF && second == 0xFE) return loadWide(from + 2, wideLimit);
  length = ::strnlen(from, kWorkSize);
  if (length == kWorkSize) return QMErrors::BufferTooSmall;
  std::memcpy(text, from, length);
  return QMErrors::NoError;
}

/// The text behind the mark may lie at an odd address, so its units are put together from bytes.
QMErrorT WorkText::loadWide(const char* bytes, std::size_t limit) noexcept {
  char16_t units[kWorkSize + 1];
  std::size_t count = 0;
  for (;; ++count, bytes += 2) {
    if (count == kWorkSize) return QMErrors::BufferTooSmall;
    units[count] = static_cast<char16_t>(static_cast<unsigned char>(bytes[0]) |
                                         static_cast<unsigned char>(bytes[1]) << 8);
    if (units[count] == 0) break;
    if (units[count] > kLastAscii) {
      // It decides the result, and no NUL need lie behind it: a text of the pool ends with one
      // byte.
      units[count + 1] = 0;
      break;
    }
  }
  // Limited by the caller's string buffer, although the whole message is converted: installed
  // programs size that buffer for the message.
  const QMErrorT code = WsToAscii(text, units, limit < kWorkSize - 1 ? limit : kWorkSize - 1);
  length = std::strlen(text);
  return code;
}

/// Blanks the first five separators and finds the two texts behind the last two of them.
void WorkText::split() noexcept {
  // What a text with fewer separators gets instead.
  string = qualifier = length == 0 ? 0 : static_cast<unsigned char>(text[length - 1]);
  char* at = text;
  for (std::size_t found = 1; found <= kSeparators; ++found) {
    at = static_cast<char*>(
        std::memchr(at, kSeparator, static_cast<std::size_t>(text + length - at)));
    if (at == nullptr) return;
    *at++ = ' ';
    if (found == kSeparators - 1) string = static_cast<std::size_t>(at - text);
    if (found == kSeparators) qualifier = static_cast<std::size_t>(at - text);
  }
}

bool isBlank(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

/// Reads the next decimal number and moves behind it. False, and no further number can be read,
/// when there is none.
bool readNumber(const char** at, int* value) noexcept {
  const char* p = *at;
  while (isBlank(*p)) ++p;
  const bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  if (*p < '0' || *p > '9') return false;
  std::uint32_t number = 0;
  for (; *p >= '0' && *p <= '9'; ++p) number = number * 10 + static_cast<std::uint32_t>(*p - '0');
  *value = static_cast<int>(negative ? 0u - number : number);
  *at = p;
  return true;
}

QMErrorT copyText(const char* from, char* to, std::size_t size) noexcept {
  const std::size_t length = std::strlen(from);
  if (to == nullptr || length >= size) return QMErrors::BufferTooSmall;
  std::memcpy(to, from, length + 1);
  return QMErrors::NoError;
}

template <class Number>
void store(Number* to, int value) noexcept {
  if (to != nullptr) *to = static_cast<Number>(value);
}

}  // namespace
}  // namespace qm

QMErrors::QMErrorT QMCreateMessage(int type, int code, unsigned short id, int val,
                                   const char* string, const char* qualifier, char* buffer,
                                   unsigned short bufferSize) {
  if (buffer == nullptr || bufferSize == 0) return QMErrors::BufferTooSmall;
  qm::MessageWriter writer(buffer, bufferSize);
  if (!writer.number(type) || !writer.number(code) || !writer.number(id) || !writer.number(val)) {
    return QMErrors::BufferTooSmall;
  }
  if (!writer.text(string, true) || !writer.text(qualifier, false)) {
    return QMErrors::BufferHasOverflowed;
  }
  return QMErrors::NoError;
}

QMErrors::QMErrorT QMCreateMessageFromPacket(const QMErrors::QMMessagePacketT& packet, char* buffer,
                                             unsigned short bufferSize) {
  return QMCreateMessage(packet.nType, packet.nCode, packet.nID, packet.nVal, packet.pString,
                         packet.pQualifier, buffer, bufferSize);
}

QMErrors::QMErrorT QMExtractMessage(const char* text, int* type, int* code, unsigned short* id,
                                    int* val, char* string, unsigned short stringSize,
                                    char* qualifier, unsigned short qualifierSize) {
  qm::WorkText work;
  const QMErrors::QMErrorT loaded = work.load(text == nullptr ? "" : text, stringSize);
  if (loaded != QMErrors::NoError) return loaded;
  work.split();

  // The numbers are read through the blanked separators, so a missing one lets the next take its
  // place, as every reader of these texts does.
  int numbers[4] = {};
  const char* at = work.text;
  for (int& number : numbers) {
    if (!qm::readNumber(&at, &number)) break;
  }
  qm::store(type, numbers[0]);
  qm::store(code, numbers[1]);
  qm::store(id, numbers[2]);
  qm::store(val, numbers[3]);

  if (work.qualifier > 0) work.text[work.qualifier - 1] = '\0';
  const QMErrors::QMErrorT copied = qm::copyText(work.text + work.string, string, stringSize);
  if (copied != QMErrors::NoError) return copied;
  return qm::copyText(work.text + work.qualifier, qualifier, qualifierSize);
}

QMErrors::QMErrorT QMExtractMessagePacket(const char* text, QMErrors::QMMessagePacketT& packet) {
  return QMExtractMessage(text, &packet.nType, &packet.nCode, &packet.nID, &packet.nVal,
                          packet.pString, packet.nStringSize, packet.pQualifier,
                          packet.nQualifierSize);
}

QMErrors::QMErrorT QMGetMagic(const void*, std::uint32_t* record) {
  if (record == nullptr) return QMErrors::NullObjectProvided;
  record[0] = 0x21122004u;
  record[1] = 0;
  return QMErrors::NoError;
}

QMLogStreamC& operator<<(QMLogStreamC& log, const QMErrors::QMMessagePacketT& packet) {
  if (!log.IsValidDebugLevel()) return log;
  char text[qm::kLogTextSize];
  const QMErrors::QMErrorT code = QMCreateMessageFromPacket(packet, text, sizeof text);
  return log << (code == QMErrors::NoError ? text : "Could not create message from packet");
}
