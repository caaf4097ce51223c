// A stream buffer that holds only a few characters of its text ready at a time, as a pipe or a
// socket may, and cannot go back.
#pragma once

#include <algorithm>
#include <streambuf>
#include <string>
#include <utility>

namespace qmtest {

class PiecewiseBuffer : public std::streambuf {
 public:
  /// Without a buffer of its own when `piece` is 0.
  PiecewiseBuffer(std::string text, std::size_t piece) : text_(std::move(text)), piece_(piece) {}

  /// How many characters have not been taken yet.
  std::size_t left() const {
    return text_.size() - next_ + static_cast<std::size_t>(egptr() - gptr());
  }

 protected:
  int_type underflow() override {
    if (next_ == text_.size()) return traits_type::eof();
    if (piece_ != 0) {
      char* const begin = text_.data() + next_;
      next_ += std::min(piece_, text_.size() - next_);
      setg(begin, begin, text_.data() + next_);
      return traits_type::to_int_type(*begin);
    }
    return traits_type::to_int_type(text_[next_]);
  }
  int_type uflow() override {
    const int_type c = underflow();
    if (piece_ != 0 && c != traits_type::eof()) gbump(1);
    if (piece_ == 0 && c != traits_type::eof()) ++next_;
    return c;
  }

 private:
  std::string text_;
  std::size_t next_ = 0;  // the first character that was never held ready
  std::size_t piece_;
};

}  // namespace qmtest
