// What the tests of the pool share: names of their own, a look at what is left behind, captured log
// lines, child processes.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "qmutils/platform/named_objects.h"
#include "qmutils/platform/types.h"

namespace qmtest {

/// Gives every test pool objects of its own and demands that none is left at its end.
class PoolTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// The shared objects that exist under this test's names.
  std::vector<std::string> sharedObjects() const;
  /// The path of one of them.
  std::string pathOf(const std::string& name) const;
  const std::string& prefix() const { return prefix_; }

 private:
  std::string prefix_;
};

/// The next message for this process, or the code as a text.
std::string receive(DWORD timeoutMs = 0);

/// The pool's shared objects without the pool, opened by a test itself.
class OpenObjects : public qm::platform::SharedObjects {
 public:
  OpenObjects();
  bool open();
  void leave() { wake(release()); }
};

/// The lines that the library hands to QMDBprintf's callback while the object lives. One at a time.
class DebugLines {
 public:
  DebugLines();
  ~DebugLines();
  DebugLines(const DebugLines&) = delete;
  DebugLines& operator=(const DebugLines&) = delete;

  struct Line {
    unsigned level;
    std::string text;
    bool operator==(const Line&) const = default;
  };
  /// What came since the last call.
  std::vector<Line> take();
};
std::ostream& operator<<(std::ostream& os, const DebugLines::Line& line);

/// A forked process that runs `body` and ends with its result as exit status.
class Child {
 public:
  explicit Child(const std::function<int()>& body);
  /// Kills the process if it still runs.
  ~Child();
  Child(Child&& other) noexcept;
  Child& operator=(Child&& other) noexcept;

  pid_t pid() const { return pid_; }
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

}  // namespace qmtest
