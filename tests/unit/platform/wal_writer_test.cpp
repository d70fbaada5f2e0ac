// A transaction reaches the log in one write, whole, and no later than its commit.
#include "platform/wal_writer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

/// A connection to a file with one table, in the mode that the registry uses.
class Connection {
 public:
  Connection(const fs::path& path, const char* vfs) {
    constexpr int Flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &handle_, Flags, vfs), SQLITE_OK);
    EXPECT_EQ(Run("PRAGMA page_size = 1024"), SQLITE_OK);
    EXPECT_EQ(Run("PRAGMA journal_mode = WAL"), SQLITE_OK);
    EXPECT_EQ(Run("PRAGMA synchronous = NORMAL"), SQLITE_OK);
    EXPECT_EQ(Run("CREATE TABLE IF NOT EXISTS t(id INTEGER PRIMARY KEY, text TEXT)"), SQLITE_OK);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { EXPECT_EQ(sqlite3_close(handle_), SQLITE_OK); }

  int Run(const std::string& sql) { return sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr) & 0xFF; }
  std::string Ask(const std::string& sql) {
    std::string answer;
    const auto take = [](void* target, int, char** values, char**) {
      *static_cast<std::string*>(target) = values[0] == nullptr ? "" : values[0];
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(handle_, sql.c_str(), take, &answer, nullptr), SQLITE_OK);
    return answer;
  }
  sqlite3* Handle() const { return handle_; }
  int Insert(int rows) {
    return Run("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " + std::to_string(rows) +
               ") INSERT INTO t(text) SELECT hex(randomblob(200)) FROM n");
  }

 private:
  sqlite3* handle_ = nullptr;
};

/// Calls of the process that wrote to a file.
std::uint64_t WriteCalls() {
  std::ifstream file("/proc/self/io");
  std::string name;
  std::uint64_t count = 0;
  while (file >> name >> count && name != "syscw:") {
  }
  return count;
}

class WalWriter : public ::testing::Test {
 protected:
  fs::path Path() const { return dir.Path() / "file.db"; }
  /// What a start after a kill at this moment finds: the file and its log without the index in shared memory.
  fs::path CopyAsAfterKill() const {
    const fs::path copy = dir.Path() / "copy.db";
    fs::copy_file(Path(), copy);
    fs::copy_file(dir.Path() / "file.db-wal", dir.Path() / "copy.db-wal");
    return copy;
  }

  test::TempDir dir;
  Connection own{Path(), platform::GatheringVfs()};
};

TEST_F(WalWriter, ATransactionIsOneWrite) {
  ASSERT_NE(platform::GatheringVfs(), nullptr);
  ASSERT_EQ(own.Insert(1), SQLITE_OK);
  const std::uint64_t before = WriteCalls();
  ASSERT_EQ(own.Insert(100), SQLITE_OK);
  EXPECT_EQ(WriteCalls() - before, 1U);
}

TEST_F(WalWriter, WhatWasCommittedIsSeenByOthersAtOnce) {
  Connection other(Path(), nullptr);
  for (int rows = 1; rows < 20; ++rows) {
    ASSERT_EQ(own.Insert(1), SQLITE_OK);
    EXPECT_EQ(other.Ask("SELECT count(*) FROM t"), std::to_string(rows));
  }
}

