// The pool between processes: who holds what when one of them closes, ends or dies.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "qmutils/comms/SvComms.h"
#include "tests/comms/PoolFixture.h"

using qmtest::Child;
using qmtest::DebugLines;
using qmtest::OpenObjects;
using qmtest::receive;
using qmtest::Signal;

namespace {

using SvCommsProcesses = qmtest::PoolTest;

TEST_F(SvCommsProcesses, TheClosingThreadKeepsTheMutex) {
  Signal closed, mayOpen, opened, mayEnd;
  ASSERT_EQ(SvOpenComms(5), 0);
  Child other([&] {
    if (SvOpenComms(6) != 0) return 1;
    SvCloseComms();
    closed.post();
    if (!mayOpen.wait()) return 2;
    if (SvOpenComms(6) != 0) return 3;
    opened.post();
    if (!mayEnd.wait()) return 4;
    SvCloseComms();
    return 0;
  });
  ASSERT_TRUE(closed.wait());
  EXPECT_EQ(SvSendMessage("blocked", 50, 5), 2013);
  char buffer[4];
  // Without a message the event is not set and nobody asks for the mutex.
  EXPECT_EQ(SvReceiveMessage(buffer, sizeof buffer, 50), 2013);
  EXPECT_EQ(SvReceiveMultipleMessages(buffer, sizeof buffer, 50), 0);
  mayOpen.post();
  ASSERT_TRUE(opened.wait());
  // Opening again ends the ownership,
  EXPECT_EQ(SvSendMessage("free", 1000, 5), 0);
  mayEnd.post();
  EXPECT_EQ(other.wait(), 0);
  // and so does the end of the thread.
  EXPECT_EQ(SvSendMessage("free", 1000, 5), 0);
  EXPECT_EQ(receive(), "free");
  EXPECT_EQ(receive(), "free");
}

TEST_F(SvCommsProcesses, AThreadThatClosedAndEndedLeavesTheMutexAbandoned) {
  DebugLines lines;
  Signal ready, mayClose, closed, mayEnd;
  Child other([&] {
    if (SvOpenComms(6) != 0) return 1;
    ready.post();
    if (!mayEnd.wait()) return 2;
    SvCloseComms();
    return 0;
  });
  ASSERT_TRUE(ready.wait());
  ASSERT_EQ(SvOpenComms(5), 0);
  for (int i = 0; i < 3; ++i) {
    std::thread([&] { SvCloseComms(); }).join();
    // The same object is opened again while a dead thread's ownership hangs on it.
    ASSERT_EQ(SvOpenComms(5), 0);
    ASSERT_EQ(SvSendMessage("text", 1000, 5), 0);
    EXPECT_EQ(receive(), "text");
  }
  SvCloseComms();
  mayEnd.post();
  // Its close waits until this thread gives the mutex up, which only the opening does.
  EXPECT_EQ(other.wait(300), -1);
  ASSERT_EQ(SvOpenComms(5), 0);
  EXPECT_EQ(other.wait(), 0);
  for (const std::string& line : lines.take()) EXPECT_EQ(line.find("Repaired"), line.npos) << line;
}

TEST_F(SvCommsProcesses, WhenAllUsersAreKilledTheNextOpenStartsAfresh) {
  Signal ready;
  const auto sendAndWait = [&ready](unsigned short id) {
    if (SvOpenComms(id) != 0 || SvSendMessage("left behind", 1000, 9) != 0) return 1;
    ready.post();
    receive(60'000);
    return 2;
  };
  for (int round = 0; round < 5; ++round) {
    Child users[] = {Child([&] { return sendAndWait(1); }), Child([&] { return sendAndWait(2); })};
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(ready.wait());
    for (Child& user : users) user.kill();
    for (Child& user : users) EXPECT_EQ(user.wait(), 128 + SIGKILL);
    ASSERT_EQ(SvOpenComms(9), 0);
    EXPECT_EQ(SvGetCommsOSError(), 0u) << "not a new section";
    EXPECT_EQ(receive(), "2013");
    SvCloseComms();
  }
}

qm::PoolStep fatalStep;
void dieAtFatalStep(qm::PoolStep step) {
  if (step == fatalStep) ::kill(::getpid(), SIGKILL);
}

TEST_F(SvCommsProcesses, WhoeverComesNextCompletesWhatTheDeadBegan) {
  ASSERT_EQ(SvOpenComms(5), 0);
  OpenObjects objects;
  ASSERT_TRUE(objects.open());
  qm::PoolList list = objects.list();
  // Sending into the empty pool, sending behind another message, receiving.
  int died[3] = {};
  for (int step = 0; step < static_cast<int>(qm::PoolStep::Count); ++step) {
    fatalStep = static_cast<qm::PoolStep>(step);
    for (int way = 0; way < 3; ++way) {
      const bool sends = way < 2;
      Child victim([&] {
        if (SvOpenComms(6) != 0) return 1;
        if (way > 0 && SvSendMessage("other", 1000, sends ? 9 : 6) != 0) return 1;
        qm::poolStepHook = dieAtFatalStep;
        if (sends) SvSendMessage("last", 1000, 5);
        if (!sends) receive(1000);
        return 0;
      });
      died[way] += victim.wait() == 128 + SIGKILL;
      // The store that decides: marking the first message, linking every other one.
      const bool decided =
          fatalStep > (way == 0 ? qm::PoolStep::AppendFilled : qm::PoolStep::AppendMarked) &&
          fatalStep != qm::PoolStep::Acquired;
      // A receiver that sleeps on the event, which the dead may not have set, still sees what came.
      const std::string received = receive(sends && decided ? 10'000 : 30);
      const std::string where = "step " + std::to_string(step) + ", way " + std::to_string(way);
      EXPECT_EQ(received, sends && decided ? "last" : "2013") << where;
      // A receiver that found nothing looked at the mutex, so nothing half done is left.
      EXPECT_TRUE(list.isSound()) << where;
      EXPECT_EQ(objects.eventIsSet(), list.count() > 0) << where;
      // Whoever opens as 6 and 9 next purges what is left.
      EXPECT_EQ(SvOpenComms(6), 0);
      EXPECT_EQ(SvOpenComms(9), 0);
      EXPECT_EQ(list.count(), 0) << where;
      EXPECT_FALSE(objects.eventIsSet()) << where;
      EXPECT_EQ(SvOpenComms(5), 0);
    }
  }
  EXPECT_GE(died[0], 9);
  EXPECT_GE(died[1], 9);
  EXPECT_GE(died[2], 8);
}

TEST_F(SvCommsProcesses, AWildSectionIsRepairedByWhoeverMeetsIt) {
  ASSERT_EQ(SvOpenComms(5), 0);
  const auto scribble = [&](std::size_t offset, const std::string& bytes) {
    std::fstream file(pathOf("Queue"));
    file.seekp(static_cast<std::streamoff>(offset)) << bytes;
  };
  const auto twoMessages = [] {
    for (const char* text : {"a", "b"}) ASSERT_EQ(SvSendMessage(text, 1000, 5), 0);
  };
  DebugLines lines;
  const struct {
    const char* what;
    std::size_t offset;
    std::string bytes, received;
  } kCases[] = {
      {"start_of_list", 8, "\xC8\xFF", "c"},
      {"end_of_list", 10, "\xC8\xFF", "abc"},
      {"next of slot 0", 276, "\xC8\xFF", "a"},
      {"nMessages", 0, std::string(2, '\0'), "abc"},
      {"next of slot 1: a circle", 548, std::string(2, '\0'), "abc"},
  };
  for (const auto& c : kCases) {
    twoMessages();
    scribble(c.offset, c.bytes);
    EXPECT_EQ(SvSendMessage("c", 1000, 5), 0) << c.what;
    std::string received;
    for (std::string text = receive(); text != "2013"; text = receive()) received += text;
    EXPECT_EQ(received, c.received) << c.what;
  }
  int repairs = 0;
  for (const auto& line : lines.take()) repairs += line.starts_with("1 Repaired the pool");
  EXPECT_EQ(repairs, 5);
  twoMessages();
  scribble(12, std::string(256, 'x'));
  EXPECT_EQ(receive(), std::string(255, 'x'));
  EXPECT_EQ(receive(), "b");
}

}  // namespace
