#include "qmutils/platform/window.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qmutils/platform/ascii_case.h"
#include "qmutils/platform/clock.h"
#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/window_link.h"
#include "qmutils/platform/short_lock.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform {

namespace {

using posix::askProcess;
using posix::WindowReply;
using posix::WindowRequest;

constexpr DWORD kQuickMs = 0;  // of requests that no window has to answer
constexpr DWORD kLookAgainMs = 500;
constexpr std::size_t kMostEntries = 10'000;

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
  HANDLE handle() const noexcept { return handle_; }

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

struct Window {
  std::string className;
  std::string title;
  WNDPROC procedure;
  std::shared_ptr<Queue> queue;
};

/// All windows of the process.
struct Windows {
  std::mutex lock;
  std::map<std::string, WNDPROC, NameLess> classes;
  std::map<HWND, Window> windows;
  std::uint32_t next = 1;
};

/// The calling thread's queue, which its windows share until it ends. In a forked child the old one
/// is left as it is: some thread of the parent's may have been inside of its lock.
class OwnQueue {
 public:
  ~OwnQueue();
  /// May throw std::bad_alloc.
  const std::shared_ptr<Queue>& get() {
    if (queue_ == nullptr) queue_ = std::make_shared<Queue>();
    return queue_;
  }
  bool is(const std::shared_ptr<Queue>& other) const noexcept {
    return queue_ != nullptr && queue_ == other;
  }
  Queue* peek() const noexcept { return queue_.get(); }
  void leave() noexcept {
    if (queue_ != nullptr) new (leftBehind_) std::shared_ptr<Queue>(std::move(queue_));
  }

