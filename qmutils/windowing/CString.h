// The windowing class library's string, as far as the library needs it: the same class as its own
// counted string.
#pragma once

#include "qmutils/foundation/QMCString.h"

using CString = QMCString;
