// An agent that is killed again and again while guests write to its overlay.
#include "fault/support/kill_campaign.h"
#include "integration/support/backup_fixture.h"
#include "integration/support/block_writer.h"

namespace test {
namespace {

/// An agent that the machine keeps waiting for two seconds is taken for lost, and found again by the health check after
/// half a minute.
constexpr std::chrono::seconds Patience = 180s;

class KillAgentTest : public CBackupTest {};
KELVO_WIRE_SUITE(KillAgentTest);

TEST_P(KillAgentTest, AnAnsweredWriteIsInTheOverlayAndTheSourceIsUntouched) {
  constexpr std::size_t Blocks = 1024;
  constexpr std::size_t Size = Blocks * BlockSize;
  CCampaign campaign(3);
  SCOPED_TRACE(campaign.Text());
  const std::string source(Size, 's');
  const CBackupFolder backup{{"disk.img", source}, {"data.img", source}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  const writers_t writers = StartWriters({HandleOf("disk.img"), HandleOf("data.img")}, Blocks, 16,
                                         [&campaign] { return campaign.Below(1U << 30); });
  client_.reset();
  unsigned killedStarts = 0;
  unsigned round = 0;
  for (; round < campaign.Rounds() && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    WaitForProgress(writers, 5, Patience);
    campaign.Pause(200);
    agent.Kill();
    for (; campaign.Below(4) == 0; ++killedStarts) {
      CProcess process({Program("kelvo-mount-agent"), "--pipe", "vm1", "--source", backup.Path(), "--overlay",
                        agent.OverlayFolder()},
                       service_.Environment());
      campaign.Pause(20);
      process.Signal(SIGKILL);
      process.WaitForExit();
    }
    ASSERT_NO_FATAL_FAILURE(agent.Start());
    // A new service finds the agent at once; the old one would take up to half a minute.
    service_.Kill();
    ASSERT_NO_FATAL_FAILURE(service_.Start());
    EXPECT_TRUE(ReadFile(backup.File("disk.img")) == source);
    EXPECT_TRUE(ReadFile(backup.File("data.img")) == source);
  }
  WaitForProgress(writers, 5, Patience);
  std::printf("%u kills at work, %u in the start; ", round, killedStarts);
  StopAfterFailures(writers);

  // Out of the overlay alone.
  agent.Kill();
  service_.Kill();
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  ASSERT_NO_FATAL_FAILURE(service_.Start());
  for (const auto& writer : writers)
    ASSERT_NO_FATAL_FAILURE(writer->Check(NewClient(), source));
  EXPECT_TRUE(ReadFile(backup.File("disk.img")) == source);
  EXPECT_TRUE(ReadFile(backup.File("data.img")) == source);
}

}  // namespace
}  // namespace test
