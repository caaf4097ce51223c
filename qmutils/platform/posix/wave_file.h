// The samples of a wave file. For platform/posix/ only.
#pragma once

#include <memory>

#include "qmutils/platform/posix/sample_source.h"

namespace qm::platform::posix {

/// Opens a file of the wave family (RIFF, its extensible form and RF64) in any encoding. What a
/// file lacks at its end is not played. Null with the last error set: 13 for other files.
std::unique_ptr<SampleSource> openWaveFile(const char* path) noexcept;

}  // namespace qm::platform::posix