 private:
  std::shared_ptr<Queue> queue_;
  alignas(std::shared_ptr<Queue>) std::byte leftBehind_[sizeof(std::shared_ptr<Queue>)];
};

OwnQueue& ownQueue() noexcept {
  thread_local OwnQueue queue;
  return queue;
}

/// Never destroyed, as threads may outlive main(). A forked child begins without windows.
Windows& all() noexcept {
  static Windows& only = *new Windows;
  static const int registered =
      pthread_atfork([] { only.lock.lock(); }, [] { only.lock.unlock(); },
                     [] {
                       ownQueue().leave();
                       new (&only.windows) std::map<HWND, Window>;
                       new (&only.classes) std::map<std::string, WNDPROC, NameLess>;
                       only.lock.unlock();
                     });
  (void)registered;
  return only;
}

// A window's handle tells its process, so that others know whom to ask.
constexpr unsigned kNumberBits = 32;
static_assert(sizeof(HWND) == 8);

HWND handleOf(std::uint32_t number) {
  return reinterpret_cast<HWND>(static_cast<std::uintptr_t>(getpid()) << kNumberBits | number);
}

std::uint64_t numberOf(HWND window) { return reinterpret_cast<std::uintptr_t>(window); }

DWORD processOf(HWND window) { return static_cast<DWORD>(numberOf(window) >> kNumberBits); }

bool isOurs(HWND window) { return processOf(window) == static_cast<DWORD>(getpid()); }

bool isAsked(const char* asked, const std::string& name) {
  return asked == nullptr || isSameName(asked, name);
}

bool isTooLong(const char* name, std::size_t longest) {
  return name != nullptr && std::strlen(name) > longest;
}

/// What it takes to reach a window of this process; no queue when there is none.
struct Target {
  WNDPROC procedure = nullptr;
  std::shared_ptr<Queue> queue;
};

Target targetOf(HWND handle) noexcept {
  Windows& ours = all();
  const ShortLock lock(ours.lock);
  const auto found = ours.windows.find(handle);
  if (found == ours.windows.end()) return {};
  return {found->second.procedure, found->second.queue};
}

/// Tells those who wait for an answer that there will be none.
void giveUp(const std::deque<Entry>& entries) noexcept {
  for (const Entry& entry : entries) {
    if (entry.answer != nullptr) entry.answer->given.set();
  }
}

OwnQueue::~OwnQueue() {
  if (queue_ == nullptr) return;
  {
    Windows& ours = all();
    const ShortLock lock(ours.lock);
    std::erase_if(ours.windows, [&](const auto& each) { return each.second.queue == queue_; });
  }
  std::deque<Entry> left;
  {
    const ShortLock lock(queue_->lock);
    queue_->ended = true;
    left.swap(queue_->entries);
  }
  giveUp(left);
}

/// Takes the messages of a window that has gone out of its queue.
void dropEntries(Queue& queue, HWND window) noexcept {
  const ShortLock lock(queue.lock);
  for (Entry& entry : queue.entries) {
    if (entry.message.hwnd != window) continue;
    if (entry.answer != nullptr) entry.answer->given.set();
    entry.message.hwnd = nullptr;
    entry.answer = nullptr;
  }
  std::erase_if(queue.entries, [](const Entry& entry) { return entry.message.hwnd == nullptr; });
}

bool enqueue(const Target& target, Entry entry) {
  {
    const ShortLock lock(target.queue->lock);
    if (target.queue->ended) return failWith(ERROR_INVALID_WINDOW_HANDLE);
    if (target.queue->entries.size() >= kMostEntries) return failWith(ERROR_NOT_ENOUGH_QUOTA);
    target.queue->entries.push_back(std::move(entry));
  }
  target.queue->news.set();
  return true;
}

MSG messageOf(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  const auto milliseconds = static_cast<DWORD>(monotonicNanoseconds() / 1'000'000);
  return {window, message, wParam, lParam, milliseconds, {0, 0}};
}

LRESULT callProcedure(WNDPROC procedure, const MSG& message) noexcept try {
  return procedure(message.hwnd, message.message, message.wParam, message.lParam);
} catch (const std::bad_alloc&) {
  return 0;
}

void answerSent(const Entry& entry) noexcept {
  const Target target = targetOf(entry.message.hwnd);
  if (target.queue != nullptr) {
    entry.answer->result = callProcedure(target.procedure, entry.message);
    entry.answer->handled = true;
  }
  entry.answer->given.set();
}

/// The next entry of a queue; false when there is none.
bool takeEntry(Queue& queue, Entry& entry) {
  const ShortLock lock(queue.lock);
  if (!queue.entries.empty()) {
    entry = std::move(queue.entries.front());
    queue.entries.pop_front();
    return true;
  }
  if (!queue.quits) return false;
  queue.quits = false;
  entry = {messageOf(nullptr, WM_QUIT, static_cast<WPARAM>(queue.exitCode), 0), nullptr};
  return true;
}

/// Handles what was sent to windows of the calling thread, and leaves what was posted.
void handleSent() noexcept {
  Queue* const queue = ownQueue().peek();
  if (queue == nullptr) return;
  for (;;) {
    Entry sent{};
    {
      const ShortLock lock(queue->lock);
      const auto found = std::ranges::find_if(
          queue->entries, [](const Entry& entry) { return entry.answer != nullptr; });
      if (found == queue->entries.end()) return;
      sent = std::move(*found);
      queue->entries.erase(found);
    }
    answerSent(sent);
  }
}

// ---- Of this process ----------------------------------------------------------------------------

bool postOwn(HWND handle, UINT message, WPARAM wParam, LPARAM lParam) {
  const Target target = targetOf(handle);
  if (target.queue == nullptr) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  return enqueue(target, {messageOf(handle, message, wParam, lParam), nullptr});
}

/// Waits for an answer, handling what is sent to the calling thread's own windows. False with 1460
/// in the end, or 995 once nobody wants to know any more.
bool awaitAnswer(const Answer& answer, DWORD timeoutMs, const std::function<bool()>& stillAsked) {
  const Deadline deadline = Deadline::after(timeoutMs);
  Queue* const own = ownQueue().peek();
  const HANDLE handles[] = {answer.given.handle(),
                            own != nullptr ? own->news.handle() : answer.given.handle()};
  for (;;) {
    const DWORD slice = std::min(deadline.remainingMs(), kLookAgainMs);
    const DWORD result = waitAny(handles, own != nullptr ? 2 : 1, slice);
    if (result == WAIT_OBJECT_0) return true;
    if (result == WAIT_FAILED) return false;
    if (result == WAIT_OBJECT_0 + 1) handleSent();
    if (stillAsked && !stillAsked()) return failWith(ERROR_OPERATION_ABORTED);
    if (deadline.passed()) return failWith(ERROR_TIMEOUT);
  }
}

bool sendOwn(HWND handle, UINT message, WPARAM wParam, LPARAM lParam, DWORD timeoutMs,
             const std::function<bool()>& stillAsked, LRESULT* result) {
  const Target target = targetOf(handle);
  if (target.queue == nullptr) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  const MSG sent = messageOf(handle, message, wParam, lParam);
  if (ownQueue().is(target.queue)) {
    *result = callProcedure(target.procedure, sent);
    return true;
  }
  const auto answer = std::make_shared<Answer>();
  if (!enqueue(target, {sent, answer})) return false;
  if (!awaitAnswer(*answer, timeoutMs, stillAsked)) return false;
  if (!answer->handled) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  *result = answer->result;
  return true;
}

HWND findOwn(const char* className, const char* title) {
  Windows& ours = all();
  const ShortLock lock(ours.lock);
  for (const auto& [handle, window] : ours.windows) {
    if (isAsked(className, window.className) && isAsked(title, window.title)) return handle;
  }
  return nullptr;
}

bool titleOfOwn(HWND handle, char* title) {
  Windows& ours = all();
  const ShortLock lock(ours.lock);
  const auto found = ours.windows.find(handle);
  if (found == ours.windows.end()) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  title[found->second.title.copy(title, kLongestWindowTitle)] = '\0';
  return true;
}

/// For other programs; on a thread of the link.
void answerRequest(const WindowRequest& request, WindowReply& reply,
                   const std::function<bool()>& stillAsked) try {
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
      done =
          sendOwn(window, request.message, wParam, lParam, request.timeoutMs, stillAsked, &result);
      reply.value = result;
      break;
    case WindowRequest::Title:
      done = titleOfOwn(window, reply.title);
      break;
    default:
      done = failWith(ERROR_INVALID_PARAMETER);
  }
  if (!done) reply.error = lastError();
} catch (const std::bad_alloc&) {
  reply.error = ERROR_NOT_ENOUGH_MEMORY;
}

