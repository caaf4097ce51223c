#include "qmutils/data/XmlReader.h"

#include <memory>
#include <new>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMStringStream.h"

namespace qm {

using QMErrors::ErrorBadlyFormedXML;
using QMErrors::NoError;
using QMErrors::QMErrorT;

namespace {

constexpr int kEnd = std::char_traits<char>::eof();

bool isWhite(int c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isWhite(text.front())) text.remove_prefix(1);
  while (!text.empty() && isWhite(text.back())) text.remove_suffix(1);
  return text;
}

}  // namespace

XmlReader::XmlReader(std::istream& is, QMXmlC& root)
    : is_(is),
      buffer_(is.rdbuf()),
      root_(root),
      start_(buffer_ == nullptr
                 ? -1
                 : std::streamoff(buffer_->pubseekoff(0, std::ios::cur, std::ios::in))) {}

QMErrorT XmlReader::read() noexcept {
  QMErrorT result = ErrorBadlyFormedXML;
  try {
    const std::istream::sentry ready(is_, true);
    if (ready) result = readElements();
  } catch (const std::bad_alloc&) {
    result = QMErrors::MemoryAllocationFailed;
  } catch (...) {
    result = ErrorBadlyFormedXML;  // a stream that throws
  }
  try {
    if (result != NoError) report(result);
  } catch (...) {
    // No memory for the report, or a listener that throws: the result tells.
  }
  return result;
}

int XmlReader::peek() {
  return pushedBack_.empty() ? buffer_->sgetc() : static_cast<unsigned char>(pushedBack_.back());
}

int XmlReader::take() {
  int c;
  if (pushedBack_.empty()) {
    c = buffer_->sbumpc();
  } else {
    c = static_cast<unsigned char>(pushedBack_.back());
    pushedBack_.pop_back();
  }
  if (c == '\n') {
    ++line_;
    offset_ = 0;
  } else if (c != kEnd) {
    ++offset_;
  } else {
    is_.setstate(std::ios::eofbit);
  }
  return c;
}

/// Never a line feed.
void XmlReader::putBack(char c) {
  pushedBack_ += c;
  --offset_;
}

void XmlReader::skipWhite() {
  while (isWhite(peek())) take();
}

bool XmlReader::takeCommentStart() {
  constexpr std::string_view kStart = "<!--";
  std::size_t taken = 0;
  while (taken < kStart.size() && peek() == kStart[taken]) {
    take();
    ++taken;
  }
  if (taken == kStart.size()) return true;
  while (taken > 0) putBack(kStart[--taken]);
  return false;
}

QMErrorT XmlReader::skipComments() {
  for (;;) {
    skipWhite();
    if (!takeCommentStart()) return NoError;
    int dashes = 0;
    for (;;) {
      const int c = take();
      if (c == kEnd) return is_.bad() ? ErrorBadlyFormedXML : QMErrors::EndOfFileError;
      if (c == '>' && dashes >= 2) break;
      dashes = c == '-' ? dashes + 1 : 0;
    }
  }
}

/// Keeps the open elements in the tree itself: the way up is each node's owner.
QMErrorT XmlReader::readElements() {
  QMErrorT result = skipComments();
  if (result != NoError) return result;
  if (peek() != '<') {
    logError("QMXmlC::FromStream(): ", "not an XML object!!");
    return ErrorBadlyFormedXML;
  }
  take();
  if (!root_.m_bStrict) skipWhite();
  QMXmlC* node = &root_;
  bool closed = false;
  result = readStartTag(*node, &closed);
  while (result == NoError) {
    if (!closed) {
      Next next;
      result = readContent(*node, &next);
      if (result != NoError) break;
      if (next == Next::Child) {
        auto child = std::make_unique<QMXmlC>(nullptr, node->m_bStrict, node->m_pListener);
        node->Link(child.get());
        child->m_pParent = node;
        node = child.release();
        result = readStartTag(*node, &closed);
        continue;
      }
      result = readEndTag(*node);
      if (result != NoError) break;
    }
    if (node == &root_) return NoError;
    node = node->m_pOwner;
    closed = false;
  }
  return result;
}

