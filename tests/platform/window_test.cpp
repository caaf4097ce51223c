#include "qmutils/platform/window.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/platform/error.h"
#include "tests/support/TempFolder.h"

namespace qm::platform {
namespace {

constexpr UINT kAdd = 0x400;     // answers wParam + lParam
constexpr UINT kAsk = 0x402;     // asks the window in wParam
constexpr UINT kSleepy = 0x401;  // answers after a while
constexpr DWORD kLong = 30'000;

std::vector<UINT> had;

LRESULT procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  had.push_back(message);
  if (message == kAdd) return static_cast<LRESULT>(wParam) + lParam;
  if (message == kSleepy) std::this_thread::sleep_for(std::chrono::milliseconds(300));
  if (message == WM_CLOSE) postQuitMessage(static_cast<int>(wParam));
  return defaultWindowProcedure(window, message, wParam, lParam);
}

LRESULT refusing(HWND, UINT, WPARAM, LPARAM) { return -1; }

int runMessages() {
  MSG message;
  while (getMessage(&message) > 0) dispatchMessage(message);
  return static_cast<int>(message.wParam);
}

template <class Call>
DWORD errorOf(Call call) {
  setLastError(0);
  EXPECT_FALSE(call());
  return lastError();
}

class MessageWindow : public testing::Test {
 protected:
  MessageWindow() {
    // Any other folder would not be used.
    std::filesystem::permissions(folder_.path(), std::filesystem::perms::owner_all);
    setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
    had.clear();
  }
  ~MessageWindow() override {
    for (const pid_t child : children_) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
    unsetenv("XDG_RUNTIME_DIR");
  }

  /// Another program with a window; its exit status is that of its messages.
  pid_t startOther(const char* title) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
      if (!registerWindowClass("Other", nullptr, procedure)) _exit(101);
      if (createWindow("OTHER", title) == nullptr || !offerWindows()) _exit(102);
      if (write(ready[1], "", 1) != 1) _exit(103);
      std::_Exit(runMessages());
    }
    char ignored;
    EXPECT_EQ(read(ready[0], &ignored, 1), 1);
    close(ready[0]);
    close(ready[1]);
    children_.push_back(child);
    return child;
  }

  int statusOf(pid_t child) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    std::erase(children_, child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  qmtest::TempFolder folder_;
  std::vector<pid_t> children_;
};

TEST_F(MessageWindow, ClassesAndHandlesHaveTheirRules) {
  const std::string longName(256, 'c'), longTitle(1024, 't');
  EXPECT_EQ(errorOf([] { return createWindow("none", "x") != nullptr; }), 1407u);
  EXPECT_EQ(errorOf([] { return registerWindowClass("", nullptr, procedure); }), 87u);
  EXPECT_EQ(errorOf([] { return registerWindowClass("x", nullptr, nullptr); }), 87u);
  EXPECT_EQ(errorOf([&] { return registerWindowClass(longName.c_str(), nullptr, procedure); }),
            87u);
  ASSERT_TRUE(registerWindowClass("Rules", nullptr, procedure));
  EXPECT_EQ(errorOf([] { return registerWindowClass("RULES", nullptr, procedure); }), 1410u);
  EXPECT_EQ(errorOf([&] { return createWindow("rules", longTitle.c_str()) != nullptr; }), 87u);
  const HWND window = createWindow("rules", "Title");
  ASSERT_NE(window, nullptr);
  EXPECT_EQ(had, std::vector<UINT>{WM_CREATE});
  EXPECT_EQ(windowProcessId(window), static_cast<DWORD>(getpid()));
  EXPECT_EQ(findWindow("RULES", "tITLE", false), window);
  EXPECT_EQ(findWindow(nullptr, "title", false), window);
  EXPECT_EQ(errorOf([] { return findWindow("rules", "other", false) != nullptr; }), 2u);
  EXPECT_EQ(errorOf([] { return findWindow("rules", nullptr, true) != nullptr; }), 2u);
  EXPECT_EQ(errorOf([] { return unregisterWindowClass("rules"); }), 1412u);
  EXPECT_TRUE(discardWindow(window));
  for (const HWND gone : {window, HWND{}, reinterpret_cast<HWND>(std::uintptr_t{1} << 33 | 5)}) {
    EXPECT_EQ(errorOf([&] { return discardWindow(gone); }), 1400u);
    EXPECT_EQ(errorOf([&] { return postMessage(gone, kAdd, 1, 2); }), 1400u);
    EXPECT_EQ(errorOf([&] { return sendMessage(gone, kAdd, 1, 2, 10, nullptr); }), 1400u);
    EXPECT_EQ(windowProcessId(gone), 0u);
  }
  EXPECT_TRUE(unregisterWindowClass("Rules"));
  EXPECT_EQ(errorOf([] { return unregisterWindowClass("rules"); }), 1411u);
  EXPECT_EQ(errorOf([&] { return createWindow(longName.c_str(), "x") != nullptr; }), 87u);
  ASSERT_TRUE(registerWindowClass("Refusing", nullptr, refusing));
  EXPECT_EQ(errorOf([] { return createWindow("Refusing", "x") != nullptr; }), 1223u);
  EXPECT_TRUE(unregisterWindowClass("Refusing"));
}

