// Preferences loaded and saved. The peer does it through SQLite's own prepared statements, written
// by hand, on the same file with the same durability: it looks up the key by its path, then the
// value by key and name, or updates it. Ours remembers the key of a file that stays as it is, so a
// load is one look into the file; a save also writes the time into the key.
//
// A load is counted in thousands, as programs load all their settings when they start. A save is on
// the disk when it returns, on both sides; what a disk takes for that is most of its time.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "qmutils/config/CQMPrefs.h"

namespace {

constexpr int kSettings = 1000;
constexpr const char* kKey = "SOFTWARE\\Quillmoor Designs\\bench\\v1.0.0.0\\Preferences";

std::string nameOf(int setting) { return "setting " + std::to_string(setting); }

/// The store with its settings, made once.
class Store {
 public:
  Store() : folder_(std::filesystem::temp_directory_path() / ("bench" + std::to_string(getpid()))) {
    std::filesystem::create_directories(folder_);
    setenv("QMUTILS_USER_REGISTRY", path().c_str(), 1);
    for (int i = 0; i < kSettings; ++i) names[i] = nameOf(i);
    HKEY key = nullptr;
    QMRegistryC::OpenKey(HKEY_CURRENT_USER, kKey, 1, &key);
    QMRegistryC::CloseKey(key, 0);
    sqlite3* database = nullptr;
    sqlite3_open(path().c_str(), &database);
    sqlite3_exec(database, "BEGIN", nullptr, nullptr, nullptr);
    for (const std::string& name : names) {
      const std::string insert = "INSERT INTO items SELECT id, '" + name +
                                 "', 4, X'01020304' FROM keys WHERE path = '" + kKey + "'";
      sqlite3_exec(database, insert.c_str(), nullptr, nullptr, nullptr);
    }
    const std::string insert = std::string(
                                   "INSERT INTO items SELECT id, 'saved', 4, X'00000000' "
                                   "FROM keys WHERE path = '") +
                               kKey + "'";
    sqlite3_exec(database, insert.c_str(), nullptr, nullptr, nullptr);
    sqlite3_exec(database, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(database);
  }
  ~Store() { std::filesystem::remove_all(folder_); }

  std::string path() const { return folder_ / "registry.db"; }
  std::string names[kSettings];

 private:
  const std::filesystem::path folder_;
};

Store& store() {
  static Store only;
  return only;
}

void loads(benchmark::State& state) {
  const Store& all = store();
  CQMPrefs prefs("bench", "v1.0.0.0", "Preferences");
  for (auto _ : state) {
    for (const std::string& name : all.names) {
      if (prefs.LoadUsrParam(name.c_str(), 0u, 0) != 0x04030201) state.SkipWithError("not found");
    }
  }
}

class ByHand {
 public:
  explicit ByHand(const std::string& path) {
    sqlite3_open(path.c_str(), &database_);
    sqlite3_busy_timeout(database_, 20'000);
    sqlite3_exec(database_, "PRAGMA synchronous = EXTRA", nullptr, nullptr, nullptr);
    key_ = prepare("SELECT id FROM keys WHERE path = ?1");
    value_ = prepare("SELECT type, data FROM items WHERE key = ?1 AND name = ?2");
    update_ = prepare("UPDATE items SET type = 4, data = ?3 WHERE key = ?1 AND name = ?2");
  }
  ~ByHand() {
    for (sqlite3_stmt* each : {key_, value_, update_}) sqlite3_finalize(each);
    sqlite3_close(database_);
  }

  sqlite3_int64 findKey() {
    sqlite3_bind_text(key_, 1, kKey, -1, SQLITE_STATIC);
    const sqlite3_int64 id = sqlite3_step(key_) == SQLITE_ROW ? sqlite3_column_int64(key_, 0) : 0;
    sqlite3_reset(key_);
    return id;
  }

  unsigned load(const std::string& name) {
    unsigned number = 0;
    sqlite3_bind_int64(value_, 1, findKey());
    sqlite3_bind_text(value_, 2, name.c_str(), -1, SQLITE_STATIC);
    if (sqlite3_step(value_) == SQLITE_ROW && sqlite3_column_bytes(value_, 1) == sizeof number) {
      std::memcpy(&number, sqlite3_column_blob(value_, 1), sizeof number);
    }
    sqlite3_reset(value_);
    return number;
  }

  bool save(const std::string& name, unsigned number) {
    sqlite3_bind_int64(update_, 1, findKey());
    sqlite3_bind_text(update_, 2, name.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_blob(update_, 3, &number, sizeof number, SQLITE_STATIC);
    const bool done = sqlite3_step(update_) == SQLITE_DONE;
    sqlite3_reset(update_);
    return done && sqlite3_changes(database_) == 1;
  }

 private:
  sqlite3_stmt* prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database_, text, -1, &statement, nullptr);
    return statement;
  }

  sqlite3* database_ = nullptr;
  sqlite3_stmt* key_;
  sqlite3_stmt* value_;
  sqlite3_stmt* update_;
};

void loadsByHand(benchmark::State& state) {
  const Store& all = store();
  ByHand peer(all.path());
  for (auto _ : state) {
    for (const std::string& name : all.names) {
      if (peer.load(name) != 0x04030201) state.SkipWithError("not found");
    }
  }
}

void save(benchmark::State& state) {
  store();
  CQMPrefs prefs("bench", "v1.0.0.0", "Preferences");
  for (unsigned number = 0; auto _ : state) {
    // Another number each time: the same one need not be written.
    if (prefs.SaveUsrParam("saved", ++number, 0) != QMErrors::NoError) {
      state.SkipWithError("not saved");
    }
  }
}

void saveByHand(benchmark::State& state) {
  ByHand peer(store().path());
  for (unsigned number = 1u << 31; auto _ : state) {
    if (!peer.save("saved", ++number)) state.SkipWithError("not saved");
  }
}

BENCHMARK(loads)->Unit(benchmark::kMicrosecond);
BENCHMARK(loadsByHand)->Unit(benchmark::kMicrosecond);
// The process's own time is next to nothing: what counts is until the disk has it.
BENCHMARK(save)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(saveByHand)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
