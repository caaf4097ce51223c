#include "qmutils/platform/window.h"

#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/process_generation.h"
#include "qmutils/platform/posix/window_link.h"
#include "qmutils/platform/suspension_deferral.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform {

namespace {

using posix::askProcess;
using posix::WindowReply;
using posix::WindowRequest;

constexpr DWORD kQuickMs = 0;  // of requests that no window has to answer

/// A lock held for a moment, in which the thread is not suspended.
class Guard {
 public:
  explicit Guard(std::mutex& mutex) : lock_(mutex) {}

 private:
  const SuspensionDeferral notWithTheLock_;
  const std::lock_guard<std::mutex> lock_;
};

/// An event of its own that closes itself.
class Signal {
 public:
  Signal() : handle_(createEvent(false, false)) {
    if (handle_ == nullptr) throw std::bad_alloc();
  }
  ~Signal() { closeHandle(handle_); }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void set() const noexcept { setEvent(handle_); }
  bool await(DWORD timeoutMs) const noexcept { return wait(handle_, timeoutMs) == WAIT_OBJECT_0; }

 private:
  const HANDLE handle_;
};

/// What the sender of a message waits for.
struct Answer {
  Signal given;
  std::atomic<LRESULT> result{0};
  std::atomic<bool> handled{false};  // false: the window went before
};

struct Entry {
  MSG message;
  std::shared_ptr<Answer> answer;  // null for a message that was left
};

/// The messages of a thread's windows.
struct Queue {
  std::mutex lock;
  Signal news;
  std::deque<Entry> entries;
  bool ended = false;  // the thread has
  bool quits = false;
  int exitCode = 0;
};

struct Less {
  bool operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  }
};

struct Class {
  HICON icon;
  WNDPROC procedure;
};

struct Window {
  std::string className;
  std::string title;
  WNDPROC procedure;
  std::shared_ptr<Queue> queue;
};

/// All windows of the process. Never destroyed, as threads may outlive main(). A forked child
/// begins without any.
struct Windows {
  std::mutex lock;
  std::map<std::string, Class, Less> classes;
  std::map<HWND, Window> windows;
  std::uint32_t next = 1;
};

Windows& all() {
  static std::atomic<Windows*> current{new Windows};
  static std::atomic<unsigned> owner{posix::processGeneration()};
  const unsigned generation = posix::processGeneration();
  if (owner.exchange(generation) != generation) current = new Windows;
  return *current;
}

// A window's handle tells its process, so that others know whom to ask.
constexpr unsigned kNumberBits = sizeof(std::uintptr_t) == 8 ? 32 : 10;

HWND handleOf(std::uint32_t number) {
  const std::uintptr_t low = number & ((std::uintptr_t{1} << kNumberBits) - 1);
  return reinterpret_cast<HWND>(static_cast<std::uintptr_t>(getpid()) << kNumberBits | low);
}

std::uint64_t numberOf(HWND window) { return reinterpret_cast<std::uintptr_t>(window); }

DWORD processOf(HWND window) { return static_cast<DWORD>(numberOf(window) >> kNumberBits); }

bool isOurs(HWND window) { return processOf(window) == static_cast<DWORD>(getpid()); }

bool isSameName(const char* a, const std::string& b) {
  return a == nullptr || strcasecmp(a, b.c_str()) == 0;
}

/// The calling thread's queue, which its windows share until it ends.
class OwnQueue {
 public:
  ~OwnQueue() {
    if (queue_ == nullptr) return;
    {
      Windows& ours = all();
      const Guard guard(ours.lock);
      std::erase_if(ours.windows, [&](const auto& each) { return each.second.queue == queue_; });
    }
    std::deque<Entry> left;
    {
      const Guard guard(queue_->lock);
      queue_->ended = true;
      left.swap(queue_->entries);
    }
    for (const Entry& entry : left) {
      if (entry.answer != nullptr) entry.answer->given.set();
    }
  }
  const std::shared_ptr<Queue>& get() {
    if (queue_ == nullptr) queue_ = std::make_shared<Queue>();
    return queue_;
  }
  bool is(const std::shared_ptr<Queue>& other) const { return queue_ == other; }

