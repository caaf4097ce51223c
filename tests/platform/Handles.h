// Objects of the platform floor that a test makes and that are closed when it ends.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <vector>

#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"

namespace qm::platform {

constexpr DWORD kLong = 30000;  // a limit that a sound run never reaches
constexpr DWORD kAllOnes = 0xFFFFFFFFu;

class Handles : public testing::Test {
 protected:
  ~Handles() override {
    for (HANDLE handle : handles_) closeHandle(handle);
  }

  HANDLE keep(HANDLE handle) { return handles_.emplace_back(handle); }
  HANDLE event(bool manualReset, bool set) { return keep(createEvent(manualReset, set)); }
  HANDLE mutex(bool owned) { return keep(createMutex(owned)); }
  HANDLE semaphore(LONG initial, LONG maximum) { return keep(createSemaphore(initial, maximum)); }

  HANDLE thread(std::function<DWORD()> body) {
    const auto run = [](void* function) {
      return (*static_cast<std::function<DWORD()>*>(function))();
    };
    return keep(startThread(run, &bodies_.emplace_back(std::move(body)), nullptr));
  }
  static DWORD exitCodeOf(HANDLE thread) {
    EXPECT_EQ(wait(thread, kLong), WAIT_OBJECT_0);
    DWORD code = kAllOnes;
    EXPECT_TRUE(threadExitCode(thread, &code));
    return code;
  }

 private:
  std::vector<HANDLE> handles_;
  std::list<std::function<DWORD()>> bodies_;
};

}  // namespace qm::platform
