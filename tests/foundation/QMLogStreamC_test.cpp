#include "qmutils/foundation/QMLogStreamC.h"

#include <gtest/gtest.h>

#include <limits>
#include <locale>
#include <new>
#include <string>
#include <thread>

#include "qmutils/foundation/LogLine.h"
#include "qmutils/foundation/PointerText.h"
#include "qmutils/foundation/QMDBprintf.h"
#include "qmutils/platform/thread.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/LogCapture.h"

namespace {

class LogStream : public testing::Test {
 protected:
  static QMLogStreamC plain() { return {nullptr, nullptr, nullptr, nullptr}; }

  /// What one stream delivers for what `write` puts in.
  template <class Write>
  std::string delivered(Write write) {
    log_.clear();
    {
      QMLogStreamC log = plain();
      write(log);
    }
    return log_.text();
  }

  qmtest::LogCapture log_;
};

TEST_F(LogStream, WritesValuesAsAnOstreamDoes) {
  EXPECT_EQ(delivered([](QMLogStreamC& log) {
              log << 'a' << static_cast<unsigned char>('b') << std::string("c") << "d"
                  << static_cast<const char*>(nullptr) << true << static_cast<unsigned short>(65535)
                  << ' ' << -12 << ' ' << 4294967295u << ' '
                  << std::numeric_limits<unsigned long long>::max() << ' ' << 2.5 << ' ' << 1e20
                  << std::endl;
            }),
            "abcd165535 -12 4294967295 18446744073709551615 2.5 1e+20\n");
  EXPECT_EQ(delivered([](QMLogStreamC& log) {
              log << std::hex << std::showbase << 255 << std::dec << ' ' << std::setw(6)
                  << std::setfill('*') << "ab" << std::setw(5) << 42 << std::setprecision(3) << ' '
                  << 3.14159 << std::noshowbase << std::endl
                  << 7;
            }),
            "0xff ****ab***42 3.14\n7\n");
  int local;
  EXPECT_EQ(delivered([&](QMLogStreamC& log) { log << &local; }),
            std::string(qm::PointerText(&local).view()) + "\n");
  EXPECT_EQ(qm::PointerText(nullptr).view(), "0x00000000");
  EXPECT_EQ(qm::PointerText(reinterpret_cast<void*>(0xABCDE)).view(), "0x000ABCDE");
  EXPECT_EQ(qm::PointerText(reinterpret_cast<void*>(0xFEDCBA9876543210)).view(),
            "0xFEDCBA9876543210");
}

TEST_F(LogStream, NumbersDoNotFollowTheGlobalLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
    char do_decimal_point() const override { return ','; }
  };
  const std::locale former = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  const std::string text = delivered(
      [](QMLogStreamC& log) { log << 1234567 << ' ' << 1.5 << ' ' << std::setw(8) << 1234567; });
  QMostrstream reason;
  reason << 1234567;
  std::locale::global(former);
  EXPECT_EQ(text, "1234567 1.5  1234567\n");
  EXPECT_EQ(reason.text(), "1234567");
}

TEST_F(LogStream, OnlyLevelsBelowTheDebugLevelAreShown) {
  const struct {
    unsigned debugLevel, level;
    bool shown;
  } kCases[] = {{0, 0, false}, {1, 0, true}, {1, 1, false}, {5, 4, true}, {5, 5, false}};
  for (const auto& c : kCases) {
    log_.setDebugLevel(c.debugLevel);
    EXPECT_EQ(delivered([&](QMLogStreamC& log) {
                log << QMMessageLevel{c.level};
                log._LogInfo() << "text" << 1 << 2.5 << std::hex << &c << std::setw(3) << std::endl;
              }).empty(),
              !c.shown)
        << c.debugLevel << ' ' << c.level;
  }
  log_.setDebugLevel(7);
  EXPECT_EQ(QMLogStreamC::GetDebugLevel(), 7u);
}

TEST_F(LogStream, EachLineIsDeliveredWithItsLevelAndMode) {
  {
    QMLogStreamC log = plain();
    EXPECT_EQ(log.SetMessageLevel(5), 0u);
    EXPECT_EQ(log.SetMode(3), 1u);
    log._LogWarning() << "first" << std::endl;
    log._LogAssert() << "second" << std::endl << std::flush;
    log.Format(6, 2, "%s-%d", "third", 3);
    log << "unterminated";
  }
  std::string delivered;
  for (const auto& [level, mode, text] : log_.lines()) {
    delivered += std::to_string(level) + ' ' + std::to_string(mode) + text;
  }
  EXPECT_EQ(delivered, "5 3 WARNING: first\n5 1 ASSERT: second\n6 2third-3\n6 1unterminated\n");

  log_.clear();
  log_.setDebugLevel(5);
  QMLogStreamC log = plain();
  log.Format(5, 3, "hidden");
  EXPECT_TRUE(log_.lines().empty());
  EXPECT_EQ(log.SetMode(1), 1u) << "a hidden line leaves the mode";
  EXPECT_EQ(log.SetMessageLevel(0), 5u);
}

TEST_F(LogStream, FlushDeliversAnUnfinishedLineOnce) {
  QMLogStreamC log = plain();
  log.flush();
  EXPECT_EQ(log_.text(), "");
  log << "exposing ";
  log.flush();
  EXPECT_EQ(log_.text(), "exposing ");
  log << std::dec << 5;
  log.flush();
  EXPECT_EQ(log_.text(), "exposing 5");
}

