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

  /// Queues the exposure that a job file describes.
  void expose(const std::string& jobFile);
  /// Ends the thread.
  void finish();

 private:
  QMErrors::QMErrorT run() override;
  bool takeJob(std::string& jobFile);
  void exposeJob(const std::string& jobFile);
  Failure exposeOnDrum(const JobDescription& job, std::string& picture);
  void dropJobs();

  const ControlLink& link_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> jobs_;
  std::atomic<bool> finishing_{false};  // set under the mutex, so that no wake-up is lost
};

}  // namespace programs
