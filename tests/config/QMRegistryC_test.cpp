#include "qmutils/config/QMRegistryC.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "qmutils/platform/clock.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Registries.h"

namespace {

using QMErrors::fromOsError;
using QMErrors::NoError;

class Registry : public testing::Test {
 protected:
  HKEY make(const char* path, HKEY parent = HKEY_CURRENT_USER) {
    HKEY key = nullptr;
    EXPECT_EQ(QMRegistryC::OpenKey(parent, path, 1, &key), NoError);
    return key;
  }

  void save(const char* path, const char* name, const std::string& data, DWORD type = REG_SZ) {
    const HKEY key = make(path);
    EXPECT_EQ(QMRegistryC::SaveKeyData(key, name, type,
                                       reinterpret_cast<const unsigned char*>(data.data()),
                                       static_cast<DWORD>(data.size())),
              NoError);
    EXPECT_EQ(QMRegistryC::CloseKey(key, 1), NoError);
  }

  /// "type:data", or "none".
  std::string load(HKEY key, const char* name) {
    unsigned char* data = nullptr;
    DWORD type = 0, size = 0;
    EXPECT_EQ(QMRegistryC::GetKeyData(key, name, &data, &type, &size), NoError);
    if (data == nullptr) return "none";
    const std::string text(reinterpret_cast<char*>(data), size);
    ::operator delete(data);
    return std::to_string(type) + ":" + text;
  }
  std::string load(const char* path, const char* name) {
    HKEY key = nullptr;
    if (QMRegistryC::OpenKey(HKEY_CURRENT_USER, path, 0, &key) != NoError) return "no key";
    const std::string text = load(key, name);
    EXPECT_EQ(QMRegistryC::CloseKey(key, 0), NoError);
    return text;
  }

