#include "qmutils_print/TextLayout.h"

#include <cairo-pdf.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "qmutils/platform/ascii_case.h"
#include "qmutils/platform/types.h"
#include "qmutils_print/DocumentText.h"

namespace qm {

namespace {

constexpr int kPixelsPerInch = 96;  // of a description's "px", as style sheets count them
constexpr int kDefaultPoints = 10;
constexpr int kLargestPoints = 10'000;
constexpr int kCharactersPerTab = 8;

/// The bits that change how the lines lie.
constexpr UINT kLayoutBits = DT_CENTER | DT_RIGHT | DT_WORDBREAK | DT_SINGLELINE | DT_EXPANDTABS |
                             DT_NOPREFIX | DT_PATH_ELLIPSIS;

using FontDescriptionPtr =
    std::unique_ptr<PangoFontDescription, decltype(&pango_font_description_free)>;

bool has(UINT format, UINT bit) { return (format & bit) != 0; }
bool isBroken(UINT format) { return has(format, DT_WORDBREAK) && !has(format, DT_SINGLELINE); }
bool isEllipsized(UINT format) {
  return has(format, DT_PATH_ELLIPSIS) && has(format, DT_SINGLELINE);
}

LONG toUnits(int pango) {
  return static_cast<LONG>(std::lround(pango / (kPointsPerUnit * PANGO_SCALE)));
}
int toPango(LONG units) {
  constexpr double kLongest = std::numeric_limits<int>::max() / 2;
  return static_cast<int>(std::clamp(units * kPointsPerUnit * PANGO_SCALE, 0.0, kLongest));
}

FontDescriptionPtr parseFont(const char* text) {
  FontDescriptionPtr font(pango_font_description_from_string(text), &pango_font_description_free);
  PangoFontDescription* const raw = font.get();
  if ((pango_font_description_get_set_fields(raw) & PANGO_FONT_MASK_SIZE) == 0) {
    pango_font_description_set_size(raw, kDefaultPoints * PANGO_SCALE);
  }
  double points = static_cast<double>(pango_font_description_get_size(raw)) / PANGO_SCALE;
  if (pango_font_description_get_size_is_absolute(raw))
    points *= 1.0 * kPointsPerInch / kPixelsPerInch;
  if (!(points > 0 && points <= kLargestPoints)) return {nullptr, &pango_font_description_free};
  pango_font_description_set_size(raw, static_cast<int>(points * PANGO_SCALE));
  return font;
}

/// Characters that control devices become blanks, as fonts have nothing to show for them; so do
/// line ends and tabs where they have no effect.
std::string printable(std::string text, UINT format) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool isLineEnd = byte == '\n' || byte == '\r';
    const bool acts = isLineEnd      ? !has(format, DT_SINGLELINE)
                      : byte == '\t' ? has(format, DT_EXPANDTABS)
                                     : false;
    if ((byte < ' ' && !acts) || byte == 0x7F) text[i] = ' ';
    // U+0080 to U+009F
    if (byte == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0) text.replace(i, 2, " ");
  }
  return text;
}

/// The ends of a text whose middle will not be seen.
std::string withoutMiddle(std::string_view text) {
  constexpr std::size_t kEnd = 1000;
  if (text.size() <= 3 * kEnd) return std::string(text);
  std::size_t tail = text.size() - kEnd;
  std::size_t head = kEnd;
  const auto isInside = [&](std::size_t at) { return (text[at] & 0xC0) == 0x80; };
  while (head > kEnd - 4 && isInside(head)) --head;
  while (tail > text.size() - kEnd - 4 && isInside(tail)) --tail;
  return std::string(text.substr(0, head)) + "\xE2\x80\xA6" + std::string(text.substr(tail));
}

