#include "qmutils/data/XmlReader.h"

#include <algorithm>
#include <memory>
#include <new>

#include "qmutils/data/XmlNames.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/QMStringStream.h"

namespace qm {

using QMErrors::ErrorBadlyFormedXML;
using QMErrors::NoError;
using QMErrors::QMErrorT;

namespace {

constexpr XmlCharacters kStartNameStops(" \t\r\n>/");

bool isWhite(int c) { return c != XmlWindow::kEnd && kXmlWhite.contains(static_cast<char>(c)); }

/// Trims what stands behind the first `from` characters.
void trim(std::string* text, std::size_t from = 0) {
  std::size_t end = text->size();
  while (end > from && kXmlWhite.contains((*text)[end - 1])) --end;
  text->resize(end);
  std::size_t begin = from;
  while (begin < end && kXmlWhite.contains((*text)[begin])) ++begin;
  text->erase(from, begin - from);
}

}  // namespace

QMErrorT XmlReader::read() noexcept {
  QMErrorT result = ErrorBadlyFormedXML;
  try {
    if (window_.open()) result = readElements();
  } catch (const std::bad_alloc&) {
    result = QMErrors::MemoryAllocationFailed;
  } catch (...) {
    window_.markBad();  // a stream buffer that throws
    result = ErrorBadlyFormedXML;
  }
  if (!window_.close() && result == NoError) result = ErrorBadlyFormedXML;
  try {
    if (result != NoError) report(result);
  } catch (...) {
    // No memory for the report, or a listener that throws: the result tells.
  }
  return result;
}

QMErrorT XmlReader::skipComments() {
  for (;;) {
    window_.skipAll(kXmlWhite);
    if (!window_.startsWith(kXmlCommentStart)) return NoError;
    window_.skip(kXmlCommentStart.size());
    const QMErrorT result = skipCommentText();
    if (result != NoError) return result;
  }
}

/// Up to ">" behind two dashes or more.
QMErrorT XmlReader::skipCommentText() {
  for (;;) {
    window_.skipUntil('-');
    int dashes = 0;
    for (; window_.peek() == '-'; window_.take()) dashes = std::min(dashes + 1, 2);
    if (window_.peek() == XmlWindow::kEnd) return QMErrors::EndOfFileError;
    if (dashes == 2 && window_.peek() == '>') {
      window_.take();
      return NoError;
    }
  }
}

/// Keeps the open elements in the tree itself: the way up is each node's owner.
QMErrorT XmlReader::readElements() {
  QMErrorT result = skipComments();
  if (result != NoError) return result;
  if (window_.peek() != '<') {
    logError("QMXmlC::FromStream(): ", "not an XML object!!");
    return ErrorBadlyFormedXML;
  }
  window_.take();
  if (!root_.m_bStrict) window_.skipAll(kXmlWhite);
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
  const bool named = !node.m_ObjectName.empty() || (node.m_bStrict && isWhite(window_.peek()));
  if (result == NoError && (!named || !isReadableXmlName(node.m_ObjectName))) {
    result = ErrorBadlyFormedXML;
  }
  while (result == NoError) {
    result = skipComments();
    if (result != NoError) break;
    *selfClosed = window_.startsWith("/>");
    if (*selfClosed || window_.peek() == '>') {
      window_.skip(*selfClosed ? 2 : 1);
      return NoError;
    }
    result = readProperty(node);
  }
  return result;
}

QMErrorT XmlReader::readName(std::string* name) {
  name->clear();
  for (;;) {
    window_.takeUntil(kStartNameStops, name);
    const int c = window_.peek();
    if (c == XmlWindow::kEnd) return ErrorBadlyFormedXML;
    if (c != '/' || window_.startsWith("/>")) return NoError;
    *name += static_cast<char>(window_.take());
  }
}

QMErrorT XmlReader::readProperty(QMXmlC& node) {
  auto property = std::make_unique<QMXmlC::PropertiesC>();
  window_.takeUntil(kXmlPropertyNameEnds, &property->m_Name);
  if (window_.take() != '=') return ErrorBadlyFormedXML;
  window_.skipAll(kXmlWhite);
  if (window_.take() != '"') return ErrorBadlyFormedXML;
  window_.takeUntil('"', &property->m_Value);
  if (window_.take() != '"') return ErrorBadlyFormedXML;
  trim(&property->m_Name);
  trim(&property->m_Value);
  node.AppendProperty(std::move(property));
  return NoError;
}

QMErrorT XmlReader::readContent(QMXmlC& node, Next* next) {
  for (;;) {
    const QMErrorT result = skipComments();
    if (result != NoError) return result;
    if (window_.peek() == '<') {
      window_.take();
      if (!node.m_bStrict) window_.skipAll(kXmlWhite);
      *next = window_.peek() == '/' ? Next::EndTag : Next::Child;
      if (*next == Next::EndTag) window_.take();
      return NoError;
    }
    const std::size_t start = node.m_Text.size();
    window_.takeUntil('<', &node.m_Text);
    if (window_.peek() == XmlWindow::kEnd) return ErrorBadlyFormedXML;
    trim(&node.m_Text, start);
  }
}

/// Behind "</".
QMErrorT XmlReader::readEndTag(QMXmlC& node) {
  constexpr std::size_t kMuch = 4096;  // what a text may have to spare
  if (node.m_Text.capacity() - node.m_Text.size() > kMuch) node.m_Text.shrink_to_fit();
  std::string name;
  window_.takeUntil(kXmlNameEnds, &name);
  window_.skipUntil('>');
  if (window_.take() != '>') return ErrorBadlyFormedXML;
  return name == node.m_ObjectName ? NoError : ErrorBadlyFormedXML;
}

void XmlReader::report(QMErrorT code) {
  const XmlPlace place = window_.place();
  QMostrstream text;
  text << "ERROR:" << QMErrToStr(code) << ", at line:" << place.line << ", offset:" << place.offset;
  const std::string report(text.text());
  if (root_.m_pListener != nullptr) {
    root_.m_pListener->OnError(report.c_str());
    return;
  }
  QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
  log << report << std::endl;
}

}  // namespace qm
