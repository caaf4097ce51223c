// The thread that exposes: takes jobs in the order they came, one at a time, so that the imager
// answers messages meanwhile. Finishing it stops the job on the drum and drops the rest.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>

#include "programs/imager/ControlLink.h"
#include "qmutils/concurrency/QMThreadC.h"

namespace programs {

class ExposerC : public QMThreadC {
 public:
  explicit ExposerC(const ControlLink& link);
  ~ExposerC() override;

  /// Queues the exposure that a job file describes; the number names the job until the file is
  /// read. False when there is no memory for it.
  bool expose(unsigned number, const char* jobFile);
  /// Ends the thread.
  void finish();

 private:
  struct QueuedJob {
    unsigned number = 0;
    std::string file;
  };

  QMErrors::QMErrorT run() override;
  bool takeJob(QueuedJob& job);
  void exposeJob(const QueuedJob& queued);
  Failure exposeOnDrum(const JobDescription& job, std::string& picture);
  void dropJobs();

  const ControlLink& link_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<QueuedJob> jobs_;
  std::atomic<bool> finishing_{false};  // set under the mutex, so that no wake-up is lost
};

}  // namespace programs