/// Takes the '&' signs out and underlines what stands behind them.
std::string withMnemonics(std::string_view text, PangoAttrList* attributes) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '&' && ++i < text.size() && text[i] != '&') {
      PangoAttribute* const line = pango_attr_underline_new(PANGO_UNDERLINE_SINGLE);
      line->start_index = static_cast<guint>(plain.size());
      line->end_index = line->start_index + g_utf8_skip[static_cast<unsigned char>(text[i])];
      pango_attr_list_insert(attributes, line);
    }
    if (i < text.size()) plain += text[i];
  }
  return plain;
}

}  // namespace

TextLayout::TextLayout() : fonts_(pango_cairo_font_map_new()) {
  // Points, as in the page: in device units long lines would not fit the layout's type.
  pango_cairo_font_map_set_resolution(PANGO_CAIRO_FONT_MAP(fonts_.get()), kPointsPerInch);
  context_.reset(pango_font_map_create_context(fonts_.get()));
  pango_context_set_round_glyph_positions(context_.get(), FALSE);
  // Fonts are loaded as a document's pages want them, so that nothing is laid out anew for those.
  cairo_surface_t* const surface = cairo_pdf_surface_create_for_stream(nullptr, nullptr, 1, 1);
  cairo_t* const cr = cairo_create(surface);
  pango_cairo_update_context(cr, context_.get());
  cairo_destroy(cr);
  cairo_surface_destroy(surface);
  layout_.reset(pango_layout_new(context_.get()));
  pango_layout_set_wrap(layout_.get(), PANGO_WRAP_WORD_CHAR);
}

bool TextLayout::setFont(const char* description) {
  const FontDescriptionPtr font = parseFont(description);
  if (font == nullptr) return false;
  pango_layout_set_font_description(layout_.get(), font.get());
  valid_ = false;
  measureFont();
  return true;
}

void TextLayout::measureFont() {
  layOut("x", 0, DT_SINGLELINE | DT_NOPREFIX);
  metrics_.height = toUnits(extents().height);
  metrics_.ascent = toUnits(pango_layout_get_baseline(layout_.get()));
  const PangoFontDescription* const font = pango_layout_get_font_description(layout_.get());
  metrics_.weight = static_cast<int>(pango_font_description_get_weight(font));
  metrics_.italic = pango_font_description_get_style(font) != PANGO_STYLE_NORMAL;
  PangoFontMetrics* const metrics = pango_context_get_metrics(context_.get(), font, nullptr);
  const int average = pango_font_metrics_get_approximate_char_width(metrics);
  pango_font_metrics_unref(metrics);
  metrics_.averageWidth = std::max<LONG>(toUnits(average), 1);
  PangoTabArray* const tabs =
      pango_tab_array_new_with_positions(1, FALSE, PANGO_TAB_LEFT, average * kCharactersPerTab);
  pango_layout_set_tabs(layout_.get(), tabs);
  pango_tab_array_free(tabs);
}

bool TextLayout::canLayOut(std::string_view text) const {
  constexpr double kEmsPerByte = 2;
  constexpr double kEmsPerTab = kCharactersPerTab;
  constexpr double kEmsPerRow = 4;  // of line feeds
  const auto count = [&](char c) {
    return static_cast<double>(std::count(text.begin(), text.end(), c));
  };
  const double ems = kEmsPerByte * static_cast<double>(text.size()) + kEmsPerTab * count('\t') +
                     kEmsPerRow * count('\n');
  const double em =
      pango_font_description_get_size(pango_layout_get_font_description(layout_.get()));
  return ems * em < std::numeric_limits<int>::max();
}

std::string TextLayout::fontFamily() const {
  const GObjectPtr<PangoFont> font(
      pango_context_load_font(context_.get(), pango_layout_get_font_description(layout_.get())));
  if (font == nullptr) return {};
  const FontDescriptionPtr used(pango_font_describe(font.get()), &pango_font_description_free);
  const char* const family = pango_font_description_get_family(used.get());
  return family != nullptr ? family : "";
}

