#include "qmutils/platform/posix/profile_text.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "qmutils/platform/ascii_case.h"
#include "qmutils/platform/unicode_text.h"

namespace qm::platform::posix {

namespace {

constexpr bool isBlank(char c) noexcept { return c == ' ' || c == '\t'; }
constexpr bool isLineEnd(char c) noexcept { return c == '\r' || c == '\n'; }

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view unquoted(std::string_view text) noexcept {
  const bool quoted = text.size() >= 2 && text.front() == text.back() &&
                      (text.front() == '"' || text.front() == '\'');
  return quoted ? text.substr(1, text.size() - 2) : text;
}

// --- encodings -----------------------------------------------------------------------------------

enum class Encoding { Bytes, Utf8, Utf16LittleEndian, Utf16BigEndian };  // all but Bytes by a mark

Encoding encodingOf(std::string_view bytes) noexcept {
  if (bytes.starts_with("\xEF\xBB\xBF")) return Encoding::Utf8;
  if (bytes.starts_with("\xFF\xFE")) return Encoding::Utf16LittleEndian;
  if (bytes.starts_with("\xFE\xFF")) return Encoding::Utf16BigEndian;
  return Encoding::Bytes;
}

constexpr bool isUtf16(Encoding encoding) noexcept {
  return encoding == Encoding::Utf16LittleEndian || encoding == Encoding::Utf16BigEndian;
}

constexpr std::size_t markSize(Encoding encoding) noexcept {
  return encoding == Encoding::Bytes ? 0 : encoding == Encoding::Utf8 ? 3 : 2;
}

/// The text without the mark; UTF-16 as UTF-8, unit by unit, so that half a surrogate pair is one
/// character too.
std::string decoded(std::string bytes, Encoding encoding) {
  if (!isUtf16(encoding)) return bytes.erase(0, markSize(encoding));
  const std::size_t highAt = encoding == Encoding::Utf16BigEndian ? 0 : 1;
  std::string text;
  text.reserve(bytes.size());
  Utf8Encoder encoder;
  for (std::size_t i = markSize(encoding); i + 1 < bytes.size(); i += 2) {
    const auto high = static_cast<unsigned char>(bytes[i + highAt]);
    const auto low = static_cast<unsigned char>(bytes[i + 1 - highAt]);
    text += encoder.add(static_cast<char16_t>(high << 8 | low));
  }
  return text += encoder.finish();
}

std::string encoded(const std::string& text, Encoding encoding) {
  if (!isUtf16(encoding)) return text;
  std::u16string units(text.size(), u'\0');
  units.resize(utf16FromUtf8(text, units.data(), units.size()));
  std::string bytes;
  bytes.reserve(2 * units.size());
  for (const char16_t unit : units) {
    const char high = static_cast<char>(unit >> 8), low = static_cast<char>(unit);
    bytes += encoding == Encoding::Utf16BigEndian ? high : low;
    bytes += encoding == Encoding::Utf16BigEndian ? low : high;
  }
  return bytes;
}

/// Where in the file a place of the decoded text is.
std::size_t offsetInFile(std::string_view before, Encoding encoding) noexcept {
  if (!isUtf16(encoding)) return markSize(encoding) + before.size();
  std::size_t units = 0;
  for (const char c : before) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) units += byte >= 0xF0 ? 2 : 1;
  }
  return markSize(encoding) + 2 * units;
}

// --- lines ---------------------------------------------------------------------------------------

struct Line {
  enum class Kind { Nothing, Section, Key } kind;
  std::string_view name;
  std::string_view value;  ///< trimmed, with its quotes
  std::size_t end;         ///< in the text, behind the line end
};

class LineReader {
 public:
  explicit LineReader(std::string_view text) noexcept : text_(text) {}

  bool next(Line* line) noexcept {
    if (at_ == text_.size()) return false;
    std::size_t end = at_;
    while (end < text_.size() && !isLineEnd(text_[end])) ++end;
    takeApart(text_.substr(at_, end - at_), line);
    at_ = end + (text_.substr(end, 2) == "\r\n" ? 2 : end < text_.size() ? 1 : 0);
    line->end = at_;
    return true;
  }

