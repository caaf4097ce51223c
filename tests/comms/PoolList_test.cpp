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

struct Message {
  std::uint16_t destination;
  std::string text;
  bool operator==(const Message&) const = default;
};
using Messages = std::vector<Message>;

Messages contentOf(PoolSection& section) {
  Messages found;
  EXPECT_TRUE(PoolList(section).visit([&](const PoolSlot& slot) {
    found.push_back({slot.DestID, slot.Msg});
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
  std::string take(std::uint16_t receiver) {
    char buffer[256] = "none";
    list.take(receiver, buffer, sizeof buffer);
    return buffer;
  }
};

TEST(PoolList, MessagesKeepTheirOrderWhoeverTheyAreFor) {
  Pool pool;
  pool.append("a", 5);
  pool.append("b", 7);
  pool.append("c", 5);
  EXPECT_EQ(pool.take(5), "a");
  EXPECT_EQ(contentOf(pool.section), (Messages{{7, "b"}, {5, "c"}}));
  EXPECT_EQ(pool.section.start_of_list, 1);
  // The lowest free slot is used again, behind the newest message.
  pool.append("d", 5);
  EXPECT_EQ(pool.section.end_of_list, 0);
  EXPECT_EQ(pool.take(5), "c");
  EXPECT_EQ(pool.take(5), "d");
  EXPECT_EQ(pool.take(5), "none");
  EXPECT_EQ(pool.take(7), "b");
  EXPECT_EQ(pool.section.start_of_list, 0);
  EXPECT_EQ(pool.section.end_of_list, 0);
  EXPECT_TRUE(pool.list.isSound());
}

TEST(PoolList, MessagesForNobodyAreRemovedInPassing) {
  // Every arrangement of six messages for nobody (0), for the receiver (5) and for another (7).
  for (int arrangement = 0; arrangement < 729; ++arrangement) {
    Pool pool;
    Messages all;
    for (int i = 0, rest = arrangement; i < 6; ++i, rest /= 3) {
      constexpr std::uint16_t kDestinations[] = {0, 5, 7};
      all.push_back({kDestinations[rest % 3], std::to_string(i)});
      pool.append(all.back().text, all.back().destination);
    }
    Messages left;
    bool taken = false;
    for (const Message& message : all) {
      if (!taken && message.destination == 5) {
        taken = true;
      } else if (taken || message.destination != 0) {
        left.push_back(message);
      }
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
      switch (random() % 9) {
        case 0:
          pool.section.nMessages = wild;
          break;
        case 1:
          pool.section.start_of_list = wild;
          break;
        case 2:
          pool.section.end_of_list = wild;
          break;
        case 3:
          slot.next = wild;
          break;
        case 4:
          slot.prev = wild;
          break;
        case 5:
          slot.index = wild;
          break;
        case 6:
          slot.Taken = wild % 2;
          break;
        case 7:
          slot.DestID = wild % 3;
          break;
        case 8:
          std::memset(slot.Msg, 'x', sizeof slot.Msg);
          break;
      }
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

TEST(PoolList, RepairKeepsTheChainAndFreesTheRest) {
  Pool pool;
  for (const char* text : {"a", "b", "c", "d"}) pool.append(text, 5);
  // Back to the second message: a circle.
  pool.section.slots[3].next = 1;
  pool.section.slots[9].Taken = 1;
  pool.section.nMessages = 77;
  pool.list.repair();
  EXPECT_TRUE(pool.list.isSound());
  EXPECT_EQ(contentOf(pool.section), (Messages{{5, "a"}, {5, "b"}, {5, "c"}, {5, "d"}}));
  // A chain that leaves the pool ends there.
  pool.section.slots[1].next = 200;
  pool.list.repair();
  EXPECT_EQ(contentOf(pool.section), (Messages{{5, "a"}, {5, "b"}}));
}

}  // namespace
