// The imager as the console sees it: collects what the imager reports, so that the command's own
// thread can wait for it and print.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

#include "qmutils/imager/CTPImagerUserC.h"

namespace programs {

/// How far a job has come.
struct JobState {
  unsigned done = 0;
  unsigned total = 0;
  std::string picture;  ///< set when the plate is done
  std::string error;    ///< set when the job failed
  bool ended() const { return !picture.empty() || !error.empty(); }
};

class ConsoleImager : public CTPImagerUserC {
 public:
  explicit ConsoleImager(const std::string& command)
      : CTPImagerUserC(command.c_str(), "testtool") {}
  ~ConsoleImager() override { StopImager(); }

  /// Waits a moment for news of a job and gives its state.
  JobState await(unsigned job, std::chrono::milliseconds limit);
  /// True when nothing more can come from the imager. The error stack tells why.
  bool isLost();

 protected:
  QMErrors::QMErrorT HandleImagerMessage(QMErrors::QMMessagePacketT& packet) override;
  void HandleImagerError(const char* text) override;

 private:
  std::mutex mutex_;
  std::condition_variable news_;
  std::map<unsigned, JobState> jobs_;
  bool dead_ = false;
};

}  // namespace programs
