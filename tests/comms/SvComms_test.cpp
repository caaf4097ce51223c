#include "qmutils/comms/SvComms.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qmutils/platform/thread.h"
#include "qmutils/platform/waitable.h"
#include "tests/comms/PoolFixture.h"
#include "tests/support/TempFolder.h"

using qmtest::Child;
using qmtest::DebugLines;
using qmtest::Names;
using qmtest::pause;
using qmtest::receive;
using qmtest::secondsOf;
using qmtest::Signal;
using qmtest::writeFile;
using Lines = std::vector<std::string>;

namespace {

using SvCommsOpening = qmtest::PoolTest;

// ---- Sending and receiving --------------------------------------------------------------------

/// Has the pool open as 5.
class SvComms : public qmtest::PoolTest {
 protected:
  void SetUp() override {
    PoolTest::SetUp();
    ASSERT_EQ(SvOpenComms(5), 0);
  }
};

TEST_F(SvComms, EachReceiverGetsItsMessagesInOrder) {
  EXPECT_EQ(SvSendMessage("first", 0, 5), 0);
  EXPECT_EQ(SvSendMessage("other", 0, 7), 0);
  EXPECT_EQ(SvSendMessage("second", 0, 5), 0);
  EXPECT_EQ(SvSendMessage("nobody", 0, 0), 0);
  EXPECT_EQ(SvSendMessage(nullptr, 0, 5), 0);
  EXPECT_EQ(receive(), "first");
  EXPECT_EQ(receive(), "second");
  EXPECT_EQ(receive(), "");
  EXPECT_EQ(receive(), "2013");
  // Another identifier takes the place of the former; what waited for it goes.
  ASSERT_EQ(SvOpenComms(7), 0);
  EXPECT_EQ(SvGetCommsOSError(), 183u);
  EXPECT_EQ(receive(), "2013");
  EXPECT_EQ(SvSendMessage("again", 0, 7), 0);
  EXPECT_EQ(receive(), "again");
}

TEST_F(SvComms, TextsAreCutAndBuffersFilledUp) {
  const std::string text(300, 'x');
  ASSERT_EQ(SvSendMessage(text.c_str(), 0, 5), 0);
  EXPECT_EQ(receive(), text.substr(0, 255));
  ASSERT_EQ(SvSendMessage("abcdef", 0, 5), 0);
  char buffer[8];
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(SvReceiveMessage(buffer, 4, 0), 0);
  EXPECT_EQ(std::string(buffer, 8), std::string("abc\0####", 8));
  ASSERT_EQ(SvSendMessage("a", 0, 5), 0);
  EXPECT_EQ(SvReceiveMessage(buffer, 7, 0), 0);
  EXPECT_EQ(std::string(buffer, 8), std::string("a\0\0\0\0\0\0#", 8));
  for (int size : {0, -1}) {
    EXPECT_EQ(SvReceiveMessage(buffer, size, 0), 124);
    EXPECT_EQ(SvReceiveMultipleMessages(buffer, size, 0), 124);
  }
  EXPECT_EQ(SvReceiveMessage(nullptr, 8, 0), 124);
  EXPECT_EQ(buffer[0], 'a');
}

TEST_F(SvComms, ReceiveAllPacksTheTexts) {
  char buffer[12];
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(SvReceiveMultipleMessages(buffer, sizeof buffer, 20), 0);
  EXPECT_EQ(buffer[0], '\0');
  const auto sendAll = [](std::initializer_list<const char*> texts) {
    for (const char* text : texts) ASSERT_EQ(SvSendMessage(text, 0, 5), 0);
    ASSERT_EQ(SvSendMessage("other", 0, 7), 0);
  };
  sendAll({"a", "bc", ""});
  ASSERT_EQ(SvReceiveMultipleMessages(buffer, sizeof buffer, 0), 0);
  EXPECT_EQ(std::string(buffer, 12), std::string("a\0bc\0\0\0\0\0\0\0\0", 12));
  // No room: the messages leave the pool all the same, and nothing is written beyond the buffer.
  std::memset(buffer, '#', sizeof buffer);
  sendAll({"a", "bcd", "efg"});
  ASSERT_EQ(SvReceiveMultipleMessages(buffer, 5, 0), 0);
  EXPECT_EQ(std::string(buffer, 7), std::string("a\0bc\0##", 7));
  EXPECT_EQ(receive(), "2013");
  // Somebody else's messages keep the event signalled; the result is the same.
  const double seconds =
      secondsOf([&] { EXPECT_EQ(SvReceiveMultipleMessages(buffer, sizeof buffer, 150), 0); });
  EXPECT_GE(seconds, 0.149);
  EXPECT_EQ(buffer[0], '\0');
}

TEST_F(SvComms, AFullPoolMakesSendersWait) {
  EXPECT_EQ(SvIsOverloaded(), 0);
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(SvIsOverloaded(), i >= 180 ? 1 : 0) << i;
    ASSERT_EQ(SvSendMessage(std::to_string(i).c_str(), 0, i < 100 ? 5 : 7), 0) << i;
  }
  EXPECT_LT(secondsOf([] { EXPECT_EQ(SvSendMessage("more", 0, 5), 2013); }), 0.09);
  const double seconds = secondsOf([] { EXPECT_EQ(SvSendMessage("more", 250, 5), 2013); });
  EXPECT_GE(seconds, 0.249);
  EXPECT_LT(seconds, 2);