  const qmtest::Registries registries_;
  qmtest::LogCapture log_;
};

TEST_F(Registry, SavesNumbersTextsAndBytesAndFindsThemBySpelling) {
  const HKEY key = make("SOFTWARE\\Press");
  EXPECT_EQ(QMRegistryC::SaveKeyData(key, "number", 0x01020304), NoError);
  EXPECT_EQ(QMRegistryC::SaveKeyData(key, "text", "abc"), NoError);
  EXPECT_EQ(QMRegistryC::SaveKeyData(key, "empty", ""), NoError);
  EXPECT_EQ(load(key, "number"), "4:\x04\x03\x02\x01");
  EXPECT_EQ(load(key, "text"), "4:abc");
  EXPECT_EQ(load(key, "empty"), "4:");
  EXPECT_EQ(load(key, "Text"), "none");
  EXPECT_EQ(load(key, "other"), "none");
  EXPECT_EQ(log_.text(), "");
  unsigned char* data = nullptr;
  EXPECT_EQ(QMRegistryC::GetKeyData(key, "text", &data, nullptr, nullptr), NoError);
  ::operator delete(data);
}

TEST_F(Registry, EachFailureHasItsLineAndCode) {
  const struct {
    const char* line;
    QMErrors::QMErrorT (*call)();
    DWORD error;
  } kCases[] = {
      {" WARNING: QMRegistryC::OpenKey(): Error: 2 (0x2) The file cannot be found., while opening: "
       "0x80000001\\none",
       [] {
         HKEY key;
         return QMRegistryC::OpenKey(HKEY_CURRENT_USER, "none", 0, &key);
       },
       2},
      {", while creating: 0x80000001\\\\bad",
       [] {
         HKEY key;
         return QMRegistryC::OpenKey(HKEY_CURRENT_USER, "\\bad", 1, &key);
       },
       161},
      {" ERROR: QMRegistryC::CloseKey() from RegCloseKey(): Error: 6",
       [] { return QMRegistryC::CloseKey(nullptr, 1); }, 6},
      {" ERROR: CQMPrefs::GetKeyData(): Error: 6",
       [] {
         unsigned char* data;
         return QMRegistryC::GetKeyData(nullptr, "x", &data, nullptr, nullptr);
       },
       6},
      {" ERROR: QMRegistryC::SaveKeyData(): from RegSetValueEx(): Error: 6",
       [] { return QMRegistryC::SaveKeyData(nullptr, "x", 1); }, 6},
      {" ERROR: QMRegistryC::GetSubKeyName(): from RegQueryInfoKey(): Error: 6",
       [] {
         char* name;
         return QMRegistryC::GetSubKeyName(nullptr, 0, &name, nullptr);
       },
       6},
      {" ERROR: QMRegistryC::GetSubKeyName(): from RegQueryInfoKey(): Error: 6",
       [] {
         char* name;
         return QMRegistryC::GetSubValueName(nullptr, 0, &name, nullptr);
       },
       6},
      {" ERROR: GuidC::RegistryFind(): Failed enumerating registry key: Error: 259",
       [] {
         HKEY key;
         return QMRegistryC::Find(HKEY_CURRENT_USER, "x", &key);
       },
       259},
  };
  for (const auto& c : kCases) {
    log_.clear();
    EXPECT_EQ(c.call(), fromOsError(c.error)) << c.line;
    EXPECT_EQ(log_.lines().size(), 1u) << log_.text();
    EXPECT_TRUE(log_.contains(c.line)) << log_.text();
  }
}

TEST_F(Registry, NamesByNumberEndWithNullAndHaveTimes) {
  qmtest::FakeClock clock;
  make("key\\sub");
  save("key", "value", "x");
  HKEY key = make("key");
  char* name = nullptr;
  FILETIME time{};
  EXPECT_EQ(QMRegistryC::GetSubKeyName(key, 0, &name, &time), NoError);
  EXPECT_STREQ(name, "sub");
  ::operator delete(name);
  EXPECT_EQ(qm::platform::fileTimeTicks(time), clock.utcTicks());
  EXPECT_EQ(QMRegistryC::GetSubKeyName(key, 1, &name, &time), NoError);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(QMRegistryC::GetSubValueName(key, 0, &name, nullptr), NoError);
  EXPECT_STREQ(name, "value");
  ::operator delete(name);
  EXPECT_EQ(QMRegistryC::GetSubValueName(key, 1, &name, nullptr), NoError);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(QMRegistryC::GetSubValueName(key, 0, &name, &time), fromOsError(2));
  EXPECT_EQ(name, nullptr);
}

TEST_F(Registry, CopiesTreesBesideAndIntoThemselves) {
  save("from", "a", std::string("1\0", 2), 77);
  save("from\\one\\two", "b", "2");
  save("to", "a", "old");
  save("to", "c", "3");
  EXPECT_EQ(QMRegistryC::CopyKey(HKEY_CURRENT_USER, "from", "to", nullptr), NoError);
  EXPECT_EQ(load("to", "a"), std::string("77:1\0", 5));
  EXPECT_EQ(load("to", "c"), "1:3");
  EXPECT_EQ(load("to\\one\\two", "b"), "1:2");

  EXPECT_EQ(QMRegistryC::CopyKey(HKEY_CURRENT_USER, "from", "from\\one", nullptr), NoError);
  EXPECT_EQ(load("from\\one", "a"), std::string("77:1\0", 5));
  EXPECT_EQ(load("from\\one\\one\\two", "b"), "1:2");
  EXPECT_EQ(load("from\\one\\one\\one", "a"), "no key");

  EXPECT_EQ(QMRegistryC::CopyKey(HKEY_CURRENT_USER, "to", "copy", HKEY_LOCAL_MACHINE), NoError);
  EXPECT_EQ(load(make("copy\\one\\two", HKEY_LOCAL_MACHINE), "b"), "1:2");
  EXPECT_EQ(QMRegistryC::CopyKey(HKEY_CURRENT_USER, "none", "x", nullptr), fromOsError(2));
}

TEST_F(Registry, FindDescendsAlongFirstSubKeysOnly) {
  make("a\\b\\c");
  make("a\\x");
  make("z\\deep");
  const HKEY untouched = reinterpret_cast<HKEY>(std::uintptr_t{4});
  HKEY found = untouched;
  EXPECT_EQ(QMRegistryC::Find(HKEY_CURRENT_USER, "c", &found), NoError);
  ASSERT_NE(found, untouched);
  EXPECT_EQ(QMRegistryC::SaveKeyData(found, "here", 1), NoError);
  EXPECT_EQ(QMRegistryC::CloseKey(found, 0), NoError);
  EXPECT_NE(load("a\\b\\c", "here"), "none");
  for (const char* name : {"deep", "C", "x", "z", "nowhere"}) {
    found = untouched;
    EXPECT_EQ(QMRegistryC::Find(HKEY_CURRENT_USER, name, &found), NoError) << name;
    EXPECT_EQ(found, untouched) << name;
  }
}

TEST_F(Registry, WithoutMemoryNothingIsHalfDone) {
  save("key\\sub", "name", "value");
  for (int n = 1, failures = 1; failures != 0; ++n) {
    const auto attempt = [&](auto call) {
      const qmtest::FailingAllocation nth(n);
      const QMErrors::QMErrorT result = call();
      if (nth.hasFailed()) ++failures;
      return result == NoError || result == QMErrors::MemoryAllocationFailed ||
             result == fromOsError(8);
    };
    failures = 0;
    HKEY key = nullptr;
    EXPECT_TRUE(
        attempt([&] { return QMRegistryC::OpenKey(HKEY_CURRENT_USER, "key\\sub", 1, &key); }));
    if (key != nullptr) QMRegistryC::CloseKey(key, 0);
    key = make("key\\sub");
    unsigned char* data = nullptr;
    EXPECT_TRUE(
        attempt([&] { return QMRegistryC::GetKeyData(key, "name", &data, nullptr, nullptr); }));
    ::operator delete(data);
    char* name = nullptr;
    EXPECT_TRUE(attempt([&] { return QMRegistryC::GetSubValueName(key, 0, &name, nullptr); }));
    ::operator delete(name);
    EXPECT_TRUE(attempt([&] { return QMRegistryC::SaveKeyData(key, "name", "value"); }));
    EXPECT_TRUE(
        attempt([&] { return QMRegistryC::CopyKey(HKEY_CURRENT_USER, "key", "copy", nullptr); }));
    HKEY found = nullptr;
    EXPECT_TRUE(attempt([&] { return QMRegistryC::Find(HKEY_CURRENT_USER, "sub", &found); }));
    if (found != nullptr) QMRegistryC::CloseKey(found, 0);
    EXPECT_EQ(QMRegistryC::CloseKey(key, 0), NoError);
  }
  EXPECT_EQ(load("copy\\sub", "name"), "4:value");
}

}  // namespace
