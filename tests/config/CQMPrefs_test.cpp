#include "qmutils/config/CQMPrefs.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "tests/support/LogCapture.h"
#include "tests/support/Registries.h"

namespace {

using QMErrors::NoError;

/// The text of a load, freed.
std::string taken(char* text) {
  const std::string copy = text != nullptr ? text : "(null)";
  ::operator delete(text);
  return copy;
}

struct Open : CQMPrefs {
  using CQMPrefs::CQMPrefs;
  using CQMPrefs::GetProductKey;
  using CQMPrefs::Load;
  using CQMPrefs::Save;
};

class Prefs : public testing::Test {
 protected:
  /// Type and bytes as stored.
  std::string stored(const char* name, int bUser) {
    HKEY key = nullptr;
    if (prefs_.GetProductKey(&key, bUser, 0) != NoError) return "no key";
    unsigned char* data = nullptr;
    DWORD type = 0, size = 0;
    EXPECT_EQ(QMRegistryC::GetKeyData(key, name, &data, &type, &size), NoError);
    QMRegistryC::CloseKey(key, 0);
    const std::string text = data == nullptr ? "none"
                                             : std::to_string(type) + ":" +
                                                   std::string(reinterpret_cast<char*>(data), size);
    ::operator delete(data);
    return text;
  }