  // A waiting sender is woken as soon as a slot comes free, not only when it looks by itself.
  int next = 0;
  const double delay = qmtest::medianOf(9, [&] {
    std::atomic<int> sent{-1};
    std::thread sender([&] { sent = SvSendMessage("waited", 30'000, 5); });
    pause(5);
    EXPECT_EQ(sent, -1);
    const double seconds = secondsOf([&] {
      EXPECT_EQ(receive(), std::to_string(next++));
      sender.join();
    });
    EXPECT_EQ(sent, 0);
    return seconds;
  });
  EXPECT_LT(delay, 0.04);
  while (next < 100) ASSERT_EQ(receive(), std::to_string(next++));
  for (int i = 0; i < 9; ++i) EXPECT_EQ(receive(), "waited");
}

int isWanted(const char* text, void* context) {
  auto& seen = *static_cast<Names*>(context);
  seen.push_back(text);
  return std::strcmp(text, "wanted") == 0;
}

TEST_F(SvComms, PendingMessagesAreLookedAtAndStay) {
  Names seen;
  EXPECT_EQ(SvHavePendingMessage(isWanted, &seen), 0);
  for (const char* text : {"a", "wanted", "b"}) ASSERT_EQ(SvSendMessage(text, 0, 5), 0);
  ASSERT_EQ(SvSendMessage("wanted", 0, 7), 0);
  EXPECT_EQ(SvHavePendingMessage(isWanted, &seen), 1);
  EXPECT_EQ(seen, (Names{"a", "wanted"}));
  receive();
  receive();
  EXPECT_EQ(SvHavePendingMessage(isWanted, &seen), 0);
  EXPECT_EQ(SvHavePendingMessage(nullptr, nullptr), 0);
  EXPECT_EQ(receive(), "b");
}

TEST_F(SvCommsOpening, AReceiverIsWokenAtOnce) {
  // Whether the pool is empty (the receiver sleeps on the event) or holds messages for somebody
  // else (it sleeps on its doorbell). Looks of its own come only every 100 ms, so ten messages one
  // after the other would take a second.
  for (const bool othersWait : {false, true}) {
    Signal ready;
    Child echo([&] {
      if (SvOpenComms(2) != 0) return 1;
      ready.post();
      while (receive(20'000) == "ping") {
        if (SvSendMessage("pong", 1000, 1) != 0) return 2;
      }
      SvCloseComms();
      return 0;
    });
    ASSERT_EQ(SvOpenComms(1), 0);
    ASSERT_TRUE(ready.wait());
    ASSERT_EQ(othersWait ? SvSendMessage("for another", 0, 3) : 0, 0);
    const double trip = qmtest::medianOf(11, [] {
      pause(3);
      return secondsOf([] {
        EXPECT_EQ(SvSendMessage("ping", 1000, 2), 0);
        EXPECT_EQ(receive(5000), "pong");
      });
    });
    EXPECT_LT(trip, 0.04) << "others wait: " << othersWait;
    EXPECT_EQ(SvSendMessage("quit", 1000, 2), 0);
    EXPECT_EQ(echo.wait(), 0);
    SvCloseComms();
  }
}

TEST_F(SvComms, ManyThreadsShareTheConnection) {
  constexpr int kThreads = 4, kMessages = 500;
  std::atomic<int> received{0}, failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kMessages; ++i) {
        if (SvSendMessage("text", 30'000, 5) != 0) ++failures;
        SvIsOverloaded();
      }
    });
    threads.emplace_back([&] {
      while (received < kThreads * kMessages) {
        if (receive(20) == "text") ++received;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(received, kThreads * kMessages);
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(receive(), "2013");
}

DWORD sendForEver(void* stop) {
  while (!*static_cast<std::atomic<bool>*>(stop)) {
    SvSendMessage("text", 1000, 5);
    receive();
  }
  return 0;
}

TEST_F(SvComms, ASuspendedThreadDoesNotHoldThePool) {
  std::atomic<bool> stop{false};
  DWORD id = 0;
  const HANDLE thread = qm::platform::startThread(sendForEver, &stop, &id);
  ASSERT_NE(thread, nullptr);
  int failures = 0;
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(qm::platform::suspendThread(thread), 0u);
    if (SvSendMessage("text", 5000, 6) != 0) ++failures;
    ASSERT_EQ(qm::platform::resumeThread(thread), 1u);
    if (i % 100 == 99) {
      ASSERT_EQ(SvOpenComms(6), 0);
      ASSERT_EQ(SvOpenComms(5), 0);
    }
  }
  EXPECT_EQ(failures, 0);
  stop = true;
  EXPECT_EQ(qm::platform::wait(thread, 60'000), WAIT_OBJECT_0);
  qm::platform::closeHandle(thread);
}

// ---- Without a connection ---------------------------------------------------------------------

void expectNoConnection() {
  char buffer[4] = "#";
  EXPECT_EQ(SvSendMessage("text", 0, 5), 0);
  EXPECT_EQ(SvReceiveMessage(buffer, sizeof buffer, 0), 2014);
  EXPECT_EQ(SvReceiveMultipleMessages(buffer, sizeof buffer, INFINITE), 2014);
  EXPECT_EQ(buffer[0], '#');
  EXPECT_EQ(SvHavePendingMessage([](const char*, void*) { return 1; }, nullptr), 0);
  EXPECT_EQ(SvIsOverloaded(), 0);
}

TEST_F(SvCommsOpening, EveryCallAnswersWithoutAConnection) {
  expectNoConnection();
  SvCloseComms();
  EXPECT_EQ(SvOpenComms(0), 0);
  EXPECT_TRUE(sharedObjects().empty());
  ASSERT_EQ(SvOpenComms(5), 0);
  ASSERT_EQ(SvSendMessage("text", 0, 5), 0);
  SvCloseComms();
  expectNoConnection();
  SvCloseComms();
  ASSERT_EQ(SvOpenComms(5), 0);
  EXPECT_EQ(SvOpenComms(0), 0);
  expectNoConnection();
}

TEST_F(SvComms, ClosingEndsWaitingCalls) {
  std::thread receiver([] { EXPECT_EQ(receive(INFINITE), "2014"); });
  pause(20);
  SvCloseComms();
  receiver.join();
}

TEST_F(SvComms, AForkedChildHasNoConnection) {
  ASSERT_EQ(SvSendMessage("mine", 0, 5), 0);
  Child child([] {
    expectNoConnection();
    SvCloseComms();
    if (SvOpenComms(6) != 0 || SvSendMessage("from the child", 0, 5) != 0) return 1;
    SvCloseComms();
    return ::testing::Test::HasFailure() ? 2 : 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(receive(), "mine");
  EXPECT_EQ(receive(1000), "from the child");
}

// ---- Opening and closing ----------------------------------------------------------------------

TEST_F(SvCommsOpening, OpeningAndClosingAreLogged) {
  DebugLines lines;
  ASSERT_EQ(SvOpenComms(5), 0);
  EXPECT_EQ(lines.take(), Lines{});
  ASSERT_EQ(SvSendMessage("one", 0, 9), 0);
  EXPECT_EQ(lines.take(), (Lines{"5 SvSendMessage: SrcID = 5, DestID = 9, Message = <one>\r\n"}));
  Child other([] {
    DebugLines childLines;
    if (SvOpenComms(9) != 0) return 1;
    const Lines opened = {"5 Purging messages for destination ID 9\r\n", "5 Message = <one>\r\n",
                          "5 Purged 1 messages for destination ID 9\r\n"};
    if (childLines.take() != opened) return 2;
    if (SvSendMessage("two", 0, 5) != 0) return 3;
    if (SvSendMessage("three", 0, 9) != 0 || SvSendMessage("four", 0, 5) != 0) return 4;
    childLines.take();
    SvCloseComms();
    const Lines closed = {"5 Purging messages for destination ID 9\r\n",
                          "5 Message = <three>\r\n",
                          "5 Purged 1 messages for destination ID 9\r\n",
                          "5 Dumping messages\r\n",
                          "5 pChan->nMessages:     2\r\n",
                          "5 pChan->start_of_list: 0\r\n",
                          "5 pChan->end_of_list:   2\r\n",
                          "5 ===========================\r\n",
                          "5 DestID=5, Taken=1, Msg=<two>\r\n",
                          "5 DestID=5, Taken=1, Msg=<four>\r\n",
                          "5 Dumped 2 messages\r\n"};
    return childLines.take() == closed ? 0 : 5;
  });
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(receive(1000), "two");
  EXPECT_EQ(receive(1000), "four");
  lines.take();
  SvCloseComms();
  EXPECT_EQ(lines.take(),
            (Lines{"5 Purging messages for destination ID 5\r\n",
                   "5 Purged 0 messages for destination ID 5\r\n", "5 Dumping messages\r\n",
                   "5 pChan->nMessages:     0\r\n", "5 pChan->start_of_list: 0\r\n",
                   "5 pChan->end_of_list:   0\r\n", "5 ===========================\r\n",
                   "5 DestID=5, Taken=0, Msg=<two>\r\n", "5 Dumped 0 messages\r\n"}));
}

TEST_F(SvComms, TheSectionHasItsPublishedLayout) {
  // The lowest free slot is used again, behind the newest message.
  ASSERT_EQ(SvSendMessage("first", 0, 5), 0);
  ASSERT_EQ(SvSendMessage("a", 0, 0x1234), 0);
  ASSERT_EQ(receive(), "first");
  ASSERT_EQ(SvSendMessage("b", 0, 0x5678), 0);
  const std::string bytes = qmtest::readFile(pathOf("Queue"));
  ASSERT_EQ(bytes.size(), 54'412u);
  EXPECT_EQ(bytes.substr(0, 12), std::string("\x02\0\0\0\x96\x19\x11\x27\x01\0\0\0", 12));
  EXPECT_EQ(bytes.substr(12, 2), std::string("b\0", 2));
  EXPECT_EQ(bytes.substr(268, 16), std::string("\x78\x56\0\0\x01\0\0\0\0\0\x01\0\0\0\0\0", 16));
  EXPECT_EQ(bytes.substr(540, 16), std::string("\x34\x12\0\0\x01\0\0\0\0\0\x01\0\x01\0\0\0", 16));
}

TEST_F(SvCommsOpening, ForeignContentIsRefusedAndLeftAlone) {
  const struct {
    const char* what;
    std::string object, content;
    int code;
  } kCases[] = {
      {"wrong magic", "Queue", std::string(4, '\0') + std::string(54'408, 'x'), 2002},
      {"no magic but content", "Queue", std::string(54'411, '\0') + "x", 2002},
      {"too short", "Queue", "x", 2012},
      {"too long", "Queue", std::string(54'413, '\0'), 2012},
      {"event", "Event", "somebody else's", 2011},
      {"event of our size", "Event", "12345678", 2011},
      {"mutex", "Mutex", "somebody else's", 2011},
      {"doorbells", "Doorbells", std::string(4096, 'x'), 2011},
      {"users", "Users", "somebody else's", 2011},
  };
  for (const auto& c : kCases) {
    writeFile(pathOf(c.object), c.content);
    DebugLines lines;
    EXPECT_EQ(SvOpenComms(5), c.code) << c.what;
    EXPECT_EQ(SvGetCommsOSError(), c.code == 2002 ? 183u : 6u) << c.what;
    expectNoConnection();
    SvCloseComms();
    // A refusal behind the mutex ends like a close, only that there is no pool.
    const bool behindMutex = c.object != "Mutex" && c.object != "Users";
    EXPECT_EQ(lines.take(), behindMutex ? (Lines{"1 No Pool to purged messages from!!\r\n",
                                                 "1 No Pool to dump messages from!!\r\n"})
                                        : Lines{})
        << c.what;
    EXPECT_TRUE(qmtest::readFile(pathOf(c.object)) == c.content) << c.what;
    EXPECT_EQ(sharedObjects(), Names{prefix_ + "Selvane_Comms_" + c.object}) << c.what;
    std::remove(pathOf(c.object).c_str());
    // And the name is free again.
    ASSERT_EQ(SvOpenComms(5), 0) << c.what;
    SvCloseComms();
  }
}

TEST_F(SvCommsOpening, LeavingsOfDeadUsersAreReplaced) {
  std::string pool(54'412, '\0');
  for (const bool withMagic : {false, true}) {
    if (withMagic) {
      // One message for 5, and wild numbers.
      pool.replace(0, 12, std::string("\x01\0\0\0\x96\x19\x11\x27\xFF\xFF\x77\0", 12));
      pool.replace(268, 8, std::string("\x05\0\0\0\x01\0\0\0", 8));
    }
    for (const std::string& left : {pool, std::string()}) {
      for (const char* object : {"Event", "Doorbells", "Users"}) writeFile(pathOf(object), "");
      writeFile(pathOf("Queue"), left);
      // Not begun, or marked but not made.
      writeFile(pathOf("Mutex"), withMagic ? "QXMS" + std::string(44, '\0') : "");
      ASSERT_EQ(SvOpenComms(5), 0);
      EXPECT_EQ(SvGetCommsOSError(), 0u);
      EXPECT_EQ(receive(), "2013");
      SvCloseComms();
    }
  }
}

TEST_F(SvComms, SuitesWithDifferentPrefixesNeverMeet) {
  ASSERT_EQ(SvSendMessage("text", 0, 6), 0);
  const auto openWith = [](const std::string& prefix) {
    setenv("QMUTILS_OBJECT_PREFIX", prefix.c_str(), 1);
    return SvOpenComms(6);
  };
  Child child([&] {
    if (openWith(prefix_ + "other") != 0 || SvGetCommsOSError() != 0) return 1;
    if (SvSendMessage("text", 0, 5) != 0) return 2;
    SvCloseComms();
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(receive(50), "2013");

  SvCloseComms();
  for (const std::string& bad : {std::string("a/b"), std::string(300, 'x')}) {
    EXPECT_EQ(openWith(bad), 2011);
    EXPECT_EQ(SvGetCommsOSError(), bad.size() == 3 ? 123u : 206u);
    expectNoConnection();
  }
  ASSERT_EQ(openWith(prefix_), 0);
}

}  // namespace
