#include "qmutils/platform/posix/window_link.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/environment.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform::posix {

namespace {

constexpr DWORD kSlowestMs = 3000;  // beyond a request's own time
constexpr int kSliceMs = 10;        // between looks at what else there is to do
constexpr int kBacklog = 64;
constexpr std::string_view kUnfinished = ".new";  // a socket that has not got its name yet

bool isUsersOwn(const std::string& folder) {
  struct stat status;
  return lstat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

/// A folder that only the user may enter; empty with the last error set.
std::string runtimeFolder() {
  std::string folder = environment("XDG_RUNTIME_DIR");
  if (!folder.empty() && folder[0] == '/' && isUsersOwn(folder)) return folder;
  folder = "/run/user/" + std::to_string(geteuid());
  if (isUsersOwn(folder)) return folder;
  // A name that anybody might have taken before: it has to be ours.
  folder = "/tmp/qmutils-" + std::to_string(geteuid());
  if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    failWithErrno(errno);
    return {};
  }
  if (isUsersOwn(folder)) return folder;
  failWith(ERROR_ACCESS_DENIED);
  return {};
}

/// The folder of the sockets; not open with the last error set: 2 when there is none and it is not
/// to be made.
Descriptor openFolder(bool make) {
  std::string folder = runtimeFolder();
  if (folder.empty()) return {};
  const std::string prefix = environment("QMUTILS_OBJECT_PREFIX");
  if (prefix.find('/') != std::string::npos) {
    failWith(ERROR_INVALID_NAME);
    return {};
  }
  folder += "/" + prefix + "qmutils-windows";
  if (make && mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) failOnPath(folder.c_str());
  Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened.isOpen()) failOnPath(folder.c_str());
  return opened;
}

/// The address of a socket in an open folder. By way of the descriptor, as addresses are shorter
/// than paths may be; of the calling thread, as the main thread may have ended.
sockaddr_un addressIn(const Descriptor& folder, const char* name) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/thread-self/fd/%d/%s",
                folder.get(), name);
  return address;
}

Descriptor makeSocket(int flags) {
  return Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

bool isSameUser(const Descriptor& socket) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  return getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         peer.uid == geteuid();
}

/// Waits until a socket is ready, in slices, with absolute times: signals come and go. False with
/// 1460.
bool awaitReady(const Descriptor& socket, short events, const Deadline& deadline,
                const std::function<void()>& meanwhile) {
  for (;;) {
    pollfd entry{socket.get(), events, 0};
    const auto slice = std::min<DWORD>(deadline.remainingMs(), kSliceMs);
    if (poll(&entry, 1, static_cast<int>(slice)) > 0) return true;
    if (meanwhile) meanwhile();
    if (deadline.passed()) return failWith(ERROR_TIMEOUT);
  }
}

/// The sockets do not wait, so a record is taken whole or not at all.
template <class Record>
bool sendRecord(const Descriptor& socket, const Record& record, const Deadline& deadline) {
  for (;;) {
    if (!awaitReady(socket, POLLOUT, deadline, nullptr)) return false;
    const ssize_t sent = send(socket.get(), &record, sizeof record, MSG_NOSIGNAL);
    if (sent == static_cast<ssize_t>(sizeof record)) return true;
    if (sent >= 0 || (errno != EAGAIN && errno != EINTR)) return failWith(ERROR_OPERATION_ABORTED);
  }
}

/// Fails with 995 when the other end has gone, or has sent what is no such record.
template <class Record>
bool receiveRecord(const Descriptor& socket, Record& record, const Deadline& deadline,
                   const std::function<void()>& meanwhile) {
  for (;;) {
    if (!awaitReady(socket, POLLIN, deadline, meanwhile)) return false;
    const ssize_t got = recv(socket.get(), &record, sizeof record, MSG_TRUNC);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    return (got == static_cast<ssize_t>(sizeof record) && record.magic == Record().magic) ||
           failWith(ERROR_OPERATION_ABORTED);
  }
}

