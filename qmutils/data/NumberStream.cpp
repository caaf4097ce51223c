#include "qmutils/data/NumberStream.h"

#include <locale>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/ShortLock.h"

namespace qm {

namespace {

std::locale made(const char* name) try {
  return std::locale(name);
} catch (const std::runtime_error&) {
  return std::locale::classic();  // the system does not know it
}

class LocaleCache {
 public:
  std::locale get(const char* name) {
    if (std::optional<std::locale> known = find(name)) return *known;
    std::locale locale = made(name);  // reads files, so not under the lock
    add(name, locale);
    return locale;
  }

 private:
  static constexpr std::size_t kMost = 16;  // names come from settings; there are a few of them

  std::optional<std::locale> find(std::string_view name) {
    const ShortLock lock(mutex_);
    for (const auto& [known, locale] : entries_) {
      if (known == name) return locale;
    }
    return std::nullopt;
  }

  void add(const char* name, const std::locale& locale) try {
    const ShortLock lock(mutex_);
    if (entries_.size() < kMost) entries_.emplace_back(name, locale);
  } catch (const std::bad_alloc&) {
    // It is made anew next time.
  }

  std::mutex mutex_;
  std::vector<std::pair<std::string, std::locale>> entries_;
};

LocaleCache& cache() {
  static Immortal<LocaleCache> instance;
  return instance.value;
}

}  // namespace

bool setLocale(std::ios& stream, const char* name) noexcept try {
  stream.imbue(name == std::string_view("C") ? std::locale::classic() : cache().get(name));
  return true;
} catch (const std::bad_alloc&) {
  stream.setstate(std::ios::badbit);
  return false;
}

}  // namespace qm
