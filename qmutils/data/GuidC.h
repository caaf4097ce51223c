// A GUID that knows whether it was ever given a value, with its text and stream forms.
//
//   GuidC job;
//   if (job.CreateGUID() == QMErrors::NoError) {
//     os << job;  // {6b29fc40-ca47-1067-b31d-00dd010662da}
//   }
//
// The text is written in lower case and read in any case; when it is read, braces count for nothing
// wherever they stand. An object belongs to one thread at a time. Parsing and writing a text take
// no allocation. Results are codes: 9400 for a text that is no GUID, else the system's number with
// the OS bit; each failure is logged as an error, and a value changes only on success.
#pragma once

#include <iosfwd>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/platform/export.h"
#include "qmutils/platform/types.h"

class QMUTILS_API GuidC {
 public:
  /// Not valid; the value is all zeros.
  GuidC() noexcept = default;
  GuidC(const GUID& guid) noexcept : m_Guid(guid), m_bValid(1) {}

  operator GUID() const noexcept { return m_Guid; }
  void SetGUID(const GUID& guid) noexcept { *this = GuidC(guid); }
  /// Takes a new random value. A system that fails without a number gives 0 as well, so ask
  /// IsValid() of an object that had no value before.
  QMErrors::QMErrorT CreateGUID();

  /// 1, or 0 (and a log line) for one that was never given a value.
  int IsValid() const;

  /// Writes the 36 characters, in "{" and "}" when `braces` is true; the stream's format does not
  /// touch them. A stream that takes no more shows it in its state.
  static QMErrors::QMErrorT ToString(std::ostream& os, const GUID& guid, bool braces);
  QMErrors::QMErrorT ToString(std::ostream& os, bool braces) const {
    return ToString(os, m_Guid, braces);
  }
  /// Null counts as a text that is no GUID.
  QMErrors::QMErrorT FromString(const char* text);

 protected:
  static QMErrors::QMErrorT FromString(const char* text, GUID& out);

 private:
  GUID m_Guid = {};
  int m_bValid = 0;
};

/// Both write the text in braces.
QMUTILS_API std::ostream& operator<<(std::ostream& os, const GUID& guid);
QMUTILS_API std::ostream& operator<<(std::ostream& os, const GuidC& guid);

/// Both read up to the first "}" behind a "{", or to the end of the stream, and fail the stream
/// when that is no GUID. White space is skipped wherever it stands, unless the stream's flags
/// forbid it. Holds in memory what it has read.
QMUTILS_API std::istream& operator>>(std::istream& is, GUID& guid);
QMUTILS_API std::istream& operator>>(std::istream& is, GuidC& guid);

/// Writes the text in braces when the line is shown.
QMUTILS_API QMLogStreamC& operator<<(QMLogStreamC& log, const GuidC& guid);
