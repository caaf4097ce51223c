// Settings by section and key, plain and encoded, and a table of numbers.
#include <cstdio>
#include <fstream>

#include "qmutils/config/QMIniFileC.h"
#include "qmutils/config/QMReadCfgC.h"
#include "qmutils/data/QMGUIDEncryptC.h"

namespace {

int readSettings() {
  QMIniFileC plain("example.ini", 0);
  QMErrors::QMErrorT result = plain.Write("manufacturer", "product", "PlateDeck");
  if (result == QMErrors::NoError) {
    result = QMGUIDEncryptC::Encode("example.ini", "oem.ini", QMGUIDEncryptC::GetPublicKey());
  }

  QMIniFileC encoded("oem.ini", 1);
  const CString usual("Imager control");
  CString product, icon;
  if (result == QMErrors::NoError) {
    result = encoded.Read(QMIniFileC::MANUFACTURER, QMIniFileC::PRODUCT, &usual, product);
    encoded.Read("testtool", QMIniFileC::PRODUCT_ICON, nullptr, icon);  // a missing key: nothing
  }
  std::printf("%s '%s' '%s'\n", QMErrToStr(result), static_cast<const char*>(product),
              static_cast<const char*>(icon));  // No Error: 0 'PlateDeck' ''
  return product == "PlateDeck" && icon.IsEmpty() ? 0 : 1;
}

int readTable() {
  std::ofstream("example.cfg") << "SCALE 1.0002 0.9998        \nPOWER 110\nPOWER 108.5\n";

  QMReadCfgC table;
  QMErrors::QMErrorT result = table.OpenFileName("example.cfg");
  double scale[2] = {}, power = 0;
  if (result == QMErrors::NoError) result = table.ReadToken("SCALE", scale, 2, 0);
  while (result == QMErrors::NoError) result = table.ReadToken("POWER", &power, 1, 1);
  std::printf("%g %g, %g\n", scale[0], scale[1], power);  // 1.0002 0.9998, 108.5

  scale[0] = 1.0001;
  if (result == QMErrors::EndOfFileError) result = table.WriteToken("SCALE", scale, 2, 0);
  if (result == QMErrors::NoError) result = table.CloseFile(1);
  return result == QMErrors::NoError && power == 108.5 ? 0 : 1;
}

}  // namespace

int main() { return readSettings() + readTable(); }
