#include "qmutils/platform/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "qmutils/platform/error.h"
#include "qmutils/platform/file.h"
#include "qmutils/platform/module.h"
#include "qmutils/platform/posix/command_line.h"
#include "qmutils/platform/posix/ended_children.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/process_generation.h"
#include "qmutils/platform/posix/wait_object.h"
#include "qmutils/platform/waitable.h"

extern char** environ;

namespace qm::platform {

using namespace posix;

namespace {

// The C library's header for these two cannot be linked from C++ everywhere.
int openPidfd(pid_t pid) noexcept { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }
int killThroughPidfd(int pidfd) noexcept {
  return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd, SIGKILL, nullptr, 0));
}

/// A child as the watcher sees it: its pidfd, and the objects behind the two handles.
struct Child {
  int pidfd = -1;  ///< closed once the child has ended
  WaitObject* process = nullptr;
  WaitObject* mainThread = nullptr;
  // Guarded by the dispatcher's lock:
  bool ended = false;
  std::optional<DWORD> forcedCode;

  Child() = default;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pidfd >= 0) close(pidfd);
  }
};

DWORD exitCodeOf(const siginfo_t& info) noexcept {
  const auto status = static_cast<DWORD>(info.si_status);
  return info.si_code == CLD_EXITED ? status : 128 + status;
}

constexpr const char* kLauncherVariable = "QMUTILS_LAUNCHER";

/// Who launched this process, as it was when the program was loaded: an orphan is handed to another
/// process, perhaps before that. createProcess() therefore tells its children who it is.
struct Launcher {
  const pid_t parent = getppid();
  pid_t teller = parent;

  Launcher() noexcept {
    if (const char* told = std::getenv(kLauncherVariable)) teller = std::atoi(told);
  }
  bool isGone() const noexcept {
    if (getppid() != parent) return true;
    return teller != parent && teller > 0 && kill(teller, 0) != 0 && errno == ESRCH;
  }
};
const Launcher launcher;

/// Keeps signals away from the calling thread and those it starts.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

/// One thread collects the ends of all children and signals their handles.
class ChildWatcher {
 public:
  /// Null when the system refuses; the next launch tries again. Never destroyed: children may
  /// outlive main(). A forked child has its parent's without the thread, and makes its own.
  static ChildWatcher* instance() noexcept {
    static constinit std::mutex mutex;
    static constinit ChildWatcher* watcher = nullptr;
    const std::lock_guard lock(mutex);
    if (watcher == nullptr || watcher->process_ != processGeneration()) watcher = create();
    return watcher;
  }

  bool watch(Child* child) noexcept {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = child;
    return epoll_ctl(epoll_, EPOLL_CTL_ADD, child->pidfd, &event) == 0;
  }

 private:
  explicit ChildWatcher(int epoll) noexcept : epoll_(epoll) {}

  static ChildWatcher* create() noexcept {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    if (epoll < 0) return nullptr;
    keepEndedChildren();
    try {
      auto watcher = std::unique_ptr<ChildWatcher>(new ChildWatcher(epoll));
      const SignalsBlocked forItsThread;  // the program's signals are for its own threads
      std::thread([self = watcher.get()] { self->run(); }).detach();
      return watcher.release();
    } catch (...) {
      close(epoll);
      return nullptr;
    }
  }

  void run() noexcept {
    for (;;) {
      epoll_event event;
      if (epoll_wait(epoll_, &event, 1, -1) == 1) collect(static_cast<Child*>(event.data.ptr));
    }
  }

  void collect(Child* child) noexcept {
    siginfo_t info{};
    if (waitid(P_PIDFD, static_cast<id_t>(child->pidfd), &info, WEXITED) != 0 && errno == EINTR) {
      return;
    }
    epoll_ctl(epoll_, EPOLL_CTL_DEL, child->pidfd, nullptr);
    DispatcherLock lock;
    WakeList wakes;
    child->ended = true;
    const int pidfd = std::exchange(child->pidfd, -1);
    // A process that was just ending when it was told to keeps its own code.
    const bool killed = info.si_code == CLD_KILLED && info.si_status == SIGKILL;
    const DWORD code = killed ? child->forcedCode.value_or(exitCodeOf(info)) : exitCodeOf(info);
    for (WaitObject* object : {child->mainThread, child->process}) {
      object->exitCode = code;
      signalObject(object, lock, wakes);
      unpin(object);
    }
    lock.unlockAndWake(wakes);
    close(pidfd);  // the child may be gone by now
  }

