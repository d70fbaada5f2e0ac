// The registry: a tree of keys with typed values, in which the service keeps what it must remember.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/error.h"

namespace platform {

/// REG_SZ (UTF-8), REG_DWORD or REG_QWORD.
using registry_data_t = std::variant<std::string, std::uint32_t, std::uint64_t>;

struct registry_value_t {
  std::string name;
  registry_data_t data;

  bool operator==(const registry_value_t&) const = default;
};

/// A key with its values and sub-keys, each in the order of their names without regard to case.
struct registry_node_t {
  std::string name;
  std::vector<registry_value_t> values;
  std::vector<registry_node_t> keys;
};

/// The tree below HKEY_LOCAL_MACHINE. A key is named by its path, with `\` or `/` alike between the components and
/// empty components dropped, so that "" is the root. Names of keys and values keep their case and compare without
/// it (ASCII). Names and texts are valid UTF-8 (1113 otherwise); a name holds no zero byte and a value's may be empty.
///
/// Any thread. Every operation is atomic: another thread or process sees all of it or nothing, and what has returned
/// survives the death of the process. Several operations become one through registry_transaction_t.
///
/// Failures are numbers: 2 what was named is not there, 5 no access, 33 another process held the registry too long,
/// 112 the disk is full, 1009 the file is damaged or is no registry, 1306 the file is of a newer version. A registry
/// that cannot be opened is tried again by the next operation, and is never changed to make it open.
class registry_t {
 public:
  virtual ~registry_t() = default;

  /// The process's registry: `CommonAppDataFolder()/Kelvo/registry.db`, opened by the first operation, unless
  /// SetInstance named another.
  static registry_t& Instance();
  /// Replaces the process's registry; null gives the stored one back. Returns the one replaced, or null. The caller
  /// keeps it alive until it is replaced again. For tests.
  static registry_t* SetInstance(registry_t* registry) noexcept;

  /// Creates the key and the parents that it lacks; one that exists is success.
  virtual error_t CreateKey(std::string_view key) = 0;
  /// 0 or 2.
  virtual error_t FindKey(std::string_view key) = 0;
  /// Deletes the key with its values and sub-keys. The root is 5.
  virtual error_t DeleteKey(std::string_view key) = 0;

  /// Creates the key with its parents and stores the values; values of other names stay. The fast way to write a key.
  virtual error_t SetValues(std::string_view key, const std::vector<registry_value_t>& values) = 0;
  virtual error_t GetValue(std::string_view key, std::string_view name, registry_data_t& data) = 0;
  virtual error_t DeleteValue(std::string_view key, std::string_view name) = 0;

  /// The names of the sub-keys, in order.
  virtual error_t EnumerateKeys(std::string_view key, std::vector<std::string>& names) = 0;
  /// The values, in the order of their names. One that cannot be read is left out.
  virtual error_t EnumerateValues(std::string_view key, std::vector<registry_value_t>& values) = 0;

  /// ByName goes from place to place in the file. AsStored is in no order that means anything and reads the file from
  /// its begin to its end: for a key that holds most of what the registry has.
  enum class visit_order_t { ByName, AsStored };
  /// Called for each key of a visit. Must not call the registry. What it throws ends the visit and passes through.
  using visitor_t = std::function<void(const registry_node_t& node)>;
  /// Visits the sub-keys, each with its values, its own sub-keys and their values (these in the order of their names),
  /// but nothing deeper: one pass over the file, all of one moment. The fast way to read many keys.
  virtual error_t VisitKeys(std::string_view key, visit_order_t order, const visitor_t& visit) = 0;
  /// Reads the key with everything below it. The root's name is empty.
  virtual error_t ReadTree(std::string_view key, registry_node_t& node) = 0;

  /// Whether all of it is in order: reads the whole file, 2 s for a million keys with a sub-key each. What lies on a
  /// page that is damaged is otherwise 1009 only where that page makes no sense, and mostly merely absent.
  virtual error_t Check() = 0;

  /// What registry_transaction_t calls. Begin keeps other threads out until the Commit or Rollback that answers it,
  /// by the same thread, whatever it returns. Inner ones join the outermost: only its Commit writes, and an inner
  /// Rollback, or an operation that failed to write, makes it fail.
  virtual error_t Begin() = 0;
  virtual error_t Commit() = 0;
  virtual void Rollback() noexcept = 0;

  /// Typed operations in the terms of those above. A value of another type is absent: 2.
  error_t GetText(std::string_view key, std::string_view name, std::string& text);
  error_t GetDword(std::string_view key, std::string_view name, std::uint32_t& number);
  error_t GetQword(std::string_view key, std::string_view name, std::uint64_t& number);
  error_t SetText(std::string_view key, std::string_view name, std::string_view text);
  error_t SetDword(std::string_view key, std::string_view name, std::uint32_t number);
  error_t SetQword(std::string_view key, std::string_view name, std::uint64_t number);
};

/// Makes the operations of the calling thread on a registry one, from here to Commit. Without a Commit, as when an
/// exception passes, nothing of them happened. When it cannot begin, the operations and Commit return why.
class registry_transaction_t {
 public:
  explicit registry_transaction_t(registry_t& registry);
  registry_transaction_t(const registry_transaction_t&) = delete;
  registry_transaction_t& operator=(const registry_transaction_t&) = delete;
  ~registry_transaction_t();

  /// Once, at the end. Anything but 0 means that nothing was written.
  error_t Commit();

 private:
  registry_t& registry_;
  bool open_ = true;
};

}  // namespace platform
