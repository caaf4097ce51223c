#include "qmutils/platform/guid.h"

#include <sys/random.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "qmutils/platform/posix/errno_translation.h"

namespace qm::platform {

namespace {

std::atomic<EntropySource*> replacement{nullptr};

/// The 16 bytes in the order of the text.
using TextBytes = std::array<std::uint8_t, 16>;

/// Where in the text each byte's two digits stand.
constexpr std::array<std::uint8_t, 16> kDigitsAt = {0,  2,  4,  6,  9,  11, 14, 16,
                                                    19, 21, 24, 26, 28, 30, 32, 34};
constexpr std::array<std::uint8_t, 4> kDashesAt = {8, 13, 18, 23};

/// No digit; the bit shows through any number of digits combined with "or".
constexpr std::uint8_t kNoDigit = 0x80;

/// The value of each character as a hexadecimal digit.
constexpr auto kDigitValues = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(kNoDigit);
  for (std::uint8_t i = 0; i < 10; ++i) values['0' + i] = i;
  for (std::uint8_t i = 0; i < 6; ++i) values['a' + i] = values['A' + i] = 10 + i;
  return values;
}();

struct DigitPair {
  char digits[2];
};

/// The two digits of each byte.
constexpr auto kDigitPairs = [] {
  constexpr char kDigits[] = "0123456789abcdef";
  std::array<DigitPair, 256> pairs{};
  for (unsigned i = 0; i < 256; ++i) pairs[i] = {{kDigits[i >> 4], kDigits[i & 15]}};
  return pairs;
}();

TextBytes toTextBytes(const GUID& guid) noexcept {
  TextBytes bytes = {
      static_cast<std::uint8_t>(guid.Data1 >> 24), static_cast<std::uint8_t>(guid.Data1 >> 16),
      static_cast<std::uint8_t>(guid.Data1 >> 8),  static_cast<std::uint8_t>(guid.Data1),
      static_cast<std::uint8_t>(guid.Data2 >> 8),  static_cast<std::uint8_t>(guid.Data2),
      static_cast<std::uint8_t>(guid.Data3 >> 8),  static_cast<std::uint8_t>(guid.Data3)};
  std::memcpy(bytes.data() + 8, guid.Data4, sizeof guid.Data4);
  return bytes;
}

GUID fromTextBytes(const TextBytes& bytes) noexcept {
  GUID guid{};
  guid.Data1 = std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
               std::uint32_t{bytes[2]} << 8 | bytes[3];
  guid.Data2 = static_cast<std::uint16_t>(bytes[4] << 8 | bytes[5]);
  guid.Data3 = static_cast<std::uint16_t>(bytes[6] << 8 | bytes[7]);
  std::memcpy(guid.Data4, bytes.data() + 8, sizeof guid.Data4);
  return guid;
}

/// At most 256 bytes, which the system gives whole or not at all.
bool fillRandom(void* bytes, std::size_t size) noexcept {
  if (EntropySource* source = replacement.load()) return source->fill(bytes, size);
  ssize_t got = 0;
  do {
    got = getrandom(bytes, size, 0);
  } while (got < 0 && errno == EINTR);
  return got >= 0 || failWithErrno(errno);
}

}  // namespace

EntropySource* replaceEntropySource(EntropySource* source) noexcept {
  return replacement.exchange(source);
}

bool createGuid(GUID* guid) noexcept {
  TextBytes bytes;
  if (!fillRandom(bytes.data(), bytes.size())) return false;
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4: random
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the variant that has versions
  *guid = fromTextBytes(bytes);
  return true;
}

DWORD parseGuid(std::string_view text, GUID* guid) noexcept {
  if (text.size() != kGuidTextLength) return RPC_S_INVALID_STRING_UUID;
  unsigned wrong = 0;
  for (const std::uint8_t at : kDashesAt) wrong |= static_cast<unsigned>(text[at] ^ '-');
  unsigned seen = 0;
  TextBytes bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const unsigned high = kDigitValues[static_cast<unsigned char>(text[kDigitsAt[i]])];
    const unsigned low = kDigitValues[static_cast<unsigned char>(text[kDigitsAt[i] + 1u])];
    seen |= high | low;
    bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  if (wrong != 0 || (seen & kNoDigit) != 0) return RPC_S_INVALID_STRING_UUID;
  *guid = fromTextBytes(bytes);
  return ERROR_SUCCESS;
}

DWORD formatGuid(const GUID& guid, char* text) noexcept {
  const TextBytes bytes = toTextBytes(guid);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::memcpy(text + kDigitsAt[i], &kDigitPairs[bytes[i]], 2);
  }
  for (const std::uint8_t at : kDashesAt) text[at] = '-';
  text[kGuidTextLength] = '\0';
  return ERROR_SUCCESS;
}

}  // namespace qm::platform
