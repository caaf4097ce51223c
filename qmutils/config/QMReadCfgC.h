// Files of named numbers: calibration and set-up tables of a machine. A file is a text in which
// words stand before numbers, and nothing else; there are no sections, comments or quotes. It is
// held in memory while it is open; a look-up searches the text from one place on. Numbers have the
// form of the "C" locale. An object belongs to one thread at a time; copies may be used on
// different threads. Nothing throws. Codes: 1001 nothing is open, or a file cannot be opened or is
// a device; 2001 no memory (not for ReadToken()); 2007 no such token; 2055 and 2056 a file that
// cannot be written or read, 2056 also for something that is no number. All but 2007 are logged.
//
// A file is whole at any time, but whoever saves puts all of it in the place of what others have
// saved since it was opened: the last one wins.
//
//   QMReadCfgC file;
//   double factors[3];
//   QMErrors::QMErrorT result = file.OpenFileName("machine.cfg");
//   if (result == QMErrors::NoError) result = file.ReadToken("SCALE", factors, 3, 0);
//   if (result == QMErrors::NoError) result = file.WriteToken("SCALE", factors, 3, 0);
//   file.CloseFile(1);                                    // 0 forgets what was written
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/SharedText.h"
#include "qmutils/platform/export.h"

class QMUTILS_API QMReadCfgC {
 public:
  QMReadCfgC() noexcept = default;
  /// A copy has the same text, name and places; from then on each changes for itself.
  QMReadCfgC(const QMReadCfgC&) noexcept = default;
  QMReadCfgC& operator=(const QMReadCfgC&) noexcept = default;
  /// Forgets what was written and not saved.
  virtual ~QMReadCfgC();

  /// Loads a file in place of the one that is open; that one stays open when this fails.
  QMErrors::QMErrorT OpenFileName(const char* path);

  /// Reads the `count` numbers behind the next place where the text holds `token`, be it in the
  /// middle of a longer word: with `bContinue` 0 the first place, else the next one behind what was
  /// read last. Numbers before one that cannot be read (2056) are stored, and that one is 0.
  /// With 2007 the place stays.
  QMErrors::QMErrorT ReadToken(const char* token, double* values, unsigned int count,
                               int bContinue);

  /// Puts the line "token<tab> value value ..." (six digits a value) in the place of the one with
  /// `token`, or at the end of the text when there is none. With `bContinue` 0 the token is
  /// searched from the beginning, else from behind the line that was written last.
  ///
  /// Installed programs rely on what becomes of the text behind: it goes on with the first line end
  /// found in the old text more than one character behind the place where the new line ends. So
  /// the old line must have been longer by two characters or more (blanks at its end will do), or
  /// lines behind it are lost. 2001 leaves everything as it was.
  QMErrors::QMErrorT WriteToken(const char* token, const double* values, unsigned int count,
                                int bContinue);

  /// With `bWrite` the text is written back, up to its first NUL: the file is replaced in one step
  /// and is the old one after a failure (1001 or 2055, with the last error set; 2001). Nothing is
  /// open afterwards in any case.
  QMErrors::QMErrorT CloseFile(int bWrite);

 private:
  QMErrors::QMErrorT _ReadToken(const char* token, double* values, unsigned int count,
                                int bContinue);
  QMErrors::QMErrorT _WriteToken(const char* token, const double* values, unsigned int count,
                                 int bContinue);
  QMErrors::QMErrorT WriteBack() const;

  std::shared_ptr<const std::string> m_pText;  ///< without the NUL at its end
  qm::SharedText m_FileName;
  std::size_t m_ReadPosition = 0;
  std::size_t m_WritePosition = 0;
  std::size_t m_TextLength = 0;  ///< as loaded, its NUL included; not always that of the text
};
