#include "qmutils/app/QMPrintTextC.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <string>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/unicode_text.h"
#include "qmutils/platform/waitable.h"
#include "qmutils/windowing/CDC.h"

namespace {

using QMErrors::NoError;
using QMErrors::QMErrorT;

constexpr const char* kLabel = "QMPrintTextC::PrintText(): ";

constexpr double kMarginMm = 10;
constexpr double kInchesPerMm = 0.03937007874015748;
/// A page with less room than this, in device units, is finished.
constexpr LONG kLeastRoom = 20;
/// A line is measured in pieces of so many times what a page takes of average characters, which
/// more than fills it; but not in pieces beyond the second number, which devices could not measure.
constexpr std::size_t kPagesPerPiece = 4;
constexpr std::size_t kLongestPiece = 16 * 1024;

constexpr UINT kTitleFormat =
    DT_CENTER | DT_SINGLELINE | DT_EXPANDTABS | DT_NOCLIP | DT_NOPREFIX | DT_PATH_ELLIPSIS;
constexpr UINT kLineFormat = DT_WORDBREAK | DT_EXPANDTABS | DT_NOCLIP | DT_NOPREFIX;

/// Calls the device, which gives 0 or less when it fails. `what` tells the log what it was to do.
template <class Call, class... Parts>
QMErrorT onDevice(Call call, const Parts&... what) {
  qm::platform::setLastError(0);
  if (call() > 0) return NoError;
  const DWORD reason = qm::platform::lastError();
  const QMErrorT code = QMErrors::fromOsError(reason != 0 ? reason : ERROR_GEN_FAILURE);
  qm::logError(kLabel, what..., QMErrToStr(code));
  return code;
}

QMErrorT getTextMetrics(CDC& dc, TEXTMETRIC& metrics) {
  metrics = {};
  const QMErrorT result =
      onDevice([&] { return dc.GetTextMetrics(&metrics); }, "failed to measure the font: ");
  // Printing ends also with a broken font.
  metrics.tmHeight = std::max<LONG>(metrics.tmHeight, 1);
  metrics.tmAveCharWidth = std::max<LONG>(metrics.tmAveCharWidth, 1);
  return result;
}

QMErrorT drawText(CDC& dc, const char* text, CRect place, UINT format) {
  return onDevice([&] { return dc.DrawText(text, &place, format); }, "failed to draw: ");
}

/// Text of the kinds that text files hold, as UTF-8 without characters that end a text.
std::string decoded(std::string&& bytes) {
  const bool bigEndian = bytes.starts_with("\xFE\xFF");
  if (bigEndian || bytes.starts_with("\xFF\xFE")) {
    std::string text;
    qm::platform::Utf8Encoder encoder;
    for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
      const auto first = static_cast<unsigned char>(bytes[i]);
      const auto second = static_cast<unsigned char>(bytes[i + 1]);
      text +=
          encoder.add(static_cast<char16_t>(bigEndian ? first << 8 | second : second << 8 | first));
    }
    text.append(encoder.finish());
    if (bytes.size() % 2 != 0) text += "\xEF\xBF\xBD";  // the file is torn there
    bytes = std::move(text);
  } else if (bytes.starts_with("\xEF\xBB\xBF")) {
    bytes.erase(0, 3);
  }
  std::replace(bytes.begin(), bytes.end(), '\0', ' ');
  return std::move(bytes);
}

QMErrorT readFile(const char* name, std::string& text) {
  const qm::platform::FilePtr file(qm::platform::openFile(name, "rb"));
  if (file == nullptr || !qm::platform::isRegularFile(file.get())) {
    qm::logError(kLabel, "failed to open: ", name != nullptr ? name : "");
    return QMErrors::FailedToOpenFile;
  }
  char buffer[64 * 1024];
  while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, file.get())) {
    text.append(buffer, count);
  }
  if (std::ferror(file.get()) != 0) {
    qm::logError(kLabel, "failed to read: ", name);
    return QMErrors::FailedToReadFile;
  }
  text = decoded(std::move(text));
  return NoError;
}