 private:
  static void takeApart(std::string_view text, Line* line) noexcept {
    text = trimmed(text);
    line->kind = Line::Kind::Nothing;
    if (text.empty() || text[0] == ';') return;
    const std::size_t bracket = text[0] == '[' ? text.rfind(']') : std::string_view::npos;
    if (bracket != std::string_view::npos) {
      line->kind = Line::Kind::Section;
      line->name = trimmed(text.substr(1, bracket - 1));
      return;
    }
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) return;
    line->kind = Line::Kind::Key;
    line->name = trimmed(text.substr(0, equals));
    line->value = text.substr(equals + 1);
    while (!line->value.empty() && isBlank(line->value[0])) line->value.remove_prefix(1);
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

// --- changing a value ----------------------------------------------------------------------------

/// Where a key is, or where it belongs.
struct Place {
  bool hasSection = false;
  bool hasKey = false;
  std::string_view value;
  std::size_t end = 0;  ///< behind the last key of the section, or behind its first line
};

Place locate(std::string_view text, std::string_view section, std::string_view key) noexcept {
  const FoldedEqual equal;
  Place place;
  bool inside = section.empty();  // before any section
  bool counts = false;            // keys before any section make it the one that is searched
  place.hasSection = inside;
  Line line;
  for (LineReader lines(text); lines.next(&line);) {
    if (line.kind == Line::Kind::Section) {
      if (inside && counts) break;
      inside = counts = equal(line.name, section);
      if (!inside) continue;
      place.hasSection = true;
      place.end = line.end;
    } else if (inside && line.kind == Line::Kind::Key) {
      counts = true;
      place.end = line.end;
      if (!equal(line.name, key)) continue;
      place.hasKey = true;
      place.value = line.value;
      break;
    }
  }
  return place;
}

/// In quotes where it would lose something without them.
std::string shownValue(std::string_view value) {
  std::string shown(value);
  return unquoted(trimmed(value)) == value ? shown : '"' + shown + '"';
}

std::string lineEndOf(std::string_view text) {
  const std::size_t at = text.find_first_of("\r\n");
  if (at == std::string_view::npos) return "\n";
  return std::string(text.substr(at, text.substr(at, 2) == "\r\n" ? 2 : 1));
}

struct Edit {
  std::size_t from;  ///< in the decoded text
  std::size_t to;
  std::string text;
};

Edit editFor(std::string_view text, std::string_view section, std::string_view key,
             std::string_view value) {
  const Place place = locate(text, section, key);
  if (place.hasKey) {
    const auto from = static_cast<std::size_t>(place.value.data() - text.data());
    return {from, from + place.value.size(), shownValue(value)};
  }
  const std::string lineEnd = lineEndOf(text);
  const std::size_t at = place.hasSection ? place.end : text.size();
  std::string added;
  if (at > 0 && !isLineEnd(text[at - 1])) added += lineEnd;
  if (!place.hasSection) added.append("[").append(section).append("]").append(lineEnd);
  added.append(key).append("=").append(shownValue(value)).append(lineEnd);
  return {at, at, added};
}

}  // namespace

std::size_t FoldedHash::operator()(std::string_view name) const noexcept {
  std::uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  for (const char c : name) {
    hash = (hash ^ static_cast<unsigned char>(foldedCase(c))) * 0x100000001b3;
  }
  return static_cast<std::size_t>(hash);
}

bool FoldedEqual::operator()(std::string_view a, std::string_view b) const noexcept {
  return isSameName(a, b);
}

ProfileText::ProfileText(std::string bytes) {
  const Encoding encoding = encodingOf(bytes);
  text_ = decoded(std::move(bytes), encoding);
  Section* section = nullptr;
  bool isNamed = false;
  Line line;
  for (LineReader lines(text_); lines.next(&line);) {
    if (line.kind == Line::Kind::Section) {
      section = begin(line.name);
      isNamed = true;
    } else if (line.kind == Line::Kind::Key) {
      if (section == nullptr && !isNamed) section = begin("");
      if (section != nullptr && section->values.emplace(line.name, unquoted(line.value)).second) {
        section->keys.push_back(line.name);
      }
    }
  }
}

/// A new section; null when there was one of that name, as only the first is searched.
ProfileText::Section* ProfileText::begin(std::string_view name) {
  if (!sectionAt_.emplace(name, sections_.size()).second) return nullptr;
  Section& section = sections_.emplace_back();
  section.name = name;
  return &section;
}

const ProfileText::Section* ProfileText::sectionNamed(std::string_view name) const {
  const auto found = sectionAt_.find(trimmed(name));
  return found != sectionAt_.end() ? &sections_[found->second] : nullptr;
}

std::optional<std::string_view> ProfileText::find(std::string_view section,
                                                  std::string_view key) const {
  const Section* const searched = sectionNamed(section);
  if (searched == nullptr) return std::nullopt;
  const auto found = searched->values.find(trimmed(key));
  if (found == searched->values.end()) return std::nullopt;
  return found->second;
}

std::vector<ProfileSection> ProfileText::list(const char* section) const {
  const Section* const only = section != nullptr ? sectionNamed(section) : nullptr;
  std::vector<ProfileSection> listed;
  for (const Section& each : sections_) {
    if (section != nullptr && &each != only) continue;
    ProfileSection& copy = listed.emplace_back();
    copy.name = each.name;
    for (const std::string_view key : each.keys) copy.values.emplace_back(key, each.values.at(key));
  }
  return listed;
}

std::optional<std::string> withValue(const std::string& bytes, std::string_view section,
                                     std::string_view key, std::string_view value) {
  const Encoding encoding = encodingOf(bytes);
  const std::string text = decoded(bytes, encoding);
  const Edit edit = editFor(text, trimmed(section), trimmed(key), value);
  const std::size_t from = offsetInFile(std::string_view(text).substr(0, edit.from), encoding);
  const std::size_t to = offsetInFile(std::string_view(text).substr(0, edit.to), encoding);
  std::string changed = bytes;
  changed.replace(from, to - from, encoded(edit.text, encoding));
  if (ProfileText(changed).find(section, key) != value) return std::nullopt;
  return changed;
}

}  // namespace qm::platform::posix
