#include "tests/support/TempFolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

namespace qmtest {

namespace fs = std::filesystem;

TempFolder::TempFolder() {
  std::random_device random;
  do {
    path_ = (fs::temp_directory_path() / ("qmutils-test-" + std::to_string(random()))).string();
  } while (!fs::create_directory(path_));
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  ASSERT_TRUE(out) << "cannot write " << path;
}

}  // namespace qmtest
