#include "qmutils/foundation/QMTextFile.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "qmutils/foundation/TextFileFormat.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/unicode_text.h"

namespace {

using QMErrors::QMErrorT;

constexpr unsigned char kLittleEndianMark[] = {0xFF, 0xFE};
constexpr unsigned char kBigEndianMark[] = {0xFE, 0xFF};

template <class T>
std::unique_ptr<T[]> zeroed(std::size_t count) noexcept {
  return std::unique_ptr<T[]>(new (std::nothrow) T[count]());
}

/// Appending streams cannot read, so a stream of its own looks for the mark.
int markOfNamedFile(const char* path) noexcept {
  const qm::platform::FilePtr file(qm::platform::openFile(path, "rb"));
  return FileIsUnicode(file.get());
}

/// Removes the last line feed and what follows it, and a carriage return before it.
void cutLineEnd(char* line) noexcept {
  char* end = std::strrchr(line, '\n');
  if (end == nullptr) return;
  if (end != line && end[-1] == '\r') --end;
  *end = '\0';
}

/// Decodes 16-bit units from bytes up to a zero unit, and writes them as UTF-8: at most size - 1
/// bytes, no character cut.
void decodeUnits(const unsigned char* bytes, std::size_t count, char* dest, std::size_t size) {
  qm::platform::Utf8Encoder encoder;
  std::size_t used = 0;
  const auto put = [&](std::string_view text) {
    if (used + text.size() >= size) return false;
    std::memcpy(dest + used, text.data(), text.size());
    used += text.size();
    return true;
  };
  bool hasRoom = true;
  for (std::size_t i = 0; hasRoom && i + 1 < count; i += 2) {
    const auto unit = static_cast<char16_t>(bytes[i] | bytes[i + 1] << 8);
    if (unit == 0) break;
    hasRoom = put(encoder.add(unit));
  }
  if (hasRoom) put(encoder.finish());
  dest[used] = '\0';
}

char* getUnicodeLine(char* dest, int size, std::FILE* file) noexcept {
  const auto room = static_cast<std::size_t>(size);
  const std::unique_ptr<char[]> bytes = zeroed<char>(2 * room);
  // Bytes, not units: callers count on where the next read starts.
  if (bytes == nullptr || std::fgets(bytes.get(), size, file) == nullptr) return nullptr;
  decodeUnits(reinterpret_cast<const unsigned char*>(bytes.get()), 2 * room, dest, room);
  return dest;
}

int writeUnits(std::FILE* file, std::string_view text, std::size_t size) noexcept {
  const std::unique_ptr<char16_t[]> units = zeroed<char16_t>(size);
  const std::unique_ptr<unsigned char[]> bytes = zeroed<unsigned char>(2 * size);
  if (units == nullptr || bytes == nullptr) return -1;
  const std::size_t count = qm::platform::utf16FromUtf8(text, units.get(), size);
  for (std::size_t i = 0; i < count; ++i) {
    bytes[2 * i] = static_cast<unsigned char>(units[i]);
    bytes[2 * i + 1] = static_cast<unsigned char>(units[i] >> 8);
  }
  return static_cast<int>(std::fwrite(bytes.get(), 2, count, file));
}

int writeBytes(std::FILE* file, char* text) noexcept {
  const std::size_t length = qm::collapseFormatted(text);
  return std::fwrite(text, 1, length, file) == length ? static_cast<int>(length) : -1;
}

char lowered(char c) noexcept {
  return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

}  // namespace

std::FILE* FOpen(const char* path, const char* mode, int* unicode) {
  if (mode == nullptr) return nullptr;
  qm::platform::FilePtr file(qm::platform::openFile(path, mode));
  if (file == nullptr) return nullptr;
  if (std::strchr(mode, 'w') != nullptr) {
    const bool wantsMark = unicode != nullptr && *unicode == 1;
    if (wantsMark && std::fwrite(kLittleEndianMark, 1, 2, file.get()) != 2) return nullptr;
    return file.release();
  }
  const int mark =
      std::strchr(mode, 'a') != nullptr ? markOfNamedFile(path) : FileIsUnicode(file.get());
  if (unicode != nullptr) *unicode = mark > 0 ? 1 : 0;
  if (mark != 0 && std::fseek(file.get(), 2, SEEK_SET) != 0) return nullptr;
  return file.release();
}

int FileIsUnicode(std::FILE* file) {
  if (file == nullptr) return 0;
  const long position = std::ftell(file);
  if (position < 0) return 0;
  unsigned char start[2] = {};
  const bool hasRead = std::fseek(file, 0, SEEK_SET) == 0 &&
                       std::fread(start, 1, sizeof start, file) == sizeof start;
  std::fseek(file, position, SEEK_SET);
  if (!hasRead) return 0;
  if (std::memcmp(start, kLittleEndianMark, sizeof start) == 0) return 1;
  return std::memcmp(start, kBigEndianMark, sizeof start) == 0 ? -1 : 0;
}

char* FGets(char* dest, int size, std::FILE* file, int unicode) {
  if (dest == nullptr || size < 1 || file == nullptr) return nullptr;
  char* line = unicode == 1 ? getUnicodeLine(dest, size, file) : std::fgets(dest, size, file);
  if (line != nullptr) cutLineEnd(dest);
  return line;
}

int FPrint(std::FILE* file, int unicode, int size, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int written = vFPrint(file, unicode, size, format, arguments);
  va_end(arguments);
  return written;
}

int vFPrint(std::FILE* file, int unicode, int size, const char* format, std::va_list arguments) {
  if (file == nullptr || size < 1 || format == nullptr) return -1;
  const auto room = static_cast<std::size_t>(size);
  const std::unique_ptr<char[]> text = zeroed<char>(room);
  if (text == nullptr || std::vsnprintf(text.get(), room, format, arguments) < 0) return -1;
  return unicode == 1 ? writeUnits(file, text.get(), room) : writeBytes(file, text.get());
}

QMErrorT TchrToAscii(char* dest, const char* src, std::size_t length) {
  if (dest == nullptr) return QMErrors::NullObjectProvided;
  const std::string_view text = src != nullptr ? src : "";
  const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 128; };
  if (!std::ranges::all_of(text, isAscii)) return QMErrors::ErrorNameIsNotASCII;
  const std::size_t copied = std::min(text.size(), length);
  std::memcpy(dest, text.data(), copied);
  std::memset(dest + copied, 0, length - copied);
  return QMErrors::NoError;
}

QMErrorT WsToAscii(char* dest, const char16_t* src, std::size_t length) {
  if (dest == nullptr) return QMErrors::NullObjectProvided;
  const std::u16string_view text = src != nullptr ? src : u"";
  const auto end = std::ranges::find_if(text, [](char16_t unit) { return unit >= 128; });
  const auto ascii = static_cast<std::size_t>(end - text.begin());
  const std::size_t copied = std::min(ascii, length);
  for (std::size_t i = 0; i < copied; ++i) dest[i] = static_cast<char>(text[i]);
  if (copied < length) dest[copied] = '\0';
  return ascii == text.size() ? QMErrors::NoError : QMErrors::ErrorNameIsNotASCII;
}

const char* UiStrStr(const char* text, const char* pattern) {
  if (text == nullptr || pattern == nullptr || *pattern == '\0') return nullptr;
  for (; *text != '\0'; ++text) {
    const char* at = text;
    const char* wanted = pattern;
    while (*wanted != '\0' && *at != '\0' && lowered(*at) == lowered(*wanted)) {
      ++at;
      ++wanted;
    }
    if (*wanted == '\0') return text;
    if (*at == '\0') return nullptr;  // the rest is shorter than the pattern
  }
  return nullptr;
}
