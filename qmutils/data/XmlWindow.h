// The stretch of a stream that stands in front of the XML reader, with quick ways to take runs of
// characters from it, and with the place in the text for reports. Internal to the data floor.
//
// The window has a fixed size, however large the document is. It shows what the stream has buffered
// already, but takes it from the stream only as far as the reader has gone: a stream cannot always
// take back what is too much, and the next element belongs to somebody else.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <istream>
#include <memory>
#include <streambuf>
#include <string>
#include <string_view>

namespace qm {

/// A place in a text: line from 1, characters before it in that line.
struct XmlPlace {
  unsigned long long line = 1;
  unsigned long long offset = 0;

  /// Moves behind `text`, which stands here.
  void advance(std::string_view text);
};

/// A set of characters with a quick answer.
class XmlCharacters {
 public:
  constexpr explicit XmlCharacters(std::string_view members) {
    for (char c : members) contains_[static_cast<unsigned char>(c)] = true;
  }
  constexpr bool contains(char c) const { return contains_[static_cast<unsigned char>(c)]; }

 private:
  std::array<bool, 256> contains_{};
};

class XmlWindow {
 public:
  static constexpr int kEnd = -1;  // of the data
  static constexpr std::size_t kSize = 16 * 1024;

  explicit XmlWindow(std::istream& is) : is_(is), stream_(is.rdbuf()) {}
  XmlWindow(const XmlWindow&) = delete;
  XmlWindow& operator=(const XmlWindow&) = delete;

  /// First of all. False when the stream is not fit to be read. May throw bad_alloc and, like
  /// everything that asks the stream for characters, what the stream throws.
  bool open();
  /// Last of all: leaves the stream behind the last character taken, at its end if the reader met
  /// that. False when the stream failed or threw at it.
  bool close() noexcept;
  /// Turns the stream bad.
  void markBad() noexcept;
  /// Where the stream was left, counted from its beginning if it can go back there, else from
  /// where the window was opened. Only after close().
  XmlPlace place();

  /// The next character, or kEnd.
  int peek() { return at_ != end_ || fill() ? static_cast<unsigned char>(*at_) : kEnd; }
  int take() {
    const int c = peek();
    if (c != kEnd) ++at_;
    return c;
  }
  /// Looks no further than to the first character that differs. At most kSize characters.
  bool startsWith(std::string_view text);
  /// Passes characters that were looked at.
  void skip(std::size_t count) { at_ += count; }

  /// Take or skip up to the first such character, or to the end of the data.
  void takeUntil(char stop, std::string* to) { run(UntilOne{stop}, to); }
  void takeUntil(const XmlCharacters& stops, std::string* to) { run(UntilAny{stops}, to); }
  void skipUntil(char stop) { run(UntilOne{stop}, nullptr); }
  void skipAll(const XmlCharacters& members) { run(WhileAny{members}, nullptr); }

 private:
  struct UntilOne {
    char stop;
    const char* operator()(const char* at, const char* end) const {
      const void* found = std::memchr(at, stop, static_cast<std::size_t>(end - at));
      return found != nullptr ? static_cast<const char*>(found) : end;
    }
  };
  struct UntilAny {
    const XmlCharacters& stops;
    const char* operator()(const char* at, const char* end) const {
      while (at != end && !stops.contains(*at)) ++at;
      return at;
    }
  };
  struct WhileAny {
    const XmlCharacters& members;
    const char* operator()(const char* at, const char* end) const {
      while (at != end && members.contains(*at)) ++at;
      return at;
    }
  };

  /// Takes window by window what stands before the end that `find` gives.
  template <class Find>
  void run(Find find, std::string* to) {
    do {
      const char* const stop = find(at_, end_);
      if (to != nullptr) to->append(at_, stop);
      at_ = stop;
    } while (at_ == end_ && fill());
  }
  /// Shows more characters behind those not taken yet; false at the end of the data.
  bool fill();
  /// Takes the first `count` of the characters that are shown but still stand in the stream.
  void takeFromStream(std::size_t count);
  XmlPlace placeOfStart();
  void setState(std::ios::iostate state) noexcept;

  std::istream& is_;
  std::streambuf* stream_;
  std::streamoff start_ = -1;  // in the stream; -1 when it cannot tell
  XmlPlace passed_;            // of buffer_'s beginning, counted from start_
  // Not on the stack, which may be small. Nor would a smaller piece do: asking for this much makes
  // common allocators join what freed trees left behind, and a large tree is built twice as fast.
  std::unique_ptr<char[]> buffer_;
  const char* at_ = nullptr;
  char* end_ = nullptr;
  std::size_t shown_ = 0;  // characters before end_ that are still in the stream
  bool ended_ = false;
};

}  // namespace qm
