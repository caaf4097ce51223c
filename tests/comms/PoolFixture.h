// What the tests of the pool share: names of their own, a look at what is left behind, captured log
// lines, child processes, times.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "qmutils/comms/PoolList.h"
#include "qmutils/platform/named_objects.h"
#include "qmutils/platform/types.h"

namespace qmtest {

using Names = std::vector<std::string>;

/// Gives every test pool objects of its own and demands that none is left at its end.
class PoolTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// The shared objects that exist under this test's names.
  Names sharedObjects() const;
  /// The path of one of them: of "Queue", "Event", "Mutex", "Doorbells" or "Users".
  std::string pathOf(const std::string& name) const;

  std::string prefix_;
};

/// The next message for this process, or the code as a text.
std::string receive(DWORD timeoutMs = 0);

/// The pool's shared objects without the pool, opened by a test itself.
class OpenObjects : public qm::platform::SharedObjects {
 public:
  OpenObjects();
  bool open();
  DWORD take() { return acquire(qm::platform::Deadline::after(20'000)); }
  void leave() { wake(release()); }
  qm::PoolList list() { return qm::PoolList(*static_cast<qm::PoolSection*>(section())); }
};

/// The lines that the library hands to QMDBprintf's callback while the object lives, each behind
/// its level and a space. One at a time.
class DebugLines {
 public:
  DebugLines();
  ~DebugLines();
  DebugLines(const DebugLines&) = delete;
  DebugLines& operator=(const DebugLines&) = delete;

  /// What came since the last call.
  std::vector<std::string> take();
};

/// A forked process that runs `body` and ends with its result as exit status.
class Child {
 public:
  Child() = default;
  explicit Child(const std::function<int()>& body);
  /// Kills the process if it still runs.
  ~Child();
  Child(Child&& other) noexcept;
  Child& operator=(Child&& other) noexcept;

  void kill();
  /// The exit status; 128 + the signal that ended it; -1 when it does not end within `timeoutMs`.
  int wait(int timeoutMs = 60'000);

 private:
  pid_t pid_ = -1;
};

/// Lets processes meet: whatever one of them posts, another one can wait for.
class Signal {
 public:
  Signal();
  ~Signal();
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void post();
  /// False when nothing came for a minute.
  [[nodiscard]] bool wait();

 private:
  int ends_[2];
};

double secondsOf(const std::function<void()>& call);
/// The median of what some calls give: those that a busy machine holds up do not count.
double medianOf(int calls, const std::function<double()>& call);
void pause(int milliseconds);

}  // namespace qmtest
