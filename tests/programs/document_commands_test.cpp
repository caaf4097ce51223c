// The test tool's commands for values, documents, GUIDs and encoded files, as a user calls them.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "tests/support/Program.h"

namespace {

using qmtest::Program;

const std::string kTestTool = TESTTOOL " ";

struct Result {
  int status;
  std::string output;
  std::string errors;
};

Result resultOf(const std::string& arguments) {
  Program testtool(kTestTool + arguments);
  const int status = testtool.wait();
  return {status, testtool.output(), testtool.errors()};
}

TEST(DocumentCommands, ValueChecksConvertsAndFormats) {
  const std::tuple<const char*, const char*> kGood[] = {
      {"12.5 --unit mm --to inch", "0.492126 \"\n"},
      {"'12.5 mm' --unit mm --precision 1", "12.5 mm\n"},
      {"10 --type int --unit inch --to mm", "254 mm\n"},
      {"-- -1", ""},
      {"-1 --type int --width 4", "-1\n"},
      {"'2.5 Mb/s' --unit bitrate --precision 1", "2.5 Mb/s\n"},
      {"'5 mm/s' --unit mm --per-second --precision 2", "5.00 mm/s\n"},
      {"1:02:05.5 --unit time --to hms", "1h 02m 05s\n"},
      {"255 --type int --hex --width 4", "0x00FF\n"},
      {"3 --unit mm --to scaled --scale 4 --precision 1", "12.0\n"},
      {"2 --unit inch --to mm --no-units --precision 1", "50.8\n"},
  };
  for (const auto& [arguments, output] : kGood) {
    const Result result = resultOf(std::string("value ") + arguments);
    EXPECT_EQ(result.output, output) << arguments << result.errors;
    EXPECT_EQ(result.status, *output != '\0' ? 0 : 2) << arguments;
  }
  const Result bad = resultOf("value 12x3 --type int");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.output, "");
  EXPECT_EQ(bad.errors, "testtool value: '12x3' is no such value; it would be taken as '123'\n");
  for (const char* misread :
       {"-", ".", "4000000000 --type int", "-1 --type ulong", "'5 m/s' --unit mm --per-second"}) {
    const Result result = resultOf(std::string("value ") + misread);
    EXPECT_EQ(result.status, 1) << misread << result.output;
    EXPECT_EQ(result.output, "") << misread;
  }
  for (const char* wrong :
       {"", "1 2", "1 --unit celsius --to mm", "1 --unit mm --type text", "1 --unit furlong",
        "1 --to", "1 --precision 301", "1 --unit mm --to inch --area", "1 --locale none_NONE"}) {
    EXPECT_EQ(resultOf(std::string("value ") + wrong).status, 2) << wrong;
  }
}

TEST(DocumentCommands, XmlTidiesAndTellsWhereAnErrorIs) {
  qmtest::TempFolder folder;
  const std::string file = folder.file("tree.xml");
  qmtest::writeFile(file, "<a><!-- c -->\n<b x=\"1\">t</b></a>");
  const std::string tidy = "<a>\r\n <b x = \"1\" >t</b >\r\n</a >\r\n";
  EXPECT_EQ(resultOf("xml " + file).output, tidy);
  EXPECT_EQ(resultOf("xml - < " + file).output, tidy);
  qmtest::writeFile(file, "<a>\n<b></c></a>");
  const Result bad = resultOf("xml " + file);
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.output, "");
  EXPECT_NE(bad.errors.find(file + ": ERROR:Error: badly formed XML: 9204, at line:2, offset:7\n"),
            std::string::npos)
      << bad.errors;
  qmtest::writeFile(file, "<a/> <!-- c -->\n<b/>");
  EXPECT_EQ(resultOf("xml " + file).errors,
            "testtool xml: " + file + ": something follows the root element, at line:2\n");
  qmtest::writeFile(file, "<a/>\n<!-- c -->\n");
  const Result good = resultOf("xml --check " + file);
  EXPECT_EQ(good.status, 0) << good.errors;
  EXPECT_EQ(good.output, "");
  EXPECT_EQ(resultOf("xml " + folder.file("none")).status, 1);
  EXPECT_EQ(resultOf("xml").status, 2);
  EXPECT_EQ(resultOf("xml " + folder.path()).status, 1);
}

TEST(DocumentCommands, GuidsAreMadeAndRead) {
  const std::string first = resultOf("guid new").output, second = resultOf("guid new").output;
  EXPECT_EQ(first.size(), 37u);
  EXPECT_NE(first, second);
  EXPECT_EQ(resultOf("guid parse '{6B29FC40-CA47-1067-B31D-00DD010662DA}'").output,
            "6b29fc40-ca47-1067-b31d-00dd010662da\n");
  EXPECT_EQ(resultOf("guid parse --braces " + first).output, "{" + first.substr(0, 36) + "}\n");
  const Result bad = resultOf("guid parse 6B29FC40");
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.errors.find("An invalid GUID was found.: 9400"), std::string::npos) << bad.errors;
  EXPECT_EQ(resultOf("guid").status, 2);
}

TEST(DocumentCommands, FilesAreEncodedAndDecoded) {
  qmtest::TempFolder folder;
  const std::string plain = folder.file("plain"), encoded = folder.file("encoded");
  const std::string key = " --key 6B29FC40-CA47-1067-B31D-00DD010662DA";
  std::string text = "[Press room]\nDrum=1030\n";
  text += std::string(1000, '\0');
  qmtest::writeFile(plain, text);
  ASSERT_EQ(resultOf("encode " + plain + " -o " + encoded + key).status, 0);
  EXPECT_EQ(resultOf("decode " + encoded + key).output, text);
  EXPECT_NE(resultOf("decode " + encoded).output, text);
  ASSERT_EQ(resultOf("decode " + encoded + key + " -o " + plain + ".2").status, 0);
  EXPECT_EQ(qmtest::readFile(plain + ".2"), text);

  std::string changed = qmtest::readFile(encoded);
  changed[100] ^= 1;
  qmtest::writeFile(encoded, changed);
  Result bad = resultOf("decode " + encoded + key);
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.errors.find("testtool decode: Invalid object encoding: 33537\n"), std::string::npos)
      << bad.errors;
  EXPECT_EQ(bad.output.size(), text.size());
  bad = resultOf("decode " + plain + " -o " + plain + ".2");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(qmtest::readFile(plain + ".2"), text) << "no header, so the destination stays";
  EXPECT_EQ(resultOf("encode " + plain + " -o " + plain).status, 1) << "onto itself";
  EXPECT_EQ(qmtest::readFile(plain), text);
  bad = resultOf("decode " + plain);
  EXPECT_EQ(bad.output, "");
  EXPECT_NE(bad.errors.find("Failed to read from file: 2056\n"), std::string::npos) << bad.errors;
  EXPECT_EQ(resultOf("encode /dev/null -o /dev/full").status, 1);
  for (const char* wrong : {"encode x", "decode", "decode x --key 12", "decode x -o"}) {
    EXPECT_EQ(resultOf(wrong).status, 2) << wrong;
  }
}

}  // namespace
