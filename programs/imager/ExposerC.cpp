#include "programs/imager/ExposerC.h"

#include "programs/Protocol.h"
#include "programs/imager/Exposure.h"
#include "qmutils/foundation/LogLine.h"

namespace programs {

ExposerC::ExposerC(const ControlLink& link)
    : QMThreadC("Exposer", nullptr, INFINITE, 0), link_(link) {}

ExposerC::~ExposerC() { finish(); }

void ExposerC::expose(const std::string& jobFile) {
  const std::lock_guard guard(mutex_);
  jobs_.push_back(jobFile);
  changed_.notify_one();
}

void ExposerC::finish() {
  {
    const std::lock_guard guard(mutex_);
    finishing_ = true;
    changed_.notify_one();
  }
  (void)stop();
}

bool ExposerC::stopping() {
  const std::lock_guard guard(mutex_);
  return finishing_;
}

bool ExposerC::takeJob(std::string& jobFile) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return finishing_ || !jobs_.empty(); });
  if (finishing_) return false;
  jobFile = jobs_.front();
  jobs_.pop_front();
  return true;
}

QMErrors::QMErrorT ExposerC::run() {
  std::string jobFile;
  while (takeJob(jobFile)) exposeJob(jobFile);
  return QMErrors::NoError;
}

void ExposerC::exposeJob(const std::string& jobFile) {
  JobDescription job;
  Failure failure = readJob(jobFile, job);
  if (failure) {
    link_.reportFailure(job.number, failure);
    return;
  }
  qm::logInfo(1, "ExposerC::exposeJob(): ", "job ", job.number, ": ", job.page);
  link_.reportProgress(kProgressStarted, job.number,
                       job.page.substr(job.page.find_last_of("\\/") + 1), "");
  unsigned reported = 0;
  const auto report = [&](unsigned done, unsigned total) {
    const unsigned hundredth = done * 100ull / total;
    if (hundredth != reported) {
      reported = hundredth;
      link_.reportProgress(kProgressLines, job.number, std::to_string(done),
                           std::to_string(total));
    }
    return done % 64 != 0 || !stopping();
  };
  std::string picture;
  failure = exposePage(job, report, picture);
  if (failure) {
    link_.reportFailure(job.number, failure);
  } else {
    link_.reportProgress(kProgressDone, job.number, picture, "");
  }
}

}  // namespace programs
