#include "programs/imager/Exposure.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "programs/imager/Drum.h"
#include "programs/imager/PageReader.h"
#include "programs/imager/PlatePicture.h"
#include "qmutils/foundation/QMFileUtilsC.h"

namespace programs {
namespace {

/// Keeps the drum at the speed asked for. It rests every 50 ms, or after each line when they take
/// longer, so that a stop never waits for more than a line.
class Pace {
 public:
  explicit Pace(unsigned linesPerSecond)
      : linesPerSecond_(linesPerSecond), linesPerRest_(std::max(1u, linesPerSecond / 20)) {}

  void keep(unsigned line) const {
    if (linesPerSecond_ == 0 || line % linesPerRest_ != 0) return;
    std::this_thread::sleep_until(
        start_ + std::chrono::microseconds(std::int64_t{line} * 1'000'000 / linesPerSecond_));
  }

 private:
  const unsigned linesPerSecond_;
  const unsigned linesPerRest_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

constexpr std::size_t kLongestPageName = 80;  // the picture's name is sent in a message

/// "page1-17" for job 17 of /jobs/page1.tif.
std::string pictureName(const JobDescription& job) {
  QMCString page;
  QMFileUtilsC::SplitPath(QMCString(job.page.c_str()), nullptr, nullptr, &page, nullptr);
  std::string name(page.view().substr(0, kLongestPageName));
  std::replace(name.begin(), name.end(), ';', '_');  // separates the fields of a message
  return name + "-" + std::to_string(job.number);
}

}  // namespace

Failure exposePage(const JobDescription& job, const LineReport& report, std::string& picture) {
  PageReader page;
  Failure failure = page.open(job.page);
  if (failure) return failure;
  Drum drum;
  failure = drum.layOut(job.drum, page.width(), page.height(), page.resolution());
  if (failure) {
    failure.file = job.page;
    return failure;
  }
  const QMErrors::QMErrorT made = QMFileUtilsC::MakeFolder(job.outputFolder.c_str());
  if (made != QMErrors::NoError) {
    return {QMErrors::UnableToCreateDirectory, QMErrToStr(made), job.outputFolder};
  }
  const std::string name = pictureName(job);
  PlatePicture plate;
  failure =
      plate.open(job.outputFolder + "/" + name, drum.width(), drum.height(), drum.resolution());
  if (failure) return failure;

  std::vector<std::uint8_t> pageLine;
  std::vector<std::uint8_t> drumLine;
  const Pace pace(job.drum.linesPerSecond);
  for (unsigned line = 0; line < drum.height(); ++line) {
    if (drum.takesPageLine(line)) failure = page.readLine(pageLine);
    if (failure) return failure;
    drum.expose(line, pageLine, drumLine);
    failure = plate.addLine(drumLine);
    if (failure) return failure;
    pace.keep(line + 1);
    if (!report(line + 1, drum.height())) {
      return {QMErrors::CommandAborted, "the exposure was stopped", job.page};
    }
  }
  failure = plate.finish();
  if (!failure) picture = name + ".png";
  return failure;
}

}  // namespace programs