bool TextLayout::isFontInstalled() const {
  // Which the system maps to a font of its choice.
  constexpr const char* kGeneric[] = {"Monospace",  "Mono",  "Sans",
                                      "Sans-serif", "Serif", "System-ui"};
  const char* const family =
      pango_font_description_get_family(pango_layout_get_font_description(layout_.get()));
  if (family == nullptr) return true;
  for (const char* generic : kGeneric) {
    if (platform::isSameName(family, generic)) return true;
  }
  return platform::isSameName(family, fontFamily());
}

TextLayout::Size TextLayout::measure(std::string_view text, LONG width, UINT format) {
  layOut(text, width, format);
  const PangoRectangle size = extents();
  return {toUnits(size.width), toUnits(size.height)};
}

TextLayout::Size TextLayout::draw(cairo_t* cr, std::string_view text, const CRect& rect,
                                  UINT format) {
  const Size size = measure(text, rect.Width(), format);
  double x = rect.left;
  double y = 0;  // from the top
  // Broken lines lie in the whole width, others beside each other only.
  const double gap = isBroken(format) ? 0.0 : static_cast<double>(rect.Width()) - size.width;
  if (has(format, DT_CENTER)) x += gap / 2;
  if (has(format, DT_RIGHT)) x += gap;
  if (has(format, DT_SINGLELINE)) {
    const double below = static_cast<double>(rect.Height()) - size.height;
    if (has(format, DT_VCENTER)) y = below / 2;
    if (has(format, DT_BOTTOM)) y = below;
  }
  cairo_move_to(cr, x * kPointsPerUnit, (rect.top + y) * kPointsPerUnit);
  pango_cairo_show_layout(cr, layout_.get());
  return {size.width, qm::coordinateSum(std::llround(y), size.height)};
}

PangoRectangle TextLayout::extents() const {
  PangoRectangle logical;
  pango_layout_get_extents(layout_.get(), nullptr, &logical);
  return logical;
}

void TextLayout::layOut(std::string_view whole, LONG width, UINT format) {
  format &= kLayoutBits;
  const std::string shortened = isEllipsized(format) ? withoutMiddle(whole) : std::string();
  const std::string_view text = isEllipsized(format) ? shortened : whole;
  if (!isBroken(format) && !isEllipsized(format)) width = 0;
  if (valid_ && text == text_ && width == width_ && format == format_) return;
  valid_ = false;
  text_ = text;
  width_ = width;
  format_ = format;
  PangoLayout* const layout = layout_.get();
  setText(text, format);
  pango_layout_set_single_paragraph_mode(layout, has(format, DT_SINGLELINE));
  pango_layout_set_alignment(layout, has(format, DT_CENTER)  ? PANGO_ALIGN_CENTER
                                     : has(format, DT_RIGHT) ? PANGO_ALIGN_RIGHT
                                                             : PANGO_ALIGN_LEFT);
  pango_layout_set_ellipsize(layout, PANGO_ELLIPSIZE_NONE);
  pango_layout_set_width(layout, isBroken(format) ? toPango(width) : -1);
  if (isEllipsized(format) && extents().width > toPango(width)) {
    pango_layout_set_ellipsize(layout, PANGO_ELLIPSIZE_MIDDLE);
    pango_layout_set_width(layout, toPango(width));
  }
  valid_ = true;
}

void TextLayout::setText(std::string_view text, UINT format) {
  std::string shown = printable(documentText(text), format);
  PangoAttrList* const attributes = pango_attr_list_new();
  // A word is broken without a hyphen: paths and numbers would read wrong.
  pango_attr_list_insert(attributes, pango_attr_insert_hyphens_new(FALSE));
  if (!has(format, DT_NOPREFIX)) shown = withMnemonics(shown, attributes);
  pango_layout_set_attributes(layout_.get(), attributes);
  pango_attr_list_unref(attributes);
  pango_layout_set_text(layout_.get(), shown.data(), static_cast<int>(shown.size()));
}

}  // namespace qm
