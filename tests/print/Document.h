// A PDF document, read by the tools of another PDF library.
#pragma once

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace qmtest {

/// What a command prints; throws when it fails.
inline std::string outputOf(const std::string& command) {
  std::FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  char buffer[4096];
  while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) {
    output.append(buffer, count);
  }
  if (pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
  return output;
}

struct Word {
  int page;
  std::string text;
  double left, top, right, bottom;  // in points
};

class Document {
 public:
  explicit Document(const std::string& path) : path_(path) {}

  /// What the document says about itself ("Pages", "Title").
  std::string info(const std::string& key) const {
    std::istringstream lines(outputOf("pdfinfo " + path_));
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with(key + ":")) continue;
      const std::size_t value = line.find_first_not_of(' ', key.size() + 1);
      return value != std::string::npos ? line.substr(value) : std::string();
    }
    return {};
  }
  std::string fonts() const { return outputOf("pdffonts " + path_); }

  /// In the order in which they were drawn.
  std::vector<Word> words() const {
    std::vector<Word> words;
    std::istringstream lines(outputOf("pdftotext -raw -bbox " + path_ + " -"));
    int page = 0;
    for (std::string line; std::getline(lines, line);) {
      if (line.find("<page ") != std::string::npos) ++page;
      Word word{page, "", 0, 0, 0, 0};
      char text[1024];
      if (std::sscanf(line.c_str(),
                      " <word xMin=\"%lf\" yMin=\"%lf\" xMax=\"%lf\" yMax=\"%lf\">%1023[^<]",
                      &word.left, &word.top, &word.right, &word.bottom, text) == 5) {
        word.text = text;
        words.push_back(word);
      }
    }
    return words;
  }

 private:
  const std::string path_;
};

}  // namespace qmtest