TEST_F(MessageWindow, ThreadsSendAndPostToEachOther) {
  ASSERT_TRUE(registerWindowClass("Threads", nullptr, procedure));
  std::atomic<HWND> window{nullptr};
  std::atomic<int> code{0};
  std::thread owner([&] {
    window = createWindow("Threads", "x");
    code = runMessages();
  });
  while (window == nullptr) std::this_thread::yield();
  LRESULT result = 0;
  EXPECT_TRUE(sendMessage(window, kAdd, 40, 2, kLong, &result));
  EXPECT_EQ(result, 42);
  EXPECT_EQ(errorOf([&] { return sendMessage(window, kSleepy, 0, 0, 20, nullptr); }), 1460u);
  EXPECT_EQ(errorOf([&] { return discardWindow(window); }), 5u);
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(postMessage(window, kAdd, 0, i));
  // Who quits has had all messages that waited.
  EXPECT_TRUE(postMessage(window, WM_CLOSE, 7, 0));
  owner.join();
  EXPECT_EQ(code, 7);
  EXPECT_EQ(had.size(), 1u + 1 + 1 + 1000 + 1);
  EXPECT_FALSE(isWindow(window)) << "the window goes with its thread";
  EXPECT_TRUE(unregisterWindowClass("Threads"));
}

TEST_F(MessageWindow, AWindowThatGoesLeavesNobodyWaiting) {
  ASSERT_TRUE(registerWindowClass("Going", nullptr, procedure));
  const HWND window = createWindow("Going", "x"), next = createWindow("Going", "y");
  DWORD error = 0;
  std::thread sender(
      [&] { error = errorOf([&] { return sendMessage(window, kAdd, 1, 2, kLong, nullptr); }); });
  EXPECT_TRUE(postMessage(window, kAdd, 1, 2));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // whichever of both comes first
  EXPECT_TRUE(discardWindow(window));
  sender.join();
  EXPECT_EQ(error, 1400u);
  EXPECT_TRUE(postMessage(next, WM_CLOSE, 3, 0));
  EXPECT_EQ(runMessages(), 3);
  EXPECT_EQ(had, (std::vector<UINT>{WM_CREATE, WM_CREATE, WM_CLOSE}));
  for (int i = 0; i < 10'000; ++i) EXPECT_TRUE(postMessage(next, kAdd, 0, 0));
  EXPECT_EQ(errorOf([&] { return postMessage(next, kAdd, 0, 0); }), 1816u);
  EXPECT_TRUE(discardWindow(next));
  EXPECT_TRUE(unregisterWindowClass("Going"));
}

/// Two that ask each other at the same time both get their answers.
LRESULT askingBack(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message != kAsk) return procedure(window, message, wParam, lParam);
  LRESULT result = 0;
  const auto asker = reinterpret_cast<HWND>(wParam);
  return sendMessage(asker, kAdd, 20, 1, kLong, &result) ? 2 * result : -1;
}

TEST_F(MessageWindow, WhoIsAskedMayAskBack) {
  ASSERT_TRUE(registerWindowClass("Back", nullptr, askingBack));
  const HWND own = createWindow("Back", "own");
  std::atomic<HWND> other{nullptr};
  std::thread owner([&] {
    other = createWindow("Back", "other");
    runMessages();
  });
  while (other == nullptr) std::this_thread::yield();
  LRESULT result = 0;
  EXPECT_TRUE(sendMessage(other, kAsk, reinterpret_cast<WPARAM>(own), 0, kLong, &result));
  EXPECT_EQ(result, 42);
  EXPECT_TRUE(postMessage(other, WM_CLOSE, 0, 0));
  owner.join();
  EXPECT_TRUE(discardWindow(own));
  EXPECT_TRUE(unregisterWindowClass("Back"));
}

