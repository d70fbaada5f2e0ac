#include "platform/registry.h"

#include <atomic>

#include "platform/environment.h"
#include "platform/sqlite_registry.h"

namespace platform {
namespace {

std::atomic<registry_t*>& Replacement() noexcept {
  static std::atomic<registry_t*> replacement = nullptr;
  return replacement;
}

template <typename Data>
error_t GetTyped(registry_t& registry, std::string_view key, std::string_view name, Data& result) {
  registry_data_t data;
  const error_t error = registry.GetValue(key, name, data);
  if (error != error::Success)
    return error;
  auto* typed = std::get_if<Data>(&data);
  if (typed == nullptr)
    return error::FileNotFound;
  result = std::move(*typed);
  return error::Success;
}

}  // namespace

registry_t& registry_t::Instance() {
  if (registry_t* replaced = Replacement().load(std::memory_order_acquire))
    return *replaced;
  // Never destroyed: threads may still write while the process ends, and what they wrote needs no closing.
  static auto& stored = *new sqlite_registry_t(CommonAppDataFolder() + "/Kelvo/registry.db");
  return stored;
}

registry_t* registry_t::SetInstance(registry_t* registry) noexcept {
  return Replacement().exchange(registry, std::memory_order_acq_rel);
}

error_t registry_t::GetText(std::string_view key, std::string_view name, std::string& text) {
  return GetTyped(*this, key, name, text);
}

error_t registry_t::GetDword(std::string_view key, std::string_view name, std::uint32_t& number) {
  return GetTyped(*this, key, name, number);
}

error_t registry_t::GetQword(std::string_view key, std::string_view name, std::uint64_t& number) {
  return GetTyped(*this, key, name, number);
}

error_t registry_t::SetText(std::string_view key, std::string_view name, std::string_view text) {
  return SetValues(key, {{std::string(name), std::string(text)}});
}

error_t registry_t::SetDword(std::string_view key, std::string_view name, std::uint32_t number) {
  return SetValues(key, {{std::string(name), number}});
}

error_t registry_t::SetQword(std::string_view key, std::string_view name, std::uint64_t number) {
  return SetValues(key, {{std::string(name), number}});
}

registry_transaction_t::registry_transaction_t(registry_t& registry) : registry_(registry) {
  // Why it could not begin is told by the operations and by Commit.
  registry_.Begin();
}

registry_transaction_t::~registry_transaction_t() {
  if (open_)
    registry_.Rollback();
}

error_t registry_transaction_t::Commit() {
  if (!open_)
    return error::InvalidParameter;
  open_ = false;
  return registry_.Commit();
}

}  // namespace platform
