// A device context whose document goes to a printer, as PDF through the printing system (CUPS).
//
//   CPrinterDC dc("Office");
//   QMPrintTextC().PrintText("imager.log", &dc, "Log of the imager");
//
// Everything is as with CPdfDC; the document is handed over by EndDoc(), which gives the number of
// the print job. The printing system's own words for a failure go to the log. The last error is
// 1801 for a printer that is not known, 1722 when the printing system does not answer for
// half a minute, 5 when it refuses us, else 31. The printing system's library makes the process
// ignore SIGPIPE.
#pragma once

#include "qmutils_print/CPdfDC.h"

class QMUTILS_PRINT_API CPrinterDC : public CPdfDC {
 public:
  /// A print queue's name, with "/instance" if need be; null or empty for the user's default
  /// printer.
  explicit CPrinterDC(const char* printer, const qm::PageSetup& setup = {});
  ~CPrinterDC() override;
};
