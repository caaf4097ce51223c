#include "qmutils/platform/watched_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/posix/process_generation.h"

namespace qm::platform {

namespace {

/// File systems of which it is known that no other machine can move their files, which would not be
/// reported here.
bool isLocal(int descriptor) noexcept {
  struct statfs status;
  if (fstatfs(descriptor, &status) != 0) return false;
  switch (static_cast<unsigned>(status.f_type)) {
    case 0xEF53:      // ext2 to ext4
    case 0x58465342:  // XFS
    case 0x9123683E:  // Btrfs
    case 0xF2F52010:  // F2FS
    case 0x2FC12FC1:  // ZFS
    case 0xCA451A4E:  // bcachefs
    case 0x3153464A:  // JFS
    case 0x52654973:  // ReiserFS
    case 0x01021994:  // tmpfs
    case 0x858458F6:  // ramfs
    case 0x794C7630:  // overlay, whose changes are in a local upper layer
      return true;
    default:
      return false;
  }
}

}  // namespace

/// The open file and what is known about its name. With a notifier, a change of the name shows as
/// an event of the file itself (deleted, renamed, replaced: its link count changes or it moves) or
/// of a folder above it (moved); asking for events costs one call that finds nothing, a third of
/// looking the name up. Names whose meaning can change without such an event (relative ones, ones
/// through symbolic links, ones on other machines) are looked up each time.
struct WatchedAppendFile::Watch {
  explicit Watch(const char* path) noexcept : path(path) {}

  bool open() noexcept {
    if (!path.ok()) return false;
    file = Descriptor(
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666));
    if (!file.isOpen()) return failOnPath(path.c_str());
    if (fstat(file.get(), &identity) != 0) return failWithErrno(errno);
    startNotifier();
    return true;
  }

  bool nameLeadsHere() const noexcept {
    struct stat now;
    return stat(path.c_str(), &now) == 0 && now.st_dev == identity.st_dev &&
           now.st_ino == identity.st_ino;
  }

  /// True when something may have happened to the name since the last call. Asks how much there is
  /// to read, which is the cheapest question, and reads the events only to be rid of them.
  bool mayHaveChanged() noexcept {
    // A forked child shares the notifier, and would take the events away from its parent.
    if (notifier.isOpen() && posix::processGeneration() != watcher) notifier.reset();
    if (!notifier.isOpen()) return true;
    int pending = 0;
    if (ioctl(notifier.get(), FIONREAD, &pending) == 0 && pending == 0) return false;
    alignas(inotify_event) char events[4096];
    while (read(notifier.get(), events, sizeof events) > 0) {
    }
    return true;
  }

  bool stillNamed() noexcept {
    if (!mayHaveChanged() || nameLeadsHere()) return true;
    notifier.reset();  // the event has been read: from now on only looking tells
    return false;
  }

  void startNotifier() noexcept {
    if (path.c_str()[0] != '/' || !isLocal(file.get())) return;
    Descriptor started(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!started.isOpen() || !watchName(started.get())) return;
    // What happened between opening and watching left no event.
    if (nameLeadsHere()) notifier = std::move(started);
    watcher = posix::processGeneration();
  }

  /// Watches the file and every folder above it; false when a part of the name is a link or cannot
  /// be watched.
  bool watchName(int inotify) noexcept {
    char part[PATH_MAX];
    std::strcpy(part, path.c_str());
    std::uint32_t mask = IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
    while (part[0] != '\0') {
      if (inotify_add_watch(inotify, part, mask | IN_DONT_FOLLOW) < 0) return false;
      struct stat status;
      if (lstat(part, &status) != 0 || S_ISLNK(status.st_mode)) return false;
      mask = IN_MOVE_SELF | IN_DELETE_SELF;
      *std::strrchr(part, '/') = '\0';
    }
    return true;
  }

  NativePath path;
  Descriptor file;
  Descriptor notifier;
  unsigned watcher = 0;  ///< which copy of the process made the notifier
  struct stat identity {};
};

WatchedAppendFile::WatchedAppendFile() noexcept = default;
WatchedAppendFile::~WatchedAppendFile() = default;

bool WatchedAppendFile::open(const char* path) noexcept {
  watch_.reset(new (std::nothrow) Watch(path));
  if (watch_ == nullptr) return failWith(ERROR_NOT_ENOUGH_MEMORY);
  if (watch_->open()) return true;
  watch_.reset();
  return false;
}

void WatchedAppendFile::close() noexcept { watch_.reset(); }

bool WatchedAppendFile::isOpen() const noexcept { return watch_ != nullptr; }

bool WatchedAppendFile::stillNamed() noexcept { return watch_ != nullptr && watch_->stillNamed(); }

bool WatchedAppendFile::append(std::string_view text) noexcept {
  if (watch_ == nullptr) return failWith(ERROR_INVALID_HANDLE);
  while (!text.empty()) {
    const ssize_t written = write(watch_->file.get(), text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return failWithErrno(errno);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace qm::platform
