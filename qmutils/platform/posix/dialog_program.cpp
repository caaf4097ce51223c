#include "qmutils/platform/posix/dialog_program.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "qmutils/platform/posix/descriptor.h"
#include "qmutils/platform/posix/ended_children.h"

extern char** environ;

namespace qm::platform::posix {

namespace {

constexpr std::size_t kMostOutput = 64 * 1024;

bool isSet(const char* variable) noexcept {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

/// How a child is started: signals at their defaults, its output in files.
class SpawnPlan {
 public:
  SpawnPlan() {
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
};

std::string contentOf(const Descriptor& file) {
  std::string content(kMostOutput, '\0');
  const ssize_t size = pread(file.get(), content.data(), content.size(), 0);
  content.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return content;
}

}  // namespace

bool hasDisplay() noexcept { return isSet("DISPLAY") || isSet("WAYLAND_DISPLAY"); }

std::string findProgram(const char* name) {
  const char* folders = std::getenv("PATH");
  if (folders == nullptr) return {};
  for (std::string_view rest = folders; !rest.empty();) {
    const std::size_t end = std::min(rest.find(':'), rest.size());
    std::string candidate(rest.substr(0, end));
    candidate += "/";
    candidate += name;
    struct stat status;
    if (end > 0 && stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return {};
}

std::string findDialogProgram() { return hasDisplay() ? findProgram("zenity") : std::string(); }

std::optional<ProgramResult> runProgram(const std::string& program,
                                        std::vector<std::string> arguments, bool capture) {
  std::vector<char*> pointers;
  std::string name = program.substr(program.rfind('/') + 1);
  pointers.push_back(name.data());
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);

  SpawnPlan plan;
  Descriptor output, errors;
  if (capture) {
    output = Descriptor(memfd_create("output", MFD_CLOEXEC));
    errors = Descriptor(memfd_create("errors", MFD_CLOEXEC));
    if (!output.isOpen() || !errors.isOpen() ||
        posix_spawn_file_actions_adddup2(&plan.actions, output.get(), STDOUT_FILENO) != 0 ||
        posix_spawn_file_actions_adddup2(&plan.actions, errors.get(), STDERR_FILENO) != 0) {
      return std::nullopt;
    }
  }
  keepEndedChildren();
  pid_t child = 0;
  if (posix_spawn(&child, program.c_str(), &plan.actions, &plan.attributes, pointers.data(),
                  environ) != 0) {
    return std::nullopt;
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return std::nullopt;
  }
  if (!WIFEXITED(status)) return std::nullopt;
  ProgramResult result{WEXITSTATUS(status), {}, {}};
  if (capture) {
    result.output = contentOf(output);
    result.errors = contentOf(errors);
  }
  return result;
}

}  // namespace qm::platform::posix
