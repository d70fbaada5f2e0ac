#include "platform/wal_writer.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <vector>

namespace platform {
namespace {

// From the format of the log: what precedes each page. Its second word is not zero for the last page of a transaction.
constexpr int FrameHeaderBytes = 24;
constexpr std::size_t CommitWordAt = 4;

// The default layer takes the size of a write for a number of 17 bits.
constexpr std::size_t LargestBuffer = 0x1FFFF;

// From the format of the index in shared memory: the lock that every writer holds from its first frame to its last.
constexpr int WriteLockAt = 0;

// The version of the methods of a file from which on they have such locks.
constexpr int WithSharedLocks = 2;

struct log_file_t;

/// What follows the system's file object of a database: its methods with a look at its locks, and the log beside it.
struct database_t {
  sqlite3_io_methods methods;
  int (*lockShared)(sqlite3_file* file, int offset, int count, int flags);
  log_file_t* log;  // Null while it is not open.
};

/// A log with what is still to be written to it. The system's file object follows it in memory.
struct log_file_t {
  sqlite3_file own;
  std::vector<char> waiting;
  sqlite3_int64 offset;  // Of the first byte that waits.
  sqlite3_int64 end;     // Of what this transaction wrote, with what waits.
  int failure;           // Of a write that lost bytes of this transaction; it must not be committed then.
  bool isInFrame;        // The header of a frame came at the end of the log, and its page is next.
  bool isLast;           // That frame ends a transaction.
  database_t* database;  // Null when its locks cannot be seen.
};

constexpr std::size_t Align(std::size_t size) noexcept {
  return (size + 15) / 16 * 16;
}

constexpr std::size_t RealFileAt = Align(sizeof(log_file_t));

log_file_t& Log(sqlite3_file* file) noexcept {
  return *reinterpret_cast<log_file_t*>(file);
}

sqlite3_file* Real(sqlite3_file* file) noexcept {
  return reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + RealFileAt);
}

int Flush(sqlite3_file* file) noexcept {
  log_file_t& log = Log(file);
  if (log.waiting.empty())
    return log.failure;
  // Not every failure of a read ends a transaction, so that one which lost bytes fails from here on.
  if (log.failure == SQLITE_OK) {
    log.failure =
        Real(file)->pMethods->xWrite(Real(file), log.waiting.data(), static_cast<int>(log.waiting.size()), log.offset);
  }
  log.waiting.clear();
  return log.failure;
}

int Write(sqlite3_file* file, const void* data, int size, sqlite3_int64 offset) noexcept {
  log_file_t& log = Log(file);
  const auto* const bytes = static_cast<const char*>(data);
  const auto length = static_cast<std::size_t>(size);
  const bool follows = offset == log.offset + static_cast<sqlite3_int64>(log.waiting.size());
  if (!follows || log.waiting.size() + length > LargestBuffer) {
    if (const int result = Flush(file); result != SQLITE_OK)
      return result;
  }
  if (log.waiting.empty())
    log.offset = offset;
  try {
    log.waiting.insert(log.waiting.end(), bytes, bytes + length);
  } catch (const std::bad_alloc&) {
    return SQLITE_IOERR_NOMEM;
  }
  // A header before the end gets a new checksum at the commit, after a page of this transaction was overwritten: no
  // page follows it.
  const bool appends = offset >= log.end;
  log.end = std::max(log.end, offset + size);
  if (size == FrameHeaderBytes && appends) {
    constexpr char NotLast[] = {0, 0, 0, 0};
    log.isInFrame = true;
    log.isLast = std::memcmp(bytes + CommitWordAt, NotLast, sizeof(NotLast)) != 0;
    return SQLITE_OK;
  }
  const bool mayWait = log.isInFrame && follows && !log.isLast;
  log.isInFrame = false;
  return mayWait ? SQLITE_OK : Flush(file);
}

int Close(sqlite3_file* file) noexcept {
  const int flushed = Flush(file);
  const int result = Real(file)->pMethods->xClose(Real(file));
  if (Log(file).database != nullptr)
    Log(file).database->log = nullptr;
  Log(file).~log_file_t();
  return result == SQLITE_OK ? flushed : result;
}

int Read(sqlite3_file* file, void* data, int size, sqlite3_int64 offset) noexcept {
  const int flushed = Flush(file);
  return flushed == SQLITE_OK ? Real(file)->pMethods->xRead(Real(file), data, size, offset) : flushed;
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) noexcept {
  const int flushed = Flush(file);
  return flushed == SQLITE_OK ? Real(file)->pMethods->xTruncate(Real(file), size) : flushed;
}

int Sync(sqlite3_file* file, int flags) noexcept {
  const int flushed = Flush(file);
  return flushed == SQLITE_OK ? Real(file)->pMethods->xSync(Real(file), flags) : flushed;
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) noexcept {
  const int flushed = Flush(file);
  return flushed == SQLITE_OK ? Real(file)->pMethods->xFileSize(Real(file), size) : flushed;
}

int Lock(sqlite3_file* file, int level) noexcept {
  return Real(file)->pMethods->xLock(Real(file), level);
}

int Unlock(sqlite3_file* file, int level) noexcept {
  return Real(file)->pMethods->xUnlock(Real(file), level);
}

int CheckReservedLock(sqlite3_file* file, int* result) noexcept {
  return Real(file)->pMethods->xCheckReservedLock(Real(file), result);
}

int FileControl(sqlite3_file* file, int operation, void* argument) noexcept {
  return Real(file)->pMethods->xFileControl(Real(file), operation, argument);
}

int SectorSize(sqlite3_file* file) noexcept {
  return Real(file)->pMethods->xSectorSize(Real(file));
}

int DeviceCharacteristics(sqlite3_file* file) noexcept {
  return Real(file)->pMethods->xDeviceCharacteristics(Real(file));
}

sqlite3_io_methods MakeMethods() noexcept {
  sqlite3_io_methods methods{};
  methods.iVersion = 1;
  methods.xClose = Close;
  methods.xRead = Read;
  methods.xWrite = Write;
  methods.xTruncate = Truncate;
  methods.xSync = Sync;
  methods.xFileSize = FileSize;
  methods.xLock = Lock;
  methods.xUnlock = Unlock;
  methods.xCheckReservedLock = CheckReservedLock;
  methods.xFileControl = FileControl;
  methods.xSectorSize = SectorSize;
  methods.xDeviceCharacteristics = DeviceCharacteristics;
  return methods;
}

sqlite3_vfs* Default() noexcept {
  static sqlite3_vfs* const found = sqlite3_vfs_find(nullptr);
  return found;
}

database_t& Database(sqlite3_file* file) noexcept {
  return *reinterpret_cast<database_t*>(reinterpret_cast<char*>(file) +
                                        Align(static_cast<std::size_t>(Default()->szOsFile)));
}

/// Before others may write, the log is left as the default layer leaves it: frames of a transaction that was rolled
/// back after it outgrew the cache may still wait, and would overwrite what others commit at their place.
int LockShared(sqlite3_file* file, int offset, int count, int flags) noexcept {
  database_t& database = Database(file);
  if (database.log != nullptr && offset == WriteLockAt && (flags & SQLITE_SHM_UNLOCK) != 0) {
    log_file_t& log = *database.log;
    // When this fails, what is lost belongs to no commit.
    Flush(&log.own);
    log.end = 0;
    log.failure = SQLITE_OK;
    log.isInFrame = false;
  }
  return database.lockShared(file, offset, count, flags);
}

int OpenDatabase(const char* name, sqlite3_file* file, int flags, int* outFlags) {
  const int result = Default()->xOpen(Default(), name, file, flags, outFlags);
  if (result != SQLITE_OK || file->pMethods->iVersion < WithSharedLocks)
    return result;
  auto* const database = new (&Database(file)) database_t{*file->pMethods, file->pMethods->xShmLock, nullptr};
  database->methods.xShmLock = LockShared;
  file->pMethods = &database->methods;
  return result;
}

int Open(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  static const sqlite3_io_methods methods = MakeMethods();
  if ((flags & SQLITE_OPEN_MAIN_DB) != 0)
    return OpenDatabase(name, file, flags, outFlags);
  if ((flags & SQLITE_OPEN_WAL) == 0)
    return Default()->xOpen(Default(), name, file, flags, outFlags);
  auto* const log = new (file) log_file_t{};
  const int result = Default()->xOpen(Default(), name, Real(file), flags, outFlags);
  if (result == SQLITE_OK) {
    log->own.pMethods = &methods;
    sqlite3_file* const beside = sqlite3_database_file_object(name);
    if (beside->pMethods->iVersion >= WithSharedLocks && beside->pMethods->xShmLock == LockShared) {
      log->database = &Database(beside);
      log->database->log = log;
    }
    return result;
  }
  // Without methods SQLite does not close it.
  log->~log_file_t();
  file->pMethods = nullptr;
  return result;
}

}  // namespace

const char* GatheringVfs() noexcept {
  static constexpr const char* Name = "kelvo-gathering";
  static sqlite3_vfs own{};
  static const bool isRegistered = [] {
    if (Default() == nullptr)
      return false;
    // All else is the default layer's, which finds its own data in the copy.
    own = *Default();
    own.pNext = nullptr;
    own.zName = Name;
    const auto real = static_cast<std::size_t>(own.szOsFile);
    own.szOsFile = static_cast<int>(std::max(RealFileAt + real, Align(real) + sizeof(database_t)));
    own.xOpen = Open;
    return sqlite3_vfs_register(&own, 0) == SQLITE_OK;
  }();
  return isRegistered ? Name : nullptr;
}

}  // namespace platform
