// A service that is killed again and again in the middle of its work, and in the middle of its start.
#include <gmock/gmock.h>

#include "fault/support/kill_campaign.h"
#include "fault/support/mixed_load.h"
#include "fault/support/stored_registry.h"

namespace test {
namespace {

using testing::IsEmpty;

class KillServiceTest : public CWireTest {
 protected:
  /// Starts the service and kills it before or after it is ready.
  void KillInStart(CCampaign& campaign) {
    CProcess process({Program("KelvoNfsSvc")}, service_.Environment());
    campaign.Pause(150);
    process.Signal(SIGKILL);
    process.WaitForExit();
  }
};
KELVO_WIRE_SUITE(KillServiceTest);

TEST_P(KillServiceTest, WhatWasAnsweredOutlivesEveryKill) {
  constexpr unsigned Loads = 4;
  CCampaign campaign(4);
  SCOPED_TRACE(campaign.Text());
  std::vector<std::unique_ptr<CMixedLoad>> loads;
  for (unsigned i = 0; i < Loads; ++i)
    loads.push_back(std::make_unique<CMixedLoad>(root_, "load" + std::to_string(i), campaign.Below(1U << 30)));
  client_.reset();
  unsigned killedStarts = 0;
  unsigned round = 0;
  for (; round < campaign.Rounds() && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    for (const auto& load : loads)
      load->Start();
    const std::size_t goal = loads.front()->Answered() + 5;
    EXPECT_TRUE(WaitUntil([&] { return loads.front()->Answered() >= goal || !loads.front()->IsRunning(); }));
    campaign.Pause(300);
    for (const auto& load : loads)
      EXPECT_TRUE(load->IsRunning()) << "a connection ended before the service was killed";
    service_.Kill();
    for (const auto& load : loads)
      load->Stop();
    for (; campaign.Below(4) == 0; ++killedStarts)
      KillInStart(campaign);
    ASSERT_NO_FATAL_FAILURE(service_.Start());
    for (const auto& load : loads)
      load->Check();
    CStoredRegistry registry(service_);
    EXPECT_EQ(registry.Integrity(), "ok");
    EXPECT_THAT(registry.PlacesStoredTwice(), IsEmpty());
  }
  SLoadFigures all;
  for (const auto& load : loads) {
    all.answered += load->Figures().answered;
    all.writes += load->Figures().writes;
    all.unanswered += load->Figures().unanswered;
    all.handles += load->Figures().handles;
    all.stale += load->Figures().stale;
  }
  std::printf(
      "%u kills at work, %u in the start; %zu calls answered, %zu of them writes, %zu cut off; %zu handles looked at, "
      "%zu of renamed items stale\n",
      round, killedStarts, all.answered, all.writes, all.unanswered, all.handles, all.stale);
  EXPECT_GT(all.writes, 0U);
  EXPECT_GT(all.unanswered, 0U);
}

}  // namespace
}  // namespace test
