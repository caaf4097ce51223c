#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "programs/testtool/Command.h"
#include "qmutils/data/QMXmlC.h"
#include "qmutils/platform/file.h"

namespace programs {
namespace {

/// Keeps the reader's report, which says where the error is.
class Report : public QMXmlC::ErrorListenerC {
 public:
  void OnError(const char* text) override { text_ = text; }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

int complain(const std::string& file, const std::string& complaint) {
  std::fprintf(stderr, "testtool xml: %s: %s\n", file.c_str(), complaint.c_str());
  return kFailure;
}

bool readInput(const std::string& file, std::string& text) {
  std::ifstream in;
  if (file != "-") in.open(qm::platform::nativePath(file.c_str()), std::ios::binary);
  std::istream& source = file == "-" ? std::cin : in;
  std::ostringstream content;
  if (!source || (source.peek() != EOF && !(content << source.rdbuf()))) return false;
  text = std::move(content).str();
  return !source.bad();
}

/// The place of what is neither white space nor a comment; the text's size when there is nothing.
std::size_t firstContent(std::string_view text, std::size_t from) {
  for (;;) {
    from = std::min(text.find_first_not_of(" \t\r\n", from), text.size());
    if (!text.substr(from).starts_with("<!--")) return from;
    const std::size_t end = text.find("-->", from + 4);
    if (end == std::string_view::npos) return from;
    from = end + 3;
  }
}

int run(const Arguments& arguments) {
  std::string file;
  bool prints = true;
  for (const std::string& argument : arguments) {
    if (argument == "--check") {
      prints = false;
    } else if (file.empty()) {
      file = argument;
    } else {
      return usageError(kXmlCommand, "give one file");
    }
  }
  if (file.empty()) return usageError(kXmlCommand, "give one file");
  std::string text;
  if (!readInput(file, text)) return complain(file, "cannot be read");

  Report report;
  QMXmlC tree(nullptr, 0, &report);
  std::istringstream is(text);
  QMErrors::QMErrorT result = tree.FromStream(is);
  if (result != QMErrors::NoError) return complain(file, report.text());
  const std::size_t rest = firstContent(text, static_cast<std::size_t>(is.tellg()));
  if (rest < text.size()) {
    const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<long>(rest), '\n');
    return complain(file, "something follows the root element, at line:" + std::to_string(line));
  }
  if (!prints) return kSuccess;
  result = tree.ToStream(std::cout, 0);
  std::cout.flush();
  return result == QMErrors::NoError && std::cout ? kSuccess : kFailure;
}

}  // namespace

const Command kXmlCommand = {
    "xml", "check an XML file and print it tidied",
    "usage: testtool xml FILE [--check]\n"
    "Reads an element tree (elements, properties in double quotes, text, comments) and prints it "
    "in\n"
    "the library's own layout, without its comments. An error is reported with its line and the\n"
    "offset in that line.\n"
    "  FILE      the file, or - for standard input\n"
    "  --check   print nothing; the exit status tells. Printing indents one blank a level, so "
    "very\n"
    "            deep trees get very long\n",
    run};

}  // namespace programs
