#include "qmutils/platform/process.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "qmutils/platform/error.h"
#include "qmutils/platform/posix/command_line.h"
#include "tests/platform/Handles.h"
#include "tests/support/TempFolder.h"

namespace qm::platform {
namespace {

class Process : public Handles {
 protected:
  HANDLE start(const std::string& command, DWORD flags = NORMAL_PRIORITY_CLASS) {
    ProcessInformation started;
    EXPECT_TRUE(createProcess(command.c_str(), flags, 1, &started))
        << command << ": " << errorSentence(lastError());
    mainThread_ = keep(started.mainThread);
    return keep(started.process);
  }
  static DWORD exitCodeOf(HANDLE process) {
    EXPECT_EQ(wait(process, kLong), WAIT_OBJECT_0);
    DWORD code = 99;
    EXPECT_TRUE(processExitCode(process, &code));
    return code;
  }

  HANDLE mainThread_ = nullptr;
  qmtest::TempFolder folder_;
};

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

TEST_F(Process, EndsWithItsExitCode) {
  for (const auto& [command, expected] : {std::pair{"/bin/sh -c \"exit 7\"", 7u},
                                          {"true", 0u},
                                          {"/bin/sh -c \"kill -9 $$\"", 137u}}) {
    const HANDLE process = start(command, NORMAL_PRIORITY_CLASS | DETACHED_PROCESS);
    EXPECT_EQ(wait(mainThread_, kLong), WAIT_OBJECT_0);
    EXPECT_EQ(exitCodeOf(process), expected) << command;
    EXPECT_FALSE(terminateProcess(process, 1));
    EXPECT_EQ(lastError(), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(closeHandle(process));
    EXPECT_TRUE(closeHandle(mainThread_));
  }
}

TEST_F(Process, TerminationGivesItsWholeExitCode) {
  const HANDLE process = start("sleep 600");
  DWORD code = 0;
  EXPECT_TRUE(processExitCode(process, &code));
  EXPECT_EQ(code, STILL_ACTIVE);
  EXPECT_EQ(wait(process, 0), WAIT_TIMEOUT);
  EXPECT_TRUE(terminateProcess(process, 33338));
  EXPECT_EQ(exitCodeOf(process), 33338u);
}

TEST_F(Process, IsLaunchedWithoutAShellAndWithoutOurDescriptors) {
  std::filesystem::create_directory(folder_.file("my tools"));
  const std::string program = folder_.file("my tools") + "/list args";
  const std::string output = folder_.file("out.txt");
  qmtest::writeFile(program, "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done >" + output +
                                 "\nls -l /proc/$$/fd >>" + output + "\n");
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  qmtest::writeFile(folder_.file("our secret"), "");
  std::FILE* leak = std::fopen(folder_.file("our secret").c_str(), "r");  // inheritable on purpose
  exitCodeOf(start(program + " a;b $HOME \"c d\" '*'", 0));
  std::fclose(leak);
  const std::string seen = qmtest::readFile(output);
  EXPECT_TRUE(seen.starts_with("[a;b]\n[$HOME]\n[c d]\n['*']\n")) << seen;
  EXPECT_NE(seen.find("list args"), std::string::npos) << seen;
  EXPECT_EQ(seen.find("our secret"), std::string::npos) << seen;
}

TEST_F(Process, AForkedChildHasChildrenOfItsOwn) {
  EXPECT_EQ(exitCodeOf(start("true")), 0u);
  EXPECT_EXIT(_exit(exitCodeOf(start("true"))), testing::ExitedWithCode(0), "");
  EXPECT_EQ(exitCodeOf(start("true")), 0u);
}

TEST_F(Process, LearnsExitCodesAlsoWhereTheSignalIsIgnored) {
  const auto launch = [&] {
    signal(SIGCHLD, SIG_IGN);
    return exitCodeOf(start("/bin/sh -c \"exit 7\""));
  };
  EXPECT_EXIT(_exit(launch()), testing::ExitedWithCode(7), "");
}

TEST_F(Process, LaunchFailuresHaveTheirNumbers) {
  qmtest::writeFile(folder_.file("data"), "no program");
  qmtest::writeFile(folder_.file("garbage"), std::string("\x7f") + "ELF garbage");
  std::filesystem::permissions(folder_.file("garbage"), std::filesystem::perms::owner_all);
  const std::pair<std::string, DWORD> cases[] = {
      {"", ERROR_FILE_NOT_FOUND},
      {folder_.file("missing") + " -x", ERROR_FILE_NOT_FOUND},
      {folder_.path(), ERROR_FILE_NOT_FOUND},
      {folder_.file("data"), ERROR_ACCESS_DENIED},
      {folder_.file("garbage"), ERROR_BAD_EXE_FORMAT},
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
