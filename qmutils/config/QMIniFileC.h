// Settings of a reseller's machine, or of anybody's: a file of sections and keys (INI file), plain
// or encoded so that operators cannot edit it casually. A look-up in a plain file that has not
// changed costs one question to the system; one in a file of more than half a megabyte, or that was
// written less than 50 ms before (3 s where file times are whole seconds), reads it all. An encoded
// one is decoded at the first use of an object. An object belongs to one thread at a time; any
// number of objects, threads and programs may use one file. Nothing throws. A missing key or plain
// file is no failure. Codes: 2001 no memory; 2011 no room for a text or for the decoded copy; 2055
// a value that cannot be written; 2056 a file that cannot be read; for encoded files also those of
// QMGUIDEncryptC. What fails with a file is logged.
//
//   QMIniFileC file(path, 1);   // encoded
//   CString product;
//   file.Read(QMIniFileC::MANUFACTURER, QMIniFileC::PRODUCT, &usualName, product);
//
// The rules of the files are those of qmutils/platform/profile.h. The decoded copy has no name and
// is gone with the object or the program.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "qmutils/foundation/QMErrors.h"
#include "qmutils/foundation/QMStringStream.h"
#include "qmutils/foundation/SharedText.h"
#include "qmutils/platform/export.h"
#include "qmutils/windowing/CString.h"

namespace qm::platform {
class TemporaryFile;
}

class QMUTILS_API QMIniFileC {
 public:
  /// The reseller's settings file, in the folder of the running program.
  static constexpr const char* OEM_CONFIG_INI_FILE = "oemconfig.ini";
  /// The section of the branding, and in it the key of the company's name.
  static constexpr const char* MANUFACTURER = "manufacturer";
  static constexpr const char* PRODUCT = "product";            ///< of "manufacturer"
  static constexpr const char* PRODUCT_VERSION = "version";    ///< of "manufacturer"
  static constexpr const char* PRODUCT_ICON = "product_icon";  ///< of the application's own section
  /// The section of support mails, and its keys.
  static constexpr const char* MAIL = "mail";
  static constexpr const char* RECIPIENTS = "recipients";
  static constexpr const char* ADDRESSES = "addresses";
  static constexpr const char* SUBJECT = "subject";

  /// Opens nothing yet; null is the file without a name, which is never there.
  QMIniFileC(const char* path, int bEncoded) noexcept;
  /// Encodes what was written back into an encoded file; a failure is logged, what was written is
  /// lost then, and the stored file is the old one.
  ~QMIniFileC();
  QMIniFileC(const QMIniFileC&) = delete;
  QMIniFileC& operator=(const QMIniFileC&) = delete;

  /// Appends a value to `value`, or the default (null: nothing) without the spaces at its end when
  /// there is no such key. With a failure code the default is appended as it is. A plain file that
  /// is there but cannot be read gives a warning, the default, and 0.
  QMErrors::QMErrorT Read(const char* section, const char* key, const CString* pDefault,
                          CString& value);
  /// Sets a value; null is an empty one. A plain file has it when the call returns and is created
  /// when it is missing. An encoded one gets it from Save() or the destructor; of objects that
  /// change one encoded file at a time the last one wins. 2055 also for a value that would not read
  /// back (a line end in it, '=' in the key).
  QMErrors::QMErrorT Write(const char* section, const char* key, const char* value);
  /// What the destructor does, for callers who want its code. After a failure (1001 or 2055, with
  /// the last error set; 2001) the stored file is as it was and the object still has the changes:
  /// call it again. After success the object can be used again.
  QMErrors::QMErrorT Save() { return Flush(); }

  struct SectionS {
    CString name;
    std::vector<std::pair<CString, CString>> values;  ///< keys, and what they have
  };
  /// All sections, or the one of that name (none when it is missing), as they are at one moment and
  /// in the order of the file. The vector's content is replaced; it is empty after a failure.
  QMErrors::QMErrorT List(const char* section, std::vector<SectionS>& sections);

 private:
  QMErrors::QMErrorT Initialise();
  QMErrors::QMErrorT Decode();
  QMErrors::QMErrorT Encode();
  QMErrors::QMErrorT _Read(const char* section, const char* key, QMstrstream& stream);
  QMErrors::QMErrorT _Write(const char* section, const char* key, QMstrstream& stream);
  static std::unique_ptr<QMstrstream> GetStream() noexcept;
  QMErrors::QMErrorT Flush();

  qm::SharedText m_FilePath;     ///< none when there was no memory for it
  qm::SharedText m_WorkingPath;  ///< what the profile functions use: the file or its decoded copy
  int m_bEncoded;
  int m_bInitialised = 0;
  int m_bDirty = 0;  ///< the decoded copy was written to
  std::unique_ptr<qm::platform::TemporaryFile> m_pTemporaryFile;
};
