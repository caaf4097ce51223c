// Prints plain text on a device context: one document, its pages with a centred title at the top,
// "Page: 1" at the bottom, and margins of 10 mm above and below. Long lines are wrapped, tabs
// expanded.
//
//   CPdfDC dc("log.pdf");                        // of qmutils_print, or any other CDC
//   QMPrintTextC printer;
//   QMErrors::QMErrorT result = printer.PrintText("imager.log", &dc, "Log of the imager");
//
// Lines end with CR, LF or CR LF. Text is UTF-8; a file may also hold UTF-16 behind its mark. A
// line that does not fit on what is left of a page begins on the next one; one that is higher than
// a whole page is continued there.
//
// An object prints on one thread at a time; any thread may set its abort event meanwhile. Failures
// are logged and returned as codes; nothing throws.
#pragma once

#include <string_view>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class CDC;
class CRect;

class QMUTILS_API QMPrintTextC {
 public:
  QMPrintTextC();
  QMPrintTextC(const QMPrintTextC&) = delete;
  QMPrintTextC& operator=(const QMPrintTextC&) = delete;
  virtual ~QMPrintTextC();

  /// Prints a file; its path is the document's name. 1001 "Failed to Open File", also for what is
  /// no regular file; 1010 "Failed to read file"; else as PrintText2().
  QMErrors::QMErrorT PrintText(const char* file, CDC* dc, const char* title);

  /// Prints a text. `name` is what print queues show, `title` stands on each page; both may be
  /// null. 0, also when it was aborted: the document then ends with the page that was begun. 2117
  /// "Selected font is too large" when not even one line fits, before a document is started; 2100
  /// without text or device; the system's number with bit 29 set when the device fails: the
  /// document is then discarded.
  QMErrors::QMErrorT PrintText2(const char* text, CDC* dc, const char* name, const char* title);

  /// A manual-reset event, owned by this object. Printing stops before the next line once it is
  /// set; it is reset when printing begins. Null when it could not be made: printing then fails.
  void* m_hAbortEvent;

 protected:
  /// The device's printable area without 10 mm at the top and at the bottom.
  void CalcPageRect(CDC* dc, CRect& page);
  // Each prints one line at its end of the page and takes its place from what remains of the page.
  // 0 or the device's failure, which is logged.
  QMErrors::QMErrorT PrintHeader(CDC* dc, CRect& page, CRect& remaining, const char* title);
  QMErrors::QMErrorT PrintFooter(CDC* dc, CRect& page, CRect& remaining, unsigned int pageNumber);

 private:
  class JobC;

  QMErrors::QMErrorT ResetAbortEvent();
  QMErrors::QMErrorT Print(std::string_view text, CDC* dc, const char* name, const char* title);
};
