#include "qmutils/platform/posix/blocking_wait.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <thread>

#include "qmutils/platform/error.h"
#include "tests/platform/Handles.h"

namespace qm::platform::posix {
namespace {

class ReadyWait : public Handles {
 protected:
  ReadyWait() { EXPECT_EQ(pipe(ends_), 0); }
  ~ReadyWait() override {
    close(ends_[0]);
    close(ends_[1]);
  }
  void fill() { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
  void drain() {
    char byte;
    EXPECT_EQ(read(ends_[0], &byte, 1), 1);
  }

  int ends_[2];
};

TEST_F(ReadyWait, TellsObjectsAndDescriptorApart) {
  const HANDLE handles[] = {event(false, false), event(true, false)};
  const auto wait = [&](DWORD timeoutMs) {
    return waitReady(ends_[0], POLLIN, handles, 2, Deadline::after(timeoutMs));
  };
  EXPECT_EQ(wait(0), WAIT_TIMEOUT);
  EXPECT_EQ(wait(30), WAIT_TIMEOUT);
  fill();
  EXPECT_EQ(wait(0), WAIT_OBJECT_0 + 2);
  EXPECT_EQ(wait(kLong), WAIT_OBJECT_0 + 2);
  setEvent(handles[1]);
  EXPECT_EQ(wait(kLong), WAIT_OBJECT_0 + 1) << "an object wins over the descriptor";
  setEvent(handles[0]);
  EXPECT_EQ(wait(kLong), WAIT_OBJECT_0) << "the lowest index first";
  EXPECT_EQ(wait(kLong), WAIT_OBJECT_0 + 1) << "the auto-reset event was taken";

  EXPECT_EQ(waitReady(ends_[0], POLLIN, nullptr, 0, Deadline::after(INFINITE)), WAIT_OBJECT_0);
  EXPECT_EQ(waitReady(-1, POLLIN, nullptr, 0, Deadline::after(INFINITE)), WAIT_OBJECT_0)
      << "its error is for the next operation to tell";
  const HANDLE stale = createEvent(true, false);
  closeHandle(stale);
  EXPECT_EQ(waitReady(ends_[0], POLLIN, &stale, 1, Deadline::after(kLong)), WAIT_FAILED);
  EXPECT_EQ(lastError(), ERROR_INVALID_HANDLE);
}

// A lost wake would show as a wait that lasts until its limit.
TEST_F(ReadyWait, NeitherWakeIsEverLost) {
  constexpr int kRounds = 20000;
  const HANDLE asked = event(false, false);
  const HANDLE answered = event(false, false);
  const HANDLE partner = thread([&]() -> DWORD {
    for (int i = 0; i < kRounds; ++i) {
      if (wait(answered, kLong) != WAIT_OBJECT_0) return 1;
      if (i % 3 == 0) {
        fill();
      } else {
        setEvent(asked);
      }
    }
    return 0;
  });
  int byDescriptor = 0;
  for (int i = 0; i < kRounds; ++i) {
    setEvent(answered);
    const DWORD result = waitReady(ends_[0], POLLIN, &asked, 1, Deadline::after(kLong));
    ASSERT_LE(result, WAIT_OBJECT_0 + 1);
    if (result == WAIT_OBJECT_0 + 1) {
      ++byDescriptor;
      drain();
    }
  }
  EXPECT_EQ(byDescriptor, (kRounds + 2) / 3);
  EXPECT_EQ(exitCodeOf(partner), 0u);
}

TEST_F(ReadyWait, ThreadsLeaveNoDescriptorsBehind) {
  const auto waitOnce = [&] {
    std::thread([&] {
      EXPECT_EQ(waitReady(ends_[0], POLLIN, nullptr, 0, Deadline::after(1)), WAIT_TIMEOUT);
    }).join();
  };
  const auto descriptors = [] {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  };
  waitOnce();
  const auto before = descriptors();
  for (int i = 0; i < 50; ++i) waitOnce();
  EXPECT_EQ(descriptors(), before);
}

TEST_F(ReadyWait, AForkedCopyTakesNoWakeOfItsParent) {
  const HANDLE done = event(true, false);
  EXPECT_EQ(waitReady(ends_[0], POLLIN, &done, 1, Deadline::after(1)), WAIT_TIMEOUT);
  const pid_t child = fork();
  if (child == 0) {
    // The copy's own wait, woken by a thread of its own while the parent waits as well.
    const HANDLE own = createEvent(false, false);
    const HANDLE setter = startThread(
        [](void* event) -> DWORD {
          sleep(20, false);
          return setEvent(event) ? 0 : 1;
        },
        own, nullptr);
    const bool woken =
        waitReady(ends_[0], POLLIN, &own, 1, Deadline::after(kLong)) == WAIT_OBJECT_0;
    wait(setter, kLong);
    fill();
    std::_Exit(woken ? 0 : 1);
  }
  EXPECT_EQ(waitReady(ends_[0], POLLIN, &done, 1, Deadline::after(kLong)), WAIT_OBJECT_0 + 1);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace qm::platform::posix
