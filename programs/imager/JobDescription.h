// One exposure as the control program hands it over: the job file's line and the image control
// document it names.
#pragma once

#include <string>

#include "qmutils/foundation/QMErrors.h"

namespace programs {

/// The drum and how the page lies on it. Lengths in millimetres, resolutions in dots per inch.
struct DrumSettings {
  double widthMm = 230;      ///< along a line, the fast axis
  double heightMm = 320;     ///< across the lines, the slow axis
  double resolutionDpi = 0;  ///< 0: that of the page
  double leftMm = -1;        ///< of the page's edge; below 0: centred
  double topMm = -1;
  bool clips = false;
  bool clippedIsExposed = false;  ///< what the clipped margins carry
  unsigned fastLeadingPixels = 0;
  unsigned fastTrailingPixels = 0;
  unsigned slowLeadingLines = 0;
  unsigned slowTrailingLines = 0;
  unsigned linesPerSecond = 0;  ///< 0: as fast as the machine can
};

struct JobDescription {
  unsigned number = 0;
  std::string page;
  std::string outputFolder = ".";
  DrumSettings drum;
};

/// What went wrong, as it is reported to the control program.
struct Failure {
  QMErrors::QMErrorT code = QMErrors::NoError;
  std::string reason;
  std::string file;
  explicit operator bool() const { return code != QMErrors::NoError; }
};

/// Takes the job file's line apart: -jobid N -fl "page" -pr "image control file".
Failure parseJobLine(const std::string& line, JobDescription& job, std::string& icfPath);

/// Reads the image control document into the job's settings. `recognised`: whether it is one, good
/// or bad.
Failure readImageControl(const std::string& path, JobDescription& job, bool* recognised);

/// Reads both files and deletes them, unless they turn out to be something else. What could be read
/// is filled in also on failure, so that the report can name the job; what could not be read stays
/// as it is.
Failure readJob(const std::string& jobFile, JobDescription& job);

}  // namespace programs
