// The test tool's commands for preferences and versions, as a user calls them.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/Program.h"
#include "tests/support/Registries.h"

namespace {

struct Result {
  int status;
  std::string output;
  std::string errors;
};

Result resultOf(const std::string& arguments) {
  qmtest::Program testtool(std::string(TESTTOOL " ") + arguments);
  const int status = testtool.wait();
  return {status, testtool.output(), testtool.errors()};
}

TEST(RegistryCommands, PrefsSetsGetsListsAndExports) {
  const qmtest::Registries registries;
  EXPECT_EQ(resultOf("prefs list").status, 1);
  EXPECT_EQ(resultOf("prefs get x").status, 1);
  for (const char* set : {"'drum width' 1030", "margin 12.5 --type float", "name 'a \"b\" \\c'",
                          "0 42 --type text", "below -- -1", "serial 0042"}) {
    const Result result = resultOf(std::string("prefs set ") + set);
    EXPECT_EQ(result.status, 0) << set << result.errors;
  }
  EXPECT_EQ(resultOf("prefs set shared on --both --program press --version v2").status, 0);
  EXPECT_EQ(resultOf("prefs get 'Drum Width'").status, 1) << "names are found by their spelling";
  EXPECT_EQ(resultOf("prefs get margin").output, "12.500000\n");
  EXPECT_EQ(resultOf("prefs list").output,
            "0 = 42\nbelow = 4294967295\ndrum width = 1030\nmargin = 12.500000\n"
            "name = a \"b\" \\c\nserial = 0042\n");
  EXPECT_EQ(resultOf("prefs export").output,
            "[HKEY_CURRENT_USER\\SOFTWARE\\Quillmoor Designs\\press\\v2\\Preferences]\n"
            "\"shared\"=\"on\"\n\n"
            "[HKEY_CURRENT_USER\\SOFTWARE\\Quillmoor Designs\\testtool\\v1.0.0.0\\Preferences]\n"
            "\"0\"=\"42\"\n\"below\"=dword:ffffffff\n\"drum width\"=dword:00000406\n"
            "\"margin\"=\"12.500000\"\n\"name\"=\"a \\\"b\\\" \\\\c\"\n\"serial\"=\"0042\"\n\n");
  const Result rounded = resultOf("prefs set tiny 0.00000001 --type float");
  EXPECT_EQ(rounded.errors, "testtool prefs: stored as 0\n");
  EXPECT_EQ(resultOf("prefs get shared --machine --program press --version v2").output, "on\n");
  for (const char* wrong :
       {"", "show", "get", "get a b", "get ''", "set '' 1 2", "set a 1 --type ''", "set a",
        "set a b c", "set a x --type number", "set a 1 --type word", "list x", "list --both",
        "set a 1 --both --machine", "set a 4294967296 --type number", "get a --program",
        "list --none"}) {
    EXPECT_EQ(resultOf(std::string("prefs ") + wrong).status, 2) << wrong;
  }
  qmtest::writeFile(registries.user(), std::string(5000, 'x'));
  const Result damaged = resultOf("prefs get x");
  EXPECT_EQ(damaged.status, 1);
  EXPECT_NE(damaged.errors.find("The configuration database is damaged."), std::string::npos);
}

TEST(RegistryCommands, VersionTellsAboutFiles) {
  // The sample of a reseller's settings lies beside the programs.
  const std::string resold = resultOf("version").output;
  EXPECT_TRUE(
      resold.starts_with("company  Northlight Plate Systems\nproduct  Northlight PlateDeck\n"
                         "version  v1.0.0.0\nicon     "))
      << resold;
  EXPECT_TRUE(resold.ends_with("/northlight.ico\n")) << resold;
  // Without it there is nothing to complain about.
  const qmtest::TempFolder folder;
  const std::string alone = folder.file("testtool");
  std::filesystem::copy_file(TESTTOOL, alone);
  qmtest::Program program(alone + " version");
  EXPECT_EQ(program.wait(), 0);
  EXPECT_TRUE(program.output().ends_with("version  v1.0.0.0\n")) << program.output();
  EXPECT_EQ(program.errors(), "");
  const Result own = resultOf("version " TESTTOOL);
  EXPECT_EQ(own.status, 0);
  EXPECT_TRUE(
      own.output.starts_with("company  Quillmoor Designs\nproduct  Platesetter test tool\n"
                             "version  v1.0.0.0 ; "))
      << own.output;
  const Result plain = resultOf("version /etc/passwd");
  EXPECT_EQ(plain.status, 0);
  EXPECT_TRUE(plain.output.starts_with("company  Unknown\nproduct  Unknown\nversion  vUnknown ; "))
      << plain.output;
  EXPECT_EQ(resultOf("version none").status, 1);
  EXPECT_EQ(resultOf("version a b").status, 2);
}

}  // namespace