TEST_F(MessageWindow, ForkedChildrenHaveNoWindows) {
  ASSERT_TRUE(registerWindowClass("Forked", nullptr, procedure));
  const HWND window = createWindow("Forked", "x");
  ASSERT_TRUE(offerWindows());
  std::atomic<bool> stop{false};
  std::thread poster([&] {
    while (!stop) postMessage(window, WM_CLOSE, 1, 0);
  });
  for (int i = 0; i < 30; ++i) {
    if (const pid_t child = fork(); child == 0) {
      const bool none = !registerWindowClass("Forked", nullptr, procedure)
                            ? false
                            : createWindow("Forked", "child") != nullptr;
      postQuitMessage(9);
      std::_Exit(none && runMessages() == 9 ? 0 : 1);
    } else {
      EXPECT_EQ(statusOf(child), 0);
    }
  }
  stop = true;
  poster.join();
  EXPECT_TRUE(discardWindow(window));
  EXPECT_TRUE(unregisterWindowClass("Forked"));
}

TEST_F(MessageWindow, ProgramsFindAndAskEachOther) {
  const pid_t other = startOther("The other program");
  const HWND window = findWindow("other", "the OTHER program", true);
  ASSERT_NE(window, nullptr);
  EXPECT_EQ(windowProcessId(window), static_cast<DWORD>(other));
  char title[kLongestWindowTitle + 1];
  EXPECT_TRUE(windowTitle(window, title));
  EXPECT_STREQ(title, "The other program");
  LRESULT result = 0;
  EXPECT_TRUE(sendMessage(window, kAdd, 1, -3, kLong, &result));
  EXPECT_EQ(result, -2);
  EXPECT_EQ(errorOf([&] { return sendMessage(window, kSleepy, 0, 0, 20, nullptr); }), 1460u);
  EXPECT_TRUE(postMessage(window, WM_CLOSE, 9, 0));
  EXPECT_EQ(statusOf(other), 9);
  EXPECT_FALSE(isWindow(window));

  setenv("QMUTILS_OBJECT_PREFIX", "apart-", 1);
  const pid_t apart = startOther("apart");
  EXPECT_NE(findWindow("other", "apart", false), nullptr);
  unsetenv("QMUTILS_OBJECT_PREFIX");
  EXPECT_EQ(findWindow("other", nullptr, false), nullptr);
  kill(apart, SIGKILL);
}

TEST_F(MessageWindow, DeadAndStoppedProgramsArePassedOver) {
  const pid_t dead = startOther("dead"), stopped = startOther("stopped");
  startOther("alive");
  kill(stopped, SIGSTOP);
  kill(dead, SIGKILL);
  EXPECT_EQ(statusOf(dead), -SIGKILL);
  EXPECT_NE(findWindow("other", "alive", false), nullptr);
  // The stopped one might have it, so that there is none is not certain.
  EXPECT_EQ(errorOf([] { return findWindow("other", "dead", false) != nullptr; }), 1460u);
  EXPECT_FALSE(std::filesystem::exists(folder_.file("qmutils-windows/" + std::to_string(dead))));
}

TEST_F(MessageWindow, AFolderThatOthersMayEnterIsNotUsed) {
  const std::string prefix = "qmtest-" + std::to_string(getpid()) + "-";
  if (const pid_t child = fork(); child == 0) {
    std::filesystem::permissions(folder_.path(), std::filesystem::perms(0777));
    setenv("QMUTILS_OBJECT_PREFIX", prefix.c_str(), 1);
    if (!registerWindowClass("Safe", nullptr, procedure)) _exit(3);
    const bool offered = createWindow("Safe", "x") != nullptr && offerWindows();
    const bool used = std::filesystem::exists(folder_.file(prefix + "qmutils-windows"));
    std::_Exit(used ? 1 : offered || lastError() == ERROR_ACCESS_DENIED ? 0 : 2);
  } else {
    EXPECT_EQ(statusOf(child), 0);
  }
  std::error_code ignored;
  std::filesystem::remove_all(
      "/tmp/qmutils-" + std::to_string(geteuid()) + "/" + prefix + "qmutils-windows", ignored);
}

}  // namespace
}  // namespace qm::platform
