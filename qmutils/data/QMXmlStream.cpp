// Writing a tree, and trees in files.
#include <cstdio>
#include <istream>
#include <new>
#include <ostream>
#include <string_view>

#include "qmutils/data/QMXmlC.h"
#include "qmutils/data/XmlReader.h"
#include "qmutils/data/XmlWriter.h"
#include "qmutils/foundation/FileBuffer.h"
#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/replacement_file.h"

namespace {

/// Collects the pieces into blocks. Text goes straight to the stream's buffer: no width, fill or
/// other format of the stream touches it.
class StreamOutput : public qm::XmlOutput {
 public:
  explicit StreamOutput(std::ostream& os) : os_(os) {
    room_ = block_;
    roomEnd_ = block_ + sizeof block_;
  }

  /// False when the stream has not taken everything.
  bool flush() {
    if (room_ != block_) write({block_, static_cast<std::size_t>(room_ - block_)});
    room_ = block_;
    return !isFull();
  }

 private:
  void take(std::string_view piece) override {
    flush();
    if (piece.size() > sizeof block_) {
      write(piece);
    } else {
      put(piece);
    }
  }

  void write(std::string_view text) {
    if (!isFull()) os_.write(text.data(), static_cast<std::streamsize>(text.size()));
    full_ = full_ || !os_;
  }

  std::ostream& os_;
  char block_[16 * 1024];
};

}  // namespace

QMErrors::QMErrorT QMXmlC::ToStream(std::ostream& os, unsigned indent) const try {
  StreamOutput out(os);
  const QMErrors::QMErrorT result = qm::XmlWriter(out).write(*this, indent);
  return out.flush() ? result : QMErrors::FailedToWriteXMLObject;
} catch (...) {
  return QMErrors::FailedToWriteXMLObject;  // a stream that throws when it fails
}

QMErrors::QMErrorT QMXmlC::FromStream(std::istream& is) { return qm::XmlReader(is, *this).read(); }

QMErrors::QMErrorT QMXmlC::Load(const char* file) try {
  const qm::platform::FilePtr in(file != nullptr ? qm::platform::openFile(file, "rb") : nullptr);
  QMErrors::QMErrorT result = QMErrors::FailedToOpenFile;
  if (in != nullptr) {
    qm::FileBuffer buffer(in.get());
    std::istream is(&buffer);
    result = FromStream(is);
  }
  if (result != QMErrors::NoError) {
    qm::logError("QMXmlC::Load(): failed for file:", file != nullptr ? file : "null");
  }
  return result;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

QMErrors::QMErrorT QMXmlC::Save(const char* file) const try {
  qm::platform::ReplacementFile out(file);
  if (out.get() == nullptr) {
    qm::logError("QMXmlC::Save(): failed to open:", file != nullptr ? file : "null");
    return QMErrors::FailedToOpenFile;
  }
  qm::FileBuffer buffer(out.get());
  std::ostream os(&buffer);
  QMErrors::QMErrorT result = ToStream(os, 0);
  if (result == QMErrors::NoError && !out.commit()) result = QMErrors::FailedToWriteXMLObject;
  if (result != QMErrors::NoError) qm::logError("QMXmlC::Save(): failed for file:", file);
  return result;
} catch (const std::bad_alloc&) {
  return QMErrors::MemoryAllocationFailed;
}

std::ostream& operator<<(std::ostream& os, const QMXmlC& node) {
  if (node.ToStream(os, 0) != QMErrors::NoError) os.setstate(std::ios::failbit);
  return os;
}

std::istream& operator>>(std::istream& is, QMXmlC& node) {
  if (node.FromStream(is) != QMErrors::NoError) is.setstate(std::ios::failbit);
  return is;
}

QMLogStreamC& operator<<(QMLogStreamC& log, const QMXmlC& node) {
  if (!log.IsValidDebugLevel()) return log;
  if (std::ostream* os = log.GetOstream()) (void)node.ToStream(*os, 0);
  return log;
}
