// Finds the data lines of a history, block by block and without looking at each character. Internal
// to the library.
//
// A data line has '/' as its third character and is not the first line. LF and CR both end a line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace qm {

constexpr bool isLineEnd(char c) noexcept { return c == '\n' || c == '\r'; }

class DataLineScanner {
 public:
  /// Calls visit(position of the line's first character in the whole text) when it has seen the
  /// third character of a data line; ends early, giving false, when that gives false. Blocks follow
  /// each other without a gap.
  template <class Visit>
  bool scan(std::string_view block, const Visit& visit) {
    const char* const end = block.data() + block.size();
    const char* next = block.data();
    LineEnds lineEnds(next, end);
    while (next != end) {
      if (column_ < kMark) {
        const char c = *next++;
        if (isLineEnd(c)) {
          beginLine();
        } else if (++column_ == kMark && c == '/' && !firstLine_ &&
                   !visit(position_ + static_cast<std::uint64_t>(next - block.data()) - kMark)) {
          return false;
        }
      } else {
        next = lineEnds.from(next);
        if (next == end) break;
        ++next;
        beginLine();
      }
    }
    position_ += block.size();
    return true;
  }

 private:
  /// The next line end from a place that only moves on; each character is looked at twice at most,
  /// whichever line ends the text has.
  class LineEnds {
   public:
    LineEnds(const char* begin, const char* end) : end_(end), lf_(begin), cr_(begin) {
      lf_ = find('\n', begin);
      cr_ = find('\r', begin);
    }
    const char* from(const char* place) {
      if (lf_ < place) lf_ = find('\n', place);
      if (cr_ < place) cr_ = find('\r', place);
      return lf_ < cr_ ? lf_ : cr_;
    }

   private:
    const char* find(char c, const char* place) const {
      const void* found = std::memchr(place, c, static_cast<std::size_t>(end_ - place));
      return found != nullptr ? static_cast<const char*>(found) : end_;
    }

    const char* end_;
    const char* lf_;
    const char* cr_;
  };

  static constexpr unsigned kMark = 3;

  void beginLine() {
    column_ = 0;
    firstLine_ = false;
  }

  std::uint64_t position_ = 0;  // of the next block
  unsigned column_ = 0;         // of the next character, as far as it matters
  bool firstLine_ = true;
};

}  // namespace qm
