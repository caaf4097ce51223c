// Processes that use the pool are killed all the time, from outside every few milliseconds and by
// themselves at chosen steps inside sending, taking and repairing. Nothing may be torn, doubled,
// out of order or lost, and nothing may hang.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/comms/PoolList.h"
#include "qmutils/comms/SvComms.h"
#include "qmutils/foundation/QMDBprintf.h"
#include "tests/comms/PoolFixture.h"

using namespace qm;
using qmtest::secondsOf;

namespace {

constexpr int kSenders = 3;
constexpr int kReceivers = 3;
constexpr int kBatchReceiver = kReceivers - 1;  // takes all at once
constexpr int kUsers = kSenders + kReceivers;
constexpr std::uint32_t kMessagesPerSender = 16'000'000;
constexpr int kKills = 3'200;
constexpr int kKillsWithMutex = 150;
constexpr DWORD kCallMs = 400;
constexpr double kSlackSeconds = 4;

// What became of a message. The receiver stands beside it in the upper bits.
constexpr std::uint8_t kSent = 1;      // the send has returned
constexpr std::uint8_t kReceived = 2;  // taken and noted
constexpr std::uint8_t kPurged = 4;    // discarded by the receiver's reopening, and logged
constexpr std::uint8_t kWaiting = 8;   // still in the pool at the end
constexpr int kReceiverShift = 4;

/// What all processes of a run write down; it outlives each of them.
struct Ledger {
  std::atomic<bool> stop;
  std::atomic<bool> mayDie;
  std::atomic<std::uint32_t> tried[kSenders];
  /// The newest message of each sender that each receiver has seen.
  std::atomic<std::uint32_t> seen[kReceivers][kSenders];
  std::atomic<std::uint32_t> torn, doubled, disordered, late, failed;
  std::atomic<std::uint32_t> repairs, selfKillsWithMutex;
  std::atomic<std::uint32_t> stepsDiedAt[static_cast<int>(PoolStep::Count)];
  std::atomic<std::uint8_t> messages[kSenders][kMessagesPerSender];
};

Ledger* ledger = nullptr;
int self = 0;  // this process's number among the users

std::uint16_t identifierOf(int receiver) { return static_cast<std::uint16_t>(receiver + 1); }

/// Lengths from short to cut; every byte depends on sender and number.
std::string textOf(int sender, std::uint32_t number, int receiver) {
  std::string text =
      std::to_string(sender) + ';' + std::to_string(number) + ';' + std::to_string(receiver) + ';';
  const std::size_t length = text.size() + (number * 37u) % 200;
  while (text.size() < length) {
    text +=
        static_cast<char>('a' + (text.size() * 7 + number + static_cast<unsigned>(sender)) % 26);
  }
  return text;
}

void mark(int sender, std::uint32_t number, std::uint8_t what) {
  const std::uint8_t before = ledger->messages[sender][number].fetch_or(what);
  if ((what & kSent) == 0 && (before & (kReceived | kPurged | kWaiting)) != 0) ++ledger->doubled;
}

/// Notes a message that reached receiver `receiver`, in whatever way.
void note(int receiver, const char* text, std::uint8_t what) {
  int sender = 0, addressed = 0;
  unsigned number = 0;
  if (std::sscanf(text, "%d;%u;%d;", &sender, &number, &addressed) != 3 || sender < 0 ||
      sender >= kSenders || addressed != receiver || number >= kMessagesPerSender ||
      text != textOf(sender, number, receiver)) {
    ++ledger->torn;
    return;
  }
  mark(sender, number, what);
  if (number <= ledger->seen[receiver][sender].exchange(number)) ++ledger->disordered;
}

void notePurged(unsigned, int, char* line) {
  constexpr char kStart[] = "Message = <";
  if (std::strncmp(line, kStart, sizeof kStart - 1) != 0) return;
  std::string text = line + sizeof kStart - 1;
  text.resize(text.size() - std::strlen(">\r\n"));
  note(self - kSenders, text.c_str(), kPurged);
}

// ---- Dying ------------------------------------------------------------------------------------

std::mt19937 dice;
PoolStep fatalStep;
int occurrencesLeft = 0;

void chooseDeath(unsigned seed) {
  dice.seed(seed);
  fatalStep = static_cast<PoolStep>(dice() % static_cast<unsigned>(PoolStep::Count));
  // Repairs are rare, so a process that is to die in one dies in the first it does.
  const bool rare = (fatalStep >= PoolStep::RepairBegun && fatalStep <= PoolStep::RepairCounted) ||
                    fatalStep == PoolStep::Repaired || fatalStep == PoolStep::WokenEverybody;
  occurrencesLeft = rare ? 1 : 1 + static_cast<int>(dice() % 200);
}

void dieAtStep(PoolStep step) {
  if (step == PoolStep::RepairBegun) ++ledger->repairs;
  if (step != fatalStep || !ledger->mayDie || --occurrencesLeft > 0) return;
  ++ledger->stepsDiedAt[static_cast<int>(step)];
  if (step != PoolStep::Released) ++ledger->selfKillsWithMutex;
  ::kill(::getpid(), SIGKILL);
}

// ---- The users --------------------------------------------------------------------------------

/// What `call` gives. It must not take much longer than a call may.
int inTime(const std::function<int()>& call) {
  int code;
  if (secondsOf([&] { code = call(); }) > kCallMs / 1000.0 + kSlackSeconds) ++ledger->late;
  return code;
}

void openPool(std::uint16_t identifier) {
  while (inTime([&] { return SvOpenComms(identifier); }) != 0) ++ledger->failed;
}

void beSender(int sender) {
  openPool(static_cast<std::uint16_t>(100 + sender));
  while (!ledger->stop) {
    const std::uint32_t number = ++ledger->tried[sender];
    if (number >= kMessagesPerSender) {
      // Enough for any machine; from here on the receivers alone are killed at work.
      --ledger->tried[sender];
      qmtest::pause(1);
      continue;
    }
    const int receiver = static_cast<int>(dice() % kReceivers);
    const std::string text = textOf(sender, number, receiver);
    const int code =
        inTime([&] { return SvSendMessage(text.c_str(), kCallMs, identifierOf(receiver)); });
    if (code == 0) {
      mark(sender, number, static_cast<std::uint8_t>(kSent | receiver << kReceiverShift));
    } else if (code != QMErrors::CommandTimedOut) {
      ++ledger->failed;
    }
  }
}

void beReceiver(int receiver) {
  openPool(identifierOf(receiver));
  const bool all = receiver == kBatchReceiver;
  std::vector<char> buffer(kPoolSlots * kPoolTextSize + 1);
  while (!ledger->stop) {
    const int code = inTime([&] {
      return all ? SvReceiveMultipleMessages(buffer.data(), static_cast<int>(buffer.size()),
                                             kCallMs)
                 : SvReceiveMessage(buffer.data(), kPoolTextSize, kCallMs);
    });
    if (code != 0 && code != QMErrors::CommandTimedOut) ++ledger->failed;
    if (code != 0) continue;
    for (const char* text = buffer.data(); *text != '\0'; text += std::strlen(text) + 1) {
      note(receiver, text, kReceived);
      if (!all) break;
    }
  }
}

/// Runs in a forked process. It ends without closing: that is left to the dead.
int beUser(int user, unsigned seed) {
  self = user;
  chooseDeath(seed);
  poolStepHook = dieAtStep;
  QMDBNewRegisterCallback(user >= kSenders ? notePurged : nullptr);
  user < kSenders ? beSender(user) : beReceiver(user - kSenders);
  return 0;
}

// ---- The killer -------------------------------------------------------------------------------

class PoolKill : public qmtest::PoolTest {
 protected:
  void SetUp() override {
    PoolTest::SetUp();
    void* memory = ::mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    // Fresh memory is all zero, which is every member's first value.
    ledger = static_cast<Ledger*>(memory);
    ledger->mayDie = true;
    // The killer has the pool open, so that it lives from the first to the last message.
    ASSERT_EQ(SvOpenComms(999), 0);
    ASSERT_TRUE(pool_.open());
  }
  void TearDown() override {
    for (qmtest::Child& user : users_) user = {};
    pool_.close(false);
    ::munmap(ledger, sizeof(Ledger));
    PoolTest::TearDown();
  }

