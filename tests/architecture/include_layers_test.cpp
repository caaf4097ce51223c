// Holds the house to its floors: a file includes its own folder or lower floors only, and no file
// outside the platform floor asks for the operating system. The printing library stands beside the
// third floor.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kRoot = QMUTILS_SOURCE_DIR;

const std::map<std::string, int> kFloors = {
    {"platform", 1}, {"foundation", 2}, {"windowing", 2},     {"concurrency", 3},
    {"comms", 3},    {"data", 3},       {"config", 4},        {"transport", 4},
    {"app", 5},      {"imager", 6},     {"qmutils_print", 3},
};

// Folders of one floor do not know each other, with these exceptions.
const std::set<std::pair<std::string, std::string>> kNeighbours = {
    {"windowing/CString.h", "foundation/QMCString.h"},
};

struct Include {
  fs::path file;  // relative to the root
  std::string target;
};

std::vector<fs::path> sourcesUnder(const char* folder) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(kRoot / folder)) {
    const std::string extension = entry.path().extension().string();
    if (extension == ".h" || extension == ".cpp") files.push_back(entry.path());
  }
  return files;
}

std::vector<std::string> linesOf(const fs::path& file) {
  std::ifstream in(file);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

/// What follows "#" and the directive's name, without blanks around; empty for any other line.
std::string directive(const std::string& line, const std::string& name) {
  std::size_t at = line.find_first_not_of(" \t");
  if (at == std::string::npos || line[at] != '#') return {};
  at = line.find_first_not_of(" \t", at + 1);
  if (at == std::string::npos || line.compare(at, name.size(), name) != 0) return {};
  at = line.find_first_not_of(" \t", at + name.size());
  return at == std::string::npos ? std::string() : line.substr(at);
}

std::vector<Include> includesOf(const fs::path& file) {
  std::vector<Include> includes;
  for (const std::string& line : linesOf(file)) {
    const std::string target = directive(line, "include");
    if (!target.starts_with('"')) continue;
    includes.push_back({file.lexically_relative(kRoot), target.substr(1, target.find('"', 1) - 1)});
  }
  return includes;
}

bool asksForTheSystem(const std::string& line) {
  for (const char* name : {"if", "elif"}) {  // "ifdef" and "ifndef" begin alike
    const std::string condition = directive(line, name);
    for (const char* macro : {"_WIN32", "__linux__", "__unix__", "__APPLE__"}) {
      if (condition.find(macro) != std::string::npos) return true;
    }
  }
  const std::string header = directive(line, "include");
  for (const char* system : {"<windows.h>", "<unistd.h>", "<sys/", "<pthread.h>", "<fcntl.h>",
                             "<poll.h>", "<signal.h>"}) {
    if (header.starts_with(system)) return true;
  }
  return false;
}

/// The folder of a path below qmutils/, or the printing library; empty for any other path.
std::string folderOf(const fs::path& path) {
  auto part = path.begin();
  if (part != path.end() && *part == "qmutils_print") return part->string();
  if (part == path.end() || *part++ != "qmutils" || part == path.end()) return {};
  return part->string();
}

TEST(Architecture, FilesIncludeOnlyTheirOwnFolderAndLowerFloors) {
  int checked = 0;
  std::vector<fs::path> files = sourcesUnder("qmutils");
  for (const fs::path& file : sourcesUnder("qmutils_print")) files.push_back(file);
  for (const fs::path& file : files) {
    const std::string own = folderOf(file.lexically_relative(kRoot));
    ASSERT_TRUE(kFloors.contains(own)) << file << " stands on no floor";
    for (const Include& include : includesOf(file)) {
      const std::string target = folderOf(include.target);
      ASSERT_TRUE(kFloors.contains(target))
          << include.file << " includes \"" << include.target << "\": write the path from the root";
      const bool neighbour = kNeighbours.contains(
          {include.file.lexically_relative("qmutils").generic_string(),
           fs::path(include.target).lexically_relative("qmutils").generic_string()});
      EXPECT_TRUE(own == target || kFloors.at(target) < kFloors.at(own) || neighbour)
          << include.file << " includes " << include.target << ", which is not below it";
      const bool internal = include.target.starts_with("qmutils/platform/posix/") ||
                            include.target.starts_with("qmutils/platform/win32/");
      EXPECT_TRUE(!internal || own == "platform")
          << include.file << " reaches into one system's half of the platform floor";
      ++checked;
    }
  }
  EXPECT_GT(checked, 100) << "the sources were not found";
}

TEST(Architecture, OnlyThePlatformFloorKnowsTheOperatingSystem) {
  for (const char* folder : {"qmutils", "qmutils_print", "programs"}) {
    for (const fs::path& file : sourcesUnder(folder)) {
      if (folderOf(file.lexically_relative(kRoot)) == "platform") continue;
      int number = 0;
      for (const std::string& line : linesOf(file)) {
        ++number;
        EXPECT_FALSE(asksForTheSystem(line)) << file << ":" << number << ": " << line;
      }
    }
  }
}

TEST(Architecture, EverySystemHalfMirrorsThePlatformHeaders) {
  // Each header of the platform floor is implemented by a source of the same name: one for each
  // system, or one beside it for all.
  for (const fs::path& file : sourcesUnder("qmutils/platform")) {
    if (file.extension() != ".h" || file.parent_path().filename() != "platform") continue;
    const std::string name = file.stem().string();
    if (name == "types" || name == "export" || name == "suspension_deferral" ||
        name == "short_lock" || name == "ascii_case")
      continue;
    EXPECT_TRUE(fs::exists(kRoot / "qmutils/platform/posix" / (name + ".cpp")) ||
                fs::exists(kRoot / "qmutils/platform" / (name + ".cpp")))
        << name;
  }
}

}  // namespace
