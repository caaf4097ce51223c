#include "qmutils/platform/hive.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Registries.h"

namespace qm::platform {
namespace {

namespace fs = std::filesystem;
using qmtest::readFile;
using qmtest::writeFile;

const HKEY kUser = HKEY_CURRENT_USER;

class Hive : public testing::Test {
 protected:
  HKEY make(const char* path, HKEY parent = kUser) {
    HKEY key = nullptr;
    EXPECT_EQ(createKey(parent, path, &key), 0u) << path;
    return key;
  }

  DWORD open(const char* path, HKEY parent = kUser, bool mayWrite = false) {
    HKEY key = nullptr;
    const DWORD error = openKey(parent, path, mayWrite, &key);
    EXPECT_EQ(key == nullptr, error != 0);
    if (error == 0) {
      EXPECT_EQ(closeKey(key), 0u);
    }
    return error;
  }

  DWORD save(HKEY key, const char* name, const std::string& data, DWORD type = REG_SZ) {
    return writeValue(key, name, type, data.data(), data.size());
  }

  /// "type:data", or the error.
  std::string load(HKEY key, const char* name) {
    RegistryValue value;
    const DWORD error = readValue(key, name, &value);
    return error != 0 ? std::to_string(error) : std::to_string(value.type) + ":" + value.data;
  }

  template <class NameAt>
  std::vector<std::string> names(HKEY key, NameAt nameAt) {
    std::vector<std::string> all;
    for (std::string name; nameAt(key, static_cast<DWORD>(all.size()), &name) == 0;) {
      all.push_back(name);
    }
    return all;
  }

  /// Runs SQL on the user's file, as a foreign program might.
  void sql(const std::string& file, const char* statements) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, statements, nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
  }

