// Streams over a fixed place in memory and locales by name, for converting one number at a time
// without allocations. Internal to the data floor.
#pragma once

#include <ios>
#include <locale>
#include <streambuf>
#include <string_view>

namespace qm {

/// The locale of that name, all categories; "" is the environment's, an unknown one is "C". They
/// are remembered, as making one costs more than a conversion, so "" stays what it was at first.
/// Any thread may call it.
std::locale localeOfName(const char* name) noexcept;
/// Imbues the stream with it.
void setLocale(std::ios& stream, const char* name);

/// Collects a short text. It takes no more than its buffer holds: the stream then fails.
template <std::size_t Size>
class ShortTextBuffer : public std::streambuf {
 public:
  ShortTextBuffer() { setp(text_, text_ + Size); }
  std::string_view text() const { return {pbase(), static_cast<std::size_t>(pptr() - pbase())}; }

 private:
  char text_[Size];
};

/// Reads a text where it stands.
class TextViewBuffer : public std::streambuf {
 public:
  explicit TextViewBuffer(std::string_view text) {
    // Stream buffers take no const characters; nothing writes through a get area.
    char* const begin = const_cast<char*>(text.data());
    setg(begin, begin, begin + text.size());
  }
};

}  // namespace qm
