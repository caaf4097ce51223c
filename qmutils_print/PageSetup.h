// What a document is printed on: the size of the paper, the margins that a printer leaves, and the
// font.
//
//   qm::PageSetup setup;
//   if (const auto paper = qm::findPaper("Letter")) setup.paper = *paper;
//   setup.font = "DejaVu Sans Mono 9";
//
// Plain values; findPaper() may be called from any thread and does not throw.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "qmutils/platform/export.h"

namespace qm {

/// Of an upright sheet, in millimetres.
struct PaperSize {
  double widthMm;
  double heightMm;
};

/// A size by its name, upper and lower case alike: "A0" to "A10", "B0" to "B10" (ISO 216),
/// "Letter", "Legal", "Executive", "Ledger", "Tabloid"; or "WIDTHxHEIGHT", each a decimal number,
/// with "mm" (also without a unit), "cm", "in" or "pt" behind it: "148x210", "8.5x11in". Nothing
/// for any other text, and for sizes below 10 mm or above 5,000 mm.
QMUTILS_PRINT_API std::optional<PaperSize> findPaper(std::string_view name) noexcept;

struct PageSetup {
  PaperSize paper{210, 297};
  bool landscape = false;  ///< the sheet is turned: its height becomes the page's width
  /// On each side, the part of the sheet that is outside the printable area; 0 or more.
  double marginMm = 6.35;
  /// Family, style and size in points, as "DejaVu Sans Mono Bold 9": any installed font. Without a
  /// size it is 10 points.
  std::string font = "Monospace 10";

  double pageWidthMm() const { return landscape ? paper.heightMm : paper.widthMm; }
  double pageHeightMm() const { return landscape ? paper.widthMm : paper.heightMm; }
};

}  // namespace qm
