#include "tests/support/RecordingDC.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "qmutils/platform/error.h"

namespace qmtest {

namespace {

std::string withTabsExpanded(const std::string& line) {
  constexpr std::size_t kTab = 8;
  std::string expanded;
  for (char c : line) {
    if (c == '\t') {
      expanded.append(kTab - expanded.size() % kTab, ' ');
    } else {
      expanded += c;
    }
  }
  return expanded;
}

/// Breaks at blanks; a word that is too long stands alone.
void breakWords(std::string line, std::size_t columns, std::vector<std::string>* lines) {
  while (line.size() > columns) {
    std::size_t blank = line.rfind(' ', columns);
    if (blank == std::string::npos || blank == 0) blank = line.find(' ', columns);
    if (blank == std::string::npos) break;
    lines->push_back(line.substr(0, blank));
    line.erase(0, blank + 1);
  }
  lines->push_back(line);
}

std::vector<std::string> linesOf(const std::string& text, UINT format, std::size_t columns) {
  std::vector<std::string> lines;
  const bool single = (format & DT_SINGLELINE) != 0;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line, single ? '\0' : '\n');) {
    if (!single && line.ends_with('\r')) line.pop_back();
    if ((format & DT_EXPANDTABS) != 0) line = withTabsExpanded(line);
    if (!single && (format & DT_WORDBREAK) != 0) {
      breakWords(line, columns, &lines);
    } else {
      lines.push_back(line);
    }
  }
  return lines;
}

}  // namespace

void RecordingDC::failAt(int n, DWORD error) {
  failingCall_ = calls + n;
  error_ = error;
}

bool RecordingDC::fails() const {
  if (++calls != failingCall_) return false;
  qm::platform::setLastError(error_);
  return true;
}

int RecordingDC::GetDeviceCaps(int index) const {
  const std::map<int, int> capabilities = {
      {HORZRES, pageWidth},       {VERTRES, pageHeight},
      {LOGPIXELSX, unitsPerInch}, {LOGPIXELSY, unitsPerInch},
      {PHYSICALOFFSETX, offsetX}, {PHYSICALWIDTH, pageWidth + 2 * offsetX},
      {PHYSICALOFFSETY, offsetY}, {PHYSICALHEIGHT, pageHeight + 2 * offsetY},
  };
  const auto found = capabilities.find(index);
  return found != capabilities.end() ? found->second : 0;
}

BOOL RecordingDC::GetTextMetrics(TEXTMETRIC* metrics) const {
  if (fails()) return 0;
  *metrics = TEXTMETRIC{};
  metrics->tmHeight = cellHeight;
  metrics->tmAveCharWidth = metrics->tmMaxCharWidth = cellWidth;
  return 1;
}

int RecordingDC::DrawText(const char* text, CRect* rect, UINT format) {
  if (fails()) return 0;
  const auto columns = static_cast<std::size_t>(std::max(rect->Width() / cellWidth, 1));
  const std::vector<std::string> lines = linesOf(text, format, columns);
  const int height = static_cast<int>(lines.size()) * cellHeight;
  if ((format & DT_CALCRECT) == 0) {
    drawn.push_back({onPage_ ? page_ : 0, text, lines, *rect, format});
    return height;
  }
  std::size_t longest = 0;
  for (const std::string& line : lines) longest = std::max(longest, line.size());
  const LONG right = rect->left + static_cast<LONG>(longest) * cellWidth;
  // Broken text takes the width it is given, unless a word is longer.
  rect->right = (format & DT_WORDBREAK) != 0 ? std::max(rect->right, right) : right;
  rect->bottom = rect->top + height;
  return height;
}

int RecordingDC::jobCall(const std::string& call) {
  if (fails()) return 0;
  jobCalls.push_back(call);
  return 1;
}

int RecordingDC::StartDoc(const char* name) {
  const int result = jobCall(std::string("StartDoc ") + (name != nullptr ? name : ""));
  if (result > 0) page_ = 0;
  return result;
}

int RecordingDC::StartPage() {
  const int result = jobCall("StartPage");
  if (result > 0) ++page_;
  onPage_ = onPage_ || result > 0;
  return result;
}

int RecordingDC::EndPage() {
  const int result = jobCall("EndPage");
  onPage_ = onPage_ && result <= 0;
  return result;
}

int RecordingDC::EndDoc() { return jobCall("EndDoc"); }

int RecordingDC::AbortDoc() {
  onPage_ = false;
  return jobCall("AbortDoc");
}

}  // namespace qmtest