TEST_F(LogStream, LongLinesArriveWholeAndFormattedOnesAreCut) {
  const std::string longText(100'000, 'x');
  EXPECT_EQ(delivered([&](QMLogStreamC& log) {
              for (char c : longText) log << c;
              log << longText;
              *log.GetOstream() << longText << std::endl;
            }),
            longText + longText + longText + "\n");
  EXPECT_EQ(delivered([&](QMLogStreamC& log) { log.Format(0, 1, "%s", longText.c_str()); }),
            longText.substr(0, 32767) + "\n");
}

TEST_F(LogStream, LinePrefixesAndThread) {
  char thread[32];
  std::snprintf(thread, sizeof thread, " thread: 0x%x", qm::platform::currentThreadId());
  EXPECT_EQ(delivered([](QMLogStreamC& log) {
              log._LogThread() << " " << 10;
              log << std::hex << 255;
              log._LogThread() << " " << 255 << std::endl;
            }),
            std::string(thread) + " 10ff" + thread + " ff\n");
  log_.clear();
  qm::logError("A::f(): ", 1);
  qm::logWarning(2, "A::f(): ", "w");
  qm::logInfo(20, "A::f(): ", std::string_view("i"));
  EXPECT_EQ(log_.text(), " ERROR: A::f(): 1\n WARNING: A::f(): w\n INFO: A::f(): i\n");
  EXPECT_EQ(log_.lines()[2].level, 20u);
}

TEST_F(LogStream, PeekingLeavesTheSourceAsItWas) {
  QMistrstream in("one two three");
  std::string word;
  in >> word;
  EXPECT_EQ(delivered([&](QMLogStreamC& log) { log.PeekString(in) << "|"; }), " two three|\n");
  in >> word;
  EXPECT_EQ(word, "two");
  QMstrstream cut("ab\xFF\x63\x64");
  EXPECT_EQ(delivered([&](QMLogStreamC& log) { log.PeekString(cut); }), "ab\n");
  QMstrstream terminated;
  terminated << "ab" << std::ends << "cd";
  EXPECT_EQ(delivered([&](QMLogStreamC& log) { log.PeekString(terminated); }), "ab\n");
  QMstrstream_w wide(u"\u00e9\u4e2d\U0001F600\xD800x");
  EXPECT_EQ(delivered([&](QMLogStreamC& log) { log.PeekString(wide); }),
            "\u00e9\u4e2d\U0001F600\uFFFDx\n");
  EXPECT_EQ(wide.get(), u'\u00e9');
  log_.setDebugLevel(0);
  EXPECT_EQ(delivered([&](QMLogStreamC& log) { log.PeekString(in); }), "");
}

TEST_F(LogStream, HooksStayUntilReplacedByOthers) {
  static std::string name;
  static unsigned level = 0;
  QMLogStreamC log(
      nullptr, [](char* given) { name = given; }, [](unsigned given) { level = given; }, nullptr);
  char given[] = "x.log";
  log.SetLogFileName(given);
  EXPECT_EQ(log.SetDebugLevel(42), 100u) << "the level before";
  EXPECT_EQ(name, "x.log");
  EXPECT_EQ(level, 42u);
  QMLogOutputFn output = nullptr, again = nullptr;
  QMLogStreamC::GetHooks(&output, nullptr, nullptr, nullptr);
  EXPECT_NE(output, nullptr);
  QMLogStreamC::SetDBFn(nullptr);
  QMLogStreamC::GetDBFn(&again);
  EXPECT_EQ(again, output);
  log << "delivered" << std::endl;
  EXPECT_EQ(log_.text(), "delivered\n");
}

TEST_F(LogStream, RunningOutOfMemoryDropsTextAndThrowsNothing) {
  const std::string longText(2000, 'x');
  for (int n = 1; n < 20; ++n) {
    const std::string text = delivered([&](QMLogStreamC& log) {
      qmtest::FailingAllocation nth(n);
      log << "start " << std::hex << 255 << ' ' << longText.c_str();
    });
    EXPECT_EQ(text.substr(0, 6), "start ") << n;
    EXPECT_EQ(text.back(), '\n');
  }
}

TEST_F(LogStream, CopiesTakeLevelAndModeButNoText) {
  EXPECT_EQ(delivered([](QMLogStreamC& log) {
              log.SetMessageLevel(5);
              log << std::hex << "once";
              QMLogStreamC copy(log);
              EXPECT_EQ(copy.SetMessageLevel(5), 5u);
              copy << 255;
            }),
            "255\nonce\n");
}

// Started anew for this, as hooks that other tests installed cannot be uninstalled.
TEST(LogStreamDeathTest, WithoutHooksEverythingGoesToStandardError) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        QMLogStreamC log(nullptr, nullptr, nullptr, nullptr);
        log.SetMessageLevel(std::numeric_limits<unsigned>::max());
        log._LogInfo() << "shown at level " << QMLogStreamC::GetDebugLevel() << std::endl;
        std::exit(0);
      },
      testing::ExitedWithCode(0), " INFO: shown at level 1\n");
}

std::string printed;

TEST(QMDBprintf, CallsTheCallbackWithBoundedText) {
  EXPECT_EQ(QMDBSetLevel(3), 3u);
  EXPECT_EQ(QMDBGetLevel(), 3u);
  QMDBSetLevel(0);
  QMDBprintf(1, 1, "dropped");
  const QMDBCallback callback = [](unsigned level, int mode, char* text) {
    printed = std::to_string(level) + ' ' + std::to_string(mode) + ' ' + text;
  };
  EXPECT_EQ(QMDBNewRegisterCallback(callback), callback);
  QMDBprintf(5, 2, "ID %d%s", 7, "\r\n");
  EXPECT_EQ(printed, "5 2 ID 7\r\n");
  QMDBprintf(5, 2, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(printed, "5 2 " + std::string(2051, 'x'));
  EXPECT_EQ(QMDBNewRegisterCallback(nullptr), nullptr);
  QMDBprintf(5, 2, "off");
  EXPECT_EQ(printed.size(), 4u + 2051u);
}

}  // namespace
