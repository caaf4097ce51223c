#include "programs/testtool/LineExchange.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "programs/testtool/Command.h"
#include "qmutils/foundation/QMLogStreamC.h"
#include "qmutils/platform/program.h"
#include "qmutils/platform/standard_streams.h"
#include "qmutils/platform/waitable.h"

namespace programs {

namespace {

constexpr std::size_t kLongestLine = 64 << 10;
constexpr std::size_t kSentAtOnce = 64 << 10;
constexpr std::size_t kReadAtOnce = 4096;
constexpr int kPiecesAtOnce = 64;  // written before the main loop looks at other things
constexpr DWORD kListenMs = 100;   // between two looks at what there is to send
constexpr DWORD kInputMs = 50;
constexpr DWORD kStalledMs = 10;    // between two looks whether a stream takes more
constexpr DWORD kRoomMs = 5;        // between two looks whether there is room to print
constexpr DWORD kPatienceMs = 500;  // with a reader who stands still, after an interrupt

std::atomic<unsigned> shownLevel{0};

void pauseFor(DWORD ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace

void showLogLines(unsigned level) {
  shownLevel = level;
  const QMLogStreamC hooks(nullptr, nullptr, nullptr, [] { return shownLevel + 1; });
}

bool parseLogLevel(const std::string& text, unsigned& level) {
  long long number = 0;
  if (!parseNumber(text, 0LL, 99LL, number)) return false;
  level = static_cast<unsigned>(number);
  return true;
}

std::string sendable(std::string text) {
  std::ranges::replace(text, '\0', '?');
  return text;
}

void endThread(QMThreadC& thread) {
  (void)thread.stop();
  if (!thread.IsAlive()) return;
  // Its object cannot be destroyed under it.
  std::fputs("testtool: a thread does not end\n", stderr);
  std::_Exit(kFailure);
}

std::vector<LineCollector::Line> LineCollector::add(std::string_view piece) {
  std::vector<Line> lines;
  for (const char c : piece) {
    if (c == '\n') {
      if (pending_.ends_with('\r')) pending_.pop_back();
      lines.push_back({std::exchange(pending_, {}), true});
      continue;
    }
    // Cut only when it is sure that the line goes on: a CR may belong to its end.
    if (pending_.size() > kLongestLine || (pending_.size() == kLongestLine && c != '\r')) {
      lines.push_back({pending_.substr(0, kLongestLine), false});
      pending_.erase(0, kLongestLine);
    }
    pending_ += c;
  }
  return lines;
}

std::string LineCollector::rest() { return std::exchange(pending_, {}); }

void TextQueue::add(std::string_view text) {
  const std::lock_guard lock(mutex_);
  text_ += text;
}

std::string TextQueue::take(std::size_t most) {
  const std::lock_guard lock(mutex_);
  lastTake_ = Clock::now();
  if (text_.size() <= most) return std::exchange(text_, {});
  std::string first = text_.substr(0, most);
  text_.erase(0, most);
  return first;
}

std::size_t TextQueue::size() {
  const std::lock_guard lock(mutex_);
  return text_.size();
}

bool TextQueue::hasStoodStill(DWORD ms) {
  const std::lock_guard lock(mutex_);
  return text_.size() > kFullQueue && Clock::now() - lastTake_ > std::chrono::milliseconds(ms);
}

Console::Console() : arrived_(qm::platform::createEvent(false, false)) {}
Console::~Console() { qm::platform::closeHandle(arrived_); }

void Console::add(std::FILE* stream, std::string_view text) {
  {
    const std::lock_guard lock(mutex_);
    if (waiting_.empty() || waiting_.back().stream != stream) waiting_.push_back({stream, {}});
    waiting_.back().text += text;
    size_ += text.size();
  }
  qm::platform::setEvent(arrived_);
}

void Console::print(std::string_view text) {
  while (isFull() && !closed_) pauseFor(kRoomMs);
  add(stdout, text);
}

void Console::printLine(std::string_view prefix, std::string_view line) {
  print(std::string(prefix) + shownText(line) + "\n");
}

void Console::note(std::string_view line) { add(stderr, std::string(line) + "\n"); }

bool Console::goesOn() const { return !qm::platform::interrupted() && !failed_; }

bool Console::takeNext() {
  const std::lock_guard lock(mutex_);
  if (waiting_.empty()) return false;
  current_ = std::move(waiting_.front());
  waiting_.pop_front();
  written_ = 0;
  return true;
}

Console::Progress Console::write() {
  for (int i = 0; i < kPiecesAtOnce; ++i) {
    if (written_ == current_.text.size() && !takeNext()) return Progress::Done;
    const std::size_t count =
        std::min(current_.text.size() - written_, qm::platform::kOutputTakenAtOnce);
    if (!failed_ || current_.stream != stdout) {
      if (!qm::platform::takesOutput(current_.stream)) return Progress::Stalled;
      const bool isWritten =
          std::fwrite(current_.text.data() + written_, 1, count, current_.stream) == count &&
          std::fflush(current_.stream) == 0;
      if (!isWritten && current_.stream == stdout) failed_ = true;
    }
    written_ += count;
    size_ -= count;
  }
  return Progress::More;
}

std::string Console::step(bool wantsInput) {
  const Progress progress = write();
  const DWORD pause = progress == Progress::Done      ? kInputMs
                      : progress == Progress::Stalled ? kStalledMs
                                                      : 0;
  if (!wantsInput || inputHasEnded_) {
    (void)qm::platform::wait(arrived_, pause);
    return {};
  }
  std::string text(kReadAtOnce, '\0');
  const long count = qm::platform::readStandardInput(text.data(), text.size(), pause, arrived_);
  inputHasEnded_ = count == 0;
  text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return text;
}

void Console::finish() {
  close();
  DWORD stalledMs = 0;
  for (Progress progress; (progress = write()) != Progress::Done;) {
    stalledMs = progress == Progress::Stalled ? stalledMs + kStalledMs : 0;
    if (qm::platform::interrupted() && stalledMs > kPatienceMs) {
      if (current_.stream != stdout) return;
      failed_ = true;  // what else there is for it is dropped
    }
    if (progress == Progress::Stalled) pauseFor(kStalledMs);
  }
}

void LineLink::begin() {
  skipping_ = skipping_ || midLine_;
  midLine_ = false;
  hasSent_ = false;
}

QMErrors::QMErrorT LineLink::step(CQMSocketCommon& socket, const Receive& receive) {
  QMErrors::QMErrorT result;
  do {
    result = takeAndSend(socket, receive);
  } while (result == QMErrors::NoError && outgoing.size() != 0 && !socket.IsEndEventSignalled());
  return result;
}

QMErrors::QMErrorT LineLink::takeAndSend(CQMSocketCommon& socket, const Receive& receive) {
  char piece[kReadAtOnce];
  DWORD count = 0;
  const DWORD patience = outgoing.size() != 0 ? 0 : kListenMs;
  const QMErrors::QMErrorT received = receive(piece, sizeof piece, count, patience);
  for (const LineCollector::Line& line : lines_.add({piece, count})) {
    console_.printLine(prefix_, line.text);
    if (echo_) outgoing.add(sendable(line.ended ? line.text + "\n" : line.text));
  }
  if (received == QMErrors::NoError || received == QMErrors::CommandTimedOut) return send(socket);
  // A connection that does not end in good order was left by a peer that had not read everything.
  const bool inOrder =
      received == QMErrors::EndOfFileError || received == QMErrors::TheWaitWasForcedToExit;
  if (hasSent_ && !inOrder) hasLost_ = true;
  return received;
}

void LineLink::end() {
  const std::string rest = lines_.rest();
  if (!rest.empty()) console_.printLine(prefix_, rest);
}

std::string LineLink::nextText() {
  std::string text = outgoing.take(kSentAtOnce);
  if (!skipping_ || text.empty()) return text;
  hasLost_ = true;
  const std::size_t end = text.find('\n');
  skipping_ = end == std::string::npos;
  return skipping_ ? std::string() : text.substr(end + 1);
}

QMErrors::QMErrorT LineLink::send(CQMSocketCommon& socket) {
  sending_ = true;
  const std::string text = nextText();
  const QMErrors::QMErrorT sent = socket.Send(text.c_str());
  if (!text.empty()) {
    hasSent_ = true;
    midLine_ = !text.ends_with('\n');
    // A send that the end of the thread has cut short gives no error.
    if (sent != QMErrors::NoError || socket.IsEndEventSignalled()) hasLost_ = true;
  }
  sending_ = false;
  return sent;
}

}  // namespace programs
