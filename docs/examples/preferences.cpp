// Settings that a program finds again when it is started next time, and a look at them.
#include <cstdio>
#include <memory>
#include <new>
#include <string>

#include "qmutils/app/CQMAppUtils.h"

int main() {
  CQMAppUtils app("SOFTWARE\\Quillmoor Designs\\Press", "DataFolder");
  const std::unique_ptr<CQMPrefs> prefs(app.GetPreferences());
  if (prefs == nullptr) return 1;
  QMErrors::QMErrorT result = prefs->SaveUsrParam("drum width", 1030u, 0);
  if (result == QMErrors::NoError) result = prefs->SaveUsrParam("margin", 12.5, 0);

  const unsigned width = prefs->LoadUsrParam("drum width", 800u, 0);
  const double margin = prefs->LoadUsrParam("margin", 10.0, 0);
  const unsigned height = prefs->LoadUsrParam("drum height", 600u, 0);  // never saved
  std::printf("%s: %u x %u, %.1f\n", QMErrToStr(result), width, height, margin);
  // No Error: 0: 1030 x 600, 12.5

  std::printf("%s %s by %s\n", static_cast<const char*>(CQMAppUtils::GetProductName()),
              static_cast<const char*>(CQMAppUtils::GetVersion()),
              static_cast<const char*>(CQMAppUtils::GetCompanyName()));
  return result == QMErrors::NoError && width == 1030 && margin == 12.5 && height == 600 ? 0 : 1;
}
