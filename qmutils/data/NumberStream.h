// Streams over a fixed place in memory and locales by name, for converting one number at a time.
// Internal to the library.
#pragma once

#include <ios>
#include <streambuf>
#include <string_view>

namespace qm {

/// Imbues the stream with the locale of that name, all categories: "" is the environment's, an
/// unknown one counts as "C". Locales are remembered, as making one costs more than a conversion;
/// so each name means for ever what it meant at first. False without memory: the stream is bad
/// then. Any thread may call it.
bool setLocale(std::ios& stream, const char* name) noexcept;

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
