#include "qmutils/platform/posix/hive_connection.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "qmutils/platform/posix/errno_translation.h"
#include "qmutils/platform/posix/process_generation.h"

namespace qm::platform::posix {

namespace {

constexpr std::size_t kLongestPath = 500;  // SQLite itself takes a few characters more
constexpr std::int64_t kLayoutVersion = 1;
constexpr std::int64_t kApplication = 0x514D5247;  // "QMRG"

// Every statement that reads also tells a deleted key from an empty one, so that one look at the
// file is enough. Identifiers are random, so that one of a deleted key, or of a file that was
// replaced by another or by an older copy, never is another key's.
constexpr const char* kStatements[static_cast<int>(HiveConnection::Query::Count)] = {
    "SELECT id FROM keys WHERE path = ?1 AND EXISTS(SELECT 1 FROM keys WHERE id = ?2)",
    "SELECT written FROM keys WHERE id = ?1",
    "SELECT path FROM keys WHERE id = ?1",
    "SELECT id, path FROM keys WHERE path > ?1 AND path < ?2 ORDER BY path",
    "SELECT v.name, v.type, v.data FROM keys AS k LEFT JOIN items AS v"
    " ON v.key = k.id AND v.name = ?2 WHERE k.id = ?1",
    "SELECT name, type, data FROM items WHERE key = ?1 ORDER BY name",
    "SELECT name FROM keys WHERE parent = ?1 ORDER BY name LIMIT 1 OFFSET ?2",
    "SELECT name FROM items WHERE key = ?1 ORDER BY name LIMIT 1 OFFSET ?2",
    "INSERT INTO keys(id, parent, name, path, written)"
    " VALUES(random() & 0x7FFFFFFFFFFFFFFF, ?1, ?2, ?3, ?4) RETURNING id",
    "UPDATE keys SET written = ?2 WHERE id = ?1 RETURNING id",
    // A value goes on under the name it was first given.
    "INSERT INTO items(key, name, type, data) VALUES(?1, ?2, ?3, ?4)"
    " ON CONFLICT DO UPDATE SET type = excluded.type, data = excluded.data",
    "BEGIN",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
};

constexpr const char* kTables =
    "CREATE TABLE keys(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL,"
    " name TEXT NOT NULL COLLATE NOCASE, path TEXT NOT NULL COLLATE NOCASE UNIQUE,"
    " written INTEGER NOT NULL);"
    "CREATE INDEX sub_keys ON keys(parent, name);"
    "CREATE TABLE items(key INTEGER NOT NULL, name TEXT NOT NULL COLLATE NOCASE,"
    " type INTEGER NOT NULL, data BLOB NOT NULL, PRIMARY KEY(key, name)) WITHOUT ROWID;"
    "INSERT INTO keys VALUES(1, 0, '', '', 0);"
    "PRAGMA application_id = 0x514D5247;"  // kApplication
    "PRAGMA user_version = 1;";            // kLayoutVersion

// Of the header of an SQLite file.
constexpr int kHeaderSize = 100;
constexpr int kVersionAt = 60;
constexpr int kApplicationAt = 68;

std::int64_t bigEndian(const unsigned char* bytes) noexcept {
  return std::int64_t{bytes[0]} << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
}

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

/// The first failure counts.
void HiveConnection::Run::note(int result) noexcept {
  if (result_ == SQLITE_OK) result_ = result;
}

HiveConnection::Run& HiveConnection::Run::with(std::int64_t number) noexcept {
  note(sqlite3_bind_int64(statement_, next_++, number));
  return *this;
}

HiveConnection::Run& HiveConnection::Run::with(std::string_view text) noexcept {
  note(sqlite3_bind_text64(statement_, next_++, text.empty() ? "" : text.data(), text.size(),
                           SQLITE_STATIC, SQLITE_UTF8));
  return *this;
}

HiveConnection::Run& HiveConnection::Run::withBytes(const void* bytes, std::size_t size) noexcept {
  // A null pointer would be bound as no value at all.
  note(sqlite3_bind_blob64(statement_, next_++, size == 0 ? "" : bytes, size, SQLITE_STATIC));
  return *this;
}

DWORD HiveConnection::Run::step() noexcept {
  errno = 0;  // what SQLite tells of by itself must not show an older reason
  if (result_ == SQLITE_OK || result_ == SQLITE_ROW) result_ = sqlite3_step(statement_);
  const DWORD error = connection_.errorOf(result_);
  // That there is no such thing is said by statements without a row, never by a failure.
  return error == ERROR_FILE_NOT_FOUND ? ERROR_REGISTRY_IO_FAILED : error;
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

DWORD HiveConnection::open(const std::string& path, bool toWrite, const Deadline& deadline) {
  if (path.size() > kLongestPath) return ERROR_FILENAME_EXCED_RANGE;
  struct stat status {};
  const int missing = stat(path.c_str(), &status) == 0 ? 0 : errno;
  const FileStamp stamp(status);
  if (database_ != nullptr && process_ != processGeneration()) {
    // A forked child must not touch what its parent has open, not even to close it.
    database_ = nullptr;
    for (sqlite3_stmt*& each : statements_) each = nullptr;
  }
  if (database_ != nullptr && (missing != 0 || path != path_ || !stamp.isSameFile(stamp_))) close();
  if (missing != 0) return missing == ENOTDIR ? ERROR_FILE_NOT_FOUND : lastErrorFromErrno(missing);
  // Opening a pipe would wait for its other end.
  if (!S_ISREG(status.st_mode)) return ERROR_BADDB;
  stamp_ = stamp;
  DWORD error = 0;
  if (database_ == nullptr) {
    path_ = path;
    process_ = processGeneration();
    // The superuser too is bound by a file that nobody may write. Else also a reader opens it for
    // writing, if it may: it then clears up what a killed writer has left.
    const bool readOnly = (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
    errno = 0;
    const int opened = sqlite3_open_v2(
        path_.c_str(), &database_,
        (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE) | SQLITE_OPEN_NOMUTEX, nullptr);
    error = errorOf(opened);
    if (error == 0) {
      sqlite3_extended_result_codes(database_, 1);
      sqlite3_busy_handler(database_, waitForOthers, this);
    }
  }
  if (error == 0) {
    deadline_ = deadline;
    if (statements_[0] == nullptr) error = openFile(toWrite);
  }
  if (error != 0) close();
  return error;
}

/// Looks again soon: programs that save all the time leave the file free for moments only.
int HiveConnection::waitForOthers(void* connection, int times) noexcept {
  constexpr timespec kFirstPause = {0, 300'000};
  constexpr timespec kPause = {0, 2'000'000};
  if (static_cast<const HiveConnection*>(connection)->deadline_.passed()) return 0;
  nanosleep(times < 5 ? &kFirstPause : &kPause, nullptr);
  return 1;
}

void HiveConnection::close() noexcept {
  for (sqlite3_stmt*& each : statements_) sqlite3_finalize(std::exchange(each, nullptr));
  sqlite3_close_v2(std::exchange(database_, nullptr));
}

/// What there is to do with a file that has just been opened.
DWORD HiveConnection::openFile(bool toWrite) {
  DWORD error = checkHeader();
  if (error == 0) error = recognise();
  if (error != 0 && error != ERROR_FILE_NOT_FOUND) return error;
  if (toWrite) {
    if (sqlite3_db_readonly(database_, "main") != 0) return ERROR_ACCESS_DENIED;
    // A save that was reported survives a power cut: also the journal's removal is on the disk.
    const DWORD durable = execute("PRAGMA synchronous = EXTRA");
    if (durable != 0) return durable;
    if (error == ERROR_FILE_NOT_FOUND) error = makeTables();
  }
  if (error == 0 && statement(Query::FindKey) == nullptr) {
    error = errorOf(sqlite3_extended_errcode(database_));
  }
  return error;
}

/// Looks at the file before SQLite does: that would finish or undo what another program has left
/// half done, and a foreign file is to stay as it is. 1009 for one; an empty file, or one whose
/// first page is not there yet, goes on to recognise().
DWORD HiveConnection::checkHeader() noexcept {
  sqlite3_file* file = nullptr;
  unsigned char header[kHeaderSize] = {};
  if (sqlite3_file_control(database_, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file == nullptr || file->pMethods == nullptr) {
    return ERROR_REGISTRY_IO_FAILED;
  }
  const int read = file->pMethods->xRead(file, header, kHeaderSize, 0);
  if (read != SQLITE_OK && read != SQLITE_IOERR_SHORT_READ) return errorOf(read);
  if (std::ranges::all_of(header, [](unsigned char byte) { return byte == 0; })) return 0;
  const bool ours = std::memcmp(header, "SQLite format 3", 16) == 0 &&
                    bigEndian(header + kApplicationAt) == kApplication &&
                    bigEndian(header + kVersionAt) == kLayoutVersion;
  return ours ? 0 : ERROR_BADDB;
}

/// Whether the file holds a registry: 0, 2 for an empty file, 1009 for anything else.
DWORD HiveConnection::lookIntoTables() noexcept {
  std::int64_t application = 0, version = 0, tables = 0;
  DWORD error = queryNumber("PRAGMA application_id", &application);
  if (error == 0) error = queryNumber("PRAGMA user_version", &version);
  if (error == 0) error = queryNumber("SELECT count(*) FROM sqlite_master", &tables);
  if (error != 0) return error;
  if (application == 0 && version == 0 && tables == 0) return ERROR_FILE_NOT_FOUND;
  return application == kApplication && version == kLayoutVersion ? 0 : ERROR_BADDB;
}

/// The same in one look: another program may be making the tables right now.
DWORD HiveConnection::recognise() noexcept {
  DWORD error = execute("BEGIN");
  if (error == 0) error = lookIntoTables();
  execute("COMMIT");  // nothing was written
  return error;
}

DWORD HiveConnection::makeTables() noexcept {
  DWORD error = execute("BEGIN IMMEDIATE");
  if (error != 0) return error;
  error = lookIntoTables();  // another program may have been faster
  if (error == ERROR_FILE_NOT_FOUND) error = execute(kTables);
  if (error == 0) error = execute("COMMIT");
  if (error != 0) execute("ROLLBACK");
  return error;
}

DWORD HiveConnection::execute(const char* statements) noexcept {
  errno = 0;
  return errorOf(sqlite3_exec(database_, statements, nullptr, nullptr, nullptr));
}

DWORD HiveConnection::queryNumber(const char* text, std::int64_t* number) noexcept {
  sqlite3_stmt* query = nullptr;
  errno = 0;
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
      if (result == SQLITE_IOERR_NOMEM) return ERROR_NOT_ENOUGH_MEMORY;
      if (systemError == ENOSPC || systemError == EDQUOT || systemError == EFBIG) {
        return ERROR_DISK_FULL;
      }
      return ERROR_REGISTRY_IO_FAILED;
    case SQLITE_CANTOPEN:
      return systemError == EACCES || systemError == EPERM || systemError == EROFS
                 ? ERROR_ACCESS_DENIED
             : systemError == EMFILE || systemError == ENFILE ? ERROR_TOO_MANY_OPEN_FILES
                                                              : ERROR_REGISTRY_IO_FAILED;
    default:
      // Tables that are not ours.
      return ERROR_BADDB;
  }
}

bool HiveConnection::isStillNamed() const noexcept {
  struct stat status;
  return stat(path_.c_str(), &status) == 0 && FileStamp(status).isSameFile(stamp_);
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
