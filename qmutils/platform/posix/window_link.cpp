#include "qmutils/platform/posix/window_link.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
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

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/environment.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/native_path.h"
#include "qmutils/platform/suspension_deferral.h"
#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform::posix {

namespace {

constexpr DWORD kSlowestMs = 1000;  // for connecting, and beyond a request's own time
constexpr int kBacklog = 64;

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
  if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) failWithErrno(errno);
  if (isUsersOwn(folder)) return folder;
  failWith(ERROR_ACCESS_DENIED);
  return {};
}

/// The folder of the sockets, made if need be; not open with the last error set.
Descriptor openFolder() {
  std::string folder = runtimeFolder();
  if (folder.empty()) return {};
  const std::string prefix = environment("QMUTILS_OBJECT_PREFIX");
  if (prefix.find('/') != std::string::npos) {
    failWith(ERROR_INVALID_NAME);
    return {};
  }
  folder += "/" + prefix + "qmutils-windows";
  mkdir(folder.c_str(), S_IRWXU);
  Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened.isOpen()) failOnPath(folder.c_str());
  return opened;
}

/// The address of a socket in an open folder. By way of the descriptor, as addresses are shorter
/// than paths may be.
sockaddr_un addressIn(const Descriptor& folder, const char* name) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder.get(),
                name);
  return address;
}

Descriptor makeSocket() { return Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)); }

void setTimeout(const Descriptor& socket, DWORD timeoutMs) {
  timeval time{};
  time.tv_sec = timeoutMs / 1000;
  time.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000 * 1000);
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

bool isSameUser(const Descriptor& socket) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  return getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         peer.uid == geteuid();
}

/// False when the other end has gone or takes too long (errno).
template <class Record>
bool sendRecord(const Descriptor& socket, const Record& record) {
  ssize_t sent;
  do {
    sent = send(socket.get(), &record, sizeof record, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(sizeof record);
}

/// The same; also false for what is no such record.
template <class Record>
bool receiveRecord(const Descriptor& socket, Record& record) {
  ssize_t got;
  do {
    got = recv(socket.get(), &record, sizeof record, MSG_TRUNC);
  } while (got < 0 && errno == EINTR);
  return got == static_cast<ssize_t>(sizeof record) && record.magic == Record().magic;
}

// ---- Answering ----------------------------------------------------------------------------------

struct Server {
  std::mutex lock;
  pid_t process = 0;  // whose socket it is: a forked child has none yet
  Descriptor folder;
  Descriptor listener;
  AnswerRequest answer = nullptr;
};

/// Never destroyed: its thread goes on until the process has ended.
Server& server() {
  static Server& only = *new Server;
  return only;
}

struct Connection {
  Descriptor socket;
  AnswerRequest answer;
};

DWORD serveOne(void* argument) {
  const std::unique_ptr<Connection> connection(static_cast<Connection*>(argument));
  setTimeout(connection->socket, kSlowestMs);
  WindowRequest request;
  if (!isSameUser(connection->socket) || !receiveRecord(connection->socket, request)) return 0;
  request.className[kLongestWindowClass] = '\0';
  request.title[kLongestWindowTitle] = '\0';
  WindowReply reply;
  connection->answer(request, reply);
  sendRecord(connection->socket, reply);  // who asked may have given up
  return 0;
}

/// Each request has a thread of its own, as a window may take its time to answer.
DWORD serveAll(void*) {
  for (;;) {
    Descriptor accepted(accept4(server().listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!accepted.isOpen()) {
      if (errno == EINVAL || errno == EBADF) return 0;
      sleep(10, false);  // no descriptors or no memory for the moment
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
  if (ours.process != getpid()) return;
  unlinkat(ours.folder.get(), std::to_string(getpid()).c_str(), 0);
}

/// Listens before the socket gets its name, so that nobody takes it for a dead one.
bool listen(Server& ours) {
  ours.folder = openFolder();
  if (!ours.folder.isOpen()) return false;
  const std::string name = std::to_string(getpid()), temporary = name + ".new";
  ours.listener = makeSocket();
  const sockaddr_un address = addressIn(ours.folder, temporary.c_str());
  unlinkat(ours.folder.get(), temporary.c_str(), 0);
  if (!ours.listener.isOpen() ||
      bind(ours.listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(ours.listener.get(), kBacklog) != 0 ||
      renameat(ours.folder.get(), temporary.c_str(), ours.folder.get(), name.c_str()) != 0) {
    return failWithErrno(errno);
  }
  return true;
}

/// Whether a process has gone, so that its socket may be removed.
bool isGone(DWORD process) { return kill(static_cast<pid_t>(process), 0) != 0 && errno == ESRCH; }

}  // namespace

bool startWindowLink(AnswerRequest answer) noexcept try {
  Server& ours = server();
  const SuspensionDeferral notWithTheLock;
  const std::lock_guard lock(ours.lock);
  if (ours.process == getpid()) return true;
  ours.answer = answer;
  if (!listen(ours)) return false;
  const HANDLE thread = startThread(serveAll, nullptr, nullptr);
  if (thread == nullptr) {
    const DWORD reason = lastError();
    unlinkat(ours.folder.get(), std::to_string(getpid()).c_str(), 0);
    return failWith(reason);
  }
  closeHandle(thread);
  if (ours.process == 0) std::atexit(removeSocket);
  ours.process = getpid();
  return true;
} catch (const std::bad_alloc&) {
  return failWith(ERROR_NOT_ENOUGH_MEMORY);
}

bool askProcess(DWORD process, const WindowRequest& request, DWORD timeoutMs,
                WindowReply& reply) noexcept try {
  const Descriptor folder = openFolder();
  if (!folder.isOpen()) return false;
  const std::string name = std::to_string(process);
  const Descriptor socket = makeSocket();
  if (!socket.isOpen()) return failWithErrno(errno);
  const sockaddr_un address = addressIn(folder, name.c_str());
  setTimeout(socket, kSlowestMs);
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno == EAGAIN) return failWith(ERROR_TIMEOUT);
    if (errno == ECONNREFUSED && isGone(process)) unlinkat(folder.get(), name.c_str(), 0);
    return failWith(ERROR_INVALID_WINDOW_HANDLE);
  }
  setTimeout(socket, timeoutMs > INFINITE - kSlowestMs ? 0 : timeoutMs + kSlowestMs);
  errno = 0;
  if (!isSameUser(socket) || !sendRecord(socket, request) || !receiveRecord(socket, reply)) {
    return failWith(errno == EAGAIN ? ERROR_TIMEOUT : ERROR_INVALID_WINDOW_HANDLE);
  }
  reply.title[kLongestWindowTitle] = '\0';
  return reply.error == 0 || failWith(reply.error);
} catch (const std::bad_alloc&) {
  return failWith(ERROR_NOT_ENOUGH_MEMORY);
}

std::vector<DWORD> processesWithWindows() {
  std::vector<DWORD> processes;
  Descriptor folder = openFolder();
  if (!folder.isOpen()) return processes;
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(folder.get()), closedir);
  if (entries == nullptr) return processes;
  folder.release();
  while (const dirent* entry = readdir(entries.get())) {
    DWORD process = 0;
    const char* const end = entry->d_name + std::strlen(entry->d_name);
    const auto [rest, error] = std::from_chars(entry->d_name, end, process);
    if (error != std::errc() || rest != end || process == static_cast<DWORD>(getpid())) continue;
    processes.push_back(process);
  }
  std::ranges::sort(processes);
  return processes;
}

}  // namespace qm::platform::posix
