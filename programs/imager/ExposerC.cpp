#include "programs/imager/ExposerC.h"

#include <new>
#include <utility>

#include "programs/Protocol.h"
#include "programs/imager/Exposure.h"
#include "qmutils/foundation/LogLine.h"

namespace programs {

ExposerC::ExposerC(const ControlLink& link)
    : QMThreadC("Exposer", nullptr, INFINITE, 0), link_(link) {}

ExposerC::~ExposerC() { finish(); }

bool ExposerC::expose(unsigned number, const char* jobFile) try {
  const std::lock_guard guard(mutex_);
  jobs_.push_back({number, jobFile});
  changed_.notify_one();
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void ExposerC::finish() {
  {
    const std::lock_guard guard(mutex_);
    finishing_ = true;
    changed_.notify_one();
  }
  (void)stop();
}

bool ExposerC::takeJob(QueuedJob& job) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return finishing_ || !jobs_.empty(); });
  if (finishing_) return false;
  job = std::move(jobs_.front());
  jobs_.pop_front();
  return true;
}

QMErrors::QMErrorT ExposerC::run() {
  QueuedJob job;
  while (takeJob(job)) exposeJob(job);
  dropJobs();
  return QMErrors::NoError;
}

/// Reading a job deletes its files, which nobody else does.
void ExposerC::dropJobs() try {
  const std::lock_guard guard(mutex_);
  for (const QueuedJob& queued : jobs_) {
    JobDescription job;
    (void)readJob(queued.file, job);
    qm::logInfo(1, "ExposerC::dropJobs(): ", "job ", queued.number, " is not exposed");
  }
  jobs_.clear();
} catch (const std::bad_alloc&) {
  qm::logError("ExposerC::dropJobs(): ", "no memory, job files are left");
}

void ExposerC::exposeJob(const QueuedJob& queued) {
  const KeepTrying untilTheEnd = [this] { return !finishing_; };
  JobDescription job;
  job.number = queued.number;
  try {
    std::string picture;
    Failure failure = readJob(queued.file, job);
    if (!failure) failure = exposeOnDrum(job, picture);
    if (failure) {
      link_.reportFailure(job.number, failure, untilTheEnd);
    } else {
      link_.reportDone(job.number, picture, untilTheEnd);
    }
  } catch (const std::bad_alloc&) {
    // Texts so short need no memory of their own.
    link_.reportFailure(job.number, {QMErrors::MemoryAllocationFailed, "no memory", ""},
                        untilTheEnd);
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
