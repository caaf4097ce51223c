#include "qmutils_print/CPdfDC.h"

#include <cairo-pdf.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "qmutils/platform/error.h"
#include "qmutils_print/DocumentText.h"
#include "qmutils_print/PdfFile.h"
#include "qmutils_print/TextLayout.h"

namespace {

using qm::kUnitsPerInch;

constexpr double kMmPerInch = 25.4;

/// What the functions of a device context give when they fail.
int fail(DWORD reason) {
  qm::platform::setLastError(reason);
  return 0;
}

int toUnits(double mm) { return static_cast<int>(std::lround(mm / kMmPerInch * kUnitsPerInch)); }
double toPoints(double mm) { return mm / kMmPerInch * qm::kPointsPerInch; }

/// Also false for what is no number.
bool isUsable(const qm::PageSetup& setup) {
  constexpr double kLargestMm = 5'080;  // of a PDF page
  const auto fits = [&](double mm) { return mm > 2 * setup.marginMm && mm <= kLargestMm; };
  return setup.marginMm >= 0 && setup.marginMm <= kLargestMm && fits(setup.pageWidthMm()) &&
         fits(setup.pageHeightMm());
}

}  // namespace

/// The document that is being made. It goes to the output as it grows.
class CPdfDC::DocumentC {
 public:
  DocumentC(OutputC& output, const qm::PageSetup& setup, const std::string& title)
      : output_(&output) {
    surface_ = cairo_pdf_surface_create_for_stream(
        &DocumentC::write, this, toPoints(setup.pageWidthMm()), toPoints(setup.pageHeightMm()));
    cairo_pdf_surface_set_metadata(surface_, CAIRO_PDF_METADATA_CREATOR, "qmutils");
    if (!title.empty()) {
      cairo_pdf_surface_set_metadata(surface_, CAIRO_PDF_METADATA_TITLE, title.c_str());
    }
    cr_ = cairo_create(surface_);
  }
  DocumentC(const DocumentC&) = delete;
  DocumentC& operator=(const DocumentC&) = delete;
  ~DocumentC() {
    const DWORD reason = qm::platform::lastError();
    OutputC* const unfinished = std::exchange(output_, nullptr);  // Cairo writes once more
    cairo_destroy(cr_);
    cairo_surface_destroy(surface_);
    if (unfinished != nullptr) unfinished->Discard();
    qm::platform::setLastError(reason);
  }

  cairo_t* cr() const { return cr_; }

  bool endPage() {
    cairo_show_page(cr_);
    return isSound();
  }

  /// The output's answer.
  int finish() {
    cairo_surface_finish(surface_);
    if (!isSound()) return 0;
    OutputC* const output = std::exchange(output_, nullptr);
    return output->Close();
  }

  /// False, with the reason as the last error, once anything has failed.
  bool isSound() const {
    cairo_status_t status = cairo_status(cr_);
    if (status == CAIRO_STATUS_SUCCESS) status = cairo_surface_status(surface_);
    if (status == CAIRO_STATUS_SUCCESS && failure_ == 0) return true;
    const DWORD reason =
        status == CAIRO_STATUS_NO_MEMORY ? ERROR_NOT_ENOUGH_MEMORY : ERROR_GEN_FAILURE;
    return fail(failure_ != 0 ? failure_ : reason) != 0;
  }

 private:
  static cairo_status_t write(void* self, const unsigned char* data, unsigned size) {
    auto& document = *static_cast<DocumentC*>(self);
    if (document.output_ == nullptr || document.failure_ != 0) return CAIRO_STATUS_WRITE_ERROR;
    qm::platform::setLastError(0);
    if (document.output_->Write(data, size)) return CAIRO_STATUS_SUCCESS;
    const DWORD reason = qm::platform::lastError();
    document.failure_ = reason != 0 ? reason : ERROR_WRITE_FAULT;
    return CAIRO_STATUS_WRITE_ERROR;
  }

