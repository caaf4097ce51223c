#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "programs/testtool/Command.h"
#include "programs/testtool/LineExchange.h"
#include "qmutils/app/QMPrintTextC.h"
#include "qmutils/platform/ascii_case.h"
#include "qmutils/platform/program.h"
#include "qmutils/platform/waitable.h"
#include "qmutils_print/CPrinterDC.h"

namespace programs {
namespace {

struct Options {
  std::string file;
  std::string output;
  std::string printer;
  std::string title;
  bool hasTitle = false;
  bool prints = false;  // on a printer
  qm::PageSetup setup;
  unsigned level = 0;
};

/// Hands everything on to another device, tells of each page, and aborts on an interrupt.
class WatchedDC : public CDC {
 public:
  WatchedDC(CDC& device, HANDLE abortEvent) : device_(device), abortEvent_(abortEvent) {}

  unsigned pages() const { return pages_; }
  /// What EndDoc() gave.
  int job() const { return job_; }

  int GetDeviceCaps(int index) const override { return device_.GetDeviceCaps(index); }
  BOOL GetTextMetrics(TEXTMETRIC* metrics) const override {
    return device_.GetTextMetrics(metrics);
  }
  int DrawText(const char* text, CRect* rect, UINT format) override {
    if (qm::platform::interrupted()) qm::platform::setEvent(abortEvent_);
    return device_.DrawText(text, rect, format);
  }
  int StartDoc(const char* name) override { return device_.StartDoc(name); }
  int StartPage() override { return device_.StartPage(); }
  int EndPage() override {
    const int result = device_.EndPage();
    if (result > 0) {
      std::printf("page %u\n", ++pages_);
      std::fflush(stdout);
    }
    return result;
  }
  int EndDoc() override { return job_ = device_.EndDoc(); }
  int AbortDoc() override { return device_.AbortDoc(); }

 private:
  CDC& device_;
  const HANDLE abortEvent_;
  unsigned pages_ = 0;
  int job_ = 0;
};

/// Takes an option and its value; what is wrong with it, or an empty text.
std::string takeOption(const Arguments& arguments, std::size_t& i, Options& options) {
  const std::string& name = arguments[i];
  if (name == "--landscape") {
    options.setup.landscape = true;
    return {};
  }
  if ((!name.starts_with("-") || name == "-") && options.file.empty()) {
    options.file = name;
    return {};
  }
  std::string value;
  if (!takeValue(arguments, i, value)) return "unknown argument '" + name + "'";
  if (name == "-o" || name == "--output") {
    options.output = value;
  } else if (name == "--printer") {
    options.printer = value == "default" ? "" : value;
    options.prints = true;
  } else if (name == "--title") {
    options.title = value;
    options.hasTitle = true;
  } else if (name == "--font") {
    options.setup.font = value;
  } else if (name == "--paper") {
    const auto paper = qm::findPaper(value);
    if (!paper) return "'" + value + "' is no paper";
    options.setup.paper = *paper;
  } else if (name == "--log") {
    if (!parseLogLevel(value, options.level)) return kLogLevelWanted;
  } else {
    return "unknown argument '" + name + "'";
  }
  return {};
}

std::unique_ptr<CPdfDC> makeDevice(const Options& options) {
  if (options.prints) {
    return std::make_unique<CPrinterDC>(options.printer.c_str(), options.setup);
  }
  return std::make_unique<CPdfDC>(options.output.c_str(), options.setup);
}

/// Says so when the text will look other than the user thinks.
void tellSubstitute(const CPdfDC& device, const std::string& font) {
  constexpr const char* kGeneric[] = {"Monospace", "Sans", "Serif", "System-ui"};
  const std::string used = device.GetFontFamily();
  if (qm::platform::isSameName(font.substr(0, used.size()), used)) return;
  for (const std::string generic : kGeneric) {
    if (qm::platform::isSameName(font.substr(0, generic.size()), generic)) return;
  }
  std::fprintf(stderr, "testtool print: there is no font '%s'; '%s' stands in\n", font.c_str(),
               used.c_str());
}

QMErrors::QMErrorT print(const Options& options, QMPrintTextC& printer, CDC& device) {
  const char* const title = options.hasTitle ? options.title.c_str() : options.file.c_str();
  if (options.file != "-") return printer.PrintText(options.file.c_str(), &device, title);
  std::ostringstream text;
  text << std::cin.rdbuf();
  return printer.PrintText2(text.str().c_str(), &device, title, title);
}

int run(const Arguments& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string complaint = takeOption(arguments, i, options);
    if (!complaint.empty()) return usageError(kPrintCommand, complaint);
  }
  if (options.file.empty()) return usageError(kPrintCommand, "no file given");
  if (options.output.empty() != options.prints) {
    return usageError(kPrintCommand, "give either -o FILE or --printer NAME");
  }
  showLogLines(options.level);
  qm::platform::noteInterrupts();
  const std::unique_ptr<CPdfDC> device = makeDevice(options);
  if (!device->SetFont(options.setup.font.c_str())) {
    return usageError(kPrintCommand, "'" + options.setup.font + "' is no font");
  }
  tellSubstitute(*device, options.setup.font);
  QMPrintTextC printer;
  WatchedDC watched(*device, printer.m_hAbortEvent);
  const QMErrors::QMErrorT result = print(options, printer, watched);
  if (result != QMErrors::NoError) {
    std::fprintf(stderr, "testtool print: %s: %s\n", options.file.c_str(), QMErrToStr(result));
    return kFailure;
  }
  const char* const stopped = qm::platform::interrupted() ? "stopped, " : "";
  const char* const pages = watched.pages() == 1 ? "page" : "pages";
  if (options.prints) {
    std::printf("%s%u %s, print job %d\n", stopped, watched.pages(), pages, watched.job());
  } else {
    std::printf("%s%u %s in %s\n", stopped, watched.pages(), pages, options.output.c_str());
  }
  return qm::platform::interrupted() ? kInterrupted : kSuccess;
}

}  // namespace

const Command kPrintCommand = {
    "print", "print a text file into a PDF document or on a printer",
    "usage: testtool print FILE -o OUT.pdf | --printer NAME [OPTIONS]\n"
    "Prints a text file (- for standard input) with the title above and the page's number below,\n"
    "and says when a page is done. Ctrl-C ends the document with the page that was begun.\n"
    "  -o FILE          the document, which is replaced when it is complete\n"
    "  --printer NAME   a print queue, or 'default'\n"
    "  --title TEXT     (the file's name)\n"
    "  --paper PAPER    A0 to A10, B0 to B10, Letter, Legal, Executive, Ledger, Tabloid, or a "
    "size\n"
    "                   as 148x210 (mm) or 8.5x11in (A4)\n"
    "  --landscape      turn the paper\n"
    "  --font FONT      an installed font with its size in points, as 'DejaVu Sans 9'\n"
    "                   (Monospace 10)\n"
    "  --log LEVEL      print the library's log lines up to this level (0: errors and warnings)\n",
    run};

}  // namespace programs
