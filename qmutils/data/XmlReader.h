// Reads one element from a stream into a QMXmlC tree. Internal to the data floor.
#pragma once

#include <istream>
#include <streambuf>
#include <string>
#include <string_view>

#include "qmutils/data/QMXmlC.h"

namespace qm {

/// False for the name of an element that would be read as something else once it is written: as a
/// comment, an end tag, the end of an empty element or of the start tag, or a property.
constexpr bool isReadableName(std::string_view name) {
  return !name.starts_with("!--") && !name.starts_with('/') && !name.ends_with('/') &&
         name.find_first_of(" \t\r\n>") == std::string_view::npos;
}

class XmlReader {
 public:
  XmlReader(std::istream& is, QMXmlC& root);

  /// 0; 2007 when the data ends inside a comment; 9204; 2001. Reports a failure once.
  QMErrors::QMErrorT read() noexcept;

 private:
  /// What follows in an element's content.
  enum class Next { EndTag, Child };

  QMErrors::QMErrorT readElements();
  QMErrors::QMErrorT readStartTag(QMXmlC& node, bool* selfClosed);
  QMErrors::QMErrorT readName(std::string* name);
  QMErrors::QMErrorT readProperty(QMXmlC& node);
  QMErrors::QMErrorT readContent(QMXmlC& node, Next* next);
  QMErrors::QMErrorT readEndTag(const QMXmlC& node);
  /// Skips white space and comments. 2007 when the data ends inside a comment.
  QMErrors::QMErrorT skipComments();
  /// Takes the beginning of a comment if that is what follows.
  bool takeCommentStart();
  void skipWhite();
  void report(QMErrors::QMErrorT code);
  void countFromStreamStart();

  int peek();
  int take();
  void putBack(char c);

  std::istream& is_;
  std::streambuf* buffer_;
  QMXmlC& root_;
  const std::streamoff start_;  // of the element in the stream; -1 when the stream cannot tell
  std::string pushedBack_;      // characters looked at ahead, the next one last
  unsigned long long line_ = 1;
  unsigned long long offset_ = 0;
};

}  // namespace qm
