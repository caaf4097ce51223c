#include <cstdio>
#include <string>
#include <string_view>

#include "programs/testtool/Command.h"
#include "qmutils/app/CQMAppUtils.h"
#include "qmutils/config/QMIniFileC.h"
#include "qmutils/foundation/QMFileUtilsC.h"
#include "qmutils/platform/icon.h"

namespace programs {
namespace {

constexpr UINT kResellersOnly = 0xFFFFFFFF;  // there is no icon of the program's own

void print(const char* label, std::string_view text) {
  std::printf("%-9s%s\n", label, shownText(text).c_str());
}

void print(const CString& company, const CString& product, const CString& version) {
  print("company", company.view());
  print("product", product.view());
  print("version", version.view());
}

/// The icon that a reseller's settings name, if there are any.
const char* resellersIcon() {
  CString folder;
  if (CQMAppUtils::GetModulePath(folder, true) != QMErrors::NoError) return nullptr;
  const CString settings = folder + "\\" + QMIniFileC::OEM_CONFIG_INI_FILE;
  if (!CQMAppUtils::FileExists(settings)) return nullptr;
  return qm::platform::iconPath(CQMAppUtils::LoadAppIcon(kResellersOnly));
}

int show(const std::string& path) {
  FILETIME ignored;
  QMErrors::QMErrorT result = QMFileUtilsC::GetLastWriteTime(path.c_str(), ignored);
  const CString file(path.c_str());
  CString company, product, version;
  if (result == QMErrors::NoError) result = CQMAppUtils::GetFileCompanyString(file, company);
  if (result == QMErrors::NoError) result = CQMAppUtils::GetFileProductString(file, product);
  if (result == QMErrors::NoError) {
    result = CQMAppUtils::GetFileVersionString(file, version, true, true);
  }
  if (result != QMErrors::NoError) {
    std::fprintf(stderr, "testtool version: %s: %s\n", path.c_str(), QMErrToStr(result));
    return kFailure;
  }
  print(company, product, version);
  return kSuccess;
}

int run(const Arguments& arguments) {
  if (arguments.size() > 1) return usageError(kVersionCommand, "more than one file given");
  if (!arguments.empty() && arguments[0].empty()) {
    return usageError(kVersionCommand, "no file given");
  }
  if (!arguments.empty() && arguments[0].starts_with("-")) {
    return usageError(kVersionCommand, "unknown argument '" + arguments[0] + "'");
  }
  if (!arguments.empty()) return show(arguments[0]);
  print(CQMAppUtils::GetCompanyName(), CQMAppUtils::GetProductName(), CQMAppUtils::GetVersion());
  if (const char* const icon = resellersIcon()) print("icon", icon);
  return kSuccess;
}

}  // namespace

const Command kVersionCommand = {
    "version", "what a program or library says about itself",
    "usage: testtool version [FILE]\n"
    "Prints company, product and version, and when the file was last written (UTC). The texts are\n"
    "'Unknown' for a file that says nothing.\n"
    "Without FILE, tells about this program; a reseller's oemconfig.ini beside it, if there is\n"
    "one, gives company, product and icon.\n",
    run};

}  // namespace programs