  void start(int user) {
    users_[user] = qmtest::Child([user, seed = random_()] { return beUser(user, seed); });
  }

  void reapTheDead() {
    for (int user = 0; user < kUsers; ++user) {
      const int status = users_[user].wait(0);
      if (status == -1) continue;
      ASSERT_EQ(status, 128 + SIGKILL);
      ++kills_[user];
      ++totalKills_;
      start(user);
    }
  }

  /// With the mutex: repairs what a dead owner left, as every user does, and looks at the list.
  void expectSoundPool() {
    PoolList list = pool_.list();
    const DWORD result = pool_.take();
    ASSERT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) << result;
    if (result == WAIT_ABANDONED) {
      ++repairsByKiller_;
      list.repair();
      list.count() > 0 ? pool_.setEvent() : pool_.resetEvent();
      pool_.wakeEverybody();
      pool_.declareRepaired();
    }
    const bool sound = list.isSound();
    const bool eventAgrees = pool_.eventIsSet() == (list.count() > 0);
    pool_.leave();
    ASSERT_TRUE(sound);
    ASSERT_TRUE(eventAgrees);
  }

  qmtest::OpenObjects pool_;
  qmtest::Child users_[kUsers];
  int kills_[kUsers] = {};
  int totalKills_ = 0;
  int repairsByKiller_ = 0;
  std::mt19937 random_{12345};
};

