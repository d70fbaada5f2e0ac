#include "platform/sqlite_registry.h"

#include <mutex>
#include <new>

#include "platform/clock.h"
#include "platform/registry_file.h"
#include "platform/registry_tables.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr std::uint64_t NoWaitMilliseconds = 30000;

error_t CheckName(std::string_view name) {
  if (name.find('\0') != std::string_view::npos)
    return error::InvalidParameter;
  return IsValidUtf8(name) ? error::Success : error::NoUnicodeTranslation;
}

error_t CheckValues(const std::vector<registry_value_t>& values) {
  for (const registry_value_t& value : values) {
    const error_t name = CheckName(value.name);
    if (name != error::Success)
      return name;
    const auto* text = std::get_if<std::string>(&value.data);
    if (text != nullptr && !IsValidUtf8(*text))
      return error::NoUnicodeTranslation;
  }
  return error::Success;
}

}  // namespace

class sqlite_registry_t::impl_t {
 public:
  explicit impl_t(std::string path) : path_(std::move(path)) {}

  error_t Begin() noexcept;
  error_t Commit() noexcept;
  void Rollback() noexcept;
  /// FileNotFound, and no file, when there is none.
  error_t OpenExisting();

  /// Runs `body(tables, path)` in a transaction that may write: one of its own, or the open one, which a failure
  /// other than "not found" makes fail.
  template <typename Body>
  error_t Write(std::string_view key, const Body& body);
  /// Runs `body(tables, id)` on an existing key, all reads of one moment.
  template <typename Body>
  error_t Read(std::string_view key, const Body& body);

 private:
  error_t Open(bool create);
  template <typename Body>
  error_t ReadOpen(const registry_path_t& path, const Body& body);

  const std::string path_;
  std::recursive_mutex mutex_;

  // Guarded by the mutex, which an open transaction holds.
  std::unique_ptr<registry_tables_t> tables_;  // Empty until the file could be opened.
  unsigned depth_ = 0;
  error_t error_ = error::Success;  // Why the open transaction cannot succeed.
  bool reading_ = false;            // A visitor or another reader is on the stack.
  // A process that holds the file is waited for once, and not again for each of many values that are read in a row.
  std::uint64_t waitAgainFrom_ = 0;
};

error_t sqlite_registry_t::impl_t::Open(bool create) {
  if (tables_ != nullptr)
    return error::Success;
  const std::uint64_t now = SystemClock().MonotonicMilliseconds();
  const bool wait = now >= waitAgainFrom_;
  auto tables = std::make_unique<registry_tables_t>();
  const error_t result = OpenRegistryFile(path_, create, wait, tables->Db());
  if (result == error::LockViolation && wait)
    waitAgainFrom_ = SystemClock().MonotonicMilliseconds() + NoWaitMilliseconds;
  if (result == error::Success)
    tables_ = std::move(tables);
  return result;
}

error_t sqlite_registry_t::impl_t::Begin() noexcept {
  mutex_.lock();
  if (depth_++ > 0) {
    if (reading_ && error_ == error::Success)
      error_ = error::Busy;
    return error_;
  }
  try {
    error_ = reading_ ? error::Busy : Open(true);
    if (error_ == error::Success)
      error_ = tables_->BeginWrite();
  } catch (const std::bad_alloc&) {
    error_ = error::NotEnoughMemory;
  }
  return error_;
}

error_t sqlite_registry_t::impl_t::Commit() noexcept {
  error_t result = error_;
  if (--depth_ == 0) {
    if (result == error::Success)
      result = tables_->Commit();
    if (result != error::Success && tables_ != nullptr && !reading_)
      tables_->Rollback();
    error_ = error::Success;
  }
  mutex_.unlock();
  return result;
}

void sqlite_registry_t::impl_t::Rollback() noexcept {
  if (error_ == error::Success)
    error_ = error::OperationAborted;
  Commit();
}

error_t sqlite_registry_t::impl_t::OpenExisting() {
  const std::lock_guard lock(mutex_);
  return Open(false);
}

template <typename Body>
error_t sqlite_registry_t::impl_t::Write(std::string_view key, const Body& body) {
  registry_path_t path;
  error_t result = path.Parse(key);
  if (result != error::Success)
    return result;
  // Undoes what a passing exception left half done.
  struct scope_t {
    impl_t& impl;
    bool open = true;
    ~scope_t() {
      if (open)
        impl.Rollback();
    }
  };
  result = Begin();
  scope_t scope{*this};
  if (result == error::Success) {
    result = body(*tables_, path);
    if (result != error::Success && result != error::FileNotFound)
      error_ = result;
  }
  scope.open = false;
  const error_t committed = Commit();
  return result == error::Success ? committed : result;
}

