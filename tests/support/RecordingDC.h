// A device context that draws nothing and remembers everything: what was drawn where, on which
// page, and the calls of a print job. All characters have the same width.
//
//   RecordingDC dc;
//   dc.cellHeight = 20;
//   dc.failAt(3, ERROR_GEN_FAILURE);   // the third call fails
//   ...
//   EXPECT_EQ(dc.drawn[0].lines[0], "the first line");
#pragma once

#include <string>
#include <vector>

#include "qmutils/windowing/CDC.h"

namespace qmtest {

class RecordingDC : public CDC {
 public:
  struct Drawn {
    int page;  ///< 1 is the first page of the job; 0 outside of pages
    std::string text;
    std::vector<std::string> lines;  ///< of the text, broken and with tabs expanded
    CRect rect;
    UINT format;
  };

  // The device; may be changed at any time.
  int cellWidth = 10;
  int cellHeight = 20;
  int pageWidth = 800;  // printable area
  int pageHeight = 1000;
  int offsetX = 10;  // of the printable area on the paper
  int offsetY = 10;
  int unitsPerInch = 100;

  // What was done to it.
  std::vector<Drawn> drawn;
  std::vector<std::string> jobCalls;  ///< "StartDoc <name>", "StartPage", ... without failed ones
  mutable int calls = 0;              ///< of everything but GetDeviceCaps(), failed ones included

  /// The n-th call from now on fails with this last error.
  void failAt(int n, DWORD error);

  int GetDeviceCaps(int index) const override;
  BOOL GetTextMetrics(TEXTMETRIC* metrics) const override;
  /// Knows DT_CALCRECT, DT_WORDBREAK, DT_SINGLELINE and DT_EXPANDTABS. An empty text has no height,
  /// as on some devices.
  int DrawText(const char* text, CRect* rect, UINT format) override;
  int StartDoc(const char* name) override;
  int StartPage() override;
  int EndPage() override;
  int EndDoc() override;
  int AbortDoc() override;

 private:
  bool fails() const;
  int jobCall(const std::string& call);

  int failingCall_ = 0;
  DWORD error_ = 0;
  int page_ = 0;
  bool onPage_ = false;
};

}  // namespace qmtest
