// Writes a QMXmlC tree as text, piece by piece, into an output that may stop it at any time.
// Internal to the data floor.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

#include "qmutils/data/QMXmlC.h"

namespace qm {

/// Where the text goes. An output may give room, in which pieces collect without its being asked
/// for each of them.
class XmlOutput {
 public:
  XmlOutput() = default;
  XmlOutput(const XmlOutput&) = delete;
  XmlOutput& operator=(const XmlOutput&) = delete;
  virtual ~XmlOutput() = default;

  void put(std::string_view piece) {
    if (piece.size() > static_cast<std::size_t>(roomEnd_ - room_)) {
      take(piece);
      return;
    }
    std::memcpy(room_, piece.data(), piece.size());
    room_ += piece.size();
  }
  /// True once nothing more is wanted; what is put then goes nowhere.
  bool isFull() const { return full_; }

 protected:
  /// Takes a piece for which there is no room.
  virtual void take(std::string_view piece) = 0;

  bool full_ = false;
  char none_[1];
  char* room_ = none_;
  char* roomEnd_ = none_;
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