// ---- Of others ----------------------------------------------------------------------------------

WindowRequest requestOf(WindowRequest::Operation operation, HWND window) {
  WindowRequest request;
  request.operation = operation;
  request.window = numberOf(window);
  return request;
}

/// Null with the last error set, 0 when that program has no such window.
HWND askForWindow(DWORD process, const char* className, const char* title) {
  WindowRequest request = requestOf(WindowRequest::Find, nullptr);
  request.anyClass = className == nullptr;
  request.anyTitle = title == nullptr;
  if (className != nullptr) {
    std::string_view(className).copy(request.className, kLongestWindowClass);
  }
  if (title != nullptr) std::string_view(title).copy(request.title, kLongestWindowTitle);
  WindowReply reply;
  setLastError(0);
  if (!askProcess(process, request, kQuickMs, handleSent, reply)) return nullptr;
  return reinterpret_cast<HWND>(static_cast<std::uintptr_t>(reply.value));
}

HWND findOther(const char* className, const char* title) {
  std::vector<DWORD> processes;
  if (!posix::processesWithWindows(&processes)) return nullptr;
  DWORD reason = ERROR_FILE_NOT_FOUND;
  for (const DWORD process : processes) {
    if (const HWND found = askForWindow(process, className, title)) return found;
    // One that has ended meanwhile has no window for certain.
    const DWORD error = lastError();
    if (error != 0 && error != ERROR_INVALID_WINDOW_HANDLE) reason = error;
  }
  failWith(reason);
  return nullptr;
}

/// Runs what may run out of memory.
template <class Work>
auto guarded(const Work& work) noexcept -> decltype(work()) try {
  return work();
} catch (const std::bad_alloc&) {
  failWith(ERROR_NOT_ENOUGH_MEMORY);
  return {};
}

/// The next message that was posted; -1, 0 and 1 as getMessage().
int nextMessage(MSG* message) {
  const std::shared_ptr<Queue> queue = ownQueue().get();
  for (;;) {
    for (Entry entry{}; takeEntry(*queue, entry);) {
      if (entry.answer != nullptr) {
        answerSent(entry);
        continue;
      }
      *message = entry.message;
      return message->message == WM_QUIT ? 0 : 1;
    }
    if (wait(queue->news.handle(), INFINITE) != WAIT_OBJECT_0) return -1;
  }
}

}  // namespace

bool registerWindowClass(const char* name, HICON, WNDPROC procedure) noexcept {
  return guarded([&] {
    if (name == nullptr || *name == '\0' || isTooLong(name, kLongestWindowClass) ||
        procedure == nullptr) {
      return failWith(ERROR_INVALID_PARAMETER);
    }
    Windows& ours = all();
    const ShortLock lock(ours.lock);
    return ours.classes.emplace(name, procedure).second || failWith(ERROR_CLASS_ALREADY_EXISTS);
  });
}

bool unregisterWindowClass(const char* name) noexcept {
  Windows& ours = all();
  const ShortLock lock(ours.lock);
  const auto found = ours.classes.find(std::string_view(name != nullptr ? name : ""));
  if (found == ours.classes.end()) return failWith(ERROR_CLASS_DOES_NOT_EXIST);
  for (const auto& each : ours.windows) {
    if (isSameName(name, each.second.className)) return failWith(ERROR_CLASS_HAS_WINDOWS);
  }
  ours.classes.erase(found);
  return true;
}

