// Settings of a reseller's machine, or of anybody's: a file of sections and keys (INI file), plain
// or encoded so that operators cannot edit it casually. A look-up in a plain file that has not
// changed costs one question to the system; an encoded one is decoded at the first use of an
// object. An object belongs to one thread at a time; any number of objects, threads and programs
// may use one file. Nothing throws. A missing key or plain file is no failure. Codes: 2001 no
// memory; 2011 no room for a text or for the decoded copy; 2055 a value that cannot be written;
// 2056 a file that cannot be read; for encoded files also those of QMGUIDEncryptC. What fails with
// a file is logged.
//
//   QMIniFileC file(path, 1);   // encoded
//   CString product;
//   file.Read(QMIniFileC::MANUFACTURER, QMIniFileC::PRODUCT, &usualName, product);
//
// The rules of the files are those of qmutils/platform/profile.h. The decoded copy has no name and
// is gone with the object or the program.
#pragma once

#include <memory>
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
  /// Encodes what was written back into an encoded file; a failure is logged, and the stored file
  /// is then the old one.
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
  /// What the destructor does, for callers who want its code: 1001 and 2055 leave the stored file
  /// as it was. The object can be used again.
  QMErrors::QMErrorT Save() { return Flush(); }

  /// The names of all sections, and of the keys of one section, in the order of the file. The
  /// vector's content is replaced.
  QMErrors::QMErrorT ListSections(std::vector<CString>& names);
  QMErrors::QMErrorT ListKeys(const char* section, std::vector<CString>& names);

 private:
  QMErrors::QMErrorT Initialise();
  QMErrors::QMErrorT Decode();
  QMErrors::QMErrorT Encode();
  QMErrors::QMErrorT _Read(const char* section, const char* key, QMstrstream& stream);
  QMErrors::QMErrorT _Write(const char* section, const char* key, QMstrstream& stream);
  static std::unique_ptr<QMstrstream> GetStream() noexcept;
  QMErrors::QMErrorT Flush();
  template <class Lister>
  QMErrors::QMErrorT List(std::vector<CString>& names, Lister lister);

  qm::SharedText m_FilePath;     ///< none when there was no memory for it
  qm::SharedText m_WorkingPath;  ///< what the profile functions use: the file or its decoded copy
  int m_bEncoded;
  int m_bInitialised = 0;
  int m_bDirty = 0;  ///< the decoded copy was written to
  std::unique_ptr<qm::platform::TemporaryFile> m_pTemporaryFile;
};
