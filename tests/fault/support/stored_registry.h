// The registry's file as another program sees it.
#pragma once

#include <sqlite3.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "integration/support/service.h"

namespace test {

inline std::string RegistryPath(const CService& service) {
  return service.Environment().at("ALLUSERSPROFILE") + "/Kelvo/registry.db";
}

/// A connection of the test's own, beside whatever else has the file open.
class CStoredRegistry {
 public:
  explicit CStoredRegistry(const CService& service) {
    if (sqlite3_open_v2(RegistryPath(service).c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
      throw std::runtime_error("the registry cannot be opened");
    sqlite3_busy_timeout(db_, 10000);
  }
  CStoredRegistry(const CStoredRegistry&) = delete;
  CStoredRegistry& operator=(const CStoredRegistry&) = delete;
  ~CStoredRegistry() { sqlite3_close(db_); }

  /// The first column of each row; throws when the statement fails.
  std::vector<std::string> Run(const std::string& sql) {
    std::vector<std::string> rows;
    char* failure = nullptr;
    const auto take = [](void* to, int, char** columns, char**) {
      static_cast<std::vector<std::string>*>(to)->emplace_back(columns[0] == nullptr ? "" : columns[0]);
      return 0;
    };
    if (sqlite3_exec(db_, sql.c_str(), take, &rows, &failure) != SQLITE_OK) {
      const std::string text = failure == nullptr ? "no memory" : failure;
      sqlite3_free(failure);
      throw std::runtime_error(text);
    }
    return rows;
  }
  /// "ok", or what is wrong with the file.
  std::string Integrity() { return Run("PRAGMA integrity_check").at(0); }
  /// Places that more than one item is stored under: one of their handles would be that of another file.
  std::vector<std::string> PlacesStoredTwice() {
    return Run(
        "SELECT p.data || '/' || n.data FROM vals n JOIN vals p ON p.key = n.key AND p.name = 'parentItemFID' "
        "WHERE n.name = 'itemName' GROUP BY p.data, n.data COLLATE NOCASE HAVING count(*) > 1");
  }

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace test
