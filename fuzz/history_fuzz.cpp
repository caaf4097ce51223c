// Any bytes as a history, any text as an event. The enumerator and the counting in blocks find the
// lines that a look at each character finds; an event adds one line; the header and the newest
// lines stay, byte for byte, and the oldest beyond the limit go.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "qmutils/config/DataLineScanner.h"
#include "qmutils/config/QMHistoryC.h"
#include "qmutils/platform/clock.h"

namespace {

namespace fs = std::filesystem;

void dropLine(unsigned, int, char*) {}

unsigned silence() { return 0; }

void require(bool holds) {
  if (!holds) std::abort();
}

/// Noon of a summer's day, whatever the zone.
class NoonC : public qm::platform::TimeSource {
 public:
  std::int64_t monotonicNanoseconds() noexcept override { return 0; }
  std::uint64_t utcTicks() noexcept override { return 127'991'232'000'000'000; }
};

class HistoryC : public QMHistoryC {
 public:
  HistoryC(const std::string& path, unsigned limit) { Create(path.c_str(), "title", limit); }
  using QMHistoryC::LogIt;
};

bool endsLine(char c) { return c == '\n' || c == '\r'; }

/// Where the data lines begin, character by character.
std::vector<std::size_t> dataLines(const std::string& text) {
  std::vector<std::size_t> starts;
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (endsLine(text[i])) {
      start = i + 1;
    } else if (i == start + 2 && text[i] == '/' && start > 0) {
      starts.push_back(start);
    }
  }
  return starts;
}

std::size_t countInBlocks(const std::string& text, std::size_t size) {
  qm::DataLineScanner scanner;
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); i += size) {
    scanner.scan(std::string_view(text).substr(i, size),
                 [&count](std::uint64_t) { return ++count != 0; });
  }
  return count;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void enumerate(const std::string& path, const std::string& text) {
  QMHistoryC::HistoryEnumeratorC lines(path.c_str());
  QMCString line;
  for (std::size_t start : dataLines(text)) {
    QMHistoryC::HistoryEnumeratorC copy(lines);
    require(lines.NextElement(line) == QMErrors::NoError);
    const std::size_t end = text.find_first_of("\r\n", start);
    require(line.view() == text.substr(start, end - start));
    QMCString again;
    require(copy.NextElement(again) == QMErrors::NoError && again == line);
  }
  require(lines.NextElement(line) == QMErrors::EndOfFileError && line.IsEmpty());
}

std::string stamp() {
  const SYSTEMTIME t = qm::platform::localSystemTime();
  char text[64];
  std::snprintf(text, sizeof text, "%02u/%02u/%04u\t%02u:%02u:%02u\t", t.wMonth, t.wDay, t.wYear,
                t.wHour, t.wMinute, t.wSecond);
  return text;
}

/// What the file becomes by an event.
std::string expected(std::string text, std::string event, unsigned limit) {
  while (!event.empty() && endsLine(event.back())) event.pop_back();
  for (char& c : event) {
    if (endsLine(c)) c = ' ';
  }
  if (!text.empty() && !endsLine(text.back())) text += '\n';
  text += stamp() + event + '\n';
  const std::vector<std::size_t> starts = dataLines(text);
  if (starts.size() <= limit) return text;
  const std::size_t newest = limit > 0 ? starts[starts.size() - limit] : text.size();
  return text.substr(0, starts[0]) + text.substr(newest);
}

std::string folder() {
  const fs::path base = fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
  std::string path = (base / "qmutils-fuzz-XXXXXX").string();
  require(mkdtemp(path.data()) != nullptr);
  static const std::string made = path;
  std::atexit([] { fs::remove_all(made); });
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QMLogStreamC hooks(dropLine, nullptr, nullptr, silence);
  static NoonC noon;
  static const auto former = qm::platform::replaceTimeSource(&noon);
  (void)former;
  static const std::string path = folder() + "/history";
  if (size < 2) return 0;
  const unsigned limit = data[0] & 15;
  const std::size_t blockSize = 1 + (data[0] >> 4);
  const std::size_t eventSize = std::min<std::size_t>(data[1], size - 2);
  const std::string event(std::string(reinterpret_cast<const char*>(data) + 2, eventSize).c_str());
  std::string text(reinterpret_cast<const char*>(data) + 2 + eventSize, size - 2 - eventSize);
  // Where a write may have been cut off, half a line goes.
  if (text.size() % 4096 == 0) text += '\n';

  std::ofstream(path, std::ios::binary) << text;
  enumerate(path, text);
  require(countInBlocks(text, blockSize) == dataLines(text).size());
  HistoryC history(path, limit), other(path, limit);
  for (int i = 0; i < 4; ++i) {
    text = expected(text, event, limit);
    require((i == 2 ? other : history).LogIt(event.c_str()) == QMErrors::NoError);
    require(readFile(path) == text);
  }
  enumerate(path, text);
  return 0;
}
