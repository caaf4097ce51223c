// The text of an INI file: looking values up, and changing one value while everything else stays.
// The rules are in profile.h. May throw std::bad_alloc. For platform/posix/ only.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qmutils/platform/profile.h"

namespace qm::platform::posix {

/// Names are compared without regard to the case of A-Z.
struct FoldedHash {
  std::size_t operator()(std::string_view name) const noexcept;
};
struct FoldedEqual {
  bool operator()(std::string_view a, std::string_view b) const noexcept;
};
template <class T>
using NameMap = std::unordered_map<std::string_view, T, FoldedHash, FoldedEqual>;

/// A whole file in memory, taken apart once. Constant, so threads may share it.
class ProfileText {
 public:
  explicit ProfileText(std::string bytes);
  ProfileText(const ProfileText&) = delete;
  ProfileText& operator=(const ProfileText&) = delete;

  /// Nothing when there is no such key. Valid as long as the object.
  std::optional<std::string_view> find(std::string_view section, std::string_view key) const;
  /// All sections, or the one of that name if it is there.
  std::vector<ProfileSection> list(const char* section) const;

 private:
  struct Section {
    std::string_view name;
    std::vector<std::string_view> keys;
    NameMap<std::string_view> values;
  };

  const Section* sectionNamed(std::string_view name) const;
  Section* begin(std::string_view name);

  std::string text_;  // what all the names and values are parts of
  std::vector<Section> sections_;
  NameMap<std::size_t> sectionAt_;
};

/// The file's new content with the value set; nothing when the value could not be read back from
/// it.
std::optional<std::string> withValue(const std::string& bytes, std::string_view section,
                                     std::string_view key, std::string_view value);

}  // namespace qm::platform::posix
