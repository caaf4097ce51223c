// Writes a QMXmlC tree as text, piece by piece, into an output that may stop it at any time.
// Internal to the data floor.
#pragma once

#include <string_view>

#include "qmutils/data/QMXmlC.h"

namespace qm {

/// Where the text goes.
class XmlOutput {
 public:
  virtual ~XmlOutput() = default;
  virtual void put(std::string_view piece) = 0;
  /// True once nothing more is wanted; what is put then goes nowhere.
  bool isFull() const { return full_; }

 protected:
  bool full_ = false;
};

class XmlWriter {
 public:
  explicit XmlWriter(XmlOutput& out) : out_(out) {}

  /// Stops early, with 0, when the output is full. 2100 at a node without a name, 9204 at one whose
  /// name would be read as something else; what stood before is written then.
  QMErrors::QMErrorT write(const QMXmlC& root, unsigned indent);

 private:
  QMErrors::QMErrorT startTag(const QMXmlC& node, unsigned indent);
  void properties(const QMXmlC& node);
  /// Nothing for an element that closed itself.
  void endTag(const QMXmlC& node, unsigned indent);
  void blanks(unsigned count);

  XmlOutput& out_;
};

}  // namespace qm