  const int epoll_;
  const unsigned process_ = processGeneration();
};

bool isProgramFile(const std::string& path) noexcept {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// Where a program named on a command line lies: a name without a folder is looked for beside the
/// running program, in the current folder, and along PATH. Empty when there is none.
std::string findProgram(const std::string& name) {
  const std::string native = nativePath(name.c_str());
  if (native.find('/') != std::string::npos) return isProgramFile(native) ? native : std::string();
  std::string own = modulePath(nullptr);
  own.resize(own.find_last_of('/') + 1);
  std::vector<std::string> folders{own, "./"};
  const char* path = std::getenv("PATH");
  std::string_view rest = path == nullptr ? "" : path;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(':'), rest.size());
    if (end != 0) folders.push_back(std::string(rest.substr(0, end)) + "/");
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  for (const std::string& folder : folders) {
    if (isProgramFile(folder + native)) return folder + native;
  }
  return {};
}

/// The program's path and its arguments, the program's name as written being the first; empty when
/// no reading of the command line names a program.
struct Launch {
  std::string path;
  std::vector<std::string> arguments;
};

Launch resolveLaunch(const char* commandLine) {
  for (const CommandReading& reading : readCommand(commandLine)) {
    std::string path = findProgram(reading.program);
    if (path.empty()) continue;
    Launch launch{std::move(path), {reading.program}};
    for (std::string& argument : splitArguments(reading.rest)) {
      launch.arguments.push_back(std::move(argument));
    }
    return launch;
  }
  return {};
}

/// Default signals and a process group of its own; gives an errno value.
int setDefaultSignals(posix_spawnattr_t* attributes) noexcept {
  sigset_t signals;
  sigfillset(&signals);
  int error = posix_spawnattr_setsigdefault(attributes, &signals);
  sigemptyset(&signals);
  if (error == 0) error = posix_spawnattr_setsigmask(attributes, &signals);
  if (error == 0) error = posix_spawnattr_setpgroup(attributes, 0);
  if (error != 0) return error;
  return posix_spawnattr_setflags(
      attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
}

/// Our environment with our own number as the launcher's.
class ChildEnvironment {
 public:
  ChildEnvironment() : launcher_(std::string(kLauncherVariable) + "=" + std::to_string(getpid())) {
    const std::size_t prefix = std::strlen(kLauncherVariable) + 1;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      if (launcher_.compare(0, prefix, *entry, prefix) != 0) entries_.push_back(*entry);
    }
    entries_.push_back(launcher_.data());
    entries_.push_back(nullptr);
  }
  char** get() noexcept { return entries_.data(); }

 private:
  std::string launcher_;
  std::vector<char*> entries_;
};

