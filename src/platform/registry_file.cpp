#include "platform/registry_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/clock.h"

namespace platform {
namespace {

constexpr std::int64_t Version = 1;

/// Names compare without regard to ASCII case, which is just what NOCASE does. The primary keys keep a key's values
/// together, and those of its sub-keys, made right after it, beside them.
constexpr const char* Schema = R"(
  CREATE TABLE keys(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name TEXT NOT NULL COLLATE NOCASE,
                    UNIQUE(parent, name));
  CREATE TABLE vals(key INTEGER NOT NULL, name TEXT NOT NULL COLLATE NOCASE, type INTEGER NOT NULL, data,
                    PRIMARY KEY(key, name)) WITHOUT ROWID;
  PRAGMA user_version = 1;
)";

/// Another process holds the file only for moments: a batch, a checkpoint.
constexpr const char* BusyTimeout = "PRAGMA busy_timeout = 10000";

/// Only for a new file. A transaction writes each page that it touches, and most touch a few rows here and there.
constexpr const char* PageSize = "PRAGMA page_size = 1024";

/// The checkpoint writes each changed page once, however often it changed, so a longer log means less to write.
constexpr const char* Settings = R"(
  PRAGMA synchronous = NORMAL;
  PRAGMA wal_autocheckpoint = 16000;
  PRAGMA journal_size_limit = 33554432;
  PRAGMA cache_size = -8000;
)";

constexpr std::uint64_t OpenTimeoutMilliseconds = 10000;
constexpr std::uint32_t OpenRetryMilliseconds = 10;

error_t CreateFolders(const std::string& folder, mode_t mode) {
  if (::mkdir(folder.c_str(), mode) == 0 || errno == EEXIST)
    return error::Success;
  if (errno != ENOENT)
    return LastError();
  const std::size_t separator = folder.rfind('/');
  if (separator == std::string::npos || separator == 0)
    return error::PathNotFound;
  const error_t parent = CreateFolders(folder.substr(0, separator), 0755);
  if (parent != error::Success)
    return parent;
  return ::mkdir(folder.c_str(), mode) == 0 || errno == EEXIST ? error::Success : LastError();
}

error_t CreateFile(const std::string& path) {
  const std::size_t separator = path.rfind('/');
  if (separator != std::string::npos && separator > 0) {
    const error_t folder = CreateFolders(path.substr(0, separator), 0700);
    if (folder != error::Success)
      return folder;
  }
  // Only ever a new file: to close a descriptor of one in use would drop the locks that SQLite has on it.
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd >= 0)
    ::close(fd);
  return fd >= 0 || errno == EEXIST ? error::Success : LastError();
}

error_t CreateTables(sqlite_db_t& db) {
  error_t result = db.Execute("BEGIN IMMEDIATE");
  if (result != error::Success)
    return result;
  // Another process may have been faster.
  std::int64_t version = 0;
  result = db.QueryNumber("PRAGMA user_version", version);
  if (result == error::Success && version == 0)
    result = db.Execute(Schema);
  if (result == error::Success)
    result = db.Execute("COMMIT");
  if (result != error::Success && db.InTransaction())
    db.Execute("ROLLBACK");
  return result;
}

/// Looks before it changes anything.
error_t SetUp(sqlite_db_t& db, bool wait) {
  std::int64_t version = 0;
  std::int64_t tables = 0;
  error_t result = wait ? db.Execute(BusyTimeout) : error::Success;
  if (result == error::Success)
    result = db.QueryNumber("PRAGMA user_version", version);
  if (result == error::Success && version == 0)
    result = db.QueryNumber("SELECT count(*) FROM sqlite_schema", tables);
  if (result != error::Success)
    return result;
  if (version > Version)
    return error::RevisionMismatch;
  if (version < 0)
    return error::BadDatabase;
  if (version == 0 && tables > 0) {
    // Either no registry, or one that another process made between the two looks.
    result = db.QueryNumber("PRAGMA user_version", version);
    if (result != error::Success)
      return result;
    if (version != Version)
      return version > Version ? error::RevisionMismatch : error::BadDatabase;
  }
  result = db.Execute(PageSize);
  if (result == error::Success)
    result = db.Execute("PRAGMA journal_mode = WAL");
  if (result == error::Success)
    result = db.Execute(Settings);
  if (result == error::Success && version == 0)
    result = CreateTables(db);
  if (result == error::Success && !wait)
    result = db.Execute(BusyTimeout);
  return result;
}

bool Exists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace

error_t OpenRegistryFile(const std::string& path, bool create, bool wait, sqlite_db_t& db) {
  if (!Exists(path)) {
    const error_t created = create ? CreateFile(path) : error::FileNotFound;
    if (created != error::Success)
      return created;
  }
  error_t result = db.Open(path);
  if (result != error::Success)
    return result;
  // The change to WAL does not wait for other processes as everything else does.
  clock_source_t& clock = SystemClock();
  const std::uint64_t end = clock.MonotonicMilliseconds() + OpenTimeoutMilliseconds;
  while ((result = SetUp(db, wait)) == error::LockViolation && wait && clock.MonotonicMilliseconds() < end)
    clock.Sleep(OpenRetryMilliseconds);
  return result;
}

}  // namespace platform
