// A registry that fails where a test wants it to.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

namespace test {

/// Passes every operation on, unless `fault` gives it a number.
class FaultyRegistry : public platform::registry_t {
 public:
  /// Called with the operation's name and its key before the operation; 0 lets it happen.
  using fault_t = std::function<platform::error_t(std::string_view operation, std::string_view key)>;

  explicit FaultyRegistry(platform::registry_t& target) : target_(target) {}

  fault_t fault;

  /// Every operation of this name fails with the number.
  void Fail(std::string operation, platform::error_t number) {
    fault = [operation = std::move(operation), number](std::string_view done, std::string_view) {
      return done == operation ? number : platform::error::Success;
    };
  }
  /// The operation of this name fails from its n-th call on, counted from 0.
  void FailAfter(std::string operation, int calls, platform::error_t number) {
    fault = [operation = std::move(operation), calls, number](std::string_view done, std::string_view) mutable {
      return done == operation && calls-- <= 0 ? number : platform::error::Success;
    };
  }

  platform::error_t CreateKey(std::string_view key) override {
    const platform::error_t number = Fault("CreateKey", key);
    return number != 0 ? number : target_.CreateKey(key);
  }
  platform::error_t FindKey(std::string_view key) override {
    const platform::error_t number = Fault("FindKey", key);
    return number != 0 ? number : target_.FindKey(key);
  }
  platform::error_t DeleteKey(std::string_view key) override {
    const platform::error_t number = Fault("DeleteKey", key);
    return number != 0 ? number : target_.DeleteKey(key);
  }
  platform::error_t SetValues(std::string_view key, const std::vector<platform::registry_value_t>& values) override {
    const platform::error_t number = Fault("SetValues", key);
    return number != 0 ? number : target_.SetValues(key, values);
  }
  platform::error_t GetValue(std::string_view key, std::string_view name, platform::registry_data_t& data) override {
    const platform::error_t number = Fault("GetValue", key);
    return number != 0 ? number : target_.GetValue(key, name, data);
  }
  platform::error_t DeleteValue(std::string_view key, std::string_view name) override {
    const platform::error_t number = Fault("DeleteValue", key);
    return number != 0 ? number : target_.DeleteValue(key, name);
  }
  platform::error_t EnumerateKeys(std::string_view key, std::vector<std::string>& names) override {
    const platform::error_t number = Fault("EnumerateKeys", key);
    return number != 0 ? number : target_.EnumerateKeys(key, names);
  }
  platform::error_t EnumerateValues(std::string_view key, std::vector<platform::registry_value_t>& values) override {
    const platform::error_t number = Fault("EnumerateValues", key);
    return number != 0 ? number : target_.EnumerateValues(key, values);
  }
  platform::error_t Check() override {
    const platform::error_t number = Fault("Check", {});
    return number != 0 ? number : target_.Check();
  }
  platform::error_t VisitKeys(std::string_view key, visit_order_t order, const visitor_t& visit) override {
    const platform::error_t number = Fault("VisitKeys", key);
    return number != 0 ? number : target_.VisitKeys(key, order, visit);
  }
  platform::error_t ReadTree(std::string_view key, platform::registry_node_t& node) override {
    const platform::error_t number = Fault("ReadTree", key);
    return number != 0 ? number : target_.ReadTree(key, node);
  }
  platform::error_t Begin() override {
    const platform::error_t begun = target_.Begin();
    const platform::error_t number = Fault("Begin", {});
    return number != 0 ? number : begun;
  }
  /// A commit that fails writes nothing.
  platform::error_t Commit() override {
    const platform::error_t number = Fault("Commit", {});
    if (number == 0)
      return target_.Commit();
    target_.Rollback();
    return number;
  }
  void Rollback() noexcept override { target_.Rollback(); }

 private:
  platform::error_t Fault(std::string_view operation, std::string_view key) {
    return fault ? fault(operation, key) : platform::error::Success;
  }

  platform::registry_t& target_;
};

}  // namespace test
