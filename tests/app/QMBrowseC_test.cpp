#include "qmutils/app/QMBrowseC.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace {

using qm::platform::ChooserRequest;
using qm::platform::setChooserHook;

ChooserRequest::Kind askedKind;
std::string asked;

DWORD answerWithAsked(const ChooserRequest& request, std::string& choice) {
  askedKind = request.kind;
  asked = std::string(request.title) + "|" + request.start;
  choice = "chosen";
  return 0;
}

class Browse : public testing::Test {
 protected:
  ~Browse() override {
    setChooserHook(nullptr);
    setenv("PATH", path_.c_str(), 1);
    unsetenv("DISPLAY");
  }

  void install(const char* program, const std::string& script) {
    const std::string file = folder_.file(program);
    qmtest::writeFile(file, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    setenv("PATH", (folder_.path() + ":" + path_).c_str(), 1);
    setenv("DISPLAY", ":99", 1);
  }

  const qmtest::TempFolder folder_;
  const std::string path_ = std::getenv("PATH");
  QMBrowseC browse_;
  CString choice_{"before"};
};

TEST_F(Browse, AsksTheHookForEachKind) {
  setChooserHook(answerWithAsked);
  EXPECT_EQ(browse_.BrowseForDirectory(nullptr, choice_, "Title", QMBrowseC::FromDesktop, "C:\\x"),
            QMErrors::NoError);
  EXPECT_EQ(choice_, "chosen");
  EXPECT_EQ(askedKind, ChooserRequest::Folder);
  EXPECT_EQ(asked, "Title|C:\\x");
  browse_.BrowseForFile(nullptr, choice_, nullptr, QMBrowseC::FromDrives, "C:\\x");
  EXPECT_EQ(askedKind, ChooserRequest::File);
  EXPECT_EQ(asked, "|\\");
  browse_.BrowseForComputer(nullptr, choice_, 4711u, QMBrowseC::FromNetwork);
  EXPECT_EQ(askedKind, ChooserRequest::Computer);
  EXPECT_EQ(asked, "|");
  browse_.BrowseForPrinter(nullptr, choice_, "Which?", QMBrowseC::FromDesktop);
  EXPECT_EQ(askedKind, ChooserRequest::Printer);
}

TEST_F(Browse, CancellingAndFailingAreTwoThings) {
  qmtest::LogCapture log;
  setChooserHook([](const ChooserRequest&, std::string&) { return ERROR_CANCELLED; });
  EXPECT_EQ(browse_.BrowseForFile(nullptr, choice_, "", QMBrowseC::FromDesktop, nullptr),
            QMErrors::TheUserCancelledTheOperation);
  EXPECT_EQ(log.text(), "");
  setChooserHook(nullptr);
  EXPECT_EQ(browse_.BrowseForFile(nullptr, choice_, "", QMBrowseC::FromDesktop, nullptr),
            QMErrors::fromOsError(ERROR_NOT_SUPPORTED))
      << "there is no display";
  EXPECT_TRUE(log.contains(" ERROR: QMBrowseC::BrowseForError: 50 ")) << log.text();
  install("zenity", "echo 'Gtk: cannot open display: :99' >&2; exit 1");
  EXPECT_EQ(browse_.BrowseForFile(nullptr, choice_, "", QMBrowseC::FromDesktop, nullptr),
            QMErrors::fromOsError(ERROR_NOT_SUPPORTED));
  install("zenity", "echo warning >&2; exit 1");
  EXPECT_EQ(browse_.BrowseForFile(nullptr, choice_, "", QMBrowseC::FromDesktop, nullptr),
            QMErrors::TheUserCancelledTheOperation);
  install("zenity", "exit 255");
  EXPECT_EQ(browse_.BrowseForFile(nullptr, choice_, "", QMBrowseC::FromDesktop, nullptr),
            QMErrors::fromOsError(ERROR_GEN_FAILURE));
  EXPECT_EQ(choice_, "before");
}

TEST_F(Browse, TheDesktopsDialogGivesTheChoice) {
  const std::string arguments = folder_.file("arguments");
  install("zenity", "printf '%s\\n' \"$@\" > '" + arguments + "'; echo warning >&2; echo '/a b'");
  EXPECT_EQ(browse_.BrowseForDirectory(nullptr, choice_, "Jobs?", QMBrowseC::FromDesktop, "\\jobs"),
            QMErrors::NoError);
  EXPECT_EQ(choice_, "/a b");
  EXPECT_EQ(qmtest::readFile(arguments),
            "--title=Jobs?\n--file-selection\n--directory\n--filename=/jobs/\n");
  install("lpstat", "echo one; echo two");
  EXPECT_EQ(browse_.BrowseForPrinter(nullptr, choice_, "Which?", QMBrowseC::FromDesktop),
            QMErrors::NoError);
  EXPECT_EQ(qmtest::readFile(arguments), "--title=Which?\n--list\n--column=Printer\none\ntwo\n");
}

}  // namespace
