// What tests of the configuration start from: an empty registry, an environment and a log of their own.
#pragma once

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>

#include "foundation/exc.h"
#include "platform/sqlite_registry.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "unit/config/faulty_registry.h"

namespace test {

class ConfigFixture : public testing::Test {
 protected:
  static constexpr const char* Root = R"(SOFTWARE\KelvO\Kelvo NFS)";

  ConfigFixture() : replaced_(platform::registry_t::SetInstance(&registry)) {}
  ~ConfigFixture() override { platform::registry_t::SetInstance(replaced_); }

  bool HasKey(const std::string& key) { return registry.FindKey(key) == platform::error::Success; }
  std::string Text(const std::string& key, const std::string& name) {
    std::string text;
    EXPECT_EQ(registry.GetText(key, name, text), 0U) << key << " " << name;
    return text;
  }
  std::uint32_t Dword(const std::string& key, const std::string& name) {
    std::uint32_t number = 0;
    EXPECT_EQ(registry.GetDword(key, name, number), 0U) << key << " " << name;
    return number;
  }
  void Put(const std::string& key, const std::string& name, const std::string& text) {
    ASSERT_EQ(registry.SetText(key, name, text), 0U);
  }
  void Put(const std::string& key, const std::string& name, std::uint32_t number) {
    ASSERT_EQ(registry.SetDword(key, name, number), 0U);
  }

  TempDir folder;
  ScopedEnvironment allUsersProfile{"ALLUSERSPROFILE", folder.Path().string()};
  platform::sqlite_registry_t stored{folder / "test.db"};
  FaultyRegistry registry{stored};
  CapturedLog log;

 private:
  platform::registry_t* const replaced_;
};

/// The texts of what the call throws, cause first; empty when it throws nothing.
template <typename Call>
std::vector<std::string> ThrownTexts(const Call& call) {
  std::vector<std::string> texts;
  try {
    call();
  } catch (const exc::exc_base_t& failure) {
    for (const exc::exc_base_t::message_t& message : failure.Messages())
      texts.push_back(message.text);
  }
  return texts;
}

}  // namespace test
