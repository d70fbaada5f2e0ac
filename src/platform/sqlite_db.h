// A connection to an SQLite file and its prepared statements, with Win32 numbers for failures.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"

struct sqlite3;
struct sqlite3_stmt;

namespace platform {

/// One connection. One thread at a time.
class sqlite_db_t {
 public:
  sqlite_db_t() = default;
  sqlite_db_t(const sqlite_db_t&) = delete;
  sqlite_db_t& operator=(const sqlite_db_t&) = delete;
  ~sqlite_db_t();

  /// Opens a file that exists for reading and writing. Once.
  error_t Open(const std::string& path);
  /// Runs statements that have no result.
  error_t Execute(const char* sql);
  /// Runs a statement whose first row begins with a number.
  error_t QueryNumber(const char* sql, std::int64_t& number);
  bool InTransaction() const noexcept;
  std::int64_t LastInsertId() const noexcept;
  /// The number of a failed call of SQLite on this connection, 0 for one that did not fail.
  error_t ErrorOf(int result) const noexcept;

 private:
  friend class sqlite_query_t;
  sqlite3* handle_ = nullptr;
};

/// A statement that is prepared at its first use and kept. Goes before its connection.
class sqlite_statement_t {
 public:
  sqlite_statement_t(sqlite_db_t& db, const char* sql) noexcept : db_(db), sql_(sql) {}
  sqlite_statement_t(const sqlite_statement_t&) = delete;
  sqlite_statement_t& operator=(const sqlite_statement_t&) = delete;
  ~sqlite_statement_t();

 private:
  friend class sqlite_query_t;
  sqlite_db_t& db_;
  const char* const sql_;
  sqlite3_stmt* handle_ = nullptr;
};

/// One run of a statement: bind from left to right, then step through the rows. The first failure stays and ends it.
/// Bound text must outlive the run.
class sqlite_query_t {
 public:
  explicit sqlite_query_t(sqlite_statement_t& statement);
  sqlite_query_t(const sqlite_query_t&) = delete;
  sqlite_query_t& operator=(const sqlite_query_t&) = delete;
  ~sqlite_query_t();

  sqlite_query_t& Bind(std::int64_t number);
  sqlite_query_t& Bind(std::string_view text);
  /// Moves to the next row; false at the end and after a failure.
  bool Next();
  /// For a statement without rows.
  error_t Run();
  error_t Error() const noexcept { return error_; }

  bool IsNumber(int column) const noexcept;
  bool IsText(int column) const noexcept;
  std::int64_t Number(int column) const noexcept;
  /// Valid until the next step.
  std::string_view Text(int column) const noexcept;

 private:
  void Note(int result) noexcept;

  sqlite_statement_t& statement_;
  int bound_ = 0;
  error_t error_ = error::Success;
};

}  // namespace platform
