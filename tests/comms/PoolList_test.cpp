#include "qmutils/comms/PoolList.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

using namespace qm;

namespace {

/// Their destinations and texts.
using Messages = std::vector<std::pair<std::uint16_t, std::string>>;

Messages contentOf(PoolSection& section) {
  Messages found;
  EXPECT_TRUE(PoolList(section).visit([&](const PoolSlot& slot) {
    found.emplace_back(slot.DestID, slot.Msg);
    return true;
  }));
  return found;
}

struct Pool {
  std::unique_ptr<PoolSection> memory = std::make_unique<PoolSection>();
  PoolSection& section = *memory;
  PoolList list{section};
  Pool() { list.initialise(); }

  void append(const std::string& text, std::uint16_t destination) {
    ASSERT_EQ(list.append(text, destination), PoolAppend::Added);
  }
};

TEST(PoolList, TakingKeepsTheOrderAndRemovesMessagesForNobodyInPassing) {
  // Every arrangement of six messages for nobody (0), for the receiver (5) and for another (7).
  for (int arrangement = 0; arrangement < 729; ++arrangement) {
    Pool pool;
    Messages all;
    for (int i = 0, rest = arrangement; i < 6; ++i, rest /= 3) {
      constexpr std::uint16_t kDestinations[] = {0, 5, 7};
      all.emplace_back(kDestinations[rest % 3], std::to_string(i));
      pool.append(all.back().second, all.back().first);
    }
    Messages left;
    bool taken = false;
    for (const auto& message : all) {
      const bool goes = !taken && message.first != 7;
      if (!goes) left.push_back(message);
      taken |= message.first == 5;
    }
    char buffer[256];
    EXPECT_EQ(pool.list.take(5, buffer, sizeof buffer), taken ? PoolTake::Taken : PoolTake::None);
    EXPECT_EQ(contentOf(pool.section), left) << "arrangement " << arrangement;
    EXPECT_TRUE(pool.list.isSound()) << "arrangement " << arrangement;
  }
}

// The state of the section at each step of an operation, as a killed process would leave it.
std::vector<PoolSection> snapshots;
const PoolSection* watched = nullptr;

void snapshotAtStep(PoolStep) { snapshots.push_back(*watched); }

std::vector<PoolSection> statesWithin(PoolSection& section,
                                      const std::function<void()>& operation) {
  snapshots.clear();
  snapshots.reserve(static_cast<std::size_t>(PoolStep::Count));
  watched = &section;
  poolStepHook = snapshotAtStep;
  operation();
  poolStepHook = nullptr;
  return std::move(snapshots);
}

TEST(PoolList, ADeathAtAnyStepLeavesWhatWasThereBeforeOrAfter) {
  std::mt19937 random(4711);
  Pool pool;
  int changesSeen = 0;
  int undoneSeen = 0;
  for (int round = 0; round < 800; ++round) {
    const Messages before = contentOf(pool.section);
    const bool add = before.size() < 2 || (before.size() < 9 && random() % 2 == 0);
    const auto id = static_cast<std::uint16_t>(1 + random() % 3);
    const auto states = statesWithin(pool.section, [&] {
      char buffer[256];
      if (add) {
        pool.list.append("m" + std::to_string(round), id);
      } else {
        pool.list.take(id, buffer, sizeof buffer);
      }
    });
    const Messages after = contentOf(pool.section);
    bool happened = false;
    for (PoolSection torn : states) {
      PoolList list(torn);
      // A repair may be cut short at any of its steps, too, and is then done again.
      for (PoolSection tornAgain : statesWithin(torn, [&] { list.repair(); })) {
        PoolList again(tornAgain);
        again.repair();
        ASSERT_TRUE(again.isSound());
        ASSERT_EQ(contentOf(tornAgain), contentOf(torn));
      }
      ASSERT_TRUE(list.isSound());
      const Messages repaired = contentOf(torn);
      ASSERT_TRUE(repaired == before || repaired == after);
      if (before == after) continue;
      // Once decided, a change stays decided.
      ASSERT_TRUE(!happened || repaired == after);
      happened = repaired == after;
      (happened ? changesSeen : undoneSeen)++;
    }
  }
  EXPECT_GT(changesSeen, 500);
  EXPECT_GT(undoneSeen, 500);
}

TEST(PoolList, WildContentIsRepairedAndNeverFollowed) {
  std::mt19937 random(1);
  for (int round = 0; round < 20'000; ++round) {
    Pool pool;
    const unsigned messages = random() % 6;
    for (unsigned i = 0; i < messages; ++i) {
      pool.append("text", static_cast<std::uint16_t>(random() % 3));
    }
    // A few wild numbers among the links, near the valid ones or far off.
    for (unsigned i = 0; i < 1 + random() % 4; ++i) {
      const auto wild = static_cast<std::uint16_t>(random() % 2 ? random() % 8 : random());
      PoolSlot& slot = pool.section.slots[random() % 6];
      std::uint16_t* const indices[] = {&pool.section.nMessages,
                                        &pool.section.start_of_list,
                                        &pool.section.end_of_list,
                                        &slot.next,
                                        &slot.prev,
                                        &slot.index};
      const unsigned what = random() % 9;
      if (what < 6) *indices[what] = wild;
      if (what == 6) slot.Taken = wild % 2;
      if (what == 7) slot.DestID = wild % 3;
      if (what == 8) std::memset(slot.Msg, 'x', sizeof slot.Msg);
    }
    char buffer[256];
    for (int i = 0; i < 8; ++i) {
      if (pool.list.take(static_cast<std::uint16_t>(1 + random() % 2), buffer, sizeof buffer) ==
              PoolTake::Damaged ||
          pool.list.append("more", 1) == PoolAppend::Damaged) {
        pool.list.repair();
        ASSERT_TRUE(pool.list.isSound());
        ASSERT_NE(pool.list.take(1, buffer, sizeof buffer), PoolTake::Damaged);
        ASSERT_EQ(pool.list.append("more", 1), PoolAppend::Added);
      }
      pool.list.visit([](const PoolSlot& slot) { return std::strlen(slot.Msg) < 256; });
    }
  }
}

}  // namespace