  OutputC* output_;  // null once it is closed
  DWORD failure_ = 0;
  cairo_surface_t* surface_;
  cairo_t* cr_;
};

class CPdfDC::ImplC {
 public:
  ImplC(std::unique_ptr<OutputC> output, const qm::PageSetup& setup)
      : setup_(setup), output_(std::move(output)), hasPaper_(isUsable(setup)) {
    hasFont_ = layout_.setFont(setup_.font.c_str());
    if (!hasFont_) (void)layout_.setFont("");
  }

  bool isReady() const { return hasPaper_ && hasFont_; }

  const qm::PageSetup setup_;
  const std::unique_ptr<OutputC> output_;
  const bool hasPaper_;
  bool hasFont_ = false;
  qm::TextLayout layout_;
  std::optional<DocumentC> document_;
  bool onPage_ = false;
  unsigned pages_ = 0;
};

namespace {

std::unique_ptr<CPdfDC::OutputC> fileOutput(const char* file) noexcept try {
  return std::make_unique<qm::PdfFile>(file);
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace

CPdfDC::CPdfDC(const char* file, const qm::PageSetup& setup) : CPdfDC(fileOutput(file), setup) {}

CPdfDC::CPdfDC(std::unique_ptr<OutputC> output, const qm::PageSetup& setup) {
  try {
    if (output != nullptr) m_pImpl = std::make_unique<ImplC>(std::move(output), setup);
  } catch (const std::bad_alloc&) {
    // Without its parts every call fails for want of memory.
  }
}

CPdfDC::~CPdfDC() = default;

bool CPdfDC::SetFont(const char* description) try {
  if (m_pImpl == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY) != 0;
  if (description == nullptr || !m_pImpl->layout_.setFont(description)) {
    return fail(ERROR_INVALID_PARAMETER) != 0;
  }
  m_pImpl->hasFont_ = true;
  return true;
} catch (const std::bad_alloc&) {
  return fail(ERROR_NOT_ENOUGH_MEMORY) != 0;
}

std::string CPdfDC::GetFontFamily() const try {
  return m_pImpl != nullptr ? m_pImpl->layout_.fontFamily() : std::string();
} catch (const std::bad_alloc&) {
  return {};
}

bool CPdfDC::IsFontInstalled() const try {
  return m_pImpl != nullptr && m_pImpl->layout_.isFontInstalled();
} catch (const std::bad_alloc&) {
  return false;
}

unsigned CPdfDC::GetPageCount() const { return m_pImpl != nullptr ? m_pImpl->pages_ : 0; }

int CPdfDC::GetDeviceCaps(int index) const {
  if (m_pImpl == nullptr || !m_pImpl->hasPaper_) return 0;
  const qm::PageSetup& setup = m_pImpl->setup_;
  const int width = toUnits(setup.pageWidthMm());
  const int height = toUnits(setup.pageHeightMm());
  const int margin = toUnits(setup.marginMm);
  switch (index) {
    case HORZRES:
      return width - 2 * margin;
    case VERTRES:
      return height - 2 * margin;
    case LOGPIXELSX:
    case LOGPIXELSY:
      return kUnitsPerInch;
    case PHYSICALWIDTH:
      return width;
    case PHYSICALHEIGHT:
      return height;
    case PHYSICALOFFSETX:
    case PHYSICALOFFSETY:
      return margin;
    default:
      return 0;
  }
}

BOOL CPdfDC::GetTextMetrics(TEXTMETRIC* metrics) const {
  if (m_pImpl == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY);
  if (metrics == nullptr || !m_pImpl->isReady()) return fail(ERROR_INVALID_PARAMETER);
  const qm::TextLayout::Metrics& font = m_pImpl->layout_.metrics();
  *metrics = TEXTMETRIC{};
  metrics->tmHeight = font.height;
  metrics->tmAscent = font.ascent;
  metrics->tmDescent = font.height - font.ascent;
  metrics->tmAveCharWidth = font.averageWidth;
  metrics->tmMaxCharWidth = font.averageWidth;
  metrics->tmWeight = font.weight;
  metrics->tmItalic = font.italic;
  metrics->tmDigitizedAspectX = kUnitsPerInch;
  metrics->tmDigitizedAspectY = kUnitsPerInch;
  return 1;
}

int CPdfDC::DrawText(const char* text, CRect* rect, UINT format) try {
  if (m_pImpl == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY);
  if (text == nullptr || rect == nullptr) return fail(ERROR_INVALID_PARAMETER);
  const std::string_view shown = text;
  const bool isCut = (format & DT_SINGLELINE) != 0 && (format & DT_PATH_ELLIPSIS) != 0;
  if (!m_pImpl->isReady() || (!isCut && !m_pImpl->layout_.canLayOut(shown))) {
    return fail(ERROR_INVALID_PARAMETER);
  }
  if ((format & DT_CALCRECT) != 0) {
    const auto size = m_pImpl->layout_.measure(shown, rect->Width(), format);
    rect->right = qm::coordinateSum(rect->left, size.width);
    rect->bottom = qm::coordinateSum(rect->top, size.height);
    return size.height;
  }
  if (!m_pImpl->onPage_) return fail(ERROR_INVALID_HANDLE);
  cairo_t* const cr = m_pImpl->document_->cr();
  cairo_save(cr);
  if ((format & DT_NOCLIP) == 0) {
    cairo_rectangle(cr, rect->left * qm::kPointsPerUnit, rect->top * qm::kPointsPerUnit,
                    rect->Width() * qm::kPointsPerUnit, rect->Height() * qm::kPointsPerUnit);
    cairo_clip(cr);
  }
  const auto size = m_pImpl->layout_.draw(cr, shown, *rect, format);
  cairo_restore(cr);
  // Also above the rectangle something has been drawn.
  return m_pImpl->document_->isSound() ? std::max<LONG>(size.height, 1) : 0;
} catch (const std::bad_alloc&) {
  return fail(ERROR_NOT_ENOUGH_MEMORY);
}

int CPdfDC::StartDoc(const char* name) try {
  if (m_pImpl == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY);
  if (m_pImpl->document_) return fail(ERROR_INVALID_HANDLE);
  if (!m_pImpl->isReady()) return fail(ERROR_INVALID_PARAMETER);
  const std::string title = qm::documentText(name != nullptr ? name : "");
  if (!m_pImpl->output_->Open(name)) return 0;
  m_pImpl->pages_ = 0;
  m_pImpl->document_.emplace(*m_pImpl->output_, m_pImpl->setup_, title);
  if (m_pImpl->document_->isSound()) return 1;
  m_pImpl->document_.reset();
  return 0;
} catch (const std::bad_alloc&) {
  return fail(ERROR_NOT_ENOUGH_MEMORY);
}

int CPdfDC::StartPage() {
  if (m_pImpl == nullptr || !m_pImpl->document_ || m_pImpl->onPage_) {
    return fail(ERROR_INVALID_HANDLE);
  }
  m_pImpl->onPage_ = true;
  return 1;
}

int CPdfDC::EndPage() {
  if (m_pImpl == nullptr || !m_pImpl->onPage_) return fail(ERROR_INVALID_HANDLE);
  m_pImpl->onPage_ = false;
  if (!m_pImpl->document_->endPage()) return 0;
  ++m_pImpl->pages_;
  return 1;
}

int CPdfDC::EndDoc() {
  if (m_pImpl == nullptr || !m_pImpl->document_) return fail(ERROR_INVALID_HANDLE);
  if (m_pImpl->onPage_) (void)EndPage();  // a failure lasts
  const int result = m_pImpl->document_->finish();
  m_pImpl->document_.reset();
  return result;
}

int CPdfDC::AbortDoc() {
  if (m_pImpl == nullptr || !m_pImpl->document_) return fail(ERROR_INVALID_HANDLE);
  m_pImpl->onPage_ = false;
  m_pImpl->document_.reset();
  return 1;
}