  const qmtest::Registries registries_;
  Open prefs_{"press", "v1.2.0.0", "Preferences"};
};

TEST_F(Prefs, EveryKindIsStoredInItsForm) {
  EXPECT_EQ(prefs_.SaveUsrParam("int", -2, 0), NoError);
  EXPECT_EQ(prefs_.SaveUsrParam("unsigned", 0x41424344u, 0), NoError);
  EXPECT_EQ(prefs_.SaveUsrParam("long", 0x1'0000'0000ul, 0), NoError);
  EXPECT_EQ(prefs_.SaveUsrParam("text", "abc", 0), NoError);
  EXPECT_EQ(prefs_.SaveUsrParam("double", 2.5, 1), NoError);
  EXPECT_EQ(prefs_.SaveAppParam("double2", 1234567.5), NoError);
  EXPECT_EQ(stored("int", 1), "4:\xfe\xff\xff\xff");
  EXPECT_EQ(stored("unsigned", 1), "4:DCBA");
  EXPECT_EQ(stored("long", 1), "4:\xff\xff\xff\xff");
  EXPECT_EQ(stored("text", 1), std::string("1:abc\0", 6));
  EXPECT_EQ(stored("double", 1), std::string("1:2.500000\0", 11));
  EXPECT_EQ(stored("double", 0), std::string("1:2.500000\0", 11));
  EXPECT_EQ(stored("double2", 0), std::string("1:1.23457e+06\0", 14));
  EXPECT_EQ(stored("text", 0), "none");

  EXPECT_EQ(prefs_.LoadUsrParam("int", 0, 0), 1);
  EXPECT_EQ(prefs_.LoadUsrParam("none", 7, 0), 1);
  EXPECT_EQ(prefs_.LoadUsrParam("none", 0, 0), 0);
  EXPECT_EQ(prefs_.LoadUsrParam("unsigned", 1u, 0), 0x41424344u);
  EXPECT_EQ(prefs_.LoadUsrParam("unsigned", 1u, 1), 1u);
  EXPECT_EQ(prefs_.LoadUsrParam("long", 1ul, 0), 0xFFFFFFFFul);
  EXPECT_EQ(taken(prefs_.LoadUsrParam("text", "x", 0)), "abc");
  EXPECT_EQ(taken(prefs_.LoadUsrParam("text", "x", 1)), "x");
  EXPECT_EQ(prefs_.LoadUsrParam("double", 1.0, 0), 2.5);
  EXPECT_EQ(prefs_.LoadUsrParam("double", 1.0, 1), 2.5);
  EXPECT_EQ(prefs_.LoadAppParam("double2", 1.0), 1.23457e+06);
}

TEST_F(Prefs, DefaultsTakeThePlaceOfWhatIsNotThere) {
  {
    qmtest::LogCapture log;
    EXPECT_EQ(prefs_.LoadAppParam("x", 5ul), 5ul);
    EXPECT_TRUE(log.contains(" WARNING: QMRegistryC::OpenKey(): ")) << log.text();
    EXPECT_TRUE(
        log.contains("opening: 0x80000002\\SOFTWARE\\Quillmoor Designs\\press\\v1.2.0.0\\"
                     "Preferences"))
        << log.text();
  }
  EXPECT_EQ(prefs_.bIsUsrSectionValid(), 0);
  EXPECT_EQ(prefs_.LoadUsrParam("x", 1.5, 0), 1.5);
  EXPECT_EQ(taken(prefs_.LoadUsrParam("x", nullptr, 0)), "");
  EXPECT_FALSE(std::filesystem::exists(registries_.user()));

  EXPECT_EQ(prefs_.SaveUsrParam("empty", "", 0), NoError);
  EXPECT_EQ(prefs_.bIsUsrSectionValid(), 1);
  HKEY key = nullptr;
  EXPECT_EQ(prefs_.CQMPrefs::GetProductKey(&key), NoError);
  EXPECT_EQ(QMRegistryC::CloseKey(key, 0), NoError);
  EXPECT_EQ(taken(prefs_.LoadUsrParam("empty", "default", 0)), "default");

  // What another program may have stored under the name.
  const auto bytes = reinterpret_cast<const unsigned char*>("\x07no number");
  EXPECT_EQ(prefs_.Save("short", bytes, REG_BINARY, 1, 1), NoError);
  EXPECT_EQ(prefs_.Save("words", bytes + 1, REG_BINARY, 9, 1), NoError);  // without a terminator
  EXPECT_EQ(prefs_.Save("words", bytes + 1, REG_BINARY, 9, 0), NoError);
  EXPECT_EQ(prefs_.LoadUsrParam("short", 1u, 0), 7u);
  EXPECT_EQ(taken(prefs_.LoadUsrParam("words", "", 0)), "no number");
  EXPECT_EQ(prefs_.LoadUsrParam("words", 1.5, 0), 0.0);
  EXPECT_EQ(prefs_.LoadAppParam("words", 1.5), 1.5);
}

TEST_F(Prefs, AFailedSaveOfTheUserLeavesTheApplicationTreeAlone) {
  std::filesystem::create_directories(std::filesystem::path(registries_.user()).parent_path());
  qmtest::writeFile(registries_.user(), "no registry");
  qmtest::LogCapture log;
  EXPECT_EQ(prefs_.SaveUsrParam("x", 5, 1), QMErrors::fromOsError(ERROR_BADDB));
  EXPECT_EQ(prefs_.LoadUsrParam("x", 3u, 0), 3u);
  EXPECT_TRUE(log.contains("The configuration database is damaged., while creating: "))
      << log.text();
  EXPECT_FALSE(std::filesystem::exists(registries_.machine()));
  EXPECT_EQ(qmtest::readFile(registries_.user()), "no registry");
}

TEST_F(Prefs, AMachineStoreThatMayNotBeWrittenIsDenied) {
  EXPECT_EQ(prefs_.SaveAppParam("x", 5ul), NoError);
  ASSERT_EQ(chmod(registries_.machine().c_str(), 0444), 0);
  if (const pid_t child = fork(); child == 0) {  // not with the file that is open already
    qmtest::LogCapture log;
    const bool denied =
        prefs_.SaveUsrParam("x", 6, 1) == QMErrors::fromOsError(ERROR_ACCESS_DENIED);
    const bool logged = log.contains("QMRegistryC::OpenKey(): Error: 5 (0x5) Access is denied.");
    _exit(denied && logged && prefs_.LoadAppParam("x", 0ul) == 5 ? 0 : 1);
  } else {
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
}

// ---- Eight processes, one of them killed all the time -----------------------------------------

constexpr int kProcesses = 8;
constexpr auto kDuration = std::chrono::seconds(4);

struct Ledger {
  std::atomic<bool> stop;
  std::atomic<unsigned> saved[kProcesses];  // the last number whose save was reported
  std::atomic<unsigned> lost, torn, failed, loads;
};

/// Long enough to lie on several pages of the store.
std::string textOf(int process, unsigned number) {
  std::string text = std::to_string(process) + ";" + std::to_string(number) + ";";
  text.resize(3000 + number % 3000, static_cast<char>('a' + number % 26));
  return text;
}

/// The number of a text, or all ones for one that nobody saved.
unsigned numberOf(int process, const std::string& text) {
  unsigned number = 0;
  int saver = 0;
  if (text.empty()) return 0;
  if (std::sscanf(text.c_str(), "%d;%u;", &saver, &number) != 2) return ~0u;
  return text == textOf(process, number) ? number : ~0u;
}

void useStore(CQMPrefs& prefs, int self, Ledger& ledger, unsigned seed) {
  std::minstd_rand dice(seed);
  unsigned number = ledger.saved[self] + 1;  // that one may have been saved, too
  while (!ledger.stop) {
    ++number;
    const std::string name = std::to_string(self);
    if (prefs.SaveUsrParam(name.c_str(), textOf(self, number).c_str(), 0) == NoError) {
      ledger.saved[self] = number;
    } else {
      ++ledger.failed;
    }
    const int other = static_cast<int>(dice() % kProcesses);
    const unsigned reported = ledger.saved[other];
    const std::string text = taken(prefs.LoadUsrParam(std::to_string(other).c_str(), "", 0));
    const unsigned found = numberOf(other, text);
    if (found == ~0u) ++ledger.torn;
    if (found < reported) ++ledger.lost;
    ++ledger.loads;
  }
}

TEST_F(Prefs, SurvivesProcessesThatAreKilledWhileSaving) {
  void* const memory =
      mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  Ledger& ledger = *static_cast<Ledger*>(memory);
  unsigned seed = 1;
  const auto start = [&](int process) {
    const pid_t child = fork();
    if (child == 0) {
      useStore(prefs_, process, ledger, seed);
      _exit(0);
    }
    ++seed;
    return child;
  };
  pid_t children[kProcesses];
  for (int i = 0; i < kProcesses; ++i) children[i] = start(i);
  std::minstd_rand dice(7);
  int kills = 0;
  const auto end = std::chrono::steady_clock::now() + kDuration;
  while (std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2 + dice() % 6));
    const int victim = static_cast<int>(dice() % kProcesses);
    kill(children[victim], SIGKILL);
    waitpid(children[victim], nullptr, 0);
    children[victim] = start(victim);
    ++kills;
  }
  ledger.stop = true;
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(ledger.torn, 0u);
  EXPECT_EQ(ledger.lost, 0u);
  EXPECT_EQ(ledger.failed, 0u);
  EXPECT_GT(ledger.loads, 100u);
  EXPECT_GT(kills, 100);
  for (int i = 0; i < kProcesses; ++i) {
    const std::string name = std::to_string(i);
    const std::string text = taken(prefs_.LoadUsrParam(name.c_str(), "", 0));
    EXPECT_GE(numberOf(i, text), ledger.saved[i]);
    EXPECT_NE(numberOf(i, text), ~0u);
  }
  EXPECT_EQ(prefs_.SaveUsrParam("after", 1, 0), NoError);
  munmap(memory, sizeof(Ledger));
}

}  // namespace
