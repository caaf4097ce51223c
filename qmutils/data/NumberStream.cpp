#include "qmutils/data/NumberStream.h"

#include <atomic>
#include <cstring>
#include <locale>
#include <new>
#include <stdexcept>
#include <string>

namespace qm {

namespace {

std::locale made(const char* name) try {
  return std::locale(name);
} catch (const std::runtime_error&) {
  return std::locale::classic();  // the system does not know it
}

/// Locales made so far, the latest first. Entries are added but never change or go, so looking one
/// up takes no lock, which a suspended thread might hold.
struct KnownLocale {
  std::string name;
  std::locale locale;
  const KnownLocale* next;
};

constexpr int kMostKnown = 16;  // names come from settings; there are a few of them
std::atomic<const KnownLocale*> knownLocales{nullptr};
std::atomic<int> knownCount{0};

const KnownLocale* findKnown(std::string_view name) {
  const KnownLocale* known = knownLocales.load(std::memory_order_acquire);
  while (known != nullptr && known->name != name) known = known->next;
  return known;
}

void remember(const char* name, const std::locale& locale) try {
  if (knownCount.fetch_add(1) >= kMostKnown) {
    knownCount.fetch_sub(1);
    return;
  }
  auto* known = new KnownLocale{name, locale, knownLocales.load()};
  while (!knownLocales.compare_exchange_weak(known->next, known, std::memory_order_release)) {
  }
} catch (const std::bad_alloc&) {
  knownCount.fetch_sub(1);  // it is made anew next time
}

std::locale localeOfName(const char* name) {
  if (const KnownLocale* known = findKnown(name)) return known->locale;
  std::locale locale = made(name);
  remember(name, locale);
  return locale;
}

/// A new stream has the program's global locale, mostly "C", and imbuing costs as much as making
/// the stream. The operator == may allocate for locales of mixed categories; this only finds fewer.
bool isIdentical(const std::locale& a, const std::locale& b) {
  return std::memcmp(static_cast<const void*>(&a), static_cast<const void*>(&b), sizeof a) == 0;
}

}  // namespace

bool setLocale(std::ios& stream, const char* name) noexcept try {
  const std::locale locale =
      name == std::string_view("C") ? std::locale::classic() : localeOfName(name);
  if (!isIdentical(stream.getloc(), locale)) stream.imbue(locale);
  return true;
} catch (const std::bad_alloc&) {
  stream.setstate(std::ios::badbit);
  return false;
}

}  // namespace qm
