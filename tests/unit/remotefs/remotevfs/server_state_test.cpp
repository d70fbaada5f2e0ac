#include "remotefs/remotevfs/server_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <vector>

#include "foundation/exc.h"
#include "support/captured_log.h"
#include "support/fake_mount_agent.h"
#include "support/temp_dir.h"

namespace {

using platform::error_t;
using platform::named_event_t;
using remotevfs::ServerState;
using event_ptr_t = boost::shared_ptr<named_event_t>;
namespace error = platform::error;

const std::string Base = R"(\\.\pipe\vm1)";
constexpr const char* NotStarted = "NFS mount agent is not started or not functional (2).";

class ServerStateTest : public testing::Test {
 protected:
  static event_ptr_t MustCreate(const std::string& name) {
    event_ptr_t event;
    EXPECT_EQ(named_event_t::Create(name, 0600, event), 0U);
    return event;
  }

  test::TempDir folder_;
  test::ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", folder_ / "run"};
};

/// An event that cannot be set.
class StuckEvent : public named_event_t {
 public:
  explicit StuckEvent(error_t result) : result_(result) {}
  error_t Set() override {
    ++sets_;
    return result_;
  }
  error_t Reset() override { return 0; }
  bool IsSet() const override { return false; }
  error_t Wait(std::uint32_t) const override { return error::WaitTimeout; }
  int Descriptor() const noexcept override { return -1; }
  int Sets() const { return sets_; }

 private:
  const error_t result_;
  int sets_ = 0;
};

TEST_F(ServerStateTest, NamesThePipesAndTheirEvents) {
  EXPECT_EQ(remotevfs::PipeName(Base, 0), R"(\\.\pipe\vm1-0)");
  EXPECT_EQ(remotevfs::PipeName(Base, 12), R"(\\.\pipe\vm1-12)");
  EXPECT_EQ(remotevfs::ResetEventName(Base, 0), "Global\\VFS_on_vm1-0");
  EXPECT_EQ(remotevfs::ResetEventName(Base, 12), "Global\\VFS_on_vm1-12");
  EXPECT_EQ(remotevfs::ResetEventName("short", 0), "Global\\VFS_on_-0");
}

TEST_F(ServerStateTest, WithoutAnEventTheAgentIsNotStarted) {
  const test::CapturedLog log;
  ServerState state(3, Base);
  EXPECT_FALSE(state.IsAgentStarted());
  try {
    state.ResetAgent();
    FAIL();
  } catch (const exc::runtime_exc_t& exception) {
    EXPECT_STREQ(exception.what(), NotStarted);
  }
  EXPECT_TRUE(log.Texts().empty());
}

TEST_F(ServerStateTest, LeavesNothingBehindThatAnAgentCouldTakeForItsOwn) {
  const ServerState state(1, Base);
  const event_ptr_t agents = MustCreate("Global\\VFS_on_vm1-0");
  EXPECT_TRUE(agents);
}

TEST_F(ServerStateTest, EveryEventThatIsThereIsSet) {
  const event_ptr_t first = MustCreate("Global\\VFS_on_vm1-1");
  const event_ptr_t second = MustCreate("Global\\VFS_on_vm1-3");
  const event_ptr_t beyond = MustCreate("Global\\VFS_on_vm1-4");
  const event_ptr_t other = MustCreate("Global\\VFS_on_vm2-1");
  const test::CapturedLog log;
  {
    ServerState state(4, Base);
    EXPECT_TRUE(state.IsAgentStarted());
    EXPECT_FALSE(first->IsSet());
    state.ResetAgent();
  }
  EXPECT_TRUE(first->IsSet());
  EXPECT_TRUE(second->IsSet());
  EXPECT_FALSE(beyond->IsSet());
  EXPECT_FALSE(other->IsSet());
  EXPECT_EQ(log.Count("Mount agent already started."), 1U);
}

TEST_F(ServerStateTest, AnAgentIsToldToForgetItsClient) {
  test::FakeMountAgent agent("vm1");
  boost::shared_ptr<platform::message_pipe_t> pipe;
  ASSERT_EQ(platform::message_pipe_t::Open(remotevfs::PipeName(Base, 0), pipe), 0U);
  agent.WaitForClients(1);
  ServerState(1, Base).ResetAgent();
  agent.WaitForResets(1);
  std::array<std::uint8_t, 4> reply{};
  std::size_t count = 0;
  EXPECT_EQ(pipe->Read(reply, count), error::BrokenPipe);
  ASSERT_EQ(platform::message_pipe_t::Open(remotevfs::PipeName(Base, 0), pipe), 0U);
  agent.WaitForClients(2);
}

TEST_F(ServerStateTest, AnEventThatCannotBeLookedAtIsAFailure) {
  try {
    ServerState(2, Base, [](std::string_view name, event_ptr_t& event) -> error_t {
      event = boost::make_shared<StuckEvent>(0);
      return name.ends_with("-1") ? error::AccessDenied : error::Success;
    });
    FAIL();
  } catch (const exc::win_sys_exc_t& exception) {
    EXPECT_EQ(exception.Code(), error::AccessDenied);
    EXPECT_THAT(exception.what(), testing::HasSubstr("Failed to create event [Global\\VFS_on_vm1-1]."));
  }
}

TEST_F(ServerStateTest, AnEventThatCannotBeSetIsAFailureAfterAllWereTried) {
  std::vector<boost::shared_ptr<StuckEvent>> events;
  ServerState state(3, Base, [&](std::string_view, event_ptr_t& event) -> error_t {
    events.push_back(boost::make_shared<StuckEvent>(events.size() == 1 ? error::InvalidHandle : error::Success));
    event = events.back();
    return error::Success;
  });
  try {
    state.ResetAgent();
    FAIL();
  } catch (const exc::win_sys_exc_t& exception) {
    EXPECT_EQ(exception.Code(), error::InvalidHandle);
    EXPECT_THAT(exception.what(), testing::HasSubstr("Failed to send reset signal to the NFS mount agent."));
  }
  ASSERT_EQ(events.size(), 3U);
  for (const boost::shared_ptr<StuckEvent>& event : events)
    EXPECT_EQ(event->Sets(), 1);
}

}  // namespace