/// The longest beginning that has at most `size` bytes and ends between two characters.
std::string_view beginning(std::string_view text, std::size_t size) {
  if (size >= text.size()) return text;
  const auto isInside = [&](std::size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
  };
  std::size_t end = size;
  while (end > 0 && size - end < 3 && isInside(end)) --end;
  return text.substr(0, isInside(end) ? size : end);  // bytes that are no UTF-8 end anywhere
}

/// A shorter beginning, if possible one that ends behind a blank.
std::string_view untilBlank(std::string_view text, std::size_t size) {
  const std::string_view cut = beginning(text, size);
  const std::size_t blank = cut.find_last_of(" \t");
  const bool isFar = blank == std::string_view::npos || blank < cut.size() / 2;
  return isFar || cut.size() == text.size() ? cut : cut.substr(0, blank + 1);
}

}  // namespace

/// One document on its way to the paper.
class QMPrintTextC::JobC {
 public:
  JobC(QMPrintTextC& printer, CDC& dc, const char* title)
      : printer_(printer), dc_(dc), title_(title != nullptr ? title : "") {}

  QMErrorT Run(std::string_view text, const char* name);

 private:
  QMErrorT MeasurePage();
  QMErrorT PrintLines(std::string_view text);
  QMErrorT PrintLine(std::string_view line);
  QMErrorT PrintPiece(std::string_view& line);
  QMErrorT StartPage();
  QMErrorT PrintTop();
  QMErrorT FinishPage();
  QMErrorT MeasureHeight(std::string_view text, LONG& height);
  QMErrorT FindFitting(std::string_view& text, LONG& height);
  const char* AsText(std::string_view text) { return text_.assign(text).c_str(); }
  bool IsAborted() const { return qm::platform::wait(printer_.m_hAbortEvent, 0) == WAIT_OBJECT_0; }

  QMPrintTextC& printer_;
  CDC& dc_;
  const char* const title_;
  CRect page_;
  CRect remaining_;  // of the page, between what is printed and the footer
  LONG lineHeight_ = 1;
  std::size_t longestPiece_ = kLongestPiece;
  unsigned pageNumber_ = 0;
  bool onPage_ = false;   // a page is started
  bool hasTop_ = false;   // and its header printed
  bool isFresh_ = false;  // and no line
  std::string text_;      // what goes to the device
};

QMErrorT QMPrintTextC::JobC::Run(std::string_view text, const char* name) {
  QMErrorT result = MeasurePage();
  if (result != NoError) return result;
  result = onDevice([&] { return dc_.StartDoc(name != nullptr ? name : title_); },
                    "failed to start the document: ");
  if (result != NoError) return result;
  try {
    result = PrintLines(text);
  } catch (const std::bad_alloc&) {
    result = qm::logNoMemory(kLabel);
  }
  if (result == NoError) {
    result = onDevice([&] { return dc_.EndDoc(); }, "failed to end the document: ");
  }
  if (result != NoError) {
    const DWORD reason = qm::platform::lastError();
    (void)dc_.AbortDoc();  // the failure is told already
    qm::platform::setLastError(reason);
  }
  return result;
}

QMErrorT QMPrintTextC::JobC::MeasurePage() {
  printer_.CalcPageRect(&dc_, page_);
  TEXTMETRIC metrics;
  const QMErrorT result = getTextMetrics(dc_, metrics);
  if (result != NoError) return result;
  lineHeight_ = metrics.tmHeight;
  if (page_.Height() < lineHeight_) {
    qm::logError(kLabel, "the font is too big");
    return QMErrors::SelectedFontIsTooLarge;
  }
  const auto rows = static_cast<std::size_t>(page_.Height() / lineHeight_);
  const auto columns = std::max<std::size_t>(page_.Width(), 0) / metrics.tmAveCharWidth + 1;
  longestPiece_ = std::min(kPagesPerPiece * rows * columns, kLongestPiece);
  page_.bottom = page_.top + static_cast<LONG>(rows) * lineHeight_;
  return NoError;
}

