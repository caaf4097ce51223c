// Whether somebody looks at an output stream.
#pragma once

#include <cstdio>

#include "qmutils/platform/export.h"

namespace qm::platform {

/// True when the stream leads to a terminal, where a line may be written over.
QMUTILS_API bool isTerminal(std::FILE* stream) noexcept;

}  // namespace qm::platform
