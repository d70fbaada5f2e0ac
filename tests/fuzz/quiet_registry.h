// A registry that can be told to store nothing.
#pragma once

#include <string_view>
#include <vector>

#include "support/forwarding_registry.h"

namespace fuzz {

/// Takes no more writes once it is quiet, and says that all went well: for inputs that do not look at what is stored,
/// thousands of which a second would be written.
class CQuietRegistry : public test::ForwardingRegistry {
 public:
  using ForwardingRegistry::ForwardingRegistry;

  platform::error_t CreateKey(std::string_view key) override {
    return quiet ? Done : ForwardingRegistry::CreateKey(key);
  }
  platform::error_t DeleteKey(std::string_view key) override {
    return quiet ? Done : ForwardingRegistry::DeleteKey(key);
  }
  platform::error_t SetValues(std::string_view key, const std::vector<platform::registry_value_t>& values) override {
    return quiet ? Done : ForwardingRegistry::SetValues(key, values);
  }
  platform::error_t DeleteValue(std::string_view key, std::string_view name) override {
    return quiet ? Done : ForwardingRegistry::DeleteValue(key, name);
  }
  platform::error_t Begin() override { return quiet ? Done : ForwardingRegistry::Begin(); }
  platform::error_t Commit() override { return quiet ? Done : ForwardingRegistry::Commit(); }
  void Rollback() noexcept override {
    if (!quiet)
      ForwardingRegistry::Rollback();
  }

  bool quiet = false;

 private:
  static constexpr platform::error_t Done = platform::error::Success;
};

}  // namespace fuzz
