// A log as a PDF document, beside the program.
#include <cstdio>
#include <fstream>

#include "qmutils/app/QMPrintTextC.h"
#include "qmutils_print/CPdfDC.h"

int main() {
  std::ofstream("imager.log") << "plate 17\tloaded\nplate 17\texposed\n";
  qm::PageSetup setup;
  setup.paper = *qm::findPaper("A5");
  setup.font = "Monospace 9";
  CPdfDC dc("imager.pdf", setup);  // or a CPrinterDC with a print queue's name
  QMPrintTextC printer;            // another thread may set its m_hAbortEvent
  const QMErrors::QMErrorT result = printer.PrintText("imager.log", &dc, "Log of the imager");
  std::printf("%s, %u page\n", QMErrToStr(result), dc.GetPageCount());  // No Error: 0, 1 page
  return result == QMErrors::NoError ? 0 : 1;
}