 private:
  std::shared_ptr<Queue> queue_;
};

OwnQueue& ownQueue() {
  thread_local OwnQueue queue;
  return queue;
}

/// A copy; without a procedure when there is no such window here.
Window findOwn(HWND handle) {
  Windows& ours = all();
  const Guard guard(ours.lock);
  const auto found = ours.windows.find(handle);
  return found != ours.windows.end() ? found->second : Window{{}, {}, nullptr, nullptr};
}

bool enqueue(const Window& window, Entry entry) {
  {
    const Guard guard(window.queue->lock);
    if (window.queue->ended) return failWith(ERROR_INVALID_WINDOW_HANDLE);
    window.queue->entries.push_back(std::move(entry));
  }
  window.queue->news.set();
  return true;
}

MSG messageOf(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  const auto milliseconds = static_cast<DWORD>(monotonicNanoseconds() / 1'000'000);
  return {window, message, wParam, lParam, milliseconds, {0, 0}};
}

// ---- Of this process ----------------------------------------------------------------------------

bool postOwn(HWND handle, UINT message, WPARAM wParam, LPARAM lParam) {
  const Window window = findOwn(handle);
  if (window.procedure == nullptr) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  return enqueue(window, {messageOf(handle, message, wParam, lParam), nullptr});
}

bool sendOwn(HWND handle, UINT message, WPARAM wParam, LPARAM lParam, DWORD timeoutMs,
             LRESULT* result) {
  const Window window = findOwn(handle);
  if (window.procedure == nullptr) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  if (ownQueue().is(window.queue)) {
    *result = window.procedure(handle, message, wParam, lParam);
    return true;
  }
  const auto answer = std::make_shared<Answer>();
  if (!enqueue(window, {messageOf(handle, message, wParam, lParam), answer})) return false;
  if (!answer->given.await(timeoutMs)) return failWith(ERROR_TIMEOUT);
  if (!answer->handled) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  *result = answer->result;
  return true;
}

HWND findOwn(const char* className, const char* title) {
  Windows& ours = all();
  const Guard guard(ours.lock);
  for (const auto& [handle, window] : ours.windows) {
    if (isSameName(className, window.className) && isSameName(title, window.title)) return handle;
  }
  return nullptr;
}

/// For other programs; on a thread of the link.
void answerRequest(const WindowRequest& request, WindowReply& reply) try {
  const auto window = reinterpret_cast<HWND>(static_cast<std::uintptr_t>(request.window));
  const auto wParam = static_cast<WPARAM>(request.wParam);
  const auto lParam = static_cast<LPARAM>(request.lParam);
  LRESULT result = 0;
  bool done = true;
  switch (request.operation) {
    case WindowRequest::Find:
      reply.value = static_cast<std::int64_t>(
          numberOf(findOwn(request.anyClass != 0 ? nullptr : request.className,
                           request.anyTitle != 0 ? nullptr : request.title)));
      break;
    case WindowRequest::Post:
      done = postOwn(window, request.message, wParam, lParam);
      break;
    case WindowRequest::Send:
      done = sendOwn(window, request.message, wParam, lParam, request.timeoutMs, &result);
      reply.value = result;
      break;
    case WindowRequest::Title: {
      const Window found = findOwn(window);
      done = found.procedure != nullptr || failWith(ERROR_INVALID_WINDOW_HANDLE);
      found.title.copy(reply.title, kLongestWindowTitle);
      break;
    }
    default:
      done = failWith(ERROR_INVALID_PARAMETER);
  }
  if (!done) reply.error = lastError();
} catch (const std::bad_alloc&) {
  reply.error = ERROR_NOT_ENOUGH_MEMORY;
}

WindowRequest requestOf(WindowRequest::Operation operation, HWND window) {
  WindowRequest request;
  request.operation = operation;
  request.window = numberOf(window);
  return request;
}

