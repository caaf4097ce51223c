#include "tests/support/Program.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

namespace qmtest {
namespace {

/// The parent of a process that runs, from the line that the system keeps about it; -1 for others.
pid_t parentOf(const std::string& pid) {
  const std::string line = readFile("/proc/" + pid + "/stat");
  std::istringstream rest(line.substr(std::min(line.rfind(')'), line.size() - 1) + 1));
  char state = 'Z';
  pid_t parent = -1;
  return rest >> state >> parent && state != 'Z' ? parent : -1;
}

}  // namespace

bool await(const std::function<bool()>& condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

bool isRunning(pid_t pid) { return parentOf(std::to_string(pid)) >= 0; }

Program::Program(const std::string& commandLine) {
  const std::string line =
      "exec >" + folder_.file("out") + " 2>" + folder_.file("err") + "; exec " + commandLine;
  const char* const list[] = {"sh", "-c", line.c_str(), nullptr};
  EXPECT_EQ(posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(list), environ), 0);
}

Program::~Program() {
  if (pid_ <= 0) return;
  signal(SIGKILL);
  (void)wait();
}

void Program::signal(int number) const { ASSERT_EQ(::kill(pid_, number), 0); }

int Program::wait() {
  int status = 0;
  if (!await([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool Program::awaitText(const std::string& text) const {
  return await([&] { return (output() + errors()).find(text) != std::string::npos; });
}

pid_t Program::child() const {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") == std::string::npos && parentOf(name) == pid_) {
      return static_cast<pid_t>(std::stoi(name));
    }
  }
  return 0;
}

}  // namespace qmtest
