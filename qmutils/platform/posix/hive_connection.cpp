#include "qmutils/platform/posix/hive_connection.h"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/process_generation.h"

namespace qm::platform::posix {

namespace {

constexpr int kBusyTimeoutMs = 20'000;
constexpr std::int64_t kLayoutVersion = 1;
constexpr std::int64_t kApplication = 0x514D5247;  // "QMRG"

// Every statement that reads also tells a deleted key from an empty one, so that one look at the
// file is enough.
constexpr const char* kStatements[HiveConnection::kQueries] = {
    "SELECT id FROM keys WHERE path = ?1",
    "SELECT written FROM keys WHERE id = ?1",
    "SELECT v.name, v.type, v.data FROM keys AS k LEFT JOIN items AS v"
    " ON v.key = k.id AND v.name = ?2 WHERE k.id = ?1",
    "SELECT name FROM keys WHERE parent = ?1 ORDER BY name LIMIT 1 OFFSET ?2",
    "SELECT name FROM items WHERE key = ?1 ORDER BY name LIMIT 1 OFFSET ?2",
    "INSERT INTO keys(parent, name, path, written) VALUES(?1, ?2, ?3, ?4) RETURNING id",
    "UPDATE keys SET written = ?2 WHERE id = ?1 RETURNING id",
    // A value goes on under the name it was first given.
    "INSERT INTO items(key, name, type, data) VALUES(?1, ?2, ?3, ?4)"
    " ON CONFLICT DO UPDATE SET type = excluded.type, data = excluded.data",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
};

// Identifiers are never used twice (AUTOINCREMENT), so a handle of a deleted key never means
// another one.
constexpr const char* kTables =
    "CREATE TABLE store(identity INTEGER NOT NULL);"
    "CREATE TABLE keys(id INTEGER PRIMARY KEY AUTOINCREMENT, parent INTEGER NOT NULL,"
    " name TEXT NOT NULL COLLATE NOCASE, path TEXT NOT NULL COLLATE NOCASE UNIQUE,"
    " written INTEGER NOT NULL);"
    "CREATE INDEX sub_keys ON keys(parent, name);"
    "CREATE TABLE items(key INTEGER NOT NULL, name TEXT NOT NULL COLLATE NOCASE,"
    " type INTEGER NOT NULL, data BLOB NOT NULL, PRIMARY KEY(key, name)) WITHOUT ROWID;"
    "INSERT INTO store VALUES(random() | 1);"
    "INSERT INTO keys VALUES(1, 0, '', '', 0);"
    "PRAGMA application_id = 0x514D5247;"
    "PRAGMA user_version = 1;";

}  // namespace

HiveConnection::Run::Run(HiveConnection& connection, Query query) noexcept
    : connection_(connection), statement_(connection.statement(query)) {
  if (statement_ == nullptr) result_ = sqlite3_extended_errcode(connection.database_);
}

HiveConnection::Run::~Run() {
  if (statement_ == nullptr) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

HiveConnection::Run& HiveConnection::Run::with(std::int64_t number) noexcept {
  sqlite3_bind_int64(statement_, next_++, number);
  return *this;
}

HiveConnection::Run& HiveConnection::Run::with(std::string_view text) noexcept {
  sqlite3_bind_text(statement_, next_++, text.empty() ? "" : text.data(),
                    static_cast<int>(text.size()), SQLITE_STATIC);
  return *this;
}

HiveConnection::Run& HiveConnection::Run::withBytes(const void* bytes, std::size_t size) noexcept {
  // A null pointer would be bound as no value at all.
  const int result =
      sqlite3_bind_blob64(statement_, next_++, size == 0 ? "" : bytes, size, SQLITE_STATIC);
  if (result != SQLITE_OK) result_ = result;
  return *this;
}

DWORD HiveConnection::Run::step() noexcept {
  if (result_ == SQLITE_OK) result_ = sqlite3_step(statement_);
  return connection_.errorOf(result_);
}

std::int64_t HiveConnection::Run::number(int column) const noexcept {
  return sqlite3_column_int64(statement_, column);
}

bool HiveConnection::Run::isNull(int column) const noexcept {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::string_view HiveConnection::Run::bytes(int column) const noexcept {
  const void* const data = sqlite3_column_blob(statement_, column);
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  return data == nullptr ? std::string_view()
                         : std::string_view(static_cast<const char*>(data), size);
}

DWORD HiveConnection::open(const std::string& path, bool toWrite) {
  if (database_ != nullptr) {
    if (process_ != processGeneration()) {
      // A forked child must not touch what its parent has open, not even to close it.
      database_ = nullptr;
      for (sqlite3_stmt*& each : statements_) each = nullptr;
    } else if (path_ != path || !isStillNamed()) {
      close();
    }
  }
  if (database_ != nullptr) return 0;
  path_ = path;
  process_ = processGeneration();
  const DWORD error = openFile(toWrite);
  if (error != 0) close();
  return error;
}

void HiveConnection::close() noexcept {
  for (sqlite3_stmt*& each : statements_) sqlite3_finalize(std::exchange(each, nullptr));
  sqlite3_close_v2(std::exchange(database_, nullptr));
  identity_ = 0;
}

DWORD HiveConnection::openFile(bool toWrite) {
  struct stat status;
  if (stat(path_.c_str(), &status) != 0) {
    return errno == ENOTDIR ? ERROR_FILE_NOT_FOUND : lastErrorFromErrno(errno);
  }
  // Opening a pipe would wait for its other end.
  if (!S_ISREG(status.st_mode)) return ERROR_BADDB;
  // Also a reader opens it for writing, if it may: it then clears up what a killed writer has left.
  // Where it may not, the file is opened for reading alone.
  const int opened = sqlite3_open_v2(path_.c_str(), &database_,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (opened != SQLITE_OK) return errorOf(opened);
  sqlite3_extended_result_codes(database_, 1);
  sqlite3_busy_timeout(database_, kBusyTimeoutMs);
  // The superuser too is bound by a file that nobody may write.
  const bool readOnly = (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 ||
                        sqlite3_db_readonly(database_, "main") != 0;
  DWORD error = recognise();
  if (!toWrite || (error != 0 && error != ERROR_FILE_NOT_FOUND)) return error;
  if (readOnly) return ERROR_ACCESS_DENIED;
  // A save that was reported survives a power cut: also the journal's removal is on the disk then.
  const DWORD durable = execute("PRAGMA synchronous = EXTRA");
  if (durable != 0) return durable;
  return error == ERROR_FILE_NOT_FOUND ? makeTables() : 0;
}

/// Whether the file holds a registry: 0, 2 for an empty file, 1009 for anything else.
DWORD HiveConnection::recognise() {
  std::int64_t application = 0, version = 0, tables = 0;
  DWORD error = queryNumber("PRAGMA application_id", &application);
  if (error == 0) error = queryNumber("PRAGMA user_version", &version);
  if (error == 0) error = queryNumber("SELECT count(*) FROM sqlite_master", &tables);
  if (error != 0) return error;
  if (application == 0 && tables == 0) return ERROR_FILE_NOT_FOUND;
  if (application != kApplication || version != kLayoutVersion) return ERROR_BADDB;
  return queryNumber("SELECT identity FROM store", &identity_);
}

DWORD HiveConnection::makeTables() {
  DWORD error = run(Query::Begin);
  if (error != 0) return error;
  error = recognise();  // another program may have been faster
  if (error == ERROR_FILE_NOT_FOUND) {
    error = execute(kTables);
    if (error == 0) error = queryNumber("SELECT identity FROM store", &identity_);
  }
  if (error == 0) error = run(Query::Commit);
  if (error != 0) run(Query::Rollback);
  return error;
}

DWORD HiveConnection::execute(const char* statements) noexcept {
  return errorOf(sqlite3_exec(database_, statements, nullptr, nullptr, nullptr));
}

DWORD HiveConnection::queryNumber(const char* text, std::int64_t* number) noexcept {
  sqlite3_stmt* query = nullptr;
  int result = sqlite3_prepare_v2(database_, text, -1, &query, nullptr);
  if (result == SQLITE_OK) result = sqlite3_step(query);
  const DWORD error = result == SQLITE_DONE ? ERROR_BADDB : errorOf(result);
  if (result == SQLITE_ROW) *number = sqlite3_column_int64(query, 0);
  sqlite3_finalize(query);
  return error;
}

DWORD HiveConnection::errorOf(int result) const noexcept {
  const int systemError = database_ != nullptr ? sqlite3_system_errno(database_) : 0;
  switch (result & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return 0;
    case SQLITE_NOMEM:
      return ERROR_NOT_ENOUGH_MEMORY;
    case SQLITE_FULL:
      return ERROR_DISK_FULL;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return ERROR_BUSY;
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return ERROR_BADDB;
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return ERROR_ACCESS_DENIED;
    case SQLITE_READONLY:
      // A killed writer's transaction that we may not undo, or a file that has lost its name.
      return result == SQLITE_READONLY_ROLLBACK || result == SQLITE_READONLY_DBMOVED
                 ? ERROR_REGISTRY_IO_FAILED
                 : ERROR_ACCESS_DENIED;
    case SQLITE_TOOBIG:
      return ERROR_INVALID_PARAMETER;
    case SQLITE_IOERR:
      if (systemError == ENOSPC || systemError == EDQUOT || systemError == EFBIG) {
        return ERROR_DISK_FULL;
      }
      return ERROR_REGISTRY_IO_FAILED;
    case SQLITE_CANTOPEN:
      return systemError != 0 ? lastErrorFromErrno(systemError) : ERROR_REGISTRY_IO_FAILED;
    default:
      // Tables that are not ours.
      return ERROR_BADDB;
  }
}

bool HiveConnection::isStillNamed() const noexcept {
  int moved = 0;
  return sqlite3_file_control(database_, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
         moved == 0;
}

sqlite3_stmt* HiveConnection::statement(Query query) noexcept {
  sqlite3_stmt*& each = statements_[static_cast<int>(query)];
  if (each == nullptr) {
    sqlite3_prepare_v3(database_, kStatements[static_cast<int>(query)], -1,
                       SQLITE_PREPARE_PERSISTENT, &each, nullptr);
  }
  return each;
}

}  // namespace qm::platform::posix
