#include "qmutils/platform/prompt.h"

#include <atomic>
#include <cstdio>
#include <new>
#include <optional>
#include <string>

#include "qmutils/platform/posix/dialog_program.h"

namespace qm::platform {

namespace {

std::atomic<PromptHook> installedHook{nullptr};

constexpr UINT kButtons = 0xF;
constexpr UINT kIcon = 0xF0;

bool asksYesNo(UINT style) noexcept { return (style & kButtons) == MB_YESNO; }

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

/// The button pressed in a dialog on the desktop; nothing when no dialog could be shown.
std::optional<int> showDialog(const char* text, const char* caption, UINT style) {
  const std::string program = posix::findDialogProgram();
  if (program.empty()) return std::nullopt;
  const auto result = posix::runProgram(program,
                                        {dialogKind(style), std::string("--title=") + caption,
                                         std::string("--text=") + text, "--no-markup"},
                                        false);
  // Only the affirmative button is certain: 1 is the other one, a closed window, or a display that
  // could not be opened, and then the text must still go out.
  if (!result || result->status != 0) return std::nullopt;
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
