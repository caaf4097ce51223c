// A device context whose pages become a PDF document.
//
//   CPdfDC dc("log.pdf");
//   QMPrintTextC().PrintText("imager.log", &dc, "Log of the imager");
//
// Text is laid out by Pango and drawn by Cairo: any installed font, any script, and the text can be
// found and copied in the document. 600 units are an inch. Bytes that are no UTF-8 are taken for
// Windows-1252, so logs of older programs stay readable; control characters become blanks.
//
// The document appears under its name when EndDoc() succeeds; until then, and after a failure, what
// was there stays. Measuring needs no document, drawing an open page. A context belongs to one
// thread at a time. Functions that fail give 0 or false and set the last error: 6 called at the
// wrong time, 8 no memory, 87 an unusable setup or font, a null argument, or a text so long that it
// cannot be measured (beyond 100 kB at 10 points), else why the file could not be written (3, 5,
// 112
// ...).
#pragma once

#include <memory>
#include <string>

#include "qmutils/platform/export.h"
#include "qmutils/windowing/CDC.h"
#include "qmutils_print/PageSetup.h"

class QMUTILS_PRINT_API CPdfDC : public CDC {
 public:
  class OutputC;

  /// The file may exist and is then replaced. It is opened by StartDoc().
  explicit CPdfDC(const char* file, const qm::PageSetup& setup = {});
  CPdfDC(const CPdfDC&) = delete;
  CPdfDC& operator=(const CPdfDC&) = delete;
  /// Discards a document that was not ended.
  ~CPdfDC() override;

  /// Selects another font for what follows; a description as in the setup. On failure the former
  /// one stays.
  bool SetFont(const char* description);
  /// The family that is really used: another one than was asked for when that is not installed;
  /// empty when no font is.
  std::string GetFontFamily() const;
  /// Also true for names that stand for a kind of font ("Monospace").
  bool IsFontInstalled() const;
  /// Of this document, or the last one.
  unsigned GetPageCount() const;

  int GetDeviceCaps(int index) const override;
  BOOL GetTextMetrics(TEXTMETRIC* metrics) const override;
  /// Words that are longer than a broken line are broken, too. Without DT_NOCLIP what lies outside
  /// of the rectangle is not drawn. DT_PATH_ELLIPSIS replaces the middle of a line that is too
  /// long by dots. Without DT_NOPREFIX, '&' underlines the character behind it.
  int DrawText(const char* text, CRect* rect, UINT format) override;
  /// `name` (may be null) becomes the document's title.
  int StartDoc(const char* name) override;
  int StartPage() override;
  int EndPage() override;
  int EndDoc() override;
  int AbortDoc() override;

 protected:
  CPdfDC(std::unique_ptr<OutputC> output, const qm::PageSetup& setup);

 private:
  class DocumentC;
  class ImplC;
  std::unique_ptr<ImplC> m_pImpl;
};

/// Where documents go, one after the other. Functions set the last error when they fail; none
/// throws.
class QMUTILS_PRINT_API CPdfDC::OutputC {
 public:
  virtual ~OutputC() = default;
  /// A document of that name (may be null) begins.
  virtual bool Open(const char* name) = 0;
  virtual bool Write(const void* data, std::size_t size) = 0;
  /// It is complete. A positive number, which EndDoc() gives, or 0 on failure: it is then
  /// discarded.
  virtual int Close() = 0;
  /// It is not wanted; also after a call that failed.
  virtual void Discard() = 0;
};
