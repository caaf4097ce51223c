#include "programs/imager/ExposerC.h"

#include <new>

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
  dropJobs();
  return QMErrors::NoError;
}

/// Reading a job deletes its files, which nobody else does.
void ExposerC::dropJobs() {
  const std::lock_guard guard(mutex_);
  for (const std::string& jobFile : jobs_) {
    JobDescription job;
    (void)readJob(jobFile, job);
    qm::logInfo(1, "ExposerC::dropJobs(): ", "job ", job.number, " is not exposed");
  }
  jobs_.clear();
}

void ExposerC::exposeJob(const std::string& jobFile) {
  JobDescription job;
  std::string picture;
  Failure failure = readJob(jobFile, job);
  try {
    if (!failure) failure = exposeOnDrum(job, picture);
  } catch (const std::bad_alloc&) {
    failure = {QMErrors::MemoryAllocationFailed, "no memory for the page", job.page};
  }
  if (failure) {
    link_.reportFailure(job.number, failure);
  } else {
    link_.reportProgress(kProgressDone, job.number, picture, "");
  }
}

Failure ExposerC::exposeOnDrum(const JobDescription& job, std::string& picture) {
  qm::logInfo(1, "ExposerC::exposeOnDrum(): ", "job ", job.number, ": ", job.page);
  link_.reportProgress(kProgressStarted, job.number,
                       job.page.substr(job.page.find_last_of("\\/") + 1), "");
  unsigned reported = 0;
  const auto report = [&](unsigned done, unsigned total) {
    const auto hundredth = static_cast<unsigned>(done * 100ull / total);
    if (hundredth != reported) {
      reported = hundredth;
      link_.reportProgress(kProgressLines, job.number, std::to_string(done), std::to_string(total));
    }
    return !finishing_;
  };
  return exposePage(job, report, picture);
}

}  // namespace programs
