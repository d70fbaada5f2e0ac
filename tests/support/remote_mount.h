// A mount's agent and connector, and the ways in which the two lose each other.
#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "config/address_checker_factory.h"
#include "config/backup_mount_cfg.h"
#include "remotefs/items/remote_fs_connector.h"
#include "support/fake_mount_agent.h"
#include "support/temp_dir.h"
#include "vfs/items/completion_events_allocator.h"

namespace test {

/// Never reached by a test that passes.
inline constexpr std::uint32_t LongMs = 60000;
/// For waits that must run out.
inline constexpr std::uint32_t ShortMs = 50;

/// The first bytes of a reply that ends in the middle, however large the buffer is that waits for it: the client knows
/// at once that nothing more will come.
inline AgentReply DieInReply() {
  return AgentReply::RawAndHangUp(WireNumber<std::uint32_t>(300000) + Bytes(100000));
}

inline boost::shared_ptr<CBackupMountCfg> MountCfg(const std::string& pipe, const std::string& allowedHostAddr = {}) {
  const auto cfg = boost::make_shared<CBackupMountCfg>();
  cfg->vmName = "machine";
  cfg->description = "of monday";
  cfg->pipe = pipe;
  cfg->allowedHostAddr = allowedHostAddr;
  return cfg;
}

/// A runtime folder of the test's own and one agent, on the pipe "vm1".
class RemoteMountFixture : public testing::Test {
 protected:
  RemoteMountFixture() { CAddressCheckerFactory::Install(boost::make_shared<CAddressCheckerFactory>(true)); }
  ~RemoteMountFixture() override { CAddressCheckerFactory::Install({}); }

  boost::shared_ptr<CRemoteFsConnector> MakeConnector(std::int32_t poolSize = 1) const {
    return CRemoteFsConnector::Create(cfg, allocator, poolSize, limits);
  }
  boost::shared_ptr<CRemoteFsConnector> Connected(std::int32_t poolSize = 1) const {
    const auto connector = MakeConnector(poolSize);
    const int before = agent->Clients();
    connector->Connect();
    // It serves one client: one that it takes late would stand before the next.
    if (cfg->pipe == AgentPipe)
      agent->WaitForClients(before + 1);
    return connector;
  }
  void Answer(const AgentReply& reply) const {
    agent->SetScript([reply](const AgentRequest&) { return reply; });
  }
  /// Answers one command, and all others as an agent does.
  void AnswerTo(std::uint32_t command, const AgentReply& reply) const {
    agent->SetScript([command, reply](const AgentRequest& request) {
      return request.command == command ? std::optional(reply) : std::nullopt;
    });
  }
  void AnswerWell() const { agent->SetScript({}); }
  /// The connector notices that its client's agent has gone; the agent is there again for the next client.
  void Lose(CRemoteFsConnector& connector) const {
    Answer(DieInReply());
    EXPECT_ANY_THROW(connector.GetClient()->GetSize(0));
    AnswerWell();
  }
  Bytes LastRequest() const {
    const std::vector<Bytes> requests = agent->Requests();
    return requests.empty() ? Bytes() : requests.back();
  }

  static constexpr const char* AgentPipe = "vm1";

  const TempDir folder;
  const ScopedEnvironment runtime{"KELVO_RUNTIME_DIR", folder / "run"};
  SRemoteFsLimits limits{.connectMs = 0, .reconnectMs = 0, .responseMs = LongMs, .freeClientMs = ShortMs};
  const boost::shared_ptr<CBackupMountCfg> cfg = MountCfg(AgentPipe);
  const boost::shared_ptr<CCompletionEventsAllocator> allocator = boost::make_shared<CCompletionEventsAllocator>();
  std::unique_ptr<FakeMountAgent> agent = std::make_unique<FakeMountAgent>(AgentPipe);
};

}  // namespace test
