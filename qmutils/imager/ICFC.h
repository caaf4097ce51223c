// The image control document: what the imager must know about one exposure beside the page itself.
//
// It is made from the profile text that a program starts its imager with: a name, and settings as
// Key=Value, separated by ';' ("Default;DrumWidthMM=1030;ResolutionDPI=2400"). The document is an
// XML element tree:
//
//   <ImageControl Version = "1" >
//    <Job Number = "17" File = "/jobs/page1.tif"  />
//    <Profile Name = "Default" DrumWidthMM = "1030" ResolutionDPI = "2400"  />
//   </ImageControl >
//
// A host with settings of its own derives from it. An object belongs to one thread at a time.
#pragma once

#include <string>

#include "qmutils/data/QMXmlC.h"
#include "qmutils/foundation/QMErrors.h"
#include "qmutils/platform/export.h"

class QMUTILS_API ICFC {
 public:
  /// One exposure: the page's file and the job's number.
  class ExposeInfoC {
   public:
    ExposeInfoC(const char* file, unsigned jobNumber)
        : m_File(file != nullptr ? file : ""), m_nJobNumber(jobNumber) {}
    const std::string& GetFile() const { return m_File; }
    unsigned GetJobNumber() const { return m_nJobNumber; }

   private:
    std::string m_File;
    unsigned m_nJobNumber;
  };

  /// The name of the root element.
  static constexpr const char* kRootName = "ImageControl";

  explicit ICFC(const char* profile) : m_Profile(profile != nullptr ? profile : "") {}
  ICFC(const ICFC&) = default;
  ICFC& operator=(const ICFC&) = default;
  virtual ~ICFC() = default;

  /// Writes the document. 2061 "Bad/Missing/Malformed ICF File" for a file name or profile that the
  /// document cannot hold (a double quote or a line end), else the codes of QMXmlC::Save().
  virtual QMErrors::QMErrorT Save(const char* path, const ExposeInfoC& info) const;

  /// Adds the document's content to a node named kRootName.
  virtual QMErrors::QMErrorT ToXML(QMXmlC& root, const ExposeInfoC& info) const;

 private:
  std::string m_Profile;
};
