// Reads one element from a stream into a QMXmlC tree. Internal to the data floor.
#pragma once

#include <istream>
#include <string>

#include "qmutils/data/QMXmlC.h"
#include "qmutils/data/XmlWindow.h"

namespace qm {

class XmlReader {
 public:
  XmlReader(std::istream& is, QMXmlC& root) : window_(is), root_(root) {}

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
  QMErrors::QMErrorT readEndTag(QMXmlC& node);
  /// Skips white space and comments. 2007 when the data ends inside a comment.
  QMErrors::QMErrorT skipComments();
  QMErrors::QMErrorT skipCommentText();
  void report(QMErrors::QMErrorT code);

  XmlWindow window_;
  QMXmlC& root_;
};

}  // namespace qm
