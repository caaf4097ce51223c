// What reader and writer of the XML dialect agree on. Internal to the data floor.
#pragma once

#include <algorithm>
#include <string_view>

#include "qmutils/data/XmlWindow.h"

namespace qm {

inline constexpr std::string_view kXmlCommentStart = "<!--";
inline constexpr XmlCharacters kXmlWhite(" \t\r\n");
inline constexpr XmlCharacters kXmlNameEnds(" \t\r\n>");
inline constexpr XmlCharacters kXmlPropertyNameEnds("=<>\"");

/// False for the name of an element that would be read as something else once it is written: as a
/// comment, an end tag, the end of an empty element or of the start tag, or a property.
constexpr bool isReadableXmlName(std::string_view name) {
  return !name.starts_with(kXmlCommentStart.substr(1)) && !name.starts_with('/') &&
         !name.ends_with('/') &&
         std::none_of(name.begin(), name.end(), [](char c) { return kXmlNameEnds.contains(c); });
}

/// False for the name of a property that would be read as something else once it is written: as
/// another name, a comment, or the end of the start tag.
constexpr bool isReadableXmlPropertyName(std::string_view name) {
  return std::none_of(name.begin(), name.end(),
                      [](char c) { return kXmlPropertyNameEnds.contains(c); }) &&
         (name.empty() || (!kXmlWhite.contains(name.front()) && !kXmlWhite.contains(name.back())));
}

}  // namespace qm
