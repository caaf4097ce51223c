#include "tests/programs/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

extern char** environ;

namespace qmtest {

namespace {

constexpr auto kPause = std::chrono::milliseconds(5);
constexpr int kAttempts = 12'000;

/// State and parent of a process, from the line that the system keeps about it.
bool readProcess(const std::string& pid, char& state, pid_t& parent) {
  const std::string line = readFile("/proc/" + pid + "/stat");
  const std::size_t nameEnd = line.rfind(')');
  if (nameEnd == std::string::npos) return false;
  std::istringstream rest(line.substr(nameEnd + 1));
  return static_cast<bool>(rest >> state >> parent);
}

}  // namespace

bool pauseBetween(int attempt) {
  std::this_thread::sleep_for(kPause);
  return attempt < kAttempts;
}

bool isRunning(pid_t pid) {
  char state = 'Z';
  pid_t parent = 0;
  return readProcess(std::to_string(pid), state, parent) && state != 'Z';
}

Program::Program(const std::string& path, const std::vector<std::string>& arguments,
                 const std::string& output) {
  std::vector<char*> list{const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments) list.push_back(const_cast<char*>(argument.c_str()));
  list.push_back(nullptr);
  const std::string out = output.empty() ? folder_.file("out") : output;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, folder_.file("err").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  EXPECT_EQ(posix_spawn(&pid_, path.c_str(), &actions, nullptr, list.data(), environ), 0) << path;
  posix_spawn_file_actions_destroy(&actions);
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

bool Program::awaitOutput(const std::string& text) const {
  return await([&] { return output().find(text) != std::string::npos; });
}

bool Program::awaitErrors(const std::string& text) const {
  return await([&] { return errors().find(text) != std::string::npos; });
}

pid_t Program::child() const {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    char state = 'Z';
    pid_t parent = 0;
    if (readProcess(name, state, parent) && parent == pid_ && state != 'Z') {
      return static_cast<pid_t>(std::stoi(name));
    }
  }
  return 0;
}

}  // namespace qmtest
