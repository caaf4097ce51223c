#include "qmutils/platform/icon.h"

#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "qmutils/platform/file.h"
#include "qmutils/platform/module.h"
#include "qmutils/platform/short_lock.h"

struct HICON__ {
  std::string path;
  bool operator<(const HICON__& other) const noexcept { return path < other.path; }
};

namespace qm::platform {

namespace {

constexpr const char* kExtensions[] = {".png", ".svg", ".ico", ".xpm"};

bool isPicture(std::string_view start) {
  return start.starts_with("\x89PNG") || start.starts_with(std::string_view("\0\0\1\0", 4)) ||
         start.starts_with("<?xml") || start.starts_with("<svg") || start.starts_with("/* XPM");
}

/// The one icon of a path.
HICON iconOf(std::string path) {
  static std::mutex& mutex = *new std::mutex;
  static std::set<HICON__>& icons = *new std::set<HICON__>;
  const ShortLock lock(mutex);
  return const_cast<HICON>(&*icons.insert({std::move(path)}).first);
}

}  // namespace

HICON iconFromFile(const char* path) {
  const FilePtr file(openFile(path, "rb"));
  if (file == nullptr) return nullptr;
  char start[8];
  const std::size_t size = std::fread(start, 1, sizeof start, file.get());
  return isPicture({start, size}) ? iconOf(nativePath(path)) : nullptr;
}

HICON iconOfModule(HINSTANCE module, UINT id) {
  std::string file = modulePath(module);
  if (file.empty()) return nullptr;
  file.resize(file.rfind('/') + 1);
  file += "icons/" + std::to_string(id);
  for (const char* extension : kExtensions) {
    if (const HICON icon = iconFromFile((file + extension).c_str())) return icon;
  }
  return nullptr;
}

const char* iconPath(HICON icon) noexcept { return icon != nullptr ? icon->path.c_str() : nullptr; }

}  // namespace qm::platform
