// A log of 10,000 lines as a PDF document, against the same text laid out by a plain loop over
// Pango and Cairo, which measures and shows each line in points and begins pages as it needs them.
// Both write a file. What counts is the ratio of the two.
#include <benchmark/benchmark.h>
#include <cairo-pdf.h>
#include <pango/pangocairo.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "qmutils/app/QMPrintTextC.h"
#include "qmutils_print/CPdfDC.h"

namespace {

constexpr int kLines = 10'000;
constexpr const char* kFont = "DejaVu Sans Mono 9";
constexpr const char* kTitle = "Log of the imager";

/// As the library's logs look; some lines are wrapped.
std::string logText() {
  std::string text;
  for (int i = 0; i < kLines; ++i) {
    text += std::to_string(100'000 + i) + "\t2026-11-22 10:00:00.123  INFO: ImagerC::Expose(): ";
    text += "line " + std::to_string(i * 7919) + " of page " + std::to_string(i % 97);
    if (i % 5 == 0)
      text += ", the carriage stands at 123.456 mm and the drum turns 900 times a minute";
    text += "\n";
  }
  return text;
}

std::string outputFile() {
  return (std::filesystem::temp_directory_path() / "qmutils_print_bench.pdf").string();
}

void printLog(benchmark::State& state) {
  const std::string text = logText();
  const std::string file = outputFile();
  qm::PageSetup setup;
  setup.font = kFont;
  for (auto _ : state) {
    CPdfDC dc(file.c_str(), setup);
    if (QMPrintTextC().PrintText2(text.c_str(), &dc, kTitle, kTitle) != QMErrors::NoError) {
      std::abort();
    }
    state.counters["pages"] = dc.GetPageCount();
  }
  std::filesystem::remove(file);
}
BENCHMARK(printLog)->Unit(benchmark::kMillisecond);

/// The plain loop's page: the same margins, a title and a number.
class PlainPrinter {
 public:
  explicit PlainPrinter(const std::string& file)
      : surface_(cairo_pdf_surface_create(file.c_str(), kWidth, kHeight)),
        cr_(cairo_create(surface_)),
        layout_(pango_cairo_create_layout(cr_)),
        title_(pango_cairo_create_layout(cr_)) {
    PangoFontDescription* const font = pango_font_description_from_string(kFont);
    for (PangoLayout* layout : {layout_, title_}) {
      pango_cairo_context_set_resolution(pango_layout_get_context(layout), 72);
      pango_layout_set_font_description(layout, font);
      pango_layout_set_width(layout, static_cast<int>((kWidth - 2 * kSide) * PANGO_SCALE));
    }
    pango_font_description_free(font);
    pango_layout_set_alignment(title_, PANGO_ALIGN_CENTER);
    pango_layout_set_wrap(layout_, PANGO_WRAP_WORD_CHAR);
    pango_layout_set_text(title_, kTitle, -1);
    int height = 0;
    pango_layout_get_size(title_, nullptr, &height);
    lineHeight_ = 1.0 * height / PANGO_SCALE;
    beginPage();
  }
  ~PlainPrinter() {
    endPage();
    cairo_surface_finish(surface_);
    if (cairo_surface_status(surface_) != CAIRO_STATUS_SUCCESS) std::abort();
    g_object_unref(layout_);
    g_object_unref(title_);
    cairo_destroy(cr_);
    cairo_surface_destroy(surface_);
  }
  PlainPrinter(const PlainPrinter&) = delete;
  PlainPrinter& operator=(const PlainPrinter&) = delete;

  void print(std::string_view line) {
    pango_layout_set_text(layout_, line.data(), static_cast<int>(line.size()));
    int size = 0;
    pango_layout_get_size(layout_, nullptr, &size);
    const double height = 1.0 * size / PANGO_SCALE;
    if (y_ + height > kHeight - kTop - lineHeight_) {
      endPage();
      beginPage();
    }
    cairo_move_to(cr_, kSide, y_);
    pango_cairo_show_layout(cr_, layout_);
    y_ += height;
  }
  int pages() const { return page_; }

 private:
  static constexpr double kWidth = 595.276, kHeight = 841.89, kSide = 18, kTop = 46.35;

  void showTitle(const std::string& text, double y) {
    pango_layout_set_text(title_, text.c_str(), -1);
    cairo_move_to(cr_, kSide, y);
    pango_cairo_show_layout(cr_, title_);
  }
  void beginPage() {
    ++page_;
    showTitle(kTitle, kTop);
    y_ = kTop + lineHeight_;
  }
  void endPage() {
    showTitle("Page: " + std::to_string(page_), kHeight - kTop - lineHeight_);
    cairo_show_page(cr_);
  }

  cairo_surface_t* surface_;
  cairo_t* cr_;
  PangoLayout* layout_;
  PangoLayout* title_;
  double lineHeight_ = 0;
  double y_ = 0;
  int page_ = 0;
};

void printLogByPlainLoop(benchmark::State& state) {
  const std::string text = logText();
  const std::string file = outputFile();
  for (auto _ : state) {
    PlainPrinter printer(file);
    for (std::string_view rest = text; !rest.empty();) {
      const std::size_t end = rest.find('\n');
      printer.print(rest.substr(0, end));
      rest.remove_prefix(end + 1);
    }
    state.counters["pages"] = printer.pages();
  }
  std::filesystem::remove(file);
}
BENCHMARK(printLogByPlainLoop)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
