// An open SQLite file of the registry, with its statements. For platform/posix/ only.
//
// Used by one thread at a time. Results are Win32 numbers as in hive.h.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "qmutils/platform/types.h"

namespace qm::platform::posix {

class HiveConnection {
 public:
  enum class Query {
    FindKey,      // path: id
    KeyTime,      // id: time
    ReadValue,    // id, name: name, type, data; one row of nulls when there is no such value
    SubKeyAt,     // id, index: name
    ValueNameAt,  // id, index: name
    InsertKey,    // parent, name, path, time
    TouchKey,     // id, time
    WriteValue,   // id, name, type, data
    Begin,
    Commit,
    Rollback,
  };
  static constexpr int kQueries = 11;

  /// One run of a statement: bind its parameters in their order, step once, read the row's columns.
  /// The file is free for others again when the object ends.
  class Run {
   public:
    Run(HiveConnection& connection, Query query) noexcept;
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    Run& with(std::int64_t number) noexcept;
    /// Not copied.
    Run& with(std::string_view text) noexcept;
    Run& withBytes(const void* bytes, std::size_t size) noexcept;

    DWORD step() noexcept;
    bool hasRow() const noexcept { return result_ == SQLITE_ROW; }

    std::int64_t number(int column) const noexcept;
    bool isNull(int column) const noexcept;
    /// Valid until the object ends.
    std::string_view bytes(int column) const noexcept;

   private:
    HiveConnection& connection_;
    sqlite3_stmt* const statement_;
    int next_ = 1;  // the parameter to bind
    int result_ = SQLITE_OK;
  };

  HiveConnection() noexcept = default;
  ~HiveConnection() { close(); }
  HiveConnection(const HiveConnection&) = delete;
  HiveConnection& operator=(const HiveConnection&) = delete;

  /// Opens the file, unless it is open already and the path still leads to it. 2 when there is no
  /// file, or nothing in it yet; with `toWrite` the tables are then made.
  DWORD open(const std::string& path, bool toWrite);
  void close() noexcept;
  /// False when the open file has been deleted or replaced.
  bool isStillNamed() const noexcept;
  /// Of the open file; never 0.
  std::int64_t identity() const noexcept { return identity_; }

  /// For statements without parameters and rows.
  DWORD run(Query query) noexcept { return Run(*this, query).step(); }

 private:
  DWORD openFile(bool toWrite);
  DWORD recognise();
  DWORD makeTables();
  DWORD execute(const char* statements) noexcept;
  DWORD queryNumber(const char* statement, std::int64_t* number) noexcept;
  DWORD errorOf(int result) const noexcept;
  sqlite3_stmt* statement(Query query) noexcept;

  sqlite3* database_ = nullptr;
  sqlite3_stmt* statements_[kQueries] = {};
  std::int64_t identity_ = 0;
  unsigned process_ = 0;  // which copy of the process has opened it
  std::string path_;
};

}  // namespace qm::platform::posix
