// Collects the diagnostic lines that the library delivers while the object lives, with level and
// mode. Lines may come from any thread. Only one capture at a time.
#pragma once

#include <string>
#include <vector>

#include "qmutils/foundation/QMLogStreamC.h"

namespace qmtest {

class LogCapture {
 public:
  struct Line {
    unsigned level;
    int mode;
    std::string text;  ///< with its line feed
  };

  /// Lines below `debugLevel` are shown, as the library sees it.
  explicit LogCapture(unsigned debugLevel = 100);
  /// Puts the hooks back that were in force before.
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void setDebugLevel(unsigned debugLevel);
  std::vector<Line> lines() const;
  /// All texts one behind the other.
  std::string text() const;
  bool contains(const std::string& part) const;
  void clear();

 private:
  QMLogOutputFn formerOutput_ = nullptr;
  QMLogSetNameFn formerSetName_ = nullptr;
  QMLogSetLevelFn formerSetLevel_ = nullptr;
  QMLogGetLevelFn formerGetLevel_ = nullptr;
};

}  // namespace qmtest
