// Holds the documents to the project: each C++ snippet stands in a program that is built and run,
// each file they name exists.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/TempFolder.h"

namespace {

namespace fs = std::filesystem;

const fs::path kRoot = QMUTILS_SOURCE_DIR;

std::vector<fs::path> documents() {
  std::vector<fs::path> files{kRoot / "README.md"};
  for (const auto& entry : fs::directory_iterator(kRoot / "docs")) {
    if (entry.path().extension() == ".md") files.push_back(entry.path());
  }
  return files;
}

std::vector<std::string> snippetsOf(const std::string& document) {
  std::vector<std::string> snippets;
  const std::string fence = "```cpp\n";
  for (std::size_t start = 0; (start = document.find(fence, start)) != std::string::npos;) {
    start += fence.size();
    snippets.push_back(document.substr(start, document.find("```", start) - start));
  }
  return snippets;
}

TEST(Documents, ShowProgramsThatAreBuiltAndRun) {
  struct Program {
    fs::path path;
    std::string text;
    bool shown = false;
  };
  std::vector<Program> programs;
  for (const auto& entry : fs::directory_iterator(kRoot / "docs/examples")) {
    programs.push_back({entry.path(), qmtest::readFile(entry.path().string())});
  }
  for (const fs::path& document : documents()) {
    for (const std::string& snippet : snippetsOf(qmtest::readFile(document.string()))) {
      bool found = false;
      for (Program& program : programs) {
        if (program.text.find(snippet) == std::string::npos) continue;
        found = true;
        program.shown = true;
      }
      EXPECT_TRUE(found) << document << " shows what no example holds:\n" << snippet;
    }
  }
  for (const Program& program : programs) {
    EXPECT_TRUE(program.shown) << program.path << " is shown by no document";
  }
}

TEST(Documents, NameFilesThatExist) {
  int checked = 0;
  for (const fs::path& document : documents()) {
    const std::string text = qmtest::readFile(document.string());
    for (std::size_t start = 0; (start = text.find("](", start)) != std::string::npos;) {
      start += 2;
      const std::string target = text.substr(start, text.find(')', start) - start);
      EXPECT_TRUE(fs::exists(document.parent_path() / target)) << document << " names " << target;
      ++checked;
    }
  }
  EXPECT_GT(checked, 5);
}

}  // namespace
