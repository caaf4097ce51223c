#include "qmutils_print/PageSetup.h"

#include <charconv>

#include "qmutils/platform/ascii_case.h"

namespace qm {

namespace {

constexpr double kMmPerInch = 25.4;
constexpr double kSmallestMm = 10;
constexpr double kLargestMm = 5000;

struct NamedPaper {
  std::string_view name;
  PaperSize size;
};

// ISO 216; the others in inches (ANSI/ASME Y14.1).
constexpr NamedPaper kPapers[] = {
    {"A0", {841, 1189}},
    {"A1", {594, 841}},
    {"A2", {420, 594}},
    {"A3", {297, 420}},
    {"A4", {210, 297}},
    {"A5", {148, 210}},
    {"A6", {105, 148}},
    {"A7", {74, 105}},
    {"A8", {52, 74}},
    {"A9", {37, 52}},
    {"A10", {26, 37}},
    {"B0", {1000, 1414}},
    {"B1", {707, 1000}},
    {"B2", {500, 707}},
    {"B3", {353, 500}},
    {"B4", {250, 353}},
    {"B5", {176, 250}},
    {"B6", {125, 176}},
    {"B7", {88, 125}},
    {"B8", {62, 88}},
    {"B9", {44, 62}},
    {"B10", {31, 44}},
    {"Letter", {8.5 * kMmPerInch, 11 * kMmPerInch}},
    {"Legal", {8.5 * kMmPerInch, 14 * kMmPerInch}},
    {"Executive", {7.25 * kMmPerInch, 10.5 * kMmPerInch}},
    {"Ledger", {17 * kMmPerInch, 11 * kMmPerInch}},
    {"Tabloid", {11 * kMmPerInch, 17 * kMmPerInch}},
};

struct Unit {
  std::string_view name;
  double mm;
};

constexpr Unit kUnits[] = {
    {"", 1}, {"mm", 1}, {"cm", 10}, {"in", kMmPerInch}, {"pt", kMmPerInch / 72}};

bool takeNumber(std::string_view& text, double& number) noexcept {
  const auto parsed =
      std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (parsed.ec != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(parsed.ptr - text.data()));
  return true;
}

bool isSensible(double mm) noexcept { return mm >= kSmallestMm && mm <= kLargestMm; }

}  // namespace

std::optional<PaperSize> findPaper(std::string_view name) noexcept {
  for (const NamedPaper& paper : kPapers) {
    if (platform::isSameName(paper.name, name)) return paper.size;
  }
  PaperSize size{};
  if (!takeNumber(name, size.widthMm) || name.empty() || (name[0] != 'x' && name[0] != 'X')) {
    return std::nullopt;
  }
  name.remove_prefix(1);
  if (!takeNumber(name, size.heightMm)) return std::nullopt;
  for (const Unit& unit : kUnits) {
    if (!platform::isSameName(unit.name, name)) continue;
    size.widthMm *= unit.mm;
    size.heightMm *= unit.mm;
    if (isSensible(size.widthMm) && isSensible(size.heightMm)) return size;
  }
  return std::nullopt;
}

}  // namespace qm
