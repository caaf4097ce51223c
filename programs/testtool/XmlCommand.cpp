#include <cstdio>
#include <iostream>
#include <string>

#include "programs/testtool/Command.h"
#include "qmutils/data/QMXmlC.h"

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

int run(const Arguments& arguments) {
  if (arguments.size() != 1) return usageError(kXmlCommand, "give one file");
  const std::string& file = arguments[0];
  Report report;
  QMXmlC tree(nullptr, 0, &report);
  QMErrors::QMErrorT result = file == "-" ? tree.FromStream(std::cin) : tree.Load(file.c_str());
  if (result != QMErrors::NoError) {
    std::fprintf(stderr, "testtool xml: %s: %s\n", file.c_str(),
                 report.text().empty() ? QMErrToStr(result) : report.text().c_str());
    return kFailure;
  }
  result = tree.ToStream(std::cout, 0);
  std::cout.flush();
  if (result == QMErrors::NoError && std::cout) return kSuccess;
  std::fprintf(stderr, "testtool xml: %s\n", QMErrToStr(result));
  return kFailure;
}

}  // namespace

const Command kXmlCommand = {
    "xml", "check an XML file and print it tidied",
    "usage: testtool xml FILE\n"
    "Reads an element tree (elements, properties in double quotes, text, comments) and prints it "
    "in\n"
    "the library's own layout, without its comments. An error is reported with its line and the\n"
    "offset in that line.\n"
    "  FILE   the file, or - for standard input\n",
    run};

}  // namespace programs
