// A program under test as a process of its own, with its output in files.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "tests/support/TempFolder.h"

namespace qmtest {

class Program {
 public:
  /// Starts what a line for the shell says.
  explicit Program(const std::string& commandLine);
  /// Kills what still runs.
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Waits for the end: the exit status, 128 + the signal, or -1 when it still runs after a minute.
  int wait();
  void signal(int number) const;
  /// Waits up to a minute until standard output or standard error holds the text.
  bool awaitText(const std::string& text) const;
  std::string output() const { return readFile(folder_.file("out")); }
  std::string errors() const { return readFile(folder_.file("err")); }
  /// The process that this one has launched; 0 when there is none.
  pid_t child() const;

 private:
  TempFolder folder_;
  pid_t pid_ = -1;
};

/// True while a process runs (one that has ended but was not collected does not).
bool isRunning(pid_t pid);
/// Waits up to a minute for a condition.
bool await(const std::function<bool()>& condition);

}  // namespace qmtest
