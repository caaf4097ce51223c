#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "tests/print/Document.h"
#include "tests/support/Program.h"
#include "tests/support/TempFolder.h"

namespace {

using qmtest::Document;
using qmtest::Program;

Program print(const std::string& arguments) { return Program(TESTTOOL " print " + arguments); }

TEST(PrintCommand, MakesADocument) {
  const qmtest::TempFolder folder;
  const std::string input = folder.file("a.log"), output = folder.file("a.pdf");
  qmtest::writeFile(input, "one\ttwo\nthree\n");
  Program file = print(input + " -o " + output +
                       " --title 'My title' --paper A6 --landscape --font 'DejaVu Serif 8'");
  EXPECT_EQ(file.wait(), 0) << file.errors();
  EXPECT_EQ(file.output(), "page 1\n1 page in " + output + "\n");
  EXPECT_EQ(file.errors(), "");
  const Document document(output);
  EXPECT_TRUE(document.info("Page size").starts_with("419.528 x 297.638 pts"));
  EXPECT_NE(document.fonts().find("DejaVuSerif"), std::string::npos);
  std::string text;
  for (const auto& word : document.words()) text += word.text + " ";
  EXPECT_EQ(text, "My title one two three Page: 1 ");

  // From standard input as from a file.
  using namespace std::string_literals;
  qmtest::writeFile(input, "\xFF\xFEo\0n\0e\0\0\0t\0w\0o\0"s);
  Program piped = print("- -o " + output + " --title x --font 'No Such Font' <" + input);
  EXPECT_EQ(piped.wait(), 0) << piped.errors();
  EXPECT_TRUE(piped.errors().starts_with("testtool print: there is no font 'No Such Font'; '"));
  EXPECT_EQ(Document(output).words().at(1).text, "one");
  EXPECT_EQ(Document(output).words().at(2).text, "two");
}

TEST(PrintCommand, EndsTheDocumentWhenInterrupted) {
  const qmtest::TempFolder folder;
  const std::string input = folder.file("a.log"), output = folder.file("a.pdf");
  std::string text;
  for (int i = 0; i < 500'000; ++i) text += "line " + std::to_string(i) + "\n";
  qmtest::writeFile(input, text);
  Program program = print(input + " -o " + output);
  ASSERT_TRUE(program.awaitText("page 3\n"));
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 130);
  const std::size_t stopped = program.output().find("stopped, ");
  ASSERT_NE(stopped, std::string::npos);
  const int pages = std::atoi(program.output().c_str() + stopped + 9);
  EXPECT_GE(pages, 3);
  EXPECT_LT(pages, 5'000);
  EXPECT_EQ(Document(output).info("Pages"), std::to_string(pages));

  // While it waits for its text.
  qmtest::writeFile(output, "former");
  Program waiting(TESTTOOL " print - -o " + output + " --font 'No Such Font' </dev/zero");
  ASSERT_TRUE(waiting.awaitText("stands in"));
  waiting.signal(SIGINT);
  EXPECT_EQ(waiting.wait(), 130);
  EXPECT_EQ(qmtest::readFile(output), "former");
}

TEST(PrintCommand, ComplainsOfWhatItCannotPrint) {
  const qmtest::TempFolder folder;
  const std::string output = folder.file("a.pdf");
  Program missing = print(folder.file("missing") + " -o " + output);
  EXPECT_EQ(missing.wait(), 1);
  EXPECT_NE(missing.errors().find("failed to open: "), std::string::npos);
  Program large = print("/etc/passwd --font 'Sans 3000' -o " + output);
  EXPECT_EQ(large.wait(), 1);
  EXPECT_NE(large.errors().find("Selected font is too large: 2117"), std::string::npos);
  Program printer = print("/etc/passwd --printer no-such-printer");
  EXPECT_EQ(printer.wait(), 1);
  EXPECT_NE(printer.errors().find("CPrinterDC::EndDoc(): printer no-such-printer: "),
            std::string::npos);
  Program folderAsInput = print("- -o " + output + " <" + folder.path());
  EXPECT_EQ(folderAsInput.wait(), 1);
  const std::string input = folder.file("a.log");
  qmtest::writeFile(input, "text");
  Program same = print(input + " -o " + folder.path() + "/./a.log");
  EXPECT_EQ(same.wait(), 2);
  EXPECT_EQ(qmtest::readFile(input), "text");
  for (const char* wrong :
       {"", "/etc/passwd", "/etc/passwd -o x --printer y", "-o x", "/etc/passwd -o x --paper A99",
        "/etc/passwd b -o x", "/etc/passwd -o"}) {
    Program program = print(wrong);
    EXPECT_EQ(program.wait(), 2) << wrong;
  }
  EXPECT_NE(std::system(("test -e " + output).c_str()), 0);
}

}  // namespace