  const qmtest::Registries registries_;
};

TEST_F(Hive, PathsFollowTheRules) {
  const HKEY deep = make("Software\\Maker\\One/Two\\");
  const std::string longest(255, 'x'), tooLong(256, 'x');
  const struct {
    std::string path;
    DWORD error;
  } kCases[] = {{"SOFTWARE\\maker\\one/two", 0},
                {"software\\MAKER\\", 0},
                {"", 0},
                {"software\\maker\\one", 2},
                {"software/maker", 2},
                {"\\software", 161},
                {"\\", 161},
                {"software\\\\maker", 161},
                {"software\\\\", 161},
                {longest, 2},
                {"a\\" + tooLong, 87}};
  for (const auto& c : kCases) EXPECT_EQ(open(c.path.c_str()), c.error) << c.path;
  HKEY key = nullptr;
  EXPECT_EQ(openKey(kUser, nullptr, false, &key), 0u);
  EXPECT_EQ(closeKey(key), 0u);
  EXPECT_EQ(open("", deep), 0u);
  EXPECT_EQ(open("One/Two", make("SOFTWARE\\MAKER")), 0u);
  EXPECT_EQ(open("software", HKEY_LOCAL_MACHINE), 2u);
}

TEST_F(Hive, ValuesAreAnyBytesUnderTheirFirstSpelling) {
  const HKEY key = make("key");
  const std::string bytes("\0\xff;'\0", 5);
  EXPECT_EQ(save(key, "Name", bytes, 12345), 0u);
  EXPECT_EQ(save(key, "", "default"), 0u);
  EXPECT_EQ(save(key, "empty", "", REG_BINARY), 0u);
  EXPECT_EQ(save(key, "\xc4rger", "latin"), 0u);
  EXPECT_EQ(save(key, "NAME", bytes + "2", 7), 0u);
  EXPECT_EQ(save(key, std::string(16'383, 'n').c_str(), "x"), 0u);
  EXPECT_EQ(save(key, std::string(16'384, 'n').c_str(), "x"), 87u);
  EXPECT_EQ(writeValue(key, "null", REG_SZ, nullptr, 3), 87u);

  EXPECT_EQ(load(key, "nAmE"), "7:" + bytes + "2");
  EXPECT_EQ(load(key, nullptr), "1:default");
  EXPECT_EQ(load(key, "empty"), "3:");
  EXPECT_EQ(load(key, "\xc4rger"), "1:latin");
  EXPECT_EQ(load(key, "missing"), "2");
  RegistryValue value;
  ASSERT_EQ(readValue(key, "name", &value), 0u);
  EXPECT_EQ(value.name, "Name");
}

TEST_F(Hive, NamesAreSortedWithoutCase) {
  const HKEY key = make("key");
  for (const char* name : {"b", "C", "a", "_", "D\\x", "D\\y"}) make(name, key);
  for (const char* name : {"Z", "y", "X"}) EXPECT_EQ(save(key, name, ""), 0u);
  EXPECT_EQ(names(key, subKeyAt), (std::vector<std::string>{"_", "a", "b", "C", "D"}));
  EXPECT_EQ(names(key, valueNameAt), (std::vector<std::string>{"X", "y", "Z"}));
  std::string name;
  EXPECT_EQ(subKeyAt(key, 5, &name), 259u);
  EXPECT_EQ(valueNameAt(key, 3, &name), 259u);
  EXPECT_EQ(subKeyAt(kUser, 0, &name), 0u);
  EXPECT_EQ(name, "key");
}

TEST_F(Hive, ATreeWithoutAFileIsEmptyAndReadingMakesNone) {
  std::string name;
  FILETIME time;
  EXPECT_EQ(open(""), 0u);
  EXPECT_EQ(open("key"), 2u);
  EXPECT_EQ(open("", kUser, true), 2u);
  EXPECT_EQ(subKeyAt(kUser, 0, &name), 259u);
  EXPECT_EQ(load(kUser, "x"), "2");
  EXPECT_EQ(keyTime(kUser, &time), 0u);
  EXPECT_FALSE(fs::exists(fs::path(registries_.user()).parent_path()));
  EXPECT_EQ(save(kUser, "x", "root"), 0u);
  EXPECT_EQ(load(kUser, "x"), "1:root");
  struct stat status;
  ASSERT_EQ(stat(registries_.user().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  ASSERT_EQ(stat(fs::path(registries_.user()).parent_path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);
}

TEST_F(Hive, HandlesMeanOneKeyOrNone) {
  const HKEY key = make("key\\sub");
  HKEY reader = nullptr;
  ASSERT_EQ(openKey(kUser, "key", false, &reader), 0u);
  EXPECT_EQ(save(reader, "x", "1"), 5u);
  EXPECT_EQ(open("sub", reader, true), 0u);
  EXPECT_EQ(closeKey(reader), 0u);
  for (const HKEY bad : {reader, HKEY{}, reinterpret_cast<HKEY>(std::uintptr_t{0x80000000})}) {
    EXPECT_EQ(closeKey(bad), 6u);
    EXPECT_EQ(flushKey(bad), 6u);
    EXPECT_EQ(load(bad, "x"), "6");
    EXPECT_EQ(open("sub", bad), 6u);
  }
  EXPECT_EQ(closeKey(kUser), 0u);

  // Deleted and made again by somebody else, or the whole file: the old handle is of another key.
  const auto expectDeleted = [&] {
    std::string name;
    FILETIME time;
    HKEY sub = nullptr;
    EXPECT_EQ(load(key, "x"), "1018");
    EXPECT_EQ(save(key, "x", "1"), 1018u);
    EXPECT_EQ(subKeyAt(key, 0, &name), 1018u);
    EXPECT_EQ(keyTime(key, &time), 1018u);
    EXPECT_EQ(open("below", key), 1018u);
    EXPECT_EQ(createKey(key, "below", &sub), 1018u);
  };
  const HKEY above = make("key");
  sql(registries_.user(), "DELETE FROM keys WHERE path LIKE 'key%'");
  EXPECT_EQ(open("key\\sub"), 2u) << "known from before";
  expectDeleted();
  EXPECT_EQ(closeKey(make("key\\sub")), 0u);
  expectDeleted();
  EXPECT_EQ(open("sub", above), 1018u);
  EXPECT_EQ(open("sub", above, true), 1018u);
  const std::string backup = readFile(registries_.user());
  const HKEY later = make("later");
  fs::remove(registries_.user());
  expectDeleted();
  EXPECT_EQ(open("later", kUser, true), 2u);

  // A backup comes back, and a key is made that the running program does not know.
  writeFile(registries_.user(), backup);
  const HKEY other = make("other");
  EXPECT_EQ(save(other, "x", "other's"), 0u);
  EXPECT_EQ(open("later"), 2u);
  EXPECT_EQ(save(later, "x", "later's"), 1018u);
  EXPECT_EQ(load(other, "x"), "1:other's");
  expectDeleted();
  EXPECT_EQ(closeKey(key), 0u);
}

TEST_F(Hive, ForeignFilesAreLeftAlone) {
  fs::create_directories(fs::path(registries_.user()).parent_path());
  std::string database;
  {
    const std::string other = registries_.folder().file("other.db");
    sql(other, "CREATE TABLE mine(x); INSERT INTO mine VALUES(17)");
    database = readFile(other);
  }
  for (const std::string& content :
       {std::string("this is a text, no registry, " + std::string(2000, '.')), std::string("short"),
        database}) {
    writeFile(registries_.user(), content);
    HKEY key = nullptr;
    EXPECT_EQ(open("key"), 1009u);
    EXPECT_EQ(createKey(kUser, "key", &key), 1009u);
    EXPECT_EQ(save(kUser, "x", "1"), 1009u);
    EXPECT_EQ(load(kUser, "x"), "1009");
    EXPECT_EQ(readFile(registries_.user()), content);
  }
  // What a killed program has left half done in a database of its own.
  fs::remove(registries_.user());
  if (const pid_t child = fork(); child == 0) {
    sqlite3* foreign = nullptr;
    sqlite3_open(registries_.user().c_str(), &foreign);
    sqlite3_exec(foreign, "PRAGMA journal_mode=WAL; CREATE TABLE mine(x)", nullptr, nullptr,
                 nullptr);
    _exit(0);
  } else {
    waitpid(child, nullptr, 0);
  }
  const std::string log = readFile(registries_.user() + "-wal"),
                    half = readFile(registries_.user());
  EXPECT_FALSE(log.empty());
  EXPECT_EQ(open("key"), 1009u);
  EXPECT_EQ(readFile(registries_.user()), half);
  EXPECT_EQ(readFile(registries_.user() + "-wal"), log);
  fs::remove(registries_.user() + "-wal");
  fs::remove(registries_.user() + "-shm");
  fs::remove(registries_.user());
  ASSERT_EQ(mkfifo(registries_.user().c_str(), 0600), 0);
  EXPECT_EQ(open("key"), 1009u);
  fs::remove(registries_.user());
  writeFile(registries_.user(), "");  // what a program killed while it made the file leaves
  EXPECT_EQ(open("key"), 2u);
  EXPECT_EQ(closeKey(make("key")), 0u);
  EXPECT_EQ(open("key"), 0u);
}

TEST_F(Hive, WhatMayNotBeWrittenIsDenied) {
  EXPECT_EQ(save(make("key"), "x", "1"), 0u);
  ASSERT_EQ(chmod(registries_.user().c_str(), 0444), 0);
  HKEY key = nullptr;
  // A new process, as open files go on with the rights they were opened with.
  const pid_t child = fork();
  if (child == 0) {
    const bool denied = createKey(kUser, "key", &key) == 5 && createKey(kUser, "new", &key) == 5 &&
                        openKey(kUser, "key", true, &key) == 5 && save(kUser, "x", "1") == 5;
    const bool readable = openKey(kUser, "key", false, &key) == 0 && load(key, "x") == "1:1";
    _exit(denied && readable ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);

  writeFile(registries_.folder().file("file"), "");
  setenv("QMUTILS_MACHINE_REGISTRY", "/sys/qmtest/registry.db", 1);
  EXPECT_NE(createKey(HKEY_LOCAL_MACHINE, "key", &key), 0u);
  setenv("QMUTILS_MACHINE_REGISTRY", registries_.folder().file("file/below/r.db").c_str(), 1);
  EXPECT_EQ(open("key", HKEY_LOCAL_MACHINE), 2u);
  EXPECT_NE(createKey(HKEY_LOCAL_MACHINE, "key", &key), 0u);
}

TEST_F(Hive, NamesOfFilesAreNothingElse) {
  const fs::path before = fs::current_path();
  fs::current_path(registries_.folder().path());
  for (const char* name : {":memory:", "file:x?mode=memory"}) {
    setenv("QMUTILS_USER_REGISTRY", name, 1);
    EXPECT_EQ(save(make("key"), "x", "1"), 0u);
    EXPECT_GT(fs::file_size(name), 4096u) << name;
  }
  fs::current_path(before);
  setenv("QMUTILS_USER_REGISTRY", ("/" + std::string(600, 'x')).c_str(), 1);
  HKEY key = nullptr;
  EXPECT_EQ(createKey(kUser, "key", &key), 206u);
}

/// A damaged index can yield names that no key may have.
TEST_F(Hive, ImpossibleNamesAreDamage) {
  const HKEY key = make("key");
  make("sub", key);
  std::string name;
  for (const char* damage : {"UPDATE keys SET name = '' WHERE name = 'sub'",
                             "UPDATE keys SET name = 'a\\b' WHERE name = ''"}) {
    sql(registries_.user(), damage);
    EXPECT_EQ(subKeyAt(key, 0, &name), 1009u);
  }
}

TEST_F(Hive, ManyMayBeTheFirst) {
  for (int round = 0; round < 40; ++round) {
    setenv("QMUTILS_USER_REGISTRY",
           registries_.folder().file("first" + std::to_string(round)).c_str(), 1);
    pid_t children[4];
    for (int i = 0; i < 4; ++i) {
      children[i] = fork();
      if (children[i] != 0) continue;
      HKEY key = nullptr;
      DWORD error = 2;
      for (int tries = 0; error == 2 && tries < 10'000; ++tries) {
        error = i < 2 ? createKey(kUser, "key", &key) : openKey(kUser, "key", false, &key);
      }
      _exit(static_cast<int>(error == 0 ? 0 : 1 + error % 250));
    }
    for (const pid_t child : children) {
      int status = -1;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      EXPECT_EQ(status, 0) << WEXITSTATUS(status);
    }
  }
}

TEST_F(Hive, ChildrenForkedInTheMiddleOfACallWork) {
  const HKEY key = make("key");
  EXPECT_EQ(save(key, "x", "1"), 0u);
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) load(key, "x");
  });
  std::thread writer([&] {
    while (!stop) save(key, "y", "2");
  });
  for (int i = 0; i < 8; ++i) {
    if (const pid_t child = fork(); child == 0) {
      alarm(60);
      _exit(load(key, "x") == "1:1" && save(key, "z", "3") == 0 ? 0 : 1);
    } else {
      int status = -1;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      EXPECT_EQ(status, 0);
    }
  }
  stop = true;
  reader.join();
  writer.join();
}

/// A transaction of a killed writer that the reader may not undo must not look like a missing
/// value.
TEST_F(Hive, AnUnfinishedTransactionIsUndoneOrToldOf) {
  EXPECT_EQ(save(make("key"), "x", std::string(100'000, 'a')), 0u);
  const std::string file = registries_.user();
  if (const pid_t child = fork(); child == 0) {
    sqlite3* database = nullptr;
    sqlite3_open(file.c_str(), &database);
    // With next to no cache the changes are in the file before the end of the transaction.
    sqlite3_exec(database,
                 "PRAGMA cache_size=1; BEGIN IMMEDIATE; UPDATE items SET data = zeroblob(99000); "
                 "CREATE TABLE a AS SELECT * FROM items; UPDATE items SET data = zeroblob(9)",
                 nullptr, nullptr, nullptr);
    _exit(0);  // with the journal left behind
  } else {
    waitpid(child, nullptr, 0);
  }
  ASSERT_TRUE(fs::exists(file + "-journal"));
  if (geteuid() == 0) {
    if (const pid_t child = fork(); child == 0) {
      fs::permissions(registries_.folder().path(), fs::perms(0755));
      fs::permissions(fs::path(file).parent_path(), fs::perms(0755));
      fs::permissions(file, fs::perms(0644));
      if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
      HKEY key = nullptr;
      _exit(openKey(kUser, "key", false, &key) == ERROR_REGISTRY_IO_FAILED ? 0 : 1);
    } else {
      int status = -1;
      waitpid(child, &status, 0);
      EXPECT_EQ(status, 0);
    }
  }
  EXPECT_EQ(load(make("key"), "x"), "1:" + std::string(100'000, 'a'));
}

}  // namespace
}  // namespace qm::platform
