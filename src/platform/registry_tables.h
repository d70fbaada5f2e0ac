// The tables of the registry's file: keys under their parents, values under their keys.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"
#include "platform/sqlite_db.h"

namespace platform {

/// The path of a key, checked and taken apart.
class registry_path_t {
 public:
  /// 1113 for what is not UTF-8, 87 for a zero byte, 206 for more than 512 components.
  error_t Parse(std::string_view key);

  /// Views of the text that was parsed.
  const std::vector<std::string_view>& Components() const { return components_; }
  bool IsRoot() const { return components_.empty(); }
  /// The first `count` components in the one form that all spellings share.
  std::string_view Folded(std::size_t count) const {
    return std::string_view(folded_).substr(0, count == 0 ? 0 : ends_[count - 1]);
  }

 private:
  std::vector<std::string_view> components_;
  std::string folded_;
  std::vector<std::size_t> ends_;
};

/// Reads and writes the tables of an open file. One thread at a time, and always inside a transaction of SQLite, at
/// whose start Refresh is called.
class registry_tables_t {
 public:
  sqlite_db_t& Db() { return db_; }

  error_t BeginWrite();
  error_t BeginRead();
  error_t Commit();
  /// Also after a failure that ended the transaction already.
  void Rollback() noexcept;

  /// Each gives 2 for a key that is not there.
  error_t Find(const registry_path_t& path, std::int64_t& id);
  error_t Delete(const registry_path_t& path);
  error_t FindOrCreate(const registry_path_t& path, std::int64_t& id);

  error_t PutValues(std::int64_t id, const std::vector<registry_value_t>& values);
  /// 2 when it is not there or cannot be read.
  error_t GetValue(std::int64_t id, std::string_view name, registry_data_t& data);
  error_t RemoveValue(std::int64_t id, std::string_view name);

  error_t KeyNames(std::int64_t id, std::vector<std::string>& names);
  error_t Values(std::int64_t id, std::vector<registry_value_t>& values);
  error_t Visit(std::int64_t id, registry_t::visit_order_t order, const registry_t::visitor_t& visit);
  /// Fills everything but the name.
  error_t ReadTree(std::int64_t id, registry_node_t& node, unsigned depth);
  /// 1009 unless each page holds what the others say of it, and the index what is in the tables.
  error_t Check();

 private:
  /// A transaction whose end lacked memory is still open, and nothing can be begun inside it.
  void EndLeftover() noexcept;
  error_t Refresh();
  error_t Walk(const registry_path_t& path, bool create, std::int64_t& id);
  error_t FindChild(std::int64_t parent, std::string_view name, std::int64_t& id);
  void Remember(std::string_view folded, std::int64_t id);
  void ForgetBelow(std::string_view folded);

  sqlite_db_t db_;
  sqlite_statement_t beginWrite_{db_, "BEGIN IMMEDIATE"};
  sqlite_statement_t beginRead_{db_, "BEGIN"};
  sqlite_statement_t commit_{db_, "COMMIT"};
  sqlite_statement_t dataVersion_{db_, "PRAGMA data_version"};
  sqlite_statement_t findChild_{db_, "SELECT id FROM keys WHERE parent = ? AND name = ?"};
  sqlite_statement_t insertKey_{db_, "INSERT INTO keys(parent, name) VALUES(?, ?)"};
  sqlite_statement_t children_{db_, "SELECT id, name FROM keys WHERE parent = ? ORDER BY name"};
  sqlite_statement_t deleteKey_{db_, "DELETE FROM keys WHERE id = ?"};
  sqlite_statement_t deleteValues_{db_, "DELETE FROM vals WHERE key = ?"};
  sqlite_statement_t putValue_{db_,
                               "INSERT INTO vals(key, name, type, data) VALUES(?, ?, ?, ?) "
                               "ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data"};
  /// What is stored for an item comes in threes, and a run of a statement costs more than a row.
  sqlite_statement_t putThreeValues_{db_,
                                     "INSERT INTO vals(key, name, type, data) "
                                     "VALUES(?, ?, ?, ?), (?, ?, ?, ?), (?, ?, ?, ?) "
                                     "ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data"};
  sqlite_statement_t getValue_{db_, "SELECT type, data FROM vals WHERE key = ? AND name = ?"};
  sqlite_statement_t findValue_{db_, "SELECT 1 FROM vals WHERE key = ? AND name = ?"};
  sqlite_statement_t removeValue_{db_, "DELETE FROM vals WHERE key = ? AND name = ?"};
  sqlite_statement_t values_{db_, "SELECT name, type, data FROM vals WHERE key = ? ORDER BY name"};
  sqlite_statement_t visitKeys_{db_,
                                "SELECT k.id, k.name, v.name, v.type, v.data FROM keys k "
                                "LEFT JOIN vals v ON v.key = k.id WHERE k.parent = ? ORDER BY k.name, v.name"};
  sqlite_statement_t visitSubKeys_{db_,
                                   "SELECT s.id, s.name, v.name, v.type, v.data, k.id FROM keys k "
                                   "CROSS JOIN keys s ON s.parent = k.id LEFT JOIN vals v ON v.key = s.id "
                                   "WHERE k.parent = ? ORDER BY k.name, s.name, v.name"};
  /// In the order of the tables, which are then read once, page by page: in any other order a row of a large registry
  /// is hardly ever on a page that is still in memory.
  sqlite_statement_t scanKeys_{db_,
                               "SELECT k.id, k.name, v.name, v.type, v.data FROM keys k NOT INDEXED "
                               "LEFT JOIN vals v ON v.key = k.id WHERE k.parent = ? ORDER BY k.id, v.name"};
  sqlite_statement_t scanSubKeys_{db_,
                                  "SELECT s.id, s.name, v.name, v.type, v.data, k.id FROM keys k NOT INDEXED "
                                  "CROSS JOIN keys s ON s.parent = k.id LEFT JOIN vals v ON v.key = s.id "
                                  "WHERE k.parent = ? ORDER BY k.id, s.name, v.name"};

  sqlite_statement_t check_{db_, "PRAGMA integrity_check(1)"};

  /// Keys by their folded paths: those that others are looked up below, few and asked for again and again.
  std::map<std::string, std::int64_t, std::less<>> known_;
  std::int64_t knownVersion_ = -1;
  /// The key that the open transaction created last, by its folded path; empty for none. Nothing is below it, and
  /// mostly the next one will be.
  std::string createdPath_;
  std::int64_t createdId_ = 0;
};

}  // namespace platform