TEST_F(PoolKill, NothingIsTornDoubledDisorderedOrLost) {
  for (int user = 0; user < kUsers; ++user) start(user);
  const auto end = qm::platform::Deadline::after(240'000);
  while (totalKills_ < kKills && !HasFatalFailure()) {
    ASSERT_FALSE(end.passed()) << "after " << totalKills_ << " kills";
    std::this_thread::sleep_for(std::chrono::microseconds(500 + random_() % 5000));
    if (random_() % 2 == 0) users_[random_() % kUsers].kill();
    reapTheDead();
    // Now and then only, so that most abandoned mutexes are met by the users.
    if (random_() % 4 == 0) expectSoundPool();
  }
  ledger->mayDie = false;
  ledger->stop = true;
  for (qmtest::Child& user : users_) {
    const int status = user.wait();
    EXPECT_TRUE(status == 0 || status == 128 + SIGKILL) << "status " << status;
  }
  expectSoundPool();
  ASSERT_TRUE(pool_.list().visit([](const PoolSlot& slot) {
    note(slot.DestID - 1, slot.Msg, kWaiting);
    return true;
  }));

  std::uint32_t received = 0, lost[kReceivers] = {};
  for (int sender = 0; sender < kSenders; ++sender) {
    for (std::uint32_t number = 1; number <= ledger->tried[sender]; ++number) {
      const std::uint8_t state = ledger->messages[sender][number];
      received += (state & kReceived) != 0;
      const bool arrived = (state & (kReceived | kPurged | kWaiting)) != 0;
      if ((state & kSent) != 0 && !arrived) ++lost[state >> kReceiverShift];
    }
  }
  std::printf("%d kills, %u repairs by users, %d by the killer, %u messages received\n",
              totalKills_, ledger->repairs.load(), repairsByKiller_, received);
  EXPECT_EQ(ledger->torn, 0u);
  EXPECT_EQ(ledger->doubled, 0u);
  EXPECT_EQ(ledger->disordered, 0u);
  EXPECT_EQ(ledger->late, 0u);
  EXPECT_EQ(ledger->failed, 0u);
  // A receiver that dies between taking and noting costs that one message, or that one batch.
  for (int receiver = 0; receiver < kReceivers; ++receiver) {
    const int atOnce = receiver == kBatchReceiver ? kPoolSlots : 1;
    EXPECT_LE(lost[receiver], static_cast<unsigned>(kills_[kSenders + receiver] * atOnce));
  }
  // Or the run has proved nothing.
  EXPECT_GE(ledger->repairs, static_cast<std::uint32_t>(kKillsWithMutex));
  EXPECT_GE(ledger->selfKillsWithMutex, static_cast<std::uint32_t>(kKillsWithMutex));
  EXPECT_GT(received, 20'000u);
  for (int step = 0; step < static_cast<int>(PoolStep::Count); ++step) {
    EXPECT_GT(ledger->stepsDiedAt[step], 0u) << "nobody died at step " << step;
  }
}

}  // namespace
