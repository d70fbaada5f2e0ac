#include "remotefs/items/remote_fs_connector.h"

#include <gmock/gmock.h>

#include <future>
#include <thread>

#include "platform/message_pipe.h"
#include "platform/named_event.h"
#include "support/captured_log.h"
#include "support/failure_text.h"
#include "support/remote_mount.h"
#include "vfs/items/fs_proc_invoker.h"
#include "vfs/items/virtual_fs_exc.h"

namespace test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* NotStarted =
    "NFS mount agent is not started or not functional (2).\nFailed to connect to the FS server. Pipe: [vm1].";
constexpr const char* NotConnected = "FS client is not connected to the restore agent. Base pipe name: [vm1].";
constexpr const char* Hanging = "Pipe pool is hanging. Base pipe name: [vm1].";

/// The text of the CVirtualFsExc, whose status must be 5.
template <typename Call>
std::string IoErrorOf(const Call& call) {
  try {
    call();
  } catch (const CVirtualFsExc& failure) {
    EXPECT_EQ(failure.Status(), 5U);
    return failure.what();
  }
  return "no failure";
}

class ConnectorTest : public RemoteMountFixture {
 protected:
  static std::string GetClientFailure(CRemoteFsConnector& connector) {
    return IoErrorOf([&] { connector.GetClient(); });
  }
};

TEST_F(ConnectorTest, WaitsAsLongAsHostsExpect) {
  const SRemoteFsLimits usual;
  EXPECT_EQ(usual.connectMs, 2000U);
  EXPECT_EQ(usual.reconnectMs, 0U);
  EXPECT_EQ(usual.responseMs, 2000U);
  EXPECT_EQ(usual.freeClientMs, 16000U);
}

TEST_F(ConnectorTest, NeedsAConfigurationAndAnAllocator) {
  EXPECT_EQ(FailureOf([&] { CRemoteFsConnector::Create({}, allocator, 1); }),
            "CRemoteFsConnector::Create(): Incorrect parameter <config: {null}>");
  EXPECT_EQ(FailureOf([&] { CRemoteFsConnector::Create(cfg, {}, 1); }),
            "CRemoteFsConnector::Create(): Incorrect parameter <completionEventsAllocator: {null}>");
}

TEST_F(ConnectorTest, DoesNotConnectWhenItIsMade) {
  const auto connector = MakeConnector();
  EXPECT_FALSE(connector->IsConnected());
  EXPECT_EQ(connector->GetConfig(), cfg);
  connector->Connect();
  agent->WaitForClients(1);
  EXPECT_EQ(agent->Resets(), 1) << "all were those of Connect";
  EXPECT_EQ(agent->Clients(), 1);
}

TEST_F(ConnectorTest, TakesAPoolSizeBelowOneAsOne) {
  for (const std::int32_t size : {0, -1, std::numeric_limits<std::int32_t>::min()}) {
    const auto connector = Connected(size);
    EXPECT_EQ(connector->GetInvoker()->ThreadCount(), 1U);
    const auto client = connector->GetClient();
    EXPECT_EQ(GetClientFailure(*connector), Hanging);
  }
}

TEST_F(ConnectorTest, HasAnInvokerOfTheMountsName) {
  const CapturedLog log;
  {
    const auto connector = MakeConnector(3);
    EXPECT_EQ(connector->GetInvoker()->ThreadCount(), 3U);
  }
  EXPECT_EQ(log.Count("Invocation thread started for 'vm 'machine''"), 3U);
}

TEST_F(ConnectorTest, FailsInTheResetWhenNoAgentRuns) {
  agent.reset();
  const auto connector = MakeConnector();
  EXPECT_EQ(FailureOf([&] { connector->Connect(); }), NotStarted);
  EXPECT_FALSE(connector->IsConnected());
  EXPECT_EQ(GetClientFailure(*connector), NotConnected);
}

TEST_F(ConnectorTest, LogsAConnectThatMustNotThrow) {
  agent.reset();
  const auto connector = MakeConnector();
  const CapturedLog log;
  connector->ConnectNoThrow();
  EXPECT_FALSE(connector->IsConnected());
  const auto lines = log.Texts("Error");
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], "");
  EXPECT_EQ(lines[1] + "\n" + lines[2], NotStarted);
  EXPECT_THAT(lines[3], HasSubstr("An exception was thrown from thread ["));
}

TEST_F(ConnectorTest, SaysNothingOfAReconnectThatFails) {
  agent.reset();
  const auto connector = MakeConnector();
  // Its invoker tells of itself whenever it likes.
  connector->GetInvoker()->Stop();
  const CapturedLog log;
  EXPECT_FALSE(connector->Reconnect());
  EXPECT_FALSE(connector->IsConnected());
  EXPECT_THAT(log.Texts(), IsEmpty());
}

