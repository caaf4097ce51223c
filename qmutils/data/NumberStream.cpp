#include "qmutils/data/NumberStream.h"

#include <exception>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "qmutils/foundation/Immortal.h"
#include "qmutils/foundation/ShortLock.h"

namespace qm {

namespace {

class LocaleCache {
 public:
  std::locale get(std::string_view name) {
    const ShortLock lock(mutex_);
    for (const auto& [known, locale] : entries_) {
      if (known == name) return locale;
    }
    const std::string copy(name);
    std::locale locale(copy.c_str());
    if (entries_.size() < kMost) entries_.emplace_back(copy, locale);
    return locale;
  }

 private:
  static constexpr std::size_t kMost = 16;  // names come from settings; there are a few of them

  std::mutex mutex_;
  std::vector<std::pair<std::string, std::locale>> entries_;
};

LocaleCache& cache() {
  static Immortal<LocaleCache> instance;
  return instance.value;
}

}  // namespace

std::locale localeOfName(const char* name) noexcept try {
  return name == std::string_view("C") ? std::locale::classic() : cache().get(name);
} catch (const std::exception&) {
  return std::locale::classic();  // no such locale, or no memory for it
}

void setLocale(std::ios& stream, const char* name) {
  const std::locale locale = localeOfName(name);
  // Comparing costs next to nothing, imbuing as much as making the stream.
  if (stream.getloc() != locale) stream.imbue(locale);
}

}  // namespace qm
