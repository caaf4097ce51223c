#include "qmutils/platform/prompt.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <string_view>

extern char** environ;

namespace qm::platform {

namespace {

std::atomic<PromptHook> installedHook{nullptr};

constexpr UINT kButtons = 0xF;
constexpr UINT kIcon = 0xF0;

bool asksYesNo(UINT style) noexcept { return (style & kButtons) == MB_YESNO; }

bool isSet(const char* variable) noexcept {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

/// The dialog program's full path; empty when there is none or no display to show it on.
std::string findDialogProgram() {
  if (!isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY")) return {};
  const char* folders = std::getenv("PATH");
  if (folders == nullptr) return {};
  for (std::string_view rest = folders; !rest.empty();) {
    const std::size_t end = std::min(rest.find(':'), rest.size());
    std::string candidate(rest.substr(0, end));
    candidate += "/zenity";
    struct stat status;
    if (end > 0 && stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return {};
}

const char* dialogKind(UINT style) noexcept {
  if (asksYesNo(style)) return "--question";
  switch (style & kIcon) {
    case MB_ICONHAND:
      return "--error";
    case MB_ICONWARNING:
      return "--warning";
    default:
      return "--info";
  }
}

/// Runs a program with signals at their defaults; its exit status, or nothing when it could not be
/// run to its end.
std::optional<int> run(const std::string& program, char* const* arguments) {
  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) return std::nullopt;
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child = 0;
  const int failed = posix_spawn(&child, program.c_str(), nullptr, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  if (failed != 0) return std::nullopt;
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return std::nullopt;
  }
  if (!WIFEXITED(status)) return std::nullopt;
  return WEXITSTATUS(status);
}

/// The button pressed in a dialog on the desktop; nothing when no dialog could be shown.
std::optional<int> showDialog(const char* text, const char* caption, UINT style) {
  const std::string program = findDialogProgram();
  if (program.empty()) return std::nullopt;
  std::string kind = dialogKind(style);
  std::string title = std::string("--title=") + caption;
  std::string body = std::string("--text=") + text;
  char noMarkup[] = "--no-markup";
  char name[] = "zenity";
  char* const arguments[] = {name, kind.data(), title.data(), body.data(), noMarkup, nullptr};
  const std::optional<int> status = run(program, arguments);
  // Only the affirmative button is certain: 1 is the other one, a closed window, or a display that
  // could not be opened, and then the text must still go out.
  if (status != 0) return std::nullopt;
  return asksYesNo(style) ? IDYES : IDOK;
}

int printInstead(const char* text, const char* caption, UINT style) noexcept {
  std::fprintf(stderr, "%s: %s\n", caption, text);
  return asksYesNo(style) ? IDNO : IDOK;
}

}  // namespace

PromptHook setPromptHook(PromptHook hook) noexcept { return installedHook.exchange(hook); }

int messageBox(const char* text, const char* caption, UINT style) noexcept {
  if (text == nullptr) text = "";
  if (caption == nullptr) caption = "";
  if (const PromptHook hook = installedHook.load()) return hook(text, caption, style);
  try {
    if (const std::optional<int> button = showDialog(text, caption, style)) return *button;
  } catch (const std::bad_alloc&) {
    // No memory for a dialog: the text still goes out below.
  }
  return printInstead(text, caption, style);
}

}  // namespace qm::platform
