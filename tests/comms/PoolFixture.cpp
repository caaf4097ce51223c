#include "tests/comms/PoolFixture.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>

#include "qmutils/comms/PoolNames.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/QMDBprintf.h"

namespace qmtest {

namespace {

using Clock = std::chrono::steady_clock;

const std::string kSharedMemory = "/dev/shm/";

std::mutex linesLock;
std::vector<std::string> lines;

void captureLine(unsigned level, int, char* text) {
  std::lock_guard lock(linesLock);
  lines.push_back(std::to_string(level) + ' ' + text);
}

}  // namespace

void PoolTest::SetUp() {
  static int number = 0;
  prefix_ = "qmtest" + std::to_string(::getpid()) + "-" + std::to_string(++number) + "-";
  ASSERT_EQ(0, ::setenv("QMUTILS_OBJECT_PREFIX", prefix_.c_str(), 1));
}

void PoolTest::TearDown() {
  SvCloseComms();
  EXPECT_EQ(sharedObjects(), Names{}) << "left behind";
  for (const std::string& name : sharedObjects()) std::filesystem::remove(kSharedMemory + name);
}

Names PoolTest::sharedObjects() const {
  Names found;
  for (const auto& entry : std::filesystem::directory_iterator(kSharedMemory)) {
    const std::string name = entry.path().filename();
    if (name.starts_with(prefix_)) found.push_back(name);
  }
  return found;
}

std::string PoolTest::pathOf(const std::string& name) const {
  return kSharedMemory + prefix_ + "Selvane_Comms_" + name;
}

std::string receive(DWORD timeoutMs) {
  char text[256];
  const int code = SvReceiveMessage(text, sizeof text, timeoutMs);
  return code == 0 ? text : std::to_string(code);
}

OpenObjects::OpenObjects() : SharedObjects(qm::kPoolObjectNames, qm::kPoolSectionKind) {}

bool OpenObjects::open() {
  const auto deadline = qm::platform::Deadline::after(20'000);
  if (openMutex(deadline) != WAIT_OBJECT_0 || take() != WAIT_OBJECT_0) return false;
  const bool opened = openEvent() && openSection();
  leave();
  return opened;
}

DebugLines::DebugLines() {
  take();
  QMDBNewRegisterCallback(captureLine);
}

DebugLines::~DebugLines() { QMDBNewRegisterCallback(nullptr); }

std::vector<std::string> DebugLines::take() {
  std::lock_guard lock(linesLock);
  return std::exchange(lines, {});
}

Child::Child(const std::function<int()>& body) : pid_(::fork()) {
  if (pid_ == 0) ::_exit(body());
}

Child::~Child() {
  if (pid_ <= 0) return;
  kill();
  wait();
}

Child::Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

Child& Child::operator=(Child&& other) noexcept {
  std::swap(pid_, other.pid_);
  return *this;
}

void Child::kill() { ::kill(pid_, SIGKILL); }

int Child::wait(int timeoutMs) {
  const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    if (Clock::now() > end) return -1;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
}

Signal::Signal() {
  if (::pipe(ends_) != 0) std::abort();
}

Signal::~Signal() {
  ::close(ends_[0]);
  ::close(ends_[1]);
}

void Signal::post() {
  if (::write(ends_[1], "x", 1) != 1) std::abort();
}

bool Signal::wait() {
  pollfd entry{ends_[0], POLLIN, 0};
  char byte;
  return ::poll(&entry, 1, 60'000) == 1 && ::read(ends_[0], &byte, 1) == 1;
}

double secondsOf(const std::function<void()>& call) {
  const auto start = Clock::now();
  call();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double medianOf(int calls, const std::function<double()>& call) {
  std::vector<double> results;
  while (calls-- > 0) results.push_back(call());
  std::sort(results.begin(), results.end());
  return results[results.size() / 2];
}

void pause(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace qmtest
