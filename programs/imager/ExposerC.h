// The thread that exposes: takes jobs in the order they came, one at a time, so that the imager
// answers messages meanwhile. Stopping it stops the job on the drum and drops the rest.
#pragma once

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
  bool stopping();

  const ControlLink& link_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> jobs_;
  bool finishing_ = false;
};

}  // namespace programs