// ---- Answering ----------------------------------------------------------------------------------

struct Server {
  std::mutex lock;
  pid_t process = 0;  // whose socket it is; 0: there is none
  Descriptor folder;  // locked: cleaners of temporary folders leave what is in use alone
  Descriptor listener;
  AnswerRequest answer = nullptr;
};

/// Never destroyed: its thread goes on until the process has ended. A forked child has neither the
/// thread nor the socket; it lets go of it, as others would wait for its answers in vain.
Server& server() {
  static Server& only = *new Server;
  static const int registered = pthread_atfork([] { only.lock.lock(); }, [] { only.lock.unlock(); },
                                               [] {
                                                 only.listener.reset();
                                                 only.folder.reset();
                                                 only.process = 0;
                                                 only.lock.unlock();
                                               });
  (void)registered;
  return only;
}

struct Connection {
  Descriptor socket;
  AnswerRequest answer;
};

/// False when whoever has asked is gone, or has given up.
bool isStillThere(const Descriptor& socket) {
  pollfd entry{socket.get(), POLLRDHUP, 0};
  return poll(&entry, 1, 0) == 0;
}

DWORD serveOne(void* argument) try {
  const std::unique_ptr<Connection> connection(static_cast<Connection*>(argument));
  const Descriptor& socket = connection->socket;
  WindowRequest request;
  if (!isSameUser(socket) ||
      !receiveRecord(socket, request, Deadline::after(kSlowestMs), nullptr)) {
    return 0;
  }
  request.className[kLongestWindowClass] = '\0';
  request.title[kLongestWindowTitle] = '\0';
  WindowReply reply;
  connection->answer(request, reply, [&socket] { return isStillThere(socket); });
  sendRecord(socket, reply, Deadline::after(kSlowestMs));  // who asked may have given up
  return 0;
} catch (const std::bad_alloc&) {
  return 0;  // who asked learns that there is no answer
}

