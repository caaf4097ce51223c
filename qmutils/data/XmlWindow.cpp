#include "qmutils/data/XmlWindow.h"

#include <algorithm>

namespace qm {

namespace {

/// What a stream buffer holds ready; looking at it takes nothing from the stream. Derived classes
/// only may name these members, so this is one by name, and never made.
struct GetArea : std::streambuf {
  static std::string_view of(const std::streambuf& stream) {
    return {(stream.*&GetArea::gptr)(), (stream.*&GetArea::egptr)()};
  }
  static void pass(std::streambuf& stream, std::size_t count) {
    (stream.*&GetArea::gbump)(static_cast<int>(count));
  }
};

}  // namespace

void XmlPlace::advance(std::string_view text) {
  for (std::size_t at; (at = text.find('\n')) != text.npos; text.remove_prefix(at + 1)) {
    ++line;
    offset = 0;
  }
  offset += text.size();
}

bool XmlWindow::open() {
  buffer_ = std::make_unique_for_overwrite<char[]>(kSize);
  at_ = end_ = buffer_.get();
  if (stream_ != nullptr) start_ = stream_->pubseekoff(0, std::ios::cur, std::ios::in);
  return static_cast<bool>(std::istream::sentry(is_, true));
}

bool XmlWindow::close() noexcept try {
  const auto ahead = static_cast<std::size_t>(end_ - at_);
  if (shown_ > ahead) takeFromStream(shown_ - ahead);
  shown_ = 0;
  if (ended_) setState(std::ios::eofbit);
  return true;
} catch (...) {
  markBad();
  return false;
}

void XmlWindow::markBad() noexcept { setState(std::ios::badbit); }

void XmlWindow::setState(std::ios::iostate state) noexcept try {
  is_.setstate(state);
} catch (...) {
  // The stream is told to throw when it fails; the result tells it here.
}

bool XmlWindow::startsWith(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (static_cast<std::size_t>(end_ - at_) == i && !fill()) return false;
    if (at_[i] != text[i]) return false;
  }
  return true;
}

bool XmlWindow::fill() {
  char* const begin = buffer_.get();
  if (end_ == begin + kSize) {
    passed_.advance({begin, at_});
    const auto rest = static_cast<std::size_t>(end_ - at_);
    std::memmove(begin, at_, rest);
    at_ = begin;
    end_ = begin + rest;
  }
  takeFromStream(shown_);
  const int next = stream_->sgetc();
  ended_ = next == std::char_traits<char>::eof();
  if (ended_) return false;
  const std::string_view ready =
      GetArea::of(*stream_).substr(0, static_cast<std::size_t>(begin + kSize - end_));
  if (ready.empty()) {
    *end_ = static_cast<char>(next);  // a stream without a buffer
  } else {
    std::memcpy(end_, ready.data(), ready.size());
  }
  shown_ = std::max<std::size_t>(ready.size(), 1);
  end_ += shown_;
  return true;
}

void XmlWindow::takeFromStream(std::size_t count) {
  shown_ -= count;
  if (GetArea::of(*stream_).size() >= count) {
    GetArea::pass(*stream_, count);
  } else {
    stream_->sbumpc();
  }
}

XmlPlace XmlWindow::place() {
  XmlPlace place = placeOfStart();
  if (passed_.line > 1) place.offset = 0;
  place.line += passed_.line - 1;
  place.offset += passed_.offset;
  place.advance({buffer_.get(), at_});
  return place;
}

XmlPlace XmlWindow::placeOfStart() {
  XmlPlace place;
  if (start_ <= 0) return place;  // at the beginning already, or no way back
  const std::streamoff here = stream_->pubseekoff(0, std::ios::cur, std::ios::in);
  if (here < 0 || stream_->pubseekpos(0, std::ios::in) != std::streampos(0)) return place;
  char block[1024];
  for (std::streamoff left = start_; left > 0;) {
    const std::streamsize got = stream_->sgetn(block, std::min<std::streamoff>(left, sizeof block));
    if (got <= 0) break;  // positions that do not count characters
    place.advance({block, static_cast<std::size_t>(got)});
    left -= got;
  }
  stream_->pubseekpos(here, std::ios::in);
  return place;
}

}  // namespace qm
