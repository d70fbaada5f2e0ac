#include "remotefs/mounts/remote_fs_health_check_thread.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "mounts_fixture.h"
#include "support/manual_clock.h"

namespace test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// The waits of the thread in the test's hands: each ends when the test says so.
class Steps {
 public:
  enum class Step { TimePasses, Fails, Signalled };

  SHealthCheckWaits Waits() {
    SHealthCheckWaits waits;
    waits.wait = [this](synch::manual_event_t& stopEvent, std::uint32_t limitMs) { return Wait(stopEvent, limitMs); };
    return waits;
  }
  /// Ends the wait at hand, or the next one.
  void Do(Step step) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return !step_; });
    step_ = step;
    changed_.notify_all();
  }
  /// Returns when the thread waits again with nothing to do.
  void WaitUntilIdle() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return isWaiting_ && !step_; });
  }
  /// One pass, from its beginning to its end.
  void Pass() {
    Do(Step::TimePasses);
    WaitUntilIdle();
  }
  /// The limits of the waits so far.
  std::vector<std::uint32_t> Limits() const {
    const std::lock_guard lock(mutex_);
    return limits_;
  }

 private:
  bool Wait(synch::manual_event_t& stopEvent, std::uint32_t limitMs) {
    std::unique_lock lock(mutex_);
    limits_.push_back(limitMs);
    isWaiting_ = true;
    changed_.notify_all();
    // The stop signal comes from the product and knows nothing of this; a look now and then is enough.
    while (!step_ && !stopEvent.IsSet())
      changed_.wait_for(lock, std::chrono::milliseconds(1));
    isWaiting_ = false;
    const Step step = step_.value_or(Step::Signalled);
    step_.reset();
    changed_.notify_all();
    if (step == Step::Fails)
      throw exc::win_sys_exc_t("The wait fails.", platform::error::InvalidHandle);
    return step == Step::Signalled;
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Step> step_;
  bool isWaiting_ = false;
  std::vector<std::uint32_t> limits_;
};

class HealthCheck : public MountsFixture {
 protected:
  HealthCheck() { mounter = MakeMounter(); }

  void Start() {
    check = std::make_unique<CRemoteFsHealthCheckThread>(mounter, steps.Waits());
    steps.WaitUntilIdle();
  }
  boost::shared_ptr<CRemoteFsConnector> Connector(const GUID& uid) const {
    CRemoteFsMounter::connectors_t mounts;
    mounter->GetActiveMounts(mounts);
    const auto found = mounts.find(uid);
    return found == mounts.end() ? nullptr : found->second;
  }
  static std::string LostLine(const std::string& pipe) {
    return "[Mount] Failed to re-connect mount agent. VM: \"machine\". Mount ID: \"" + UidText7 + "\".  Pipe: \"" +
           pipe + "\".";
  }

  Steps steps;
  std::unique_ptr<CRemoteFsHealthCheckThread> check;
};

TEST_F(HealthCheck, LooksEveryThirtySeconds) {
  const SHealthCheckWaits usual;
  EXPECT_EQ(usual.periodMs, 30000U);
  EXPECT_EQ(usual.retryMs, 30000U);
  EXPECT_EQ(usual.stopLimitMs, 30000U);
  synch::manual_event_t event;
  EXPECT_FALSE(usual.wait(event, 0));
  event.Set();
  EXPECT_TRUE(usual.wait(event, LongMs));

  Start();
  steps.Pass();
  EXPECT_THAT(steps.Limits(), ElementsAre(30000U, 30000U));
}

TEST_F(HealthCheck, WaitsBeforeItsFirstPass) {
  agent.reset();
  mounter = MakeMounter({{mountUid, cfg}});
  const CapturedLog log;
  Start();
  EXPECT_FALSE(log.Has(LostLine("vm1")));
  steps.Pass();
  EXPECT_TRUE(log.Has(LostLine("vm1")));
}