/// Behind "<" and what white space may follow it.
QMErrorT XmlReader::readStartTag(QMXmlC& node, bool* selfClosed) {
  QMErrorT result = readName(&node.m_ObjectName);
  node.m_bNamed = true;
  const bool named = !node.m_ObjectName.empty() || (node.m_bStrict && isWhite(peek()));
  if (result == NoError && (!named || !isReadableName(node.m_ObjectName))) {
    result = ErrorBadlyFormedXML;
  }
  while (result == NoError) {
    result = skipComments();
    if (result != NoError) break;
    if (peek() == '>') {
      take();
      *selfClosed = false;
      return NoError;
    }
    if (peek() == '/') {
      take();
      if (peek() == '>') {
        take();
        *selfClosed = true;
        return NoError;
      }
      putBack('/');
    }
    result = readProperty(node);
  }
  return result;
}

QMErrorT XmlReader::readName(std::string* name) {
  name->clear();
  for (;;) {
    const int c = peek();
    if (c == kEnd) return ErrorBadlyFormedXML;
    if (isWhite(c) || c == '>') return NoError;
    take();
    if (c == '/' && peek() == '>') {
      putBack('/');
      return NoError;
    }
    *name += static_cast<char>(c);
  }
}

QMErrorT XmlReader::readProperty(QMXmlC& node) {
  std::string name;
  while (peek() != '=') {
    const int c = take();
    if (c == kEnd || c == '<' || c == '>' || c == '"') return ErrorBadlyFormedXML;
    name += static_cast<char>(c);
  }
  take();
  skipWhite();
  if (take() != '"') return ErrorBadlyFormedXML;
  std::string value;
  for (int c = take(); c != '"'; c = take()) {
    if (c == kEnd) return ErrorBadlyFormedXML;
    value += static_cast<char>(c);
  }
  node.AppendProperty(std::string(trimmed(name)), std::string(trimmed(value)));
  return NoError;
}

QMErrorT XmlReader::readContent(QMXmlC& node, Next* next) {
  for (;;) {
    const QMErrorT result = skipComments();
    if (result != NoError) return result;
    if (peek() == '<') {
      take();
      if (!node.m_bStrict) skipWhite();
      *next = peek() == '/' ? Next::EndTag : Next::Child;
      if (*next == Next::EndTag) take();
      return NoError;
    }
    const std::size_t start = node.m_Text.size();
    while (peek() != '<') {
      const int c = take();
      if (c == kEnd) return ErrorBadlyFormedXML;
      node.m_Text += static_cast<char>(c);
    }
    const std::string_view piece = std::string_view(node.m_Text).substr(start);
    node.m_Text.resize(start + trimmed(piece).size());
  }
}

/// Behind "</".
QMErrorT XmlReader::readEndTag(const QMXmlC& node) {
  std::string name;
  for (int c = take(); c != '>'; c = take()) {
    if (c == kEnd) return ErrorBadlyFormedXML;
    if (isWhite(c)) {
      while (c != '>' && c != kEnd) c = take();
      if (c == kEnd) return ErrorBadlyFormedXML;
      break;
    }
    name += static_cast<char>(c);
  }
  return name == node.m_ObjectName ? NoError : ErrorBadlyFormedXML;
}

/// Lines count from the beginning of the stream, also of an element in its middle.
void XmlReader::countFromStreamStart() {
  if (start_ <= 0) return;  // at the beginning already, or no way back
  const std::streamoff here = buffer_->pubseekoff(0, std::ios::cur, std::ios::in);
  if (here < 0 || buffer_->pubseekpos(0, std::ios::in) != std::streampos(0)) return;
  unsigned long long lines = 0;
  unsigned long long offset = 0;
  for (std::streamoff i = 0; i < start_; ++i) {
    offset = buffer_->sbumpc() == '\n' ? 0 : offset + 1;
    if (offset == 0) ++lines;
  }
  buffer_->pubseekpos(here, std::ios::in);
  if (line_ == 1) offset_ += offset;
  line_ += lines;
}

void XmlReader::report(QMErrorT code) {
  countFromStreamStart();
  QMostrstream text;
  text << "ERROR:" << QMErrToStr(code) << ", at line:" << line_ << ", offset:" << offset_;
  const std::string report(text.text());
  if (root_.m_pListener != nullptr) {
    root_.m_pListener->OnError(report.c_str());
    return;
  }
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log << report << std::endl;
}

}  // namespace qm
