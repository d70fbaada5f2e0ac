#include "platform/sqlite_db.h"

#include <sqlite3.h>

#include "platform/wal_writer.h"

namespace platform {
namespace {

/// SQLite allocates dozens of times for each transaction, and would count each time, under a lock of the process.
/// Before anything else that is asked of it.
void CountNoMemory() noexcept {
  [[maybe_unused]] static const int result = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

}  // namespace

sqlite_db_t::~sqlite_db_t() {
  sqlite3_close(handle_);
}

error_t sqlite_db_t::Open(const std::string& path) {
  constexpr int Flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  CountNoMemory();
  const int result = sqlite3_open_v2(path.c_str(), &handle_, Flags, GatheringVfs());
  if (result == SQLITE_OK)
    sqlite3_db_config(handle_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  return ErrorOf(result);
}

error_t sqlite_db_t::Execute(const char* sql) {
  return ErrorOf(sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr));
}

error_t sqlite_db_t::QueryNumber(const char* sql, std::int64_t& number) {
  sqlite_statement_t statement(*this, sql);
  sqlite_query_t query(statement);
  if (query.Next()) {
    number = query.Number(0);
    return error::Success;
  }
  return query.Error() == error::Success ? error::BadDatabase : query.Error();
}

bool sqlite_db_t::InTransaction() const noexcept {
  return handle_ != nullptr && sqlite3_get_autocommit(handle_) == 0;
}

std::int64_t sqlite_db_t::LastInsertId() const noexcept {
  return sqlite3_last_insert_rowid(handle_);
}

error_t sqlite_db_t::ErrorOf(int result) const noexcept {
  const int cause = handle_ == nullptr ? 0 : sqlite3_system_errno(handle_);
  switch (result & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return error::Success;
    case SQLITE_NOMEM:
      return error::NotEnoughMemory;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_PROTOCOL:
      return error::LockViolation;
    case SQLITE_FULL:
      return error::DiskFull;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return error::AccessDenied;
    case SQLITE_CANTOPEN:
      return cause == 0 ? error::AccessDenied : ErrorFromErrno(cause);
    case SQLITE_IOERR:
      return cause == 0 ? error::IoDevice : ErrorFromErrno(cause);
    case SQLITE_TOOBIG:
      return error::InvalidParameter;
    default:
      // Damaged, not a database, or without the tables and columns that belong there.
      return error::BadDatabase;
  }
}

sqlite_statement_t::~sqlite_statement_t() {
  sqlite3_finalize(handle_);
}

sqlite_query_t::sqlite_query_t(sqlite_statement_t& statement) : statement_(statement) {
  if (statement_.handle_ == nullptr) {
    Note(sqlite3_prepare_v3(statement_.db_.handle_, statement_.sql_, -1, SQLITE_PREPARE_PERSISTENT, &statement_.handle_,
                            nullptr));
  }
}

sqlite_query_t::~sqlite_query_t() {
  if (statement_.handle_ == nullptr)
    return;
  sqlite3_reset(statement_.handle_);
  sqlite3_clear_bindings(statement_.handle_);
}

void sqlite_query_t::Note(int result) noexcept {
  if (error_ == error::Success)
    error_ = statement_.db_.ErrorOf(result);
}

sqlite_query_t& sqlite_query_t::Bind(std::int64_t number) {
  if (error_ == error::Success)
    Note(sqlite3_bind_int64(statement_.handle_, ++bound_, number));
  return *this;
}

sqlite_query_t& sqlite_query_t::Bind(std::string_view text) {
  // A null pointer would bind NULL instead of the empty text.
  const char* data = text.data() == nullptr ? "" : text.data();
  if (error_ == error::Success)
    Note(sqlite3_bind_text64(statement_.handle_, ++bound_, data, text.size(), SQLITE_STATIC, SQLITE_UTF8));
  return *this;
}

bool sqlite_query_t::Next() {
  if (error_ != error::Success)
    return false;
  const int result = sqlite3_step(statement_.handle_);
  Note(result);
  return result == SQLITE_ROW;
}

error_t sqlite_query_t::Run() {
  while (Next()) {
  }
  return error_;
}

bool sqlite_query_t::IsNumber(int column) const noexcept {
  return sqlite3_column_type(statement_.handle_, column) == SQLITE_INTEGER;
}

bool sqlite_query_t::IsText(int column) const noexcept {
  return sqlite3_column_type(statement_.handle_, column) == SQLITE_TEXT;
}

std::int64_t sqlite_query_t::Number(int column) const noexcept {
  return sqlite3_column_int64(statement_.handle_, column);
}

std::string_view sqlite_query_t::Text(int column) const noexcept {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_.handle_, column));
  if (text == nullptr)
    return {};
  return {text, static_cast<std::size_t>(sqlite3_column_bytes(statement_.handle_, column))};
}

}  // namespace platform