HWND askForWindow(DWORD process, const char* className, const char* title) {
  WindowRequest request = requestOf(WindowRequest::Find, nullptr);
  request.anyClass = className == nullptr;
  request.anyTitle = title == nullptr;
  if (className != nullptr)
    std::string_view(className).copy(request.className, kLongestWindowClass);
  if (title != nullptr) std::string_view(title).copy(request.title, kLongestWindowTitle);
  WindowReply reply;
  if (!askProcess(process, request, kQuickMs, reply)) return nullptr;
  return reinterpret_cast<HWND>(static_cast<std::uintptr_t>(reply.value));
}

/// Runs what may run out of memory.
template <class Work>
auto guarded(const Work& work) noexcept -> decltype(work()) try {
  return work();
} catch (const std::bad_alloc&) {
  failWith(ERROR_NOT_ENOUGH_MEMORY);
  return {};
}

/// The next entry of a queue; false when there is none.
bool takeEntry(Queue& queue, Entry& entry) {
  const Guard guard(queue.lock);
  if (!queue.entries.empty()) {
    entry = std::move(queue.entries.front());
    queue.entries.pop_front();
    return true;
  }
  if (!queue.quits) return false;
  queue.quits = false;
  const auto code = static_cast<WPARAM>(queue.exitCode);
  entry = {messageOf(nullptr, WM_QUIT, code, 0), nullptr};
  return true;
}

void answerSent(const Entry& entry) {
  const Window window = findOwn(entry.message.hwnd);
  if (window.procedure != nullptr) {
    const MSG& message = entry.message;
    entry.answer->result =
        window.procedure(message.hwnd, message.message, message.wParam, message.lParam);
    entry.answer->handled = true;
  }
  entry.answer->given.set();
}

}  // namespace

bool registerWindowClass(const char* name, HICON icon, WNDPROC procedure) noexcept {
  return guarded([&] {
    if (name == nullptr || *name == '\0' || std::strlen(name) > kLongestWindowClass ||
        procedure == nullptr) {
      return failWith(ERROR_INVALID_PARAMETER);
    }
    Windows& ours = all();
    const Guard guard(ours.lock);
    return ours.classes.emplace(name, Class{icon, procedure}).second ||
           failWith(ERROR_CLASS_ALREADY_EXISTS);
  });
}

bool unregisterWindowClass(const char* name) noexcept {
  return guarded([&] {
    Windows& ours = all();
    const Guard guard(ours.lock);
    const auto found = ours.classes.find(name != nullptr ? name : "");
    if (found == ours.classes.end()) return failWith(ERROR_CLASS_DOES_NOT_EXIST);
    for (const auto& each : ours.windows) {
      if (isSameName(name, each.second.className)) return failWith(ERROR_CLASS_HAS_WINDOWS);
    }
    ours.classes.erase(found);
    return true;
  });
}

HWND createWindow(const char* className, const char* title) noexcept {
  return guarded([&]() -> HWND {
    const std::string text(title != nullptr ? title : "");
    if (text.size() > kLongestWindowTitle) {
      failWith(ERROR_INVALID_PARAMETER);
      return nullptr;
    }
    if (!posix::startWindowLink(answerRequest)) return nullptr;
    HWND handle;
    WNDPROC procedure;
    {
      const std::shared_ptr<Queue> queue = ownQueue().get();
      Windows& ours = all();
      const Guard guard(ours.lock);
      const auto found = ours.classes.find(className != nullptr ? className : "");
      if (found == ours.classes.end()) {
        failWith(ERROR_CANNOT_FIND_WND_CLASS);
        return nullptr;
      }
      procedure = found->second.procedure;
      do {
        handle = handleOf(ours.next++);
      } while (!ours.windows.emplace(handle, Window{found->first, text, procedure, queue}).second);
    }
    if (procedure(handle, WM_CREATE, 0, 0) != -1) return handle;
    discardWindow(handle);
    failWith(ERROR_CANCELLED);
    return nullptr;
  });
}