TEST_F(ConnectorTest, ConnectsInEachOfThreeWays) {
  const auto first = MakeConnector();
  first->Connect();
  EXPECT_TRUE(first->IsConnected());
  agent->WaitForClients(1);
  const auto second = MakeConnector();
  second->ConnectNoThrow();
  EXPECT_TRUE(second->IsConnected());
  agent->WaitForClients(2);
  const auto third = MakeConnector();
  EXPECT_TRUE(third->Reconnect());
  EXPECT_TRUE(third->IsConnected());
  agent->WaitForClients(3);
  EXPECT_EQ(agent->Resets(), 3) << "the agent is told of every new client";
}

TEST_F(ConnectorTest, ResetsTheAgentBeforeItOpensAPipe) {
  const auto connector = MakeConnector();
  connector->GetInvoker()->Stop();
  const CapturedLog log;
  connector->Connect();
  EXPECT_THAT(log.Texts("Info"),
              ElementsAre("Mount agent already started.", R"(Opening VFS pipe "\\.\pipe\vm1-0".)", "Pipe was opened."));
}

TEST_F(ConnectorTest, TellsOfEachPipeThatDoesNotOpenAndFailsWithoutAny) {
  agent.reset();
  boost::shared_ptr<platform::named_event_t> event;
  ASSERT_EQ(platform::named_event_t::Create("Global\\VFS_on_vm1-0", 0600, event), 0U);
  const auto connector = MakeConnector(2);
  const CapturedLog log;
  EXPECT_EQ(FailureOf([&] { connector->Connect(); }),
            "Failed to open pipe pool with VFS server\nFailed to connect to the FS server. Pipe: [vm1].");
  EXPECT_THAT(log.Texts("Warning"),
              ElementsAre(R"(Failed to open pipe [\\.\pipe\vm1-0]: Pipe [\\.\pipe\vm1-0] is not available.)",
                          R"(Failed to connect to FS server. Pipe: [\\.\pipe\vm1-0].)",
                          R"(Failed to open pipe [\\.\pipe\vm1-1]: Pipe [\\.\pipe\vm1-1] is not available.)",
                          R"(Failed to connect to FS server. Pipe: [\\.\pipe\vm1-1].)"));
  EXPECT_TRUE(event->IsSet()) << "the agent was told before";
  EXPECT_FALSE(connector->IsConnected());
  EXPECT_EQ(GetClientFailure(*connector), NotConnected);
}

TEST_F(ConnectorTest, GoesOnWithThePipesThatOpen) {
  agent = std::make_unique<FakeMountAgent>("vm1", 16, 1);
  const auto connector = Connected(3);
  EXPECT_TRUE(connector->IsConnected());
  agent->SetFile("disk", Bytes(7));
  const auto client = connector->GetClient();
  EXPECT_EQ(client->GetSize(client->Open("disk")), 7U);
  EXPECT_EQ(GetClientFailure(*connector), Hanging) << "one client, one slot";
}

/// The pipe of an agent that is busy, and its event.
struct SBusyAgent {
  SBusyAgent() {
    EXPECT_EQ(platform::named_event_t::Create("Global\\VFS_on_busy-0", 0600, reset), 0U);
    EXPECT_EQ(platform::pipe_listener_t::Listen(R"(\\.\pipe\busy-0)", 0600, 0, listener), 0U);
    EXPECT_EQ(platform::message_pipe_t::Open(R"(\\.\pipe\busy-0)", other), 0U);
  }
  void MakeRoom() {
    boost::shared_ptr<platform::message_pipe_t> pipe;
    EXPECT_EQ(listener->Accept(pipe), 0U);
  }

  boost::shared_ptr<platform::named_event_t> reset;
  boost::shared_ptr<platform::pipe_listener_t> listener;
  boost::shared_ptr<platform::message_pipe_t> other;
};

TEST_F(ConnectorTest, WaitsForAPipeWhenItConnectsAndNotWhenItReconnects) {
  SBusyAgent busy;
  cfg->pipe = "busy";
  limits.connectMs = LongMs;
  const auto connector = MakeConnector();
  EXPECT_FALSE(connector->Reconnect());
  EXPECT_TRUE(busy.reset->IsSet());
  busy.reset->Reset();
  std::thread room([&] {
    while (!busy.reset->IsSet())
      std::this_thread::yield();
    busy.MakeRoom();
  });
  connector->Connect();
  room.join();
  EXPECT_TRUE(connector->IsConnected());
}