template <typename Body>
error_t sqlite_registry_t::impl_t::Read(std::string_view key, const Body& body) {
  registry_path_t path;
  error_t result = path.Parse(key);
  if (result != error::Success)
    return result;
  const std::lock_guard lock(mutex_);
  if (reading_)
    return error::Busy;
  if (depth_ > 0) {
    result = error_ == error::Success ? ReadOpen(path, body) : error_;
    if (result != error::Success && result != error::FileNotFound)
      error_ = result;  // It may have ended the transaction.
    return result;
  }
  result = Open(false);
  if (result == error::FileNotFound && path.IsRoot())
    return error::Success;  // Nothing was written yet: the root is there, and empty.
  if (result != error::Success)
    return result;
  struct scope_t {
    registry_tables_t& tables;
    bool open = true;
    ~scope_t() {
      if (open)
        tables.Rollback();
    }
  };
  scope_t scope{*tables_};
  result = tables_->BeginRead();
  if (result == error::Success)
    result = ReadOpen(path, body);
  if (result == error::Success || result == error::FileNotFound) {
    const error_t ended = tables_->Commit();
    scope.open = ended != error::Success;
    return ended == error::Success ? result : ended;
  }
  return result;
}

template <typename Body>
error_t sqlite_registry_t::impl_t::ReadOpen(const registry_path_t& path, const Body& body) {
  struct scope_t {
    bool& reading;
    explicit scope_t(bool& flag) : reading(flag) { reading = true; }
    ~scope_t() { reading = false; }
  };
  std::int64_t id = 0;
  const error_t found = tables_->Find(path, id);
  if (found != error::Success)
    return found;
  const scope_t scope(reading_);
  return body(*tables_, id);
}

sqlite_registry_t::sqlite_registry_t(std::string path) : impl_(std::make_unique<impl_t>(std::move(path))) {}

sqlite_registry_t::~sqlite_registry_t() = default;

error_t sqlite_registry_t::CreateKey(std::string_view key) {
  // Mostly it is there, and a look does not wait for other processes.
  const error_t found = FindKey(key);
  return found == error::FileNotFound ? SetValues(key, {}) : found;
}

error_t sqlite_registry_t::FindKey(std::string_view key) {
  return impl_->Read(key, [](registry_tables_t&, std::int64_t) { return error::Success; });
}

error_t sqlite_registry_t::DeleteKey(std::string_view key) {
  // Where there is no file, nothing is to be deleted, and none is made for it.
  const error_t found = impl_->OpenExisting();
  if (found != error::Success)
    return found;
  // Refused before it is part of a transaction, which goes on without it.
  if (SplitPath(key).empty())
    return error::AccessDenied;
  return impl_->Write(key, [](registry_tables_t& tables, const registry_path_t& path) { return tables.Delete(path); });
}

error_t sqlite_registry_t::SetValues(std::string_view key, const std::vector<registry_value_t>& values) {
  const error_t checked = CheckValues(values);
  if (checked != error::Success)
    return checked;
  return impl_->Write(key, [&values](registry_tables_t& tables, const registry_path_t& path) {
    std::int64_t id = 0;
    const error_t result = tables.FindOrCreate(path, id);
    return result == error::Success ? tables.PutValues(id, values) : result;
  });
}

error_t sqlite_registry_t::GetValue(std::string_view key, std::string_view name, registry_data_t& data) {
  const error_t checked = CheckName(name);
  if (checked != error::Success)
    return checked;
  bool read = false;
  const error_t result = impl_->Read(key, [&](registry_tables_t& tables, std::int64_t id) {
    read = true;
    return tables.GetValue(id, name, data);
  });
  return result == error::Success && !read ? error::FileNotFound : result;
}

error_t sqlite_registry_t::DeleteValue(std::string_view key, std::string_view name) {
  const error_t checked = CheckName(name);
  if (checked != error::Success)
    return checked;
  const error_t found = FindKey(key);
  if (found != error::Success)
    return found;
  return impl_->Write(key, [name](registry_tables_t& tables, const registry_path_t& path) {
    std::int64_t id = 0;
    const error_t result = tables.Find(path, id);
    return result == error::Success ? tables.RemoveValue(id, name) : result;
  });
}

error_t sqlite_registry_t::EnumerateKeys(std::string_view key, std::vector<std::string>& names) {
  names.clear();
  return impl_->Read(key, [&names](registry_tables_t& tables, std::int64_t id) { return tables.KeyNames(id, names); });
}

error_t sqlite_registry_t::EnumerateValues(std::string_view key, std::vector<registry_value_t>& values) {
  values.clear();
  return impl_->Read(key, [&values](registry_tables_t& tables, std::int64_t id) { return tables.Values(id, values); });
}

error_t sqlite_registry_t::VisitKeys(std::string_view key, visit_order_t order, const visitor_t& visit) {
  return impl_->Read(key, [&](registry_tables_t& tables, std::int64_t id) { return tables.Visit(id, order, visit); });
}

error_t sqlite_registry_t::ReadTree(std::string_view key, registry_node_t& node) {
  node = {};
  const std::vector<std::string_view> components = SplitPath(key);
  if (!components.empty())
    node.name = components.back();
  return impl_->Read(key, [&node](registry_tables_t& tables, std::int64_t id) { return tables.ReadTree(id, node, 0); });
}

error_t sqlite_registry_t::Check() {
  return impl_->Read({}, [](registry_tables_t& tables, std::int64_t) { return tables.Check(); });
}

error_t sqlite_registry_t::Begin() {
  return impl_->Begin();
}

error_t sqlite_registry_t::Commit() {
  return impl_->Commit();
}

void sqlite_registry_t::Rollback() noexcept {
  impl_->Rollback();
}

}  // namespace platform
