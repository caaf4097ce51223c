// How far one page has come, as a line that is written over on a terminal and in quarters
// elsewhere.
#pragma once

#include <cstdio>
#include <string>

namespace programs {

class ProgressBar {
 public:
  ProgressBar(std::FILE* out, std::string label);

  void show(unsigned done, unsigned total);
  /// Ends the line; `text` stands behind the label ("done", an error).
  void finish(const std::string& text);

 private:
  std::FILE* const out_;
  const std::string label_;
  const bool overwrites_;
  unsigned shownPercent_ = 0;
};

}  // namespace programs
