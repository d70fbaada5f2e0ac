// A registry that hands everything on, and one that fails on demand.
#pragma once

#include <atomic>

#include "platform/registry.h"

namespace test {

/// Hands every operation to another registry, which outlives it.
class ForwardingRegistry : public platform::registry_t {
 public:
  explicit ForwardingRegistry(platform::registry_t& target) : target_(target) {}

  platform::error_t CreateKey(std::string_view key) override { return target_.CreateKey(key); }
  platform::error_t FindKey(std::string_view key) override { return target_.FindKey(key); }
  platform::error_t DeleteKey(std::string_view key) override { return target_.DeleteKey(key); }
  platform::error_t SetValues(std::string_view key, const std::vector<platform::registry_value_t>& values) override {
    return target_.SetValues(key, values);
  }
  platform::error_t GetValue(std::string_view key, std::string_view name, platform::registry_data_t& data) override {
    return target_.GetValue(key, name, data);
  }
  platform::error_t DeleteValue(std::string_view key, std::string_view name) override {
    return target_.DeleteValue(key, name);
  }
  platform::error_t EnumerateKeys(std::string_view key, std::vector<std::string>& names) override {
    return target_.EnumerateKeys(key, names);
  }
  platform::error_t EnumerateValues(std::string_view key, std::vector<platform::registry_value_t>& values) override {
    return target_.EnumerateValues(key, values);
  }
  platform::error_t Check() override { return target_.Check(); }
  platform::error_t VisitKeys(std::string_view key, visit_order_t order, const visitor_t& visit) override {
    return target_.VisitKeys(key, order, visit);
  }
  platform::error_t ReadTree(std::string_view key, platform::registry_node_t& node) override {
    return target_.ReadTree(key, node);
  }
  platform::error_t Begin() override { return target_.Begin(); }
  platform::error_t Commit() override { return target_.Commit(); }
  void Rollback() noexcept override { target_.Rollback(); }

 protected:
  platform::registry_t& target_;
};

/// While `failure` is set, every operation that would write returns it and writes nothing.
class FailingRegistry : public ForwardingRegistry {
 public:
  using ForwardingRegistry::ForwardingRegistry;

  std::atomic<platform::error_t> failure = platform::error::Success;

  platform::error_t CreateKey(std::string_view key) override {
    const platform::error_t failed = failure;
    return failed == 0 || FindKey(key) == 0 ? ForwardingRegistry::CreateKey(key) : failed;
  }
  platform::error_t DeleteKey(std::string_view key) override {
    const platform::error_t failed = failure;
    return failed == 0 ? ForwardingRegistry::DeleteKey(key) : failed;
  }
  platform::error_t SetValues(std::string_view key, const std::vector<platform::registry_value_t>& values) override {
    // Inside a transaction the failure shows at its end.
    const platform::error_t failed = depth_ > 0 ? platform::error::Success : failure.load();
    return failed == 0 ? ForwardingRegistry::SetValues(key, values) : failed;
  }
  platform::error_t DeleteValue(std::string_view key, std::string_view name) override {
    const platform::error_t failed = failure;
    return failed == 0 ? ForwardingRegistry::DeleteValue(key, name) : failed;
  }
  platform::error_t Begin() override {
    const platform::error_t begun = ForwardingRegistry::Begin();
    ++depth_;  // The target keeps other threads out from here on.
    return begun;
  }
  platform::error_t Commit() override {
    const platform::error_t failed = failure;
    --depth_;
    if (failed == 0)
      return ForwardingRegistry::Commit();
    ForwardingRegistry::Rollback();
    return failed;
  }
  void Rollback() noexcept override {
    --depth_;
    ForwardingRegistry::Rollback();
  }

 private:
  std::atomic<int> depth_ = 0;
};

/// Makes a registry the process's while it lives.
class ScopedRegistry {
 public:
  explicit ScopedRegistry(platform::registry_t& registry) : old_(platform::registry_t::SetInstance(&registry)) {}
  ScopedRegistry(const ScopedRegistry&) = delete;
  ScopedRegistry& operator=(const ScopedRegistry&) = delete;
  ~ScopedRegistry() { platform::registry_t::SetInstance(old_); }

 private:
  platform::registry_t* old_;
};

}  // namespace test
