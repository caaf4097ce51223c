// A sound card of a test's own, as a plug-in of the sound system: it plays in real time, by the
// clock it is given, and does what cards do at the worst moment.
#pragma once

#include <atomic>
#include <cstdint>

namespace qmtest {

struct Card {
  // The test's side; may be changed at any time.
  std::atomic<std::int64_t (*)()> clock{nullptr};  // nanoseconds
  std::atomic<double> speed{1};                    // 0: stuck
  std::atomic<bool> busy{false};
  std::atomic<bool> unplugged{false};
  std::atomic<bool> runsDry{false};  // once

  // What has happened; frames.
  std::atomic<std::uint64_t> written{0};
  std::atomic<std::uint64_t> heard{0};
  std::atomic<int> prepared{0};
  std::atomic<int> started{0};
  std::atomic<int> open{0};
};

}  // namespace qmtest

/// The one card of the process.
extern "C" qmtest::Card* testCard();