bool discardWindow(HWND window) noexcept {
  Windows& ours = all();
  const Guard guard(ours.lock);
  const auto found = ours.windows.find(window);
  if (found == ours.windows.end()) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  if (!ownQueue().is(found->second.queue)) return failWith(ERROR_ACCESS_DENIED);
  ours.windows.erase(found);
  return true;
}

int getMessage(MSG* message) noexcept {
  const auto next = [&]() -> int {
    const std::shared_ptr<Queue> queue = ownQueue().get();
    for (;;) {
      Entry entry{};
      while (takeEntry(*queue, entry)) {
        if (entry.answer != nullptr) {
          answerSent(entry);
          continue;
        }
        *message = entry.message;
        return message->message == WM_QUIT ? 0 : 1;
      }
      if (!queue->news.await(INFINITE)) return -1;
    }
  };
  try {
    return next();
  } catch (const std::bad_alloc&) {
    failWith(ERROR_NOT_ENOUGH_MEMORY);
    return -1;
  }
}

LRESULT dispatchMessage(const MSG& message) noexcept {
  return guarded([&]() -> LRESULT {
    const Window window = findOwn(message.hwnd);
    if (window.procedure == nullptr || !ownQueue().is(window.queue)) return 0;
    return window.procedure(message.hwnd, message.message, message.wParam, message.lParam);
  });
}

void postQuitMessage(int exitCode) noexcept {
  guarded([&] {
    const std::shared_ptr<Queue> queue = ownQueue().get();
    const Guard guard(queue->lock);
    queue->quits = true;
    queue->exitCode = exitCode;
    return true;
  });
}

bool postMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept {
  return guarded([&] {
    if (isOurs(window)) return postOwn(window, message, wParam, lParam);
    WindowRequest request = requestOf(WindowRequest::Post, window);
    request.message = message;
    request.wParam = wParam;
    request.lParam = lParam;
    WindowReply reply;
    return askProcess(processOf(window), request, kQuickMs, reply);
  });
}

bool sendMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam, DWORD timeoutMs,
                 LRESULT* result) noexcept {
  return guarded([&] {
    LRESULT value = 0;
    if (isOurs(window)) {
      if (!sendOwn(window, message, wParam, lParam, timeoutMs, &value)) return false;
    } else {
      WindowRequest request = requestOf(WindowRequest::Send, window);
      request.message = message;
      request.wParam = wParam;
      request.lParam = lParam;
      request.timeoutMs = timeoutMs;
      WindowReply reply;
      if (!askProcess(processOf(window), request, timeoutMs, reply)) return false;
      value = static_cast<LRESULT>(reply.value);
    }
    if (result != nullptr) *result = value;
    return true;
  });
}

HWND findWindow(const char* className, const char* title, bool ofOthers) noexcept {
  return guarded([&]() -> HWND {
    if (!ofOthers) {
      if (const HWND own = findOwn(className, title)) return own;
    }
    for (const DWORD process : posix::processesWithWindows()) {
      if (const HWND found = askForWindow(process, className, title)) return found;
    }
    failWith(ERROR_FILE_NOT_FOUND);
    return nullptr;
  });
}

bool isWindow(HWND window) noexcept {
  char ignored[kLongestWindowTitle + 1];
  return windowTitle(window, ignored);
}

DWORD windowProcessId(HWND window) noexcept { return isWindow(window) ? processOf(window) : 0; }

bool windowTitle(HWND window, char (&title)[kLongestWindowTitle + 1]) noexcept {
  return guarded([&] {
    WindowReply reply;
    const WindowRequest request = requestOf(WindowRequest::Title, window);
    if (isOurs(window)) {
      answerRequest(request, reply);
      if (reply.error != 0) return failWith(reply.error);
    } else if (!askProcess(processOf(window), request, kQuickMs, reply)) {
      return false;
    }
    std::memcpy(title, reply.title, sizeof title);
    return true;
  });
}

LRESULT defaultWindowProcedure(HWND, UINT, WPARAM, LPARAM) noexcept { return 0; }

}  // namespace qm::platform
