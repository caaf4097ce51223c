// Where a serial line of a given name is on this system. For platform/posix/ only.
#pragma once

#include <string>

namespace qm::platform::posix {

/// The device of "COMn" or "\\.\COMn" (n from 1; any case): what the environment variable
/// QMUTILS_COM<n> names, or else /dev/ttyS<n-1>. Every other name is a path and stays as it is;
/// null is empty.
std::string serialDevicePath(const char* name);

}  // namespace qm::platform::posix
