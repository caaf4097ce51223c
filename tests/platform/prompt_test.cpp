#include "qmutils/platform/prompt.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/TempFolder.h"

namespace qm::platform {
namespace {

class Prompt : public testing::Test {
 protected:
  Prompt() {
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
  }
  ~Prompt() override {
    setPromptHook(nullptr);
    setenv("PATH", path_.c_str(), 1);
    unsetenv("DISPLAY");
  }

  /// Puts a program under the dialog program's name that writes down its arguments.
  void installDialogProgram(int exitCode) {
    const std::string program = folder_.file("zenity");
    qmtest::writeFile(program, "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + folder_.file("arguments") +
                                   "'\nexit " + std::to_string(exitCode) + "\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    setenv("PATH", ("/nowhere::" + folder_.path() + ":" + path_).c_str(), 1);
    setenv("DISPLAY", ":99", 1);
  }

  qmtest::TempFolder folder_;
  std::string path_ = std::getenv("PATH");
};

std::string asked;

TEST_F(Prompt, WithoutADisplayPrintsAndWithAHookAsksThat) {
  installDialogProgram(0);
  setenv("DISPLAY", "", 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(messageBox("text", "caption", MB_ICONHAND), IDOK);
  EXPECT_EQ(messageBox("go on?", "caption", MB_YESNO | MB_ICONWARNING), IDNO);
  EXPECT_EQ(messageBox(nullptr, nullptr, MB_OK), IDOK);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "caption: text\ncaption: go on?\n: \n");

  setenv("DISPLAY", ":99", 1);
  const PromptHook hook = [](const char* text, const char* caption, UINT style) {
    asked = std::string(caption) + '|' + text + '|' + std::to_string(style);
    return IDYES;
  };
  EXPECT_EQ(setPromptHook(hook), nullptr);
  EXPECT_EQ(messageBox(nullptr, "caption", MB_YESNO), IDYES);
  EXPECT_EQ(asked, "caption||4");
  EXPECT_EQ(setPromptHook(nullptr), hook);
  EXPECT_FALSE(std::filesystem::exists(folder_.file("arguments")));
}

TEST_F(Prompt, OnADesktopShowsADialog) {
  const struct {
    UINT style;
    int exitCode, answer;
    const char* kind;
  } kCases[] = {{MB_OK, 0, IDOK, "--info"},
                {MB_ICONHAND | MB_TASKMODAL | MB_TOPMOST, 1, IDOK, "--error"},
                {MB_ICONWARNING, 0, IDOK, "--warning"},
                {MB_YESNO | MB_ICONHAND, 0, IDYES, "--question"},
                {MB_YESNO, 1, IDNO, "--question"}};
  for (const auto& c : kCases) {
    installDialogProgram(c.exitCode);
    EXPECT_EQ(messageBox("it's \"$HOME\" `x`; <b>\nnext", "-caption", c.style), c.answer);
    EXPECT_EQ(qmtest::readFile(folder_.file("arguments")),
              std::string(c.kind) +
                  "\n--title=-caption\n--text=it's \"$HOME\" `x`; <b>\nnext\n--no-markup\n");
  }
  // A dialog that cannot be shown is no answer of the operator's. Some programs then end with the
  // status of the other button.
  for (const int status : {1, 5}) {
    installDialogProgram(status);
    testing::internal::CaptureStderr();
    EXPECT_EQ(messageBox("text", "caption", MB_YESNO), IDNO);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "caption: text\n") << status;
  }
}

}  // namespace
}  // namespace qm::platform
