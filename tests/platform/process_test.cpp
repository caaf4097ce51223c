#include "qmutils/platform/process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/command_line.h"
#include "qmutils/platform/waitable.h"
#include "tests/support/TempFolder.h"

namespace qm::platform {
namespace {

constexpr DWORD kLong = 30000;

TEST(CommandLine, ArgumentsFollowTheWindowsQuotingRules) {
  using Arguments = std::vector<std::string>;
  const std::pair<const char*, Arguments> cases[] = {
      {"", {}},
      {" \t ", {}},
      {"a b\tc", {"a", "b", "c"}},
      {R"(-pr "Default")", {"-pr", "Default"}},
      {R"("a b" c)", {"a b", "c"}},
      {R"(x"a b"y)", {"xa by"}},
      {R"("")", {""}},
      {R"(a\b\\c)", {R"(a\b\\c)"}},
      {R"(a\"b)", {R"(a"b)"}},
      {R"("a\\" b)", {R"(a\)", "b"}},
      {R"("a\\\"b")", {R"(a\"b)"}},
      {R"("a""b")", {R"(a"b)"}},
      {R"("unclosed x)", {"unclosed x"}},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(posix::splitArguments(text), expected) << text;
  }
}

TEST(CommandLine, AnUnquotedProgramIsTriedPrefixByPrefix) {
  const auto readings = posix::readCommand(R"(C:\My Dir\tool.exe  -x)");
  ASSERT_EQ(readings.size(), 3u);
  EXPECT_EQ(readings[0].program, R"(C:\My)");
  EXPECT_EQ(readings[1].program, R"(C:\My Dir\tool.exe)");
  EXPECT_EQ(readings[1].rest, "  -x");
  const auto quoted = posix::readCommand(R"("/opt/my dir/tool" -x)");
  ASSERT_EQ(quoted.size(), 1u);
  EXPECT_EQ(quoted[0].program, "/opt/my dir/tool");
  EXPECT_EQ(quoted[0].rest, " -x");
  EXPECT_TRUE(posix::readCommand("  ").empty());
}

TEST(Process, EndsWithItsExitCode) {
  for (const auto& [command, expected] : {std::pair{"/bin/sh -c \"exit 7\"", 7u},
                                          {"true", 0u},
                                          {"/bin/sh -c \"kill -9 $$\"", 137u}}) {
    ProcessInformation process;
    ASSERT_TRUE(createProcess(command, NORMAL_PRIORITY_CLASS | DETACHED_PROCESS, 2, &process))
        << command << ": " << errorSentence(lastError());
    EXPECT_EQ(wait(process.mainThread, kLong), WAIT_OBJECT_0);
    EXPECT_EQ(wait(process.process, kLong), WAIT_OBJECT_0);
    DWORD code = 99;
    EXPECT_TRUE(processExitCode(process.process, &code));
    EXPECT_EQ(code, expected) << command;
    EXPECT_FALSE(terminateProcess(process.process, 1));
    EXPECT_EQ(lastError(), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(closeHandle(process.process));
    EXPECT_TRUE(closeHandle(process.mainThread));
  }
}

TEST(Process, TerminationGivesItsWholeExitCode) {
  ProcessInformation process;
  ASSERT_TRUE(createProcess("sleep 600", NORMAL_PRIORITY_CLASS, 0, &process));
  DWORD code = 0;
  EXPECT_TRUE(processExitCode(process.process, &code));
  EXPECT_EQ(code, STILL_ACTIVE);
  EXPECT_EQ(wait(process.process, 0), WAIT_TIMEOUT);
  EXPECT_TRUE(terminateProcess(process.process, 33338));
  EXPECT_EQ(wait(process.process, kLong), WAIT_OBJECT_0);
  EXPECT_TRUE(processExitCode(process.process, &code));
  EXPECT_EQ(code, 33338u);
  closeHandle(process.process);
  closeHandle(process.mainThread);
}

TEST(Process, IsLaunchedWithoutAShellAndWithoutOurDescriptors) {
  qmtest::TempFolder folder;
  std::filesystem::create_directory(folder.file("my tools"));
  const std::string program = folder.file("my tools") + "/list args";
  const std::string output = folder.file("out.txt");
  qmtest::writeFile(program, "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done >" + output +
                                 "\nls -l /proc/$$/fd >>" + output + "\n");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  qmtest::writeFile(folder.file("our secret"), "");
  std::FILE* leak = std::fopen(folder.file("our secret").c_str(), "r");  // inheritable on purpose
  ProcessInformation process;
  ASSERT_TRUE(createProcess((program + " a;b $HOME \"c d\" '*'").c_str(), 0, 0, &process))
      << errorSentence(lastError());
  EXPECT_EQ(wait(process.process, kLong), WAIT_OBJECT_0);
  std::fclose(leak);
  const std::string seen = qmtest::readFile(output);
  EXPECT_TRUE(seen.starts_with("[a;b]\n[$HOME]\n[c d]\n['*']\n")) << seen;
  EXPECT_NE(seen.find("list args"), std::string::npos) << seen;
  EXPECT_EQ(seen.find("our secret"), std::string::npos) << seen;
  closeHandle(process.process);
  closeHandle(process.mainThread);
}

TEST(Process, AForkedChildHasChildrenOfItsOwn) {
  const auto launchAndWait = [] {
    ProcessInformation process;
    return createProcess("true", NORMAL_PRIORITY_CLASS, 1, &process) &&
           wait(process.process, kLong) == WAIT_OBJECT_0 && closeHandle(process.process) &&
           closeHandle(process.mainThread);
  };
  EXPECT_TRUE(launchAndWait());
  const pid_t child = fork();
  if (child == 0) _exit(launchAndWait() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(launchAndWait());
}

TEST(Process, LearnsExitCodesAlsoWhereTheSignalIsIgnored) {
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGCHLD, SIG_IGN);
    ProcessInformation process;
    DWORD code = 99;
    const bool ended = createProcess("/bin/sh -c \"exit 7\"", NORMAL_PRIORITY_CLASS, 1, &process) &&
                       wait(process.process, kLong) == WAIT_OBJECT_0 &&
                       processExitCode(process.process, &code);
    _exit(ended && code == 7 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(Process, LaunchFailuresHaveTheirNumbers) {
  qmtest::TempFolder folder;
  qmtest::writeFile(folder.file("data"), "no program");
  qmtest::writeFile(folder.file("garbage"), std::string("\x7f") + "ELF garbage");
  std::filesystem::permissions(folder.file("garbage"), std::filesystem::perms::owner_all);
  const std::pair<std::string, DWORD> cases[] = {
      {"", ERROR_FILE_NOT_FOUND},
      {folder.file("missing") + " -x", ERROR_FILE_NOT_FOUND},
      {folder.path(), ERROR_FILE_NOT_FOUND},
      {folder.file("data"), ERROR_ACCESS_DENIED},
      {folder.file("garbage"), ERROR_BAD_EXE_FORMAT},
  };
  for (const auto& [command, expected] : cases) {
    ProcessInformation process;
    EXPECT_FALSE(createProcess(command.c_str(), 0, 0, &process)) << command;
    EXPECT_EQ(lastError(), expected) << command;
    EXPECT_EQ(process.process, nullptr);
  }
}

}  // namespace
}  // namespace qm::platform