TEST_F(ConnectorTest, AnswersWhenItHasConnected) {
  SBusyAgent busy;
  cfg->pipe = "busy";
  limits.connectMs = LongMs;
  const auto connector = MakeConnector();
  std::thread connecting([&] { connector->Connect(); });
  while (!busy.reset->IsSet())
    std::this_thread::yield();
  // Both are asked before there is a client, and find one.
  auto isConnected = std::async(std::launch::async, [&] { return connector->IsConnected(); });
  auto failure = std::async(std::launch::async, [&] { return GetClientFailure(*connector); });
  EXPECT_EQ(isConnected.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  EXPECT_EQ(failure.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  busy.MakeRoom();
  EXPECT_TRUE(isConnected.get());
  EXPECT_EQ(failure.get(), "no failure");
  connecting.join();
}

TEST_F(ConnectorTest, RefusesAtOnceWhenItNeverConnected) {
  limits.freeClientMs = LongMs * 10;
  const auto connector = MakeConnector();
  EXPECT_EQ(GetClientFailure(*connector), NotConnected);
}

TEST_F(ConnectorTest, LendsEachClientToOneAndInTurn) {
  const FakeMountAgent second("vm1", 16, 1);
  const FakeMountAgent third("vm1", 16, 2);
  const auto connector = Connected(3);
  std::vector<const remotevfs::RemoteVfsClient*> order;
  {
    const auto a = connector->GetClient();
    const auto b = connector->GetClient();
    {
      const auto c = connector->GetClient();
      order = {&*a, &*b, &*c};
      EXPECT_EQ(std::set(order.begin(), order.end()).size(), 3U);
      EXPECT_EQ(GetClientFailure(*connector), Hanging);
    }
    const auto again = connector->GetClient();
    EXPECT_EQ(&*again, order[2]) << "the one that came back";
  }
  // They came back in the order c, b, a.
  std::vector<const remotevfs::RemoteVfsClient*> next;
  for (int i = 0; i < 4; ++i)
    next.push_back(&*connector->GetClient());
  EXPECT_THAT(next, ElementsAre(order[2], order[1], order[0], order[2]));
}

TEST_F(ConnectorTest, ClientsStandInTheOrderOfTheirPipes) {
  FakeMountAgent second("vm1", 16, 1);
  agent->SetFile("disk", Bytes(1));
  second.SetFile("disk", Bytes(2));
  const auto connector = Connected(2);
  const auto a = connector->GetClient();
  const auto b = connector->GetClient();
  EXPECT_EQ(a->GetSize(a->Open("disk")), 1U);
  EXPECT_EQ(b->GetSize(b->Open("disk")), 2U);
}

TEST_F(ConnectorTest, WaitsForAClientThatOthersUse) {
  limits.freeClientMs = LongMs;
  const auto connector = Connected();
  std::promise<void> asked;
  std::thread user;
  {
    const auto client = connector->GetClient();
    user = std::thread([&] {
      asked.set_value();
      EXPECT_EQ(GetClientFailure(*connector), "no failure");
    });
    asked.get_future().wait();
  }
  user.join();
}

TEST_F(ConnectorTest, ABrokenClientIsNotGivenBack) {
  const auto connector = Connected();
  EXPECT_TRUE(connector->IsConnected());
  Lose(*connector);
  EXPECT_FALSE(connector->IsConnected());
  EXPECT_EQ(GetClientFailure(*connector), Hanging);
}

TEST_F(ConnectorTest, ACallOnALostAgentRunsIntoItsTime) {
  limits.responseMs = ShortMs;
  const auto connector = Connected();
  Answer(AgentReply::Silence());
  EXPECT_EQ(FailureOf([&] { connector->GetClient()->GetSize(0); }),
            "Timed out waiting for the response from restore agent.");
  EXPECT_FALSE(connector->IsConnected());
  EXPECT_EQ(GetClientFailure(*connector), Hanging);
}

TEST_F(ConnectorTest, IsConnectedWhileOneClientLives) {
  FakeMountAgent second("vm1", 16, 1);
  const auto connector = Connected(2);
  Lose(*connector);
  EXPECT_TRUE(connector->IsConnected());
  {
    const auto client = connector->GetClient();
    EXPECT_EQ(client->Open("disk"), -1);
    EXPECT_EQ(GetClientFailure(*connector), Hanging) << "the other slot is lost";
    second.SetScript([](const AgentRequest&) { return AgentReply::Silence(); });
    client->StopEvent()->Set();
    EXPECT_ANY_THROW(client->Open("disk"));
    EXPECT_FALSE(connector->IsConnected());
  }
  second.SetScript({});
  EXPECT_TRUE(connector->Reconnect());
  const auto first = connector->GetClient();
  EXPECT_EQ(connector->GetClient()->Open("disk"), -1) << "both slots are back";
}

TEST_F(ConnectorTest, AnAgentThatDiedUnseenCountsAsConnected) {
  const auto connector = Connected();
  agent->WaitForClients(1);
  agent.reset();
  EXPECT_TRUE(connector->IsConnected());
}

TEST_F(ConnectorTest, AReplyThatMakesNoSenseBreaksNothing) {
  const auto connector = Connected();
  Answer(AgentReply::Message(Bytes(7)));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(FailureOf([&] { connector->GetClient()->GetSize(0); }), "Invalid data stream");
  EXPECT_TRUE(connector->IsConnected());
}

TEST_F(ConnectorTest, ComesBackFromLostAndFromUnconnected) {
  const auto connector = Connected();
  agent->SetFile("disk", Bytes(9));
  Lose(*connector);
  EXPECT_TRUE(connector->Reconnect());
  EXPECT_TRUE(connector->IsConnected());
  const auto size = [&] {
    const auto client = connector->GetClient();
    return client->GetSize(client->Open("disk"));
  };
  EXPECT_EQ(size(), 9U);

  agent.reset();
  EXPECT_FALSE(connector->Reconnect());
  agent = std::make_unique<FakeMountAgent>("vm1");
  agent->SetFile("disk", Bytes(10));
  EXPECT_TRUE(connector->Reconnect());
  EXPECT_EQ(size(), 10U);
}

TEST_F(ConnectorTest, AReconnectThatFailsLeavesItUnconnected) {
  const auto connector = Connected();
  agent.reset();
  EXPECT_FALSE(connector->Reconnect());
  EXPECT_FALSE(connector->IsConnected());
  EXPECT_EQ(GetClientFailure(*connector), NotConnected) << "the old clients are gone";
}

TEST_F(ConnectorTest, AClientOfAnOlderConnectIsNotLentAgain) {
  const auto connector = Connected();
  {
    const auto old = connector->GetClient();
    const std::uint64_t connection = old.Connection();
    ASSERT_TRUE(connector->Reconnect());
    const auto renewed = connector->GetClient();
    EXPECT_NE(&*renewed, &*old);
    EXPECT_NE(renewed.Connection(), connection);
    EXPECT_FALSE(old->IsBroken()) << "it lives on until its user is done";
  }
  const auto client = connector->GetClient();
  EXPECT_EQ(GetClientFailure(*connector), Hanging) << "one slot, not two";
}

TEST_F(ConnectorTest, AClientThatComesBackToAnUnconnectedPoolIsDropped) {
  const auto connector = Connected();
  {
    const auto old = connector->GetClient();
    agent.reset();
    ASSERT_FALSE(connector->Reconnect());
  }
  EXPECT_EQ(GetClientFailure(*connector), NotConnected);
  agent = std::make_unique<FakeMountAgent>("vm1");
  ASSERT_TRUE(connector->Reconnect());
  const auto client = connector->GetClient();
  EXPECT_EQ(GetClientFailure(*connector), Hanging);
}

TEST_F(ConnectorTest, AHolderKeepsTheConnector) {
  boost::weak_ptr<CRemoteFsConnector> watched;
  {
    auto connector = Connected();
    watched = connector;
    const auto client = connector->GetClient();
    connector.reset();
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(client->Open("disk"), -1);
  }
  EXPECT_TRUE(watched.expired());
}

TEST_F(ConnectorTest, RefusesEverythingOnceItIsStopped) {
  const auto connector = Connected();
  connector->Stop();
  EXPECT_FALSE(connector->IsConnected());
  EXPECT_EQ(GetClientFailure(*connector), NotConnected);
  EXPECT_THAT(FailureOf([&] { connector->Connect(); }), HasSubstr("Failed to connect to the FS server. Pipe: [vm1]."));
  connector->ConnectNoThrow();
  EXPECT_FALSE(connector->Reconnect());
  EXPECT_FALSE(connector->IsConnected());
  agent->WaitForClients(1);
  EXPECT_EQ(agent->Resets(), 1) << "the agent is left alone";
  connector->Stop();
}

TEST_F(ConnectorTest, AStopWakesThoseWhoWaitForAClient) {
  limits.freeClientMs = 10 * LongMs;
  const auto connector = Connected();
  const auto held = connector->GetClient();
  std::vector<std::future<std::string>> waiting;
  for (int i = 0; i < 3; ++i)
    waiting.push_back(std::async(std::launch::async, [&] { return GetClientFailure(*connector); }));
  EXPECT_EQ(waiting.back().wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  connector->Stop();
  for (auto& failure : waiting)
    EXPECT_EQ(failure.get(), NotConnected);
}

}  // namespace
}  // namespace test
