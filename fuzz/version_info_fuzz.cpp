// Version data of files with any bytes: nothing but a text or a failure may come of it.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "qmutils/platform/version_info.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int file = memfd_create("program", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }
  std::string text;
  for (const char* block : {"040904B0", "080904B0"}) {
    for (const char* key : {"ProductVersion", "k"}) {
      if (!qm::platform::readVersionText(path.c_str(), block, key, &text)) continue;
      // What was found stands in the file, with its end.
      const std::string whole(reinterpret_cast<const char*>(data), size);
      if (whole.find(text + '\0') == std::string::npos) std::abort();
    }
  }
  return 0;
}
