// Standard input as a program reads it that has other things to do: piece by piece, never waiting
// longer than asked.
#pragma once

#include <cstddef>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// Takes what is there, at most `size` bytes, waiting up to `timeoutMs` for the first: the number
/// of bytes; 0 at the end of the input, or when it cannot be read; -1 when nothing came. One thread
/// at a time, and nobody else may read standard input through a stream.
QMUTILS_API long readStandardInput(char* buffer, std::size_t size, DWORD timeoutMs) noexcept;

/// While it lives, a terminal at standard input hands over each key at once, changes nothing about
/// it and does not show it; Ctrl-C remains an interrupt. Without a terminal it does nothing.
class QMUTILS_API KeyByKey {
 public:
  KeyByKey() noexcept;
  ~KeyByKey();
  KeyByKey(const KeyByKey&) = delete;
  KeyByKey& operator=(const KeyByKey&) = delete;

 private:
  bool changed_;
};

}  // namespace qm::platform
