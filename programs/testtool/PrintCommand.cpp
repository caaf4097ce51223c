#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>

#include "programs/testtool/Command.h"
#include "programs/testtool/LineExchange.h"
#include "qmutils/app/QMPrintTextC.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/program.h"
#include "qmutils/platform/standard_streams.h"
#include "qmutils/platform/temporary_file.h"
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
  WatchedDC(CDC& device, const std::string& name, HANDLE abortEvent)
      : device_(device), name_(name), abortEvent_(abortEvent) {}

  unsigned pages() const { return pages_; }
  bool isAborted() const { return aborted_; }
  /// What EndDoc() gave.
  int job() const { return job_; }

  int GetDeviceCaps(int index) const override { return device_.GetDeviceCaps(index); }
  BOOL GetTextMetrics(TEXTMETRIC* metrics) const override {
    return device_.GetTextMetrics(metrics);
  }
  int DrawText(const char* text, CRect* rect, UINT format) override {
    if (qm::platform::interrupted()) {
      aborted_ = true;
      qm::platform::setEvent(abortEvent_);
    }
    return device_.DrawText(text, rect, format);
  }
  int StartDoc(const char*) override { return device_.StartDoc(name_.c_str()); }
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
  const std::string name_;  // of the document
  const HANDLE abortEvent_;
  unsigned pages_ = 0;
  bool aborted_ = false;
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
  constexpr const char* kWithValue[] = {"-o",     "--output", "--printer", "--title",
                                        "--font", "--paper",  "--log"};
  if (std::find(std::begin(kWithValue), std::end(kWithValue), name) == std::end(kWithValue)) {
    return "unknown argument '" + name + "'";
  }
  std::string value;
  if (!takeValue(arguments, i, value)) return name + " wants a value";
  if (name == "-o" || name == "--output") {
    options.output = value;
    if (value.empty() || value == "-") return name + " wants a file";
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
    if (std::min(paper->widthMm, paper->heightMm) <= 2 * options.setup.marginMm) {
      return "'" + value + "' is smaller than its margins";
    }
    options.setup.paper = *paper;
  } else if (!parseLogLevel(value, options.level)) {
    return kLogLevelWanted;
  }
  return {};
}

std::unique_ptr<CPdfDC> makeDevice(const Options& options) {
  if (options.prints) {
    return std::make_unique<CPrinterDC>(options.printer.c_str(), options.setup);
  }
  return std::make_unique<CPdfDC>(options.output.c_str(), options.setup);
}

/// False, with a complaint, when nothing can be printed in that font. Says so when the text will
/// look other than the user thinks.
bool checkFont(CPdfDC& device, const std::string& font) {
  const bool isUsable = device.SetFont(font.c_str());
  const std::string used = device.GetFontFamily();
  if (!isUsable || used.empty()) {
    std::fprintf(stderr, "testtool print: %s\n",
                 used.empty() ? "no font is installed" : ("'" + font + "' is no font").c_str());
    return false;
  }
  if (!device.IsFontInstalled()) {
    std::fprintf(stderr, "testtool print: there is no font '%s'; '%s' stands in\n", font.c_str(),
                 used.c_str());
  }
  return true;
}

/// Standard input as a file, so that each kind of text is read as from one. False when it cannot be
/// read or stored, or the user has interrupted.
bool storeInput(std::FILE* file) {
  constexpr DWORD kLookMs = 200;
  char buffer[64 * 1024];
  while (!qm::platform::interrupted()) {
    const long count = qm::platform::readStandardInput(buffer, sizeof buffer, kLookMs);
    if (count == 0) return qm::platform::lastError() == ERROR_SUCCESS && std::fflush(file) == 0;
    if (count < 0) continue;
    const auto size = static_cast<std::size_t>(count);
    if (std::fwrite(buffer, 1, size, file) != size) return false;
  }
  return false;
}

int tellEnd(const Options& options, const WatchedDC& watched) {
  const char* const stopped = watched.isAborted() ? "stopped, " : "";
  const char* const pages = watched.pages() == 1 ? "page" : "pages";
  if (options.prints) {
    std::printf("%s%u %s, print job %d\n", stopped, watched.pages(), pages, watched.job());
  } else {
    std::printf("%s%u %s in %s\n", stopped, watched.pages(), pages, options.output.c_str());
  }
  return watched.isAborted() ? kInterrupted : kSuccess;
}

int print(const Options& options) {
  const std::unique_ptr<CPdfDC> device = makeDevice(options);
  if (!checkFont(*device, options.setup.font)) return kFailure;
  const qm::platform::TemporaryFile input;
  const bool isInput = options.file == "-";
  if (isInput && (input.get() == nullptr || !storeInput(input.get()))) {
    if (qm::platform::interrupted()) return kInterrupted;
    std::fputs("testtool print: standard input cannot be read\n", stderr);
    return kFailure;
  }
  const std::string title = options.hasTitle ? options.title : options.file;
  QMPrintTextC printer;
  WatchedDC watched(*device, isInput ? title : options.file, printer.m_hAbortEvent);
  const QMErrors::QMErrorT result =
      printer.PrintText(isInput ? input.path() : options.file.c_str(), &watched, title.c_str());
  if (result == QMErrors::NoError) return tellEnd(options, watched);
  std::fprintf(stderr, "testtool print: %s: %s\n", options.file.c_str(), QMErrToStr(result));
  return kFailure;
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
  if (!options.prints && qm::platform::isSameFile(options.file.c_str(), options.output.c_str())) {
    return usageError(kPrintCommand, "the document would replace the text");
  }
  showLogLines(options.level);
  qm::platform::noteInterrupts();
  return print(options);
}

}  // namespace

const Command kPrintCommand = {
    "print", "print a text file into a PDF document or on a printer",
    "usage: testtool print FILE -o OUT.pdf | --printer NAME [OPTIONS]\n"
    "Prints a text file (- for standard input) with the title above and the page's number below,\n"
    "and says when a page is done. Ctrl-C ends the document with the page that was begun.\n"
    "  -o FILE          the document; a file of that name is replaced when it is complete\n"
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