QMErrorT QMPrintTextC::JobC::PrintLines(std::string_view text) {
  QMErrorT result = StartPage();
  while (result == NoError && !text.empty() && !IsAborted()) {
    const std::size_t end = std::min(text.find_first_of("\r\n"), text.size());
    result = PrintLine(text.substr(0, end));
    text.remove_prefix(end);
    text.remove_prefix(text.starts_with("\r\n") ? 2 : std::min<std::size_t>(text.size(), 1));
  }
  return result == NoError && onPage_ ? FinishPage() : result;
}

QMErrorT QMPrintTextC::JobC::PrintLine(std::string_view line) {
  QMErrorT result = PrintPiece(line);
  while (result == NoError && !line.empty() && !IsAborted()) result = PrintPiece(line);
  return result;
}

/// Prints as much of the line as a page takes, and removes it from the line.
QMErrorT QMPrintTextC::JobC::PrintPiece(std::string_view& line) {
  std::string_view piece = untilBlank(line, longestPiece_);
  LONG height = lineHeight_;
  QMErrorT result = PrintTop();
  if (result == NoError) result = MeasureHeight(piece, height);
  if (result == NoError && height > remaining_.Height() && !isFresh_) {
    result = FinishPage();
    if (result == NoError) result = PrintTop();
  }
  // On a fresh page something is printed whatever room there is, so that printing ends.
  if (result == NoError && height > remaining_.Height()) result = FindFitting(piece, height);
  if (result == NoError && !piece.empty()) {
    result = drawText(dc_, AsText(piece), remaining_, kLineFormat);
  }
  if (result != NoError) return result;
  line.remove_prefix(piece.size());
  remaining_.top = qm::coordinateSum(remaining_.top, height);
  isFresh_ = false;
  return remaining_.Height() < kLeastRoom ? FinishPage() : NoError;
}

QMErrorT QMPrintTextC::JobC::MeasureHeight(std::string_view text, LONG& height) {
  height = lineHeight_;
  if (text.empty()) return NoError;  // devices would give no height, but it has its place
  CRect place = remaining_;
  const QMErrorT result =
      onDevice([&] { return dc_.DrawText(AsText(text), &place, kLineFormat | DT_CALCRECT); },
               "failed to measure: ");
  if (result == NoError) height = place.Height();
  return result;
}

/// Shortens a text that is higher than the page to what fits, if possible between two words.
QMErrorT QMPrintTextC::JobC::FindFitting(std::string_view& text, LONG& height) {
  const LONG room = std::max(remaining_.Height(), lineHeight_);
  std::size_t fits = 0;
  std::size_t doesNot = text.size();
  while (doesNot - fits > 1) {
    const std::string_view tried = beginning(text, fits + (doesNot - fits) / 2);
    if (tried.size() <= fits) break;
    LONG triedHeight = 0;
    const QMErrorT result = MeasureHeight(tried, triedHeight);
    if (result != NoError) return result;
    (triedHeight <= room ? fits : doesNot) = tried.size();
  }
  // A single character that is too high is printed as it is.
  while (fits < text.size() && beginning(text, fits).empty()) ++fits;
  text = untilBlank(text, fits);
  return MeasureHeight(text, height);
}

QMErrorT QMPrintTextC::JobC::StartPage() {
  const QMErrorT result =
      onDevice([&] { return dc_.StartPage(); }, "failed to start page ", pageNumber_ + 1, ": ");
  onPage_ = result == NoError;
  hasTop_ = false;
  isFresh_ = true;
  return result;
}

/// Brings us onto a page with a header. A page is only started when there is a line for it, as
/// whoever aborts wants no further sheet.
QMErrorT QMPrintTextC::JobC::PrintTop() {
  if (!onPage_) {
    const QMErrorT result = StartPage();
    if (result != NoError) return result;
  }
  if (hasTop_) return NoError;
  hasTop_ = true;
  remaining_ = page_;
  remaining_.bottom -= lineHeight_;  // the footer's
  return printer_.PrintHeader(&dc_, page_, remaining_, title_);
}