/// Each request has a thread of its own, as a window may take its time to answer.
DWORD serveAll(void*) {
  for (;;) {
    Descriptor accepted(
        accept4(server().listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!accepted.isOpen()) {
      if (errno == EINVAL || errno == EBADF) return 0;
      sleep(kSliceMs, false);  // no descriptors or no memory for the moment
      continue;
    }
    std::unique_ptr<Connection> connection(new (std::nothrow)
                                               Connection{std::move(accepted), server().answer});
    if (connection == nullptr) continue;
    const HANDLE thread = startThread(serveOne, connection.get(), nullptr);
    if (thread == nullptr) continue;
    connection.release();
    closeHandle(thread);
  }
}

void removeSocket() {
  Server& ours = server();
  const ShortLock lock(ours.lock);
  if (ours.process != getpid()) return;
  unlinkat(ours.folder.get(), std::to_string(getpid()).c_str(), 0);
}

/// Listens before the socket gets its name, so that nobody takes it for a dead one.
bool listenIn(Server& ours) {
  ours.folder = openFolder(true);
  if (!ours.folder.isOpen()) return false;
  flock(ours.folder.get(), LOCK_SH | LOCK_NB);
  const std::string name = std::to_string(getpid());
  const std::string unfinished = name + std::string(kUnfinished);
  ours.listener = makeSocket(0);
  const sockaddr_un address = addressIn(ours.folder, unfinished.c_str());
  unlinkat(ours.folder.get(), unfinished.c_str(), 0);
  if (ours.listener.isOpen() &&
      bind(ours.listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      listen(ours.listener.get(), kBacklog) == 0 &&
      renameat(ours.folder.get(), unfinished.c_str(), ours.folder.get(), name.c_str()) == 0) {
    return true;
  }
  const int reason = errno;
  unlinkat(ours.folder.get(), unfinished.c_str(), 0);
  return failWithErrno(reason);
}

/// Whether a process has gone, so that its socket may be removed.
bool isGone(DWORD process) { return kill(static_cast<pid_t>(process), 0) != 0 && errno == ESRCH; }

/// Connects without waiting long for a program that does not take calls.
bool connectTo(DWORD process, const Descriptor& folder, const Descriptor& socket,
               const std::function<void()>& meanwhile) {
  const std::string name = std::to_string(process);
  const sockaddr_un address = addressIn(folder, name.c_str());
  const Deadline deadline = Deadline::after(kSlowestMs);
  while (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    if (error == ENOENT || error == ECONNREFUSED) {
      if (error == ECONNREFUSED && isGone(process)) unlinkat(folder.get(), name.c_str(), 0);
      return failWith(ERROR_INVALID_WINDOW_HANDLE);
    }
    if (error != EAGAIN && error != EINTR) return failWithErrno(error);
    // Its queue of calls is full.
    if (deadline.passed()) return failWith(ERROR_TIMEOUT);
    sleep(kSliceMs, false);
    if (meanwhile) meanwhile();
  }
  return true;
}

DWORD wholeTime(DWORD timeoutMs) {
  return timeoutMs >= INFINITE - kSlowestMs ? INFINITE : timeoutMs + kSlowestMs;
}

}  // namespace

bool startWindowLink(AnswerRequest answer) noexcept try {
  Server& ours = server();
  const ShortLock lock(ours.lock);
  if (ours.process != 0) return true;
  ours.answer = answer;
  if (!listenIn(ours)) return false;
  const HANDLE thread = startThread(serveAll, nullptr, nullptr);
  if (thread == nullptr) {
    const DWORD reason = lastError();
    unlinkat(ours.folder.get(), std::to_string(getpid()).c_str(), 0);
    return failWith(reason);
  }
  closeHandle(thread);
  static const int atExit = std::atexit(removeSocket);
  (void)atExit;
  ours.process = getpid();
  return true;
} catch (const std::bad_alloc&) {
  return failWith(ERROR_NOT_ENOUGH_MEMORY);
}

bool askProcess(DWORD process, const WindowRequest& request, DWORD timeoutMs,
                const std::function<void()>& meanwhile, WindowReply& reply) {
  if (process == 0) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  const Descriptor folder = openFolder(false);
  if (!folder.isOpen()) {
    return lastError() == ERROR_FILE_NOT_FOUND ? failWith(ERROR_INVALID_WINDOW_HANDLE) : false;
  }
  const Descriptor socket = makeSocket(SOCK_NONBLOCK);
  if (!socket.isOpen()) return failWithErrno(errno);
  if (!connectTo(process, folder, socket, meanwhile)) return false;
  if (!isSameUser(socket)) return failWith(ERROR_ACCESS_DENIED);
  const Deadline deadline = Deadline::after(wholeTime(timeoutMs));
  if (!sendRecord(socket, request, deadline) ||
      !receiveRecord(socket, reply, deadline, meanwhile)) {
    return false;
  }
  reply.title[kLongestWindowTitle] = '\0';
  return reply.error == 0 || failWith(reply.error);
}

bool processesWithWindows(std::vector<DWORD>* processes) {
  Descriptor folder = openFolder(false);
  if (!folder.isOpen()) return lastError() == ERROR_FILE_NOT_FOUND;
  const int descriptor = folder.get();
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(descriptor), closedir);
  if (entries == nullptr) return failWithErrno(errno);
  folder.release();
  while (const dirent* entry = readdir(entries.get())) {
    DWORD process = 0;
    const char* const end = entry->d_name + std::strlen(entry->d_name);
    const auto [rest, error] = std::from_chars(entry->d_name, end, process);
    if (error != std::errc()) continue;
    if (rest == end && process != static_cast<DWORD>(getpid())) processes->push_back(process);
    // Left by a program that was killed between two steps.
    if (std::string_view(rest) == kUnfinished && isGone(process))
      unlinkat(descriptor, entry->d_name, 0);
  }
  std::ranges::sort(*processes);
  return true;
}

}  // namespace qm::platform::posix
