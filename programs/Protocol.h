// The numbers that our two programs add to the fixed ones of ImagerProtocol.h.
#pragma once

#include "qmutils/imager/ImagerProtocol.h"

namespace programs {

// Type 1, progress. The value is the job number.
inline constexpr int kProgressStarted = 1;  ///< text: the name of the page's file
inline constexpr int kProgressLines = 2;    ///< text: lines done, qualifier: lines in all
inline constexpr int kProgressDone = 3;     ///< text: the plate's picture, in the output folder

// Type 2, error: the code is a catalogue code, the value the job number (0: no job), the text says
// what happened, the qualifier is the file's name.

}  // namespace programs