TEST_F(WalWriter, ConnectionsTakeTurnsAtWriting) {
  Connection other(Path(), nullptr);
  Connection third(Path(), platform::GatheringVfs());
  for (int round = 0; round < 50; ++round) {
    ASSERT_EQ(own.Insert(3), SQLITE_OK);
    ASSERT_EQ(other.Insert(5), SQLITE_OK);
    ASSERT_EQ(third.Insert(2), SQLITE_OK);
  }
  EXPECT_EQ(own.Ask("SELECT count(*) FROM t"), "500");
  EXPECT_EQ(other.Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(WalWriter, ATransactionLargerThanTheCacheReadsWhatItWrote) {
  ASSERT_EQ(own.Run("PRAGMA cache_size = 10"), SQLITE_OK);
  ASSERT_EQ(own.Run("BEGIN"), SQLITE_OK);
  ASSERT_EQ(own.Insert(3000), SQLITE_OK);
  EXPECT_EQ(own.Ask("SELECT count(*) FROM t WHERE length(text) = 400"), "3000");
  ASSERT_EQ(own.Run("UPDATE t SET text = text || 'x'"), SQLITE_OK);
  EXPECT_EQ(own.Ask("SELECT count(*) FROM t WHERE length(text) = 401"), "3000");
  ASSERT_EQ(own.Run("ROLLBACK"), SQLITE_OK);
  EXPECT_EQ(own.Ask("SELECT count(*) FROM t"), "0");

  ASSERT_EQ(own.Run("BEGIN"), SQLITE_OK);
  ASSERT_EQ(own.Insert(2000), SQLITE_OK);
  ASSERT_EQ(own.Run("COMMIT"), SQLITE_OK);
  Connection other(Path(), nullptr);
  EXPECT_EQ(other.Ask("SELECT count(*) FROM t"), "2000");
  EXPECT_EQ(other.Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(WalWriter, TheLogIsTakenOverIntoTheFile) {
  ASSERT_EQ(own.Run("PRAGMA wal_autocheckpoint = 20"), SQLITE_OK);
  for (int round = 0; round < 200; ++round) {
    ASSERT_EQ(own.Insert(5), SQLITE_OK);
  }
  EXPECT_EQ(own.Ask("PRAGMA wal_checkpoint(TRUNCATE)"), "0");
  EXPECT_EQ(fs::file_size(dir.Path() / "file.db-wal"), 0U);
  EXPECT_EQ(own.Ask("SELECT count(*) FROM t"), "1000");
  EXPECT_EQ(own.Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(WalWriter, AWriteThatFailsFailsTheTransaction) {
  ASSERT_EQ(own.Insert(10), SQLITE_OK);
  rlimit former{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &former), 0);
  rlimit limit = former;
  limit.rlim_cur = fs::file_size(dir.Path() / "file.db-wal") + 100;
  auto* const handler = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  const int failed = own.Insert(100);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &former), 0);
  ::signal(SIGXFSZ, handler);
  EXPECT_NE(failed, SQLITE_OK);
  EXPECT_EQ(own.Ask("SELECT count(*) FROM t"), "10");
  EXPECT_EQ(own.Insert(1), SQLITE_OK);
  Connection other(Path(), nullptr);
  EXPECT_EQ(other.Ask("SELECT count(*) FROM t"), "11");
  EXPECT_EQ(other.Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(WalWriter, FramesThatACommitRewritesAreInTheLogWhenItIsAnswered) {
  ASSERT_EQ(own.Run("PRAGMA cache_size = 10"), SQLITE_OK);
  ASSERT_EQ(own.Run("PRAGMA wal_autocheckpoint = 0"), SQLITE_OK);
  ASSERT_EQ(own.Run("BEGIN"), SQLITE_OK);
  ASSERT_EQ(own.Insert(500), SQLITE_OK);
  ASSERT_EQ(own.Run("UPDATE t SET text = upper(text) || 'x' WHERE id <= 50"), SQLITE_OK);
  ASSERT_EQ(own.Run("COMMIT"), SQLITE_OK);
  Connection afterKill(CopyAsAfterKill(), nullptr);
  EXPECT_EQ(afterKill.Ask("SELECT count(*) FROM t"), "500");
  EXPECT_EQ(afterKill.Ask("SELECT count(*) FROM t WHERE text LIKE '%x'"), "50");
  EXPECT_EQ(afterKill.Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(WalWriter, ARolledBackTransactionOverwritesNothingOfOthers) {
  Connection other(Path(), nullptr);
  ASSERT_EQ(own.Run("PRAGMA cache_size = 10"), SQLITE_OK);
  // Which frames still wait at the end depends on the number of rows.
  for (int rows = 20; rows < 60; ++rows) {
    // A rollback reads the first page, which must not be in the log: a read writes what waits.
    ASSERT_EQ(other.Ask("PRAGMA wal_checkpoint(TRUNCATE)"), "0");
    ASSERT_EQ(own.Run("BEGIN"), SQLITE_OK);
    ASSERT_EQ(own.Insert(rows), SQLITE_OK);
    ASSERT_EQ(own.Run("ROLLBACK"), SQLITE_OK);
    ASSERT_EQ(other.Insert(100), SQLITE_OK);
    EXPECT_EQ(own.Ask("SELECT count(*) FROM t"), std::to_string(100 * (rows - 19)));
  }
  Connection afterKill(CopyAsAfterKill(), nullptr);
  EXPECT_EQ(afterKill.Ask("SELECT count(*) FROM t"), "4000");
  EXPECT_EQ(afterKill.Ask("PRAGMA integrity_check"), "ok");
}

TEST_F(WalWriter, ATransactionIsOneWriteAgainWhereTheLogWasLonger) {
  ASSERT_EQ(own.Run("PRAGMA cache_size = 10"), SQLITE_OK);
  ASSERT_EQ(own.Run("BEGIN"), SQLITE_OK);
  ASSERT_EQ(own.Insert(1000), SQLITE_OK);
  ASSERT_EQ(own.Run("ROLLBACK"), SQLITE_OK);
  ASSERT_EQ(own.Run("PRAGMA cache_size = 1000"), SQLITE_OK);
  ASSERT_EQ(own.Insert(1), SQLITE_OK);
  std::uint64_t before = WriteCalls();
  ASSERT_EQ(own.Insert(50), SQLITE_OK);
  EXPECT_EQ(WriteCalls() - before, 1U);

  EXPECT_EQ(own.Ask("PRAGMA wal_checkpoint(RESTART)"), "0");
  ASSERT_EQ(own.Insert(1), SQLITE_OK);
  before = WriteCalls();
  ASSERT_EQ(own.Insert(50), SQLITE_OK);
  EXPECT_EQ(WriteCalls() - before, 1U);
}

TEST_F(WalWriter, ATransactionOfWhichAWriteFailedWhileReadingCannotBeCommitted) {
  ASSERT_EQ(own.Run("PRAGMA cache_size = 10"), SQLITE_OK);
  ASSERT_EQ(own.Run("BEGIN"), SQLITE_OK);
  ASSERT_EQ(own.Run("INSERT INTO t VALUES(1, zeroblob(50000))"), SQLITE_OK);
  sqlite3_blob* blob = nullptr;
  ASSERT_EQ(sqlite3_blob_open(own.Handle(), "main", "t", "text", 1, 0, &blob), SQLITE_OK);
  ASSERT_EQ(own.Run("INSERT INTO t VALUES(2, zeroblob(50000))"), SQLITE_OK);
  rlimit former{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &former), 0);
  rlimit limit = former;
  limit.rlim_cur = fs::file_size(dir.Path() / "file.db-wal");
  auto* const handler = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  std::string bytes(50000, '\0');
  const int read = sqlite3_blob_read(blob, bytes.data(), static_cast<int>(bytes.size()), 0);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &former), 0);
  ::signal(SIGXFSZ, handler);
  EXPECT_NE(read, SQLITE_OK);
  EXPECT_NE(own.Run("COMMIT"), SQLITE_OK);
  sqlite3_blob_close(blob);
  EXPECT_EQ(own.Ask("SELECT count(*) FROM t"), "0");
  EXPECT_EQ(own.Insert(1), SQLITE_OK);
  Connection afterKill(CopyAsAfterKill(), nullptr);
  EXPECT_EQ(afterKill.Ask("SELECT count(*) FROM t"), "1");
  EXPECT_EQ(afterKill.Ask("PRAGMA integrity_check"), "ok");
}

}  // namespace
