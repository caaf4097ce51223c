// A folder of a test's own, removed with everything in it at the end.
#pragma once

#include <string>

namespace qmtest {

class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  /// The folder's path without a trailing separator.
  const std::string& path() const { return path_; }
  /// The path of a file in the folder.
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// Whole content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace qmtest