/// Spawns with only the standard descriptors, default signals and a process group of its own; gives
/// an errno value.
int spawn(const Launch& launch, bool detached, pid_t* pid) {
  std::vector<char*> arguments;
  for (const std::string& argument : launch.arguments) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  ChildEnvironment environment;
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  int error = posix_spawn_file_actions_init(&actions);
  if (error != 0) return error;
  error = posix_spawnattr_init(&attributes);
  if (error == 0) {
    if (detached) error = posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (error == 0) error = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (error == 0) error = setDefaultSignals(&attributes);
    if (error == 0) {
      error = posix_spawn(pid, launch.path.c_str(), &actions, &attributes, arguments.data(),
                          environment.get());
    }
    posix_spawnattr_destroy(&attributes);
  }
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

DWORD launchError(int error) noexcept {
  return error == ENOEXEC || error == ELIBBAD ? ERROR_BAD_EXE_FORMAT : lastErrorFromErrno(error);
}

void applyPriorityClass(pid_t pid, DWORD flags) noexcept {
  int nice = 0;
  if ((flags & IDLE_PRIORITY_CLASS) != 0) nice = 19;
  if ((flags & HIGH_PRIORITY_CLASS) != 0) nice = -10;
  if ((flags & REALTIME_PRIORITY_CLASS) != 0) nice = -20;
  if (nice != 0) (void)setpriority(PRIO_PROCESS, static_cast<id_t>(pid), nice);
}

void killUnwatched(pid_t pid) noexcept {
  kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

/// The two handles of a launch, closed again unless it succeeds.
struct LaunchHandles {
  HANDLE process = nullptr;
  HANDLE mainThread = nullptr;

  LaunchHandles() = default;
  LaunchHandles(const LaunchHandles&) = delete;
  LaunchHandles& operator=(const LaunchHandles&) = delete;
  ~LaunchHandles() {
    const DWORD number = lastError();
    if (process != nullptr) closeHandle(process);
    if (mainThread != nullptr) closeHandle(mainThread);
    setLastError(number);
  }
};

/// Launches into `child`, whose two objects exist already.
bool launchChild(const Launch& launch, DWORD flags, ChildWatcher& watcher, Child* child,
                 pid_t* pid) {
  const int error = spawn(launch, (flags & DETACHED_PROCESS) != 0, pid);
  if (error != 0) return failWith(launchError(error));
  applyPriorityClass(*pid, flags);
  child->pidfd = openPidfd(*pid);
  {
    DispatcherLock lock;
    ++child->process->pins;
    ++child->mainThread->pins;
  }
  if (child->pidfd >= 0 && watcher.watch(child)) return true;
  const int reason = errno;
  // ESRCH: it has ended and been collected by somebody else, so the number is no longer ours.
  if (reason != ESRCH) killUnwatched(*pid);
  DispatcherLock lock;
  unpin(child->process);
  unpin(child->mainThread);
  return failWithErrno(reason);
}

/// With the dispatcher's lock held: the child of a process handle, or null with the last error 6.
Child* childOf(WaitObject* object) noexcept {
  if (object == nullptr) return nullptr;
  if (kindOf(object->word.load(std::memory_order_relaxed)) != Kind::Process) {
    setLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return static_cast<Child*>(object->attachment.get());
}

}  // namespace

bool createProcess(const char* commandLine, DWORD creationFlags, WORD /*showState*/,
                   ProcessInformation* information) noexcept try {
  *information = {};
  const Launch launch = resolveLaunch(commandLine == nullptr ? "" : commandLine);
  if (launch.path.empty()) return failWith(ERROR_FILE_NOT_FOUND);
  ChildWatcher* watcher = ChildWatcher::instance();
  if (watcher == nullptr) return failWith(ERROR_NOT_ENOUGH_MEMORY);
  auto child = std::make_shared<Child>();
  LaunchHandles handles;
  child->process = newObject(Kind::Process, 0, &handles.process);
  child->mainThread = newObject(Kind::Process, 0, &handles.mainThread);
  if (child->process == nullptr || child->mainThread == nullptr) {
    return failWith(ERROR_NOT_ENOUGH_MEMORY);
  }
  {
    DispatcherLock lock;
    child->process->attachment = child;
    child->mainThread->attachment = child;
  }
  pid_t pid = 0;
  if (!launchChild(launch, creationFlags, *watcher, child.get(), &pid)) return false;
  information->process = std::exchange(handles.process, nullptr);
  information->mainThread = std::exchange(handles.mainThread, nullptr);
  information->processId = static_cast<DWORD>(pid);
  information->threadId = static_cast<DWORD>(pid);
  return true;
} catch (const std::bad_alloc&) {
  return failWith(ERROR_NOT_ENOUGH_MEMORY);
}

bool processExitCode(HANDLE process, DWORD* code) noexcept {
  DispatcherLock lock;
  WaitObject* object = resolve(process);
  if (childOf(object) == nullptr) return false;
  *code = object->exitCode;
  return true;
}

bool terminateProcess(HANDLE process, DWORD exitCode) noexcept {
  DispatcherLock lock;
  Child* child = childOf(resolve(process));
  if (child == nullptr) return false;
  if (child->ended) return failWith(ERROR_ACCESS_DENIED);
  child->forcedCode = exitCode;
  if (killThroughPidfd(child->pidfd) == 0) return true;
  const int error = errno;
  child->forcedCode.reset();
  return failWith(error == ESRCH ? ERROR_ACCESS_DENIED : lastErrorFromErrno(error));
}

DWORD currentProcessId() noexcept { return static_cast<DWORD>(getpid()); }

bool parentIsGone() noexcept { return launcher.isGone(); }

}  // namespace qm::platform
