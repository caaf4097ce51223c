#include "programs/testtool/ConsoleImager.h"

#include "programs/Protocol.h"
#include "programs/testtool/Command.h"

namespace programs {
namespace {

unsigned toCount(const char* text) {
  long long number = 0;
  return parseNumber(text, 0LL, 0xFFFFFFFFLL, number) ? static_cast<unsigned>(number) : 0;
}

std::string describe(const QMErrors::QMMessagePacketT& packet) {
  std::string text = QMErrToStr(static_cast<QMErrors::QMErrorT>(packet.nCode));
  if (*packet.pString != '\0') text += " (" + std::string(packet.pString) + ")";
  return text;
}

}  // namespace

QMErrors::QMErrorT ConsoleImager::HandleImagerMessage(QMErrors::QMMessagePacketT& packet) {
  const std::lock_guard guard(mutex_);
  JobState& job = jobs_[static_cast<unsigned>(packet.nVal)];
  if (packet.nType == qm::imager::kTypeError) {
    job.error = describe(packet);
  } else if (packet.nType == qm::imager::kTypeProgress && packet.nCode == kProgressLines) {
    job.done = toCount(packet.pString);
    job.total = toCount(packet.pQualifier);
  } else if (packet.nType == qm::imager::kTypeProgress && packet.nCode == kProgressDone) {
    job.picture = packet.pString;
  }
  news_.notify_all();
  return QMErrors::NoError;
}

void ConsoleImager::HandleImagerError(const char*) {
  const std::lock_guard guard(mutex_);
  dead_ = true;
  news_.notify_all();
}

JobState ConsoleImager::await(unsigned job, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  JobState& state = jobs_[job];
  if (!state.ended() && !dead_) news_.wait_for(lock, limit);
  return state;
}

bool ConsoleImager::isLost() {
  const std::lock_guard guard(mutex_);
  return dead_ || !IsAlive();
}

}  // namespace programs
