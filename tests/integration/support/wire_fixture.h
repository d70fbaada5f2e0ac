// The suite that every protocol server must pass: derive from CWireTest and instantiate with KELVO_WIRE_SUITE.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "integration/support/service.h"
#include "integration/support/wire.h"

namespace test {

/// Status codes and other numbers as clients see them.
inline constexpr std::uint32_t Ok = 0;
inline constexpr std::uint32_t NoEntry = 2;
inline constexpr std::uint32_t AccessDenied = 13;
inline constexpr std::uint32_t Exists = 17;
inline constexpr std::uint32_t NotFolder = 20;
inline constexpr std::uint32_t Invalid = 22;
inline constexpr std::uint32_t Stale = 70;
inline constexpr std::uint32_t NotSync = 10002;
inline constexpr std::uint32_t NotSupported = 10004;
inline constexpr std::uint32_t ServerFault = 10006;
inline constexpr std::uint32_t NoTranslation = 1113;

inline const SServerKind SyncServer{"Sync", {{"AsyncTcp", "REG_DWORD", "0"}}};

/// For what the log alone tells of the two servers' difference.
inline bool IsSync(const SServerKind& kind) {
  return kind.name == std::string_view(SyncServer.name);
}

class CWireTest : public testing::TestWithParam<SServerKind> {
 protected:
  CWireTest() : service_(GetParam()) {}

  void SetUp() override {
    service_.Start();
    if (!HasFatalFailure())
      root_ = Client().Mount().value();
  }

  CNfsClient& Client() {
    if (!client_)
      client_ = std::make_unique<CNfsClient>();
    return *client_;
  }
  /// A client of its own connection, after the server was restarted or the old connection ended.
  CNfsClient& NewClient() {
    client_ = std::make_unique<CNfsClient>();
    return *client_;
  }
  std::string HostPath(const std::string& name) const { return service_.Root() + "/" + name; }
  bytes_t HandleOf(const std::string& name, const bytes_t& folder) {
    bytes_t handle;
    EXPECT_EQ(Client().Lookup(folder, name, &handle), Ok) << name;
    return handle;
  }
  bytes_t HandleOf(const std::string& name) { return HandleOf(name, root_); }

  CService service_;
  std::unique_ptr<CNfsClient> client_;
  bytes_t root_;
};

inline std::string ServerName(const testing::TestParamInfo<SServerKind>& info) {
  return info.param.name;
}

}  // namespace test

#define KELVO_WIRE_SUITE(fixture) \
  INSTANTIATE_TEST_SUITE_P(Server, fixture, testing::Values(test::AsyncServer, test::SyncServer), test::ServerName)