TEST_F(HealthCheck, SaysAndAsksNothingWhenAllIsWell) {
  mounter->Mount(mountUid, cfg);
  agent->WaitForClients(1);
  Start();
  const std::size_t requests = agent->Requests().size();
  const CapturedLog log;
  steps.Pass();
  steps.Pass();
  EXPECT_THAT(Told(log), IsEmpty());
  EXPECT_EQ(agent->Requests().size(), requests);
  EXPECT_EQ(agent->Resets(), 1);
}

TEST_F(HealthCheck, SaysNothingWithoutMounts) {
  Start();
  const CapturedLog log;
  steps.Pass();
  EXPECT_THAT(Told(log), IsEmpty());
}

TEST_F(HealthCheck, DoesNotFindAnAgentThatDiedUnseen) {
  mounter->Mount(mountUid, cfg);
  agent->WaitForClients(1);
  agent.reset();
  Start();
  const CapturedLog log;
  steps.Pass();
  EXPECT_FALSE(log.Has(LostLine("vm1")));
  EXPECT_EQ(Active(), std::set{mountUid});
}

TEST_F(HealthCheck, BringsALostMountBack) {
  agent->SetFile("disk", WireBytes("hello"));
  agent->SetFile("gone", WireBytes("x"));
  mounter->Mount(mountUid, cfg);
  const std::uint64_t fid = mounter->ResolveMountRootFid(mountUid);
  const std::uint64_t disk = Find(fid, "disk");
  const std::uint64_t gone = Find(fid, "gone");
  Lose(*TheConnector());
  agent->RemoveFile("gone");
  Start();
  const CapturedLog log;
  steps.Pass();
  EXPECT_EQ(Active(), std::set{mountUid});
  EXPECT_EQ(Read(disk), "hello");
  EXPECT_FALSE(tab->GetItem(gone));
  std::vector<std::string> told;
  for (const std::string& line : log.Texts("Info")) {
    if (line.find("econnect") != std::string::npos || line.starts_with("Found root"))
      told.push_back(line);
  }
  EXPECT_THAT(told, ElementsAre("Reconnecting RFS items.",
                                "Found root of the RFS: [{00000000-0000-0000-0000-000000000001}:backup].",
                                "Items were reconnected."));
  EXPECT_THAT(log.Texts("Warning"), IsEmpty());
}

TEST_F(HealthCheck, RetriesOnEveryPassAndTellsOnceInHalfAnHour) {
  mounter->Mount(mountUid, cfg);
  Lose(*TheConnector());
  agent.reset();
  Start();
  const CapturedLog log;
  for (int i = 0; i < 5; ++i) {
    now += 30000;
    steps.Pass();
  }
  EXPECT_EQ(log.Texts("Warning"), std::vector{LostLine("vm1")});
  now = CNfsLogFilter::PurgePeriodMsec;
  steps.Pass();
  EXPECT_EQ(log.Count(LostLine("vm1")), 2U);
  agent = std::make_unique<FakeMountAgent>("vm1");
  steps.Pass();
  EXPECT_EQ(Active(), std::set{mountUid}) << "the pass after the agent came";
  EXPECT_EQ(log.Count(LostLine("vm1")), 2U);
  EXPECT_TRUE(log.Has("Items were reconnected."));
}

TEST_F(HealthCheck, AMountThatFailsToComeBackIsToldAndTouchesNoOther) {
  FakeMountAgent second("vm2");
  mounter->Mount(MountUid(7), cfg);
  mounter->Mount(MountUid(8), Cfg("vm2", "backup"));
  second.SetFile("disk", WireBytes("two"));
  const std::uint64_t disk = Find(mounter->ResolveMountRootFid(MountUid(8)), "disk");
  agent->SetFile("own", WireBytes("one"));
  Find(mounter->ResolveMountRootFid(MountUid(7)), "own");
  Lose(*Connector(MountUid(7)));
  second.SetScript([](const AgentRequest&) { return DieInReply(); });
  EXPECT_ANY_THROW(Connector(MountUid(8))->GetClient()->GetSize(0));
  second.SetScript({});
  AnswerTo(1, DieInReply());
  Start();
  const CapturedLog log;
  steps.Pass();
  const auto warnings = log.Texts("Warning");
  ASSERT_FALSE(warnings.empty());
  EXPECT_EQ(warnings[0], "Failed to reconnect remote FS. FS mount point: [vm1].");
  EXPECT_EQ(warnings[1], "Timed out waiting for the response from restore agent.");
  EXPECT_EQ(Active(), std::set{MountUid(8)});
  EXPECT_EQ(Inactive(), std::set{MountUid(7)});
  EXPECT_EQ(Read(disk), "two");
  EXPECT_EQ(log.Count("Items were reconnected."), 1U);
  AnswerWell();
  steps.Pass();
  EXPECT_EQ(Active(), (std::set{MountUid(7), MountUid(8)}));
}

