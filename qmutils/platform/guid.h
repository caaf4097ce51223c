// GUIDs: new random ones, and their text of 36 characters (8-4-4-4-12 hexadecimal digits with
// dashes between the groups, as in 6b29fc40-ca47-1067-b31d-00dd010662da).
//
// Any thread may call these functions; none allocates or throws. A test replaces the source of
// randomness, to see which bits of a GUID are fixed and to make creation fail.
#pragma once

#include <cstddef>
#include <string_view>

#include "qmutils/platform/types.h"

namespace qm::platform {

/// Characters of a GUID's text, without a terminator.
inline constexpr std::size_t kGuidTextLength = 36;

/// Where random bytes come from. A replacement must outlive its use and be callable from any
/// thread.
class EntropySource {
 public:
  virtual ~EntropySource() = default;
  /// Fills `size` bytes, or fails (false) with the last error set.
  virtual bool fill(void* bytes, std::size_t size) noexcept = 0;
};

/// Installs a source (null: the system's) and returns the one in force before (null: the
/// system's).
EntropySource* replaceEntropySource(EntropySource* source) noexcept;

/// A new random GUID (version 4). Fails (false, last error set, `guid` untouched) when the system
/// gives no random bytes.
bool createGuid(GUID* guid) noexcept;

/// Reads the text form; the case of the digits does not matter. 0, or the system's number: 1705 for
/// a text of another form. `guid` is set on success only.
DWORD parseGuid(std::string_view text, GUID* guid) noexcept;

/// Writes the text form in lower case with a terminator, kGuidTextLength + 1 bytes in all. 0, or
/// the system's number.
DWORD formatGuid(const GUID& guid, char* text) noexcept;

}  // namespace qm::platform
