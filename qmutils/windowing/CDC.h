// A device context: a screen or printer that text is drawn on. The library only draws through this
// interface; a host implements it over its window or printer.
//
// Rectangles are in device units, counted from the upper left corner of the paper or the window; y
// grows downwards. Of a printer, the printable area begins at PHYSICALOFFSETX and PHYSICALOFFSETY
// and is HORZRES by VERTRES large. A context belongs to one thread at a time. No function throws;
// one that fails sets the system's last error (qmutils/platform/error.h).
#pragma once

#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"
#include "qmutils/windowing/CRect.h"

class QMUTILS_API CDC {
 public:
  virtual ~CDC() = default;

  /// A capability by its index (HORZRES, LOGPIXELSY, ...); 0 for an index that the device does not
  /// know.
  virtual int GetDeviceCaps(int index) const = 0;
  /// The measures of the selected font; false on failure.
  virtual BOOL GetTextMetrics(TEXTMETRIC* metrics) const = 0;
  /// Draws text, UTF-8, inside a rectangle as the DT_ bits of `format` tell, and gives the height
  /// of what was drawn; 0 on failure. With DT_CALCRECT nothing is drawn: the rectangle is made to
  /// fit the text instead, its left and top edges staying.
  virtual int DrawText(const char* text, CRect* rect, UINT format) = 0;

  // A print job: StartDoc, for each page StartPage and EndPage, then EndDoc. AbortDoc discards it.
  // All give a positive number, or 0 or less on failure.
  virtual int StartDoc(const char* name) = 0;
  virtual int StartPage() = 0;
  virtual int EndPage() = 0;
  virtual int EndDoc() = 0;
  virtual int AbortDoc() = 0;
};
