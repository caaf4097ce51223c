// Any bytes as an INI file, and one value to be set in it; the first three bytes are the lengths of
// its section, key and value. What is listed is found; a value that is set reads back, every other
// one stays, and so does every byte that is not part of the old value.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "qmutils/platform/posix/profile_text.h"

namespace {

using qm::platform::posix::FoldedEqual;
using qm::platform::posix::ProfileText;

void require(bool holds) {
  if (!holds) std::abort();
}

std::string_view take(std::string_view* rest, std::size_t size) {
  const std::string_view taken = rest->substr(0, size);
  rest->remove_prefix(taken.size());
  return taken;
}

using Values = std::map<std::pair<std::string, std::string>, std::string>;

Values valuesOf(const std::string& bytes) {
  const ProfileText text(bytes);
  Values values;
  for (const auto& section : text.list(nullptr)) {
    for (const auto& [key, value] : section.values) {
      require(text.find(section.name, key) == value);
      require(value.find_first_of("\r\n") == std::string::npos);
      require(values.emplace(std::pair(section.name, key), value).second);
    }
  }
  return values;
}

bool isSimple(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  });
}

std::size_t commonStart(std::string_view a, std::string_view b) {
  return static_cast<std::size_t>(std::ranges::mismatch(a, b).in1 - a.begin());
}

std::size_t commonEnd(std::string_view a, std::string_view b) {
  const auto [end, other] = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend());
  return static_cast<std::size_t>(end - a.rbegin());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  std::string_view rest(reinterpret_cast<const char*>(data) + 3, size - 3);
  const std::string_view section = take(&rest, data[0]), key = take(&rest, data[1]);
  const std::string_view value = take(&rest, data[2]);
  const std::string before(rest);
  const Values old = valuesOf(before);
  const ProfileText oldText(before);
  const auto oldValue = oldText.find(section, key);
  const auto after = qm::platform::posix::withValue(before, section, key, value);
  if (!after) {
    require(!isSimple(section) || !isSimple(key) || !isSimple(value));
    return 0;
  }
  require(ProfileText(*after).find(section, key) == value);
  Values changed = valuesOf(*after);
  require(changed.size() == old.size() + (oldValue ? 0 : 1));
  std::size_t different = 0;
  for (const auto& [name, text] : old) different += changed[name] != text ? 1 : 0;
  require(different == (oldValue && *oldValue != value ? 1u : 0u));
  // Quotes go with the value; a character of it may take four bytes.
  const std::size_t lost = oldValue ? 4 * (oldValue->size() + 2) : 0;
  require(commonStart(before, *after) + commonEnd(before, *after) + lost >= before.size());
  return 0;
}
