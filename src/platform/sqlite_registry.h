// The registry in its SQLite file.
#pragma once

#include <memory>
#include <string>

#include "platform/registry.h"

namespace platform {

/// Keeps the tree in one SQLite file in WAL mode, created with its folders by the first operation (folder 0700, file
/// 0600). One connection, guarded by one recursive mutex.
class sqlite_registry_t final : public registry_t {
 public:
  explicit sqlite_registry_t(std::string path);
  sqlite_registry_t(const sqlite_registry_t&) = delete;
  sqlite_registry_t& operator=(const sqlite_registry_t&) = delete;
  ~sqlite_registry_t() override;

  error_t CreateKey(std::string_view key) override;
  error_t FindKey(std::string_view key) override;
  error_t DeleteKey(std::string_view key) override;
  error_t SetValues(std::string_view key, const std::vector<registry_value_t>& values) override;
  error_t GetValue(std::string_view key, std::string_view name, registry_data_t& data) override;
  error_t DeleteValue(std::string_view key, std::string_view name) override;
  error_t EnumerateKeys(std::string_view key, std::vector<std::string>& names) override;
  error_t EnumerateValues(std::string_view key, std::vector<registry_value_t>& values) override;
  error_t VisitKeys(std::string_view key, visit_order_t order, const visitor_t& visit) override;
  error_t ReadTree(std::string_view key, registry_node_t& node) override;
  error_t Check() override;
  error_t Begin() override;
  error_t Commit() override;
  void Rollback() noexcept override;

 private:
  class impl_t;
  std::unique_ptr<impl_t> impl_;
};

}  // namespace platform