QMErrorT QMPrintTextC::JobC::FinishPage() {
  QMErrorT result = PrintTop();  // of a page without a line
  if (result != NoError) return result;
  result = printer_.PrintFooter(&dc_, page_, remaining_, ++pageNumber_);
  if (result != NoError) return result;
  onPage_ = false;
  return onDevice([&] { return dc_.EndPage(); }, "failed to end page ", pageNumber_, ": ");
}

QMPrintTextC::QMPrintTextC() : m_hAbortEvent(qm::platform::createEvent(true, false)) {}

QMPrintTextC::~QMPrintTextC() {
  if (m_hAbortEvent != nullptr) qm::platform::closeHandle(m_hAbortEvent);
}

QMErrorT QMPrintTextC::PrintText(const char* file, CDC* dc, const char* title) try {
  QMErrorT result = ResetAbortEvent();  // whoever sets it while the file is read means this print
  std::string text;
  if (result == NoError) result = readFile(file, text);
  return result == NoError ? Print(text, dc, file, title) : result;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(kLabel);
}

QMErrorT QMPrintTextC::PrintText2(const char* text, CDC* dc, const char* name,
                                  const char* title) try {
  if (text == nullptr) return QMErrors::NullObjectProvided;
  const QMErrorT result = ResetAbortEvent();
  return result == NoError ? Print(text, dc, name, title) : result;
} catch (const std::bad_alloc&) {
  return qm::logNoMemory(kLabel);
}

QMErrorT QMPrintTextC::ResetAbortEvent() {
  if (qm::platform::resetEvent(m_hAbortEvent)) return NoError;
  const QMErrorT code = QMErrors::lastOsError();
  qm::logError(kLabel, "failed to reset m_hAbortEvent: ", QMErrToStr(code));
  return code;
}

QMErrorT QMPrintTextC::Print(std::string_view text, CDC* dc, const char* name, const char* title) {
  if (dc == nullptr) return QMErrors::NullObjectProvided;
  return JobC(*this, *dc, title).Run(text, name);
}

void QMPrintTextC::CalcPageRect(CDC* dc, CRect& page) {
  page.left = dc->GetDeviceCaps(PHYSICALOFFSETX);
  page.top = dc->GetDeviceCaps(PHYSICALOFFSETY);
  page.right = qm::coordinateSum(page.left, dc->GetDeviceCaps(HORZRES));
  page.bottom = qm::coordinateSum(page.top, dc->GetDeviceCaps(VERTRES));
  const auto margin = static_cast<LONG>(dc->GetDeviceCaps(LOGPIXELSY) * kMarginMm * kInchesPerMm);
  page.top = qm::coordinateSum(page.top, margin);
  page.bottom = qm::coordinateSum(page.bottom, -margin);
}

QMErrorT QMPrintTextC::PrintHeader(CDC* dc, CRect& page, CRect& remaining, const char* title) {
  TEXTMETRIC metrics;
  const QMErrorT result = getTextMetrics(*dc, metrics);
  if (result != NoError) return result;
  remaining.top = qm::coordinateSum(page.top, metrics.tmHeight);
  if (title == nullptr || *title == '\0') return NoError;
  return drawText(*dc, title, CRect(page.left, page.top, page.right, remaining.top), kTitleFormat);
}

QMErrorT QMPrintTextC::PrintFooter(CDC* dc, CRect& page, CRect& remaining,
                                   unsigned int pageNumber) {
  TEXTMETRIC metrics;
  const QMErrorT result = getTextMetrics(*dc, metrics);
  if (result != NoError) return result;
  remaining.bottom = qm::coordinateSum(page.bottom, -metrics.tmHeight);
  char text[32];
  std::snprintf(text, sizeof text, "%s %d", "Page:", static_cast<int>(pageNumber));
  return drawText(*dc, text, CRect(page.left, remaining.bottom, page.right, page.bottom),
                  kTitleFormat);
}
