// Sounds for the operator's attention: wave files in the background, and tones.
//
// Failures set the last error: 2 or 3 no such file, 5 not allowed, or no plain file, 8 no memory,
// 13 no wave file or a damaged one, 20 no sound card or none of that name, 50 the card does not
// play such a sound, 87 a frequency that cannot be, 170 others have the card, 1460 it does not
// answer within two seconds. Nothing throws.
#pragma once

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

namespace qm::platform {

inline constexpr DWORD kLowestTone = 37;      // hertz
inline constexpr DWORD kHighestTone = 32767;  // hertz

/// What plays; a host or a test puts its own in the place of the system's. Any thread may call any
/// function at any time.
class QMUTILS_API SoundDevice {
 public:
  virtual ~SoundDevice();

  /// Starts to play a file and returns; the sound that is playing is ended first. The path is not
  /// needed any more when it returns.
  virtual bool play(const char* waveFile) noexcept = 0;
  /// True until the end of what play() has started has been heard, or purged. When it is false the
  /// last error is 0, or the reason why that has ended early.
  virtual bool isPlaying() noexcept = 0;
  /// Ends what play() has started, if that still plays; silent when it returns true.
  virtual bool purge() noexcept = 0;
  /// Sounds a tone and returns after its time, which may be 0, or as soon as `cancel` (may be null;
  /// taken by the wait) is signalled. True in both cases. Files that play do not mind.
  virtual bool tone(DWORD hertz, DWORD milliseconds, HANDLE cancel) noexcept = 0;
};

/// Installs a device (null: the system's) and returns the one in force before (null: the system's).
/// It must outlive its use.
QMUTILS_API SoundDevice* replaceSoundDevice(SoundDevice* device) noexcept;

/// The device in force. The system's plays one file at a time for the whole process, through the
/// device that the environment variable QMUTILS_SOUND_DEVICE names, else the user's default, and
/// tones at QMUTILS_TONE_VOLUME percent (0 to 100; else 50). It reads both at each call. A forked
/// copy of a process plays nothing until it starts a sound itself.
QMUTILS_API SoundDevice& soundDevice() noexcept;

/// Whether the system's device can read a file; the last error tells why not.
QMUTILS_API bool isWaveFile(const char* path) noexcept;

}  // namespace qm::platform