TEST_F(HealthCheck, AMountWhoseFolderIsGoneIsToldWithTheReason) {
  mounter->Mount(mountUid, cfg);
  tab->RemoveItem(mounter->ResolveMountRootFid(mountUid));
  Lose(*TheConnector());
  Start();
  const CapturedLog log;
  steps.Pass();
  const auto warnings = log.Texts("Warning");
  ASSERT_GE(warnings.size(), 3U);
  EXPECT_EQ(warnings[0], "Failed to reconnect remote FS. FS mount point: [vm1].");
  EXPECT_THAT(warnings[2], HasSubstr("Failed to resolve RFS mount UID to FID."));
  EXPECT_TRUE(log.Has("Reconnecting RFS items."));
  EXPECT_FALSE(log.Has("Items were reconnected."));
}

TEST_F(HealthCheck, AMountWithoutAgentAtStartComesBack) {
  agent.reset();
  mounter = MakeMounter({{mountUid, cfg}});
  Start();
  agent = std::make_unique<FakeMountAgent>("vm1");
  agent->SetFile("disk", WireBytes("hello"));
  steps.Pass();
  EXPECT_EQ(Active(), std::set{mountUid});
  EXPECT_EQ(Read(Find(mounter->ResolveMountRootFid(mountUid), "disk")), "hello");
}

TEST_F(HealthCheck, StopsOnASignal) {
  Start();
  const CapturedLog log;
  check->Stop();
  EXPECT_THAT(log.Texts("Info"), testing::IsSupersetOf({std::string("Sending signal to stop health check thread."),
                                                        std::string("Backup mounts health check thread was stopped."),
                                                        std::string("Health check thread is stopped.")}));
  EXPECT_EQ(log.Texts("Info").front(), "Sending signal to stop health check thread.");
  EXPECT_EQ(log.Texts("Info").back(), "Health check thread is stopped.");
  EXPECT_THAT(log.Texts("Error"), IsEmpty());
  EXPECT_THAT(log.Texts("Warning"), IsEmpty());
  EXPECT_EQ(mounter.use_count(), 1) << "and holds nothing more";
  check->Stop();
  EXPECT_EQ(log.Count("Sending signal to stop health check thread."), 1U);
}

TEST_F(HealthCheck, StopsWithTheUsualWaits) {
  check = std::make_unique<CRemoteFsHealthCheckThread>(mounter);
  const CapturedLog log;
  check.reset();
  EXPECT_TRUE(log.Has("Health check thread is stopped."));
}

TEST_F(HealthCheck, AWaitThatFailsIsToldAndTriedAgain) {
  ManualClock clock;
  const ScopedClock scopedClock(clock);
  agent.reset();
  mounter = MakeMounter({{mountUid, cfg}});
  Start();
  const CapturedLog log;
  steps.Do(Steps::Step::Fails);
  clock.WaitForSleepers(1);
  const auto warnings = log.Texts("Warning");
  ASSERT_GE(warnings.size(), 2U);
  EXPECT_EQ(warnings[0], "HealthCheck: WaitForSingleObject() failed.");
  EXPECT_THAT(warnings, Contains("The wait fails."));
  EXPECT_FALSE(log.Has(LostLine("vm1"))) << "there is no pass";
  clock.Advance(29999);
  clock.WaitForSleepers(1);
  EXPECT_EQ(steps.Limits().size(), 1U);
  clock.Advance(1);
  steps.WaitUntilIdle();
  EXPECT_FALSE(log.Has(LostLine("vm1")));
  steps.Pass();
  EXPECT_TRUE(log.Has(LostLine("vm1")));
}

