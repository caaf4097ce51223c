#include "qmutils/platform/posix/serial_name.h"

#include <charconv>
#include <string_view>

#include "qmutils/platform/ascii_case.h"
#include "qmutils/platform/posix/environment.h"

namespace qm::platform::posix {

namespace {

constexpr std::string_view kDeviceNamespace = "\\\\.\\";
constexpr std::string_view kPrefix = "COM";

/// The n of "COMn"; 0 for any other name.
unsigned portNumber(std::string_view name) {
  if (name.starts_with(kDeviceNamespace)) name.remove_prefix(kDeviceNamespace.size());
  if (!isSameName(name.substr(0, kPrefix.size()), kPrefix)) return 0;
  name.remove_prefix(kPrefix.size());
  if (name.starts_with('0')) return 0;
  unsigned number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  return error == std::errc() && end == name.data() + name.size() ? number : 0;
}

}  // namespace

std::string serialDevicePath(const char* name) {
  if (name == nullptr) return {};
  const unsigned number = portNumber(name);
  if (number == 0) return name;
  std::string device = environment(("QMUTILS_COM" + std::to_string(number)).c_str());
  return !device.empty() ? device : "/dev/ttyS" + std::to_string(number - 1);
}

}  // namespace qm::platform::posix
