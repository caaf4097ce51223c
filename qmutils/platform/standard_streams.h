// Standard streams as a program uses them that has other things to do: piece by piece, never
// waiting longer than asked.
#pragma once

#include <cstddef>
#include <cstdio>

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

/// Takes what is there, at most `size` bytes, waiting up to `timeoutMs` for the first: the number
/// of bytes; 0 at the end of the input (last error 0), or when it cannot be read (last error set);
/// -1 when nothing came. The wait ends early when `wake` (may be null) is signalled, which it then
/// takes. One thread at a time, and nobody else may read standard input through a stream.
QMUTILS_API long readStandardInput(char* buffer, std::size_t size, DWORD timeoutMs,
                                   HANDLE wake = nullptr) noexcept;

/// What a pipe takes at once when it takes anything.
inline constexpr std::size_t kOutputTakenAtOnce = 4096;
/// True when so many bytes, written to the stream and flushed, keep the writer waiting for nobody.
/// A terminal or a socket that is almost full may still do so for a moment.
QMUTILS_API bool takesOutput(std::FILE* stream) noexcept;

/// While it lives, a terminal at standard input hands over each key at once, changes nothing about
/// it and does not show it; Ctrl-C remains an interrupt. Without a
/// terminal, and in the background, it does nothing.
class QMUTILS_API KeyByKey {
 public:
  KeyByKey() noexcept;
  ~KeyByKey();
  /// Keys come here. Not so without a terminal, or in the background: a program that reads there,
  /// or changes the terminal, is stopped.
  bool takesKeys() const noexcept { return changed_; }
  KeyByKey(const KeyByKey&) = delete;
  KeyByKey& operator=(const KeyByKey&) = delete;

 private:
  bool changed_;
  alignas(8) unsigned char formerMode_[64];  // as the system describes it
};

}  // namespace qm::platform