TEST_F(HealthCheck, ASignalDuringTheSleepTakesEffectAtTheNextWait) {
  ManualClock clock;
  const ScopedClock scopedClock(clock);
  Start();
  steps.Do(Steps::Step::Fails);
  clock.WaitForSleepers(1);
  const CapturedLog log;
  std::thread stopping([&] { check->Stop(); });
  while (!log.Has("Sending signal to stop health check thread."))
    std::this_thread::yield();
  clock.WaitForSleepers(1);
  EXPECT_FALSE(log.Has("Backup mounts health check thread was stopped."));
  clock.Advance(30000);
  stopping.join();
  EXPECT_TRUE(log.Has("Backup mounts health check thread was stopped."));
}

TEST_F(HealthCheck, APassInProgressIsNotInterrupted) {
  agent->SetFile("disk", WireBytes("hello"));
  mounter->Mount(mountUid, cfg);
  const std::uint64_t disk = Find(mounter->ResolveMountRootFid(mountUid), "disk");
  Lose(*TheConnector());
  Start();
  std::mutex mutex;
  std::condition_variable changed;
  bool isAsked = false;
  bool mayAnswer = false;
  agent->SetScript([&](const AgentRequest&) -> std::optional<AgentReply> {
    std::unique_lock lock(mutex);
    isAsked = true;
    changed.notify_all();
    changed.wait(lock, [&] { return mayAnswer; });
    return std::nullopt;
  });
  const CapturedLog log;
  steps.Do(Steps::Step::TimePasses);
  {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return isAsked; });
  }
  std::thread stopping([&] { check->Stop(); });
  while (!log.Has("Sending signal to stop health check thread."))
    std::this_thread::yield();
  {
    const std::lock_guard lock(mutex);
    mayAnswer = true;
    changed.notify_all();
  }
  stopping.join();
  EXPECT_TRUE(log.Has("Items were reconnected."));
  EXPECT_TRUE(log.Has("Backup mounts health check thread was stopped."));
  EXPECT_EQ(Read(disk), "hello");
}

TEST_F(HealthCheck, AnyOtherFailureEndsTheThread) {
  class BrokenClock : public ManualClock {
   public:
    void Sleep(std::uint32_t) override { throw exc::runtime_exc_t("The clock is broken."); }
  };
  BrokenClock clock;
  const ScopedClock scopedClock(clock);
  Start();
  const CapturedLog log;
  steps.Do(Steps::Step::Fails);
  while (!log.Has("The clock is broken."))
    std::this_thread::yield();
  EXPECT_EQ(log.Texts("Error").front(), "Fatal error of the backup mounts health check thread.");
  check->Stop();
  EXPECT_TRUE(log.Has("Health check thread is stopped."));
  EXPECT_FALSE(log.Has("Backup mounts health check thread was stopped."));
}

TEST_F(HealthCheck, AThreadThatDoesNotEndIsLeftBehind) {
  ManualClock clock;
  const ScopedClock scopedClock(clock);
  SHealthCheckWaits waits = steps.Waits();
  waits.stopLimitMs = 1;
  check = std::make_unique<CRemoteFsHealthCheckThread>(mounter, waits);
  steps.WaitUntilIdle();
  steps.Do(Steps::Step::Fails);
  clock.WaitForSleepers(1);
  const CapturedLog log;
  check->Stop();
  EXPECT_EQ(log.Texts("Info").back(), "Health check thread is stopped.");
  EXPECT_FALSE(log.Has("Backup mounts health check thread was stopped."));
  EXPECT_EQ(mounter.use_count(), 2) << "it keeps what it uses";
  clock.Advance(30000);
  while (mounter.use_count() != 1)
    std::this_thread::yield();
  EXPECT_TRUE(log.Has("Backup mounts health check thread was stopped."));
}

}  // namespace
}  // namespace test
