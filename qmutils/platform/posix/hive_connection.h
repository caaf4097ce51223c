// An open SQLite file of the registry, with its statements. For platform/posix/ only.
//
// Used by one thread at a time. Results are Win32 numbers as in hive.h.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "qmutils/platform/clock.h"
#include "qmutils/platform/posix/file_stamp.h"
#include "qmutils/platform/types.h"

namespace qm::platform::posix {

class HiveConnection {
 public:
  enum class Query {
    FindKey,      // path, id of a key on it that must be there: id
    KeyTime,      // id: time
    KeyPath,      // id: path
    KeysBelow,    // two paths between which they stand: id, path; parents first
    ReadValue,    // id, name: name, type, data; nulls: there is no such value; no row: no such key
    Values,       // id: name, type, data
    SubKeyAt,     // id, index: name
    ValueNameAt,  // id, index: name
    InsertKey,    // parent, name, path, time: id
    TouchKey,     // id, time: id
    WriteValue,   // id, name, type, data
    BeginRead,
    BeginWrite,
    Commit,
    Rollback,
    Count,
  };

  /// A run of a statement: bind its parameters in their order, step from row to row, read the row's
  /// columns. Without a transaction the file is free for others again when the object ends.
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
    /// Valid until the next step.
    std::string_view bytes(int column) const noexcept;

   private:
    void note(int result) noexcept;

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
  /// file, or nothing in it yet; with `toWrite` the tables are then made. What follows waits for
  /// other programs until the deadline (then 170).
  DWORD open(const std::string& path, bool toWrite, const Deadline& deadline);
  void close() noexcept;
  /// Of the file when it was opened or found again.
  const FileStamp& stamp() const noexcept { return stamp_; }
  /// False when the open file has been deleted or replaced.
  bool isStillNamed() const noexcept;

  /// For statements without parameters and rows.
  DWORD run(Query query) noexcept { return Run(*this, query).step(); }

 private:
  static int waitForOthers(void* connection, int times) noexcept;
  DWORD openFile(bool toWrite);
  DWORD checkHeader() noexcept;
  DWORD recognise() noexcept;
  DWORD lookIntoTables() noexcept;
  DWORD makeTables() noexcept;
  DWORD execute(const char* statements) noexcept;
  DWORD queryNumber(const char* statement, std::int64_t* number) noexcept;
  DWORD errorOf(int result) const noexcept;
  sqlite3_stmt* statement(Query query) noexcept;

  sqlite3* database_ = nullptr;
  sqlite3_stmt* statements_[static_cast<int>(Query::Count)] = {};
  unsigned process_ = 0;  // which copy of the process has opened it
  std::string path_;
  FileStamp stamp_;
  Deadline deadline_ = Deadline::after(0);  // of the call that is being made
};

}  // namespace qm::platform::posix
