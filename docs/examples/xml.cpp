// An element tree, saved and loaded.
#include <cstdio>
#include <cstring>

#include "qmutils/data/QMXmlC.h"

int main() {
  QMXmlC settings("Settings", 0, nullptr);
  QMXmlC* drum = nullptr;
  QMErrors::QMErrorT result = settings.AddChild("Drum", &drum);
  if (result == QMErrors::NoError) result = drum->AddProperty("WidthMM", "1030");
  if (result == QMErrors::NoError) result = settings.Save("example.xml");

  QMXmlC loaded(nullptr, 0, nullptr);
  if (result == QMErrors::NoError) result = loaded.Load("example.xml");
  const QMXmlC* found = loaded.Find("Drum", 1, nullptr);
  const char* width = found != nullptr ? found->GetProperty("WidthMM") : nullptr;
  std::printf("%s %s\n", QMErrToStr(result), width != nullptr ? width : "-");  // No Error: 0 1030
  return width != nullptr && std::strcmp(width, "1030") == 0 ? 0 : 1;
}
