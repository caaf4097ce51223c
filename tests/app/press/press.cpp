// A program that prints how it is called and what a reseller has made of it, for the tests to run
// with other files beside it.
#include <cstdio>
#include <filesystem>
#include <string>

#include "qmutils/app/CQMAppUtils.h"
#include "qmutils/platform/icon.h"
#include "tests/support/LogCapture.h"

namespace {

std::string named(HICON icon) {
  const char* const path = qm::platform::iconPath(icon);
  return path == nullptr ? "none" : std::filesystem::path(path).filename().string();
}

}  // namespace

int main() {
  qmtest::LogCapture log;
  const CString company = CQMAppUtils::GetCompanyName(), product = CQMAppUtils::GetProductName();
  const std::string icons =
      named(CQMAppUtils::LoadAppIcon(0xFFFFFFFF)) + "," + named(CQMAppUtils::LoadAppIcon(3));
  log.clear();
  const CString recipients = CQMAppUtils::GetMailRecipients();
  const CString addresses = CQMAppUtils::GetMailAddresses();
  const CString subject = CQMAppUtils::GetMailSubject();
  std::printf("%s|%s|%s|%s|%s|%s\n%s", static_cast<const char*>(company),
              static_cast<const char*>(product), icons.c_str(),
              static_cast<const char*>(recipients), static_cast<const char*>(addresses),
              static_cast<const char*>(subject), log.text().c_str());
}