HWND createWindow(const char* className, const char* title) noexcept {
  return guarded([&]() -> HWND {
    if (isTooLong(className, kLongestWindowClass) || isTooLong(title, kLongestWindowTitle)) {
      failWith(ERROR_INVALID_PARAMETER);
      return nullptr;
    }
    HWND handle;
    WNDPROC procedure;
    {
      const std::shared_ptr<Queue> queue = ownQueue().get();
      Windows& ours = all();
      const ShortLock lock(ours.lock);
      const auto found = ours.classes.find(std::string_view(className != nullptr ? className : ""));
      if (found == ours.classes.end()) {
        failWith(ERROR_CANNOT_FIND_WND_CLASS);
        return nullptr;
      }
      procedure = found->second;
      Window window{found->first, title != nullptr ? title : "", procedure, queue};
      do {
        handle = handleOf(ours.next++);
      } while (!ours.windows.try_emplace(handle, std::move(window)).second);
    }
    if (callProcedure(procedure, messageOf(handle, WM_CREATE, 0, 0)) != -1) return handle;
    discardWindow(handle);
    failWith(ERROR_CANCELLED);
    return nullptr;
  });
}

bool offerWindows() noexcept { return posix::startWindowLink(answerRequest); }

bool discardWindow(HWND window) noexcept {
  const Target target = targetOf(window);
  if (target.queue == nullptr) return failWith(ERROR_INVALID_WINDOW_HANDLE);
  if (!ownQueue().is(target.queue)) return failWith(ERROR_ACCESS_DENIED);
  {
    Windows& ours = all();
    const ShortLock lock(ours.lock);
    ours.windows.erase(window);
  }
  dropEntries(*target.queue, window);
  return true;
}

int getMessage(MSG* message) noexcept try {
  return nextMessage(message);
} catch (const std::bad_alloc&) {
  failWith(ERROR_NOT_ENOUGH_MEMORY);
  return -1;
}

LRESULT dispatchMessage(const MSG& message) noexcept {
  const Target target = targetOf(message.hwnd);
  return ownQueue().is(target.queue) ? callProcedure(target.procedure, message) : 0;
}

void postQuitMessage(int exitCode) noexcept {
  guarded([&] {
    const std::shared_ptr<Queue> queue = ownQueue().get();
    const ShortLock lock(queue->lock);
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
    return askProcess(processOf(window), request, kQuickMs, handleSent, reply);
  });
}

bool sendMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam, DWORD timeoutMs,
                 LRESULT* result) noexcept {
  return guarded([&] {
    LRESULT value = 0;
    if (isOurs(window)) {
      if (!sendOwn(window, message, wParam, lParam, timeoutMs, nullptr, &value)) return false;
    } else {
      WindowRequest request = requestOf(WindowRequest::Send, window);
      request.message = message;
      request.wParam = wParam;
      request.lParam = lParam;
      request.timeoutMs = timeoutMs;
      WindowReply reply;
      if (!askProcess(processOf(window), request, timeoutMs, handleSent, reply)) return false;
      value = static_cast<LRESULT>(reply.value);
    }
    if (result != nullptr) *result = value;
    return true;
  });
}

HWND findWindow(const char* className, const char* title, bool ofOthers) noexcept {
  return guarded([&]() -> HWND {
    if (isTooLong(className, kLongestWindowClass) || isTooLong(title, kLongestWindowTitle)) {
      failWith(ERROR_FILE_NOT_FOUND);
      return nullptr;
    }
    const HWND own = ofOthers ? nullptr : findOwn(className, title);
    return own != nullptr ? own : findOther(className, title);
  });
}

bool isWindow(HWND window) noexcept {
  char ignored[kLongestWindowTitle + 1];
  return windowTitle(window, ignored);
}

DWORD windowProcessId(HWND window) noexcept { return isWindow(window) ? processOf(window) : 0; }

bool windowTitle(HWND window, char (&title)[kLongestWindowTitle + 1]) noexcept {
  return guarded([&] {
    if (isOurs(window)) return titleOfOwn(window, title);
    WindowReply reply;
    const WindowRequest request = requestOf(WindowRequest::Title, window);
    if (!askProcess(processOf(window), request, kQuickMs, handleSent, reply)) return false;
    std::memcpy(title, reply.title, sizeof title);
    return true;
  });
}

LRESULT defaultWindowProcedure(HWND, UINT, WPARAM, LPARAM) noexcept { return 0; }

}  // namespace qm::platform
