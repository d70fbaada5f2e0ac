// The transports under the programs: datagrams, resets, ports that others hold, descriptors that run out.
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "integration/support/footprint.h"
#include "integration/support/sockets.h"
#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

class TransportTest : public CWireTest {
 protected:
  bool Logged(const std::string& text) const { return service_.LogText().find(text) != std::string::npos; }

  std::size_t Descriptors() { return FootprintOf(service_.Process().Pid()).descriptors; }
  /// The service may open no descriptor above this number; 0 is what it had before.
  void LimitDescriptors(rlim_t number) {
    rlimit limit{};
    ASSERT_EQ(prlimit(service_.Process().Pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
    limit.rlim_cur = number == 0 ? limit.rlim_max : number;
    ASSERT_EQ(prlimit(service_.Process().Pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  }
};
KELVO_WIRE_SUITE(TransportTest);

TEST_P(TransportTest, DatagramsThatComeTogetherAreAnsweredInTheirOrder) {
  CDatagrams client(111);
  for (std::uint32_t round = 0; round < 50; ++round) {
    for (std::uint32_t i = 0; i < 3; ++i) {
      client.Send(CallMessage(round * 3 + i, PortmapProgram, 2, i == 1 ? 4 : 3,
                              CEncoder().U32(NfsProgram).U32(3).U32(6).U32(0)));
    }
    for (std::uint32_t i = 0; i < 3; ++i)
      ASSERT_EQ(ParseReply(client.Receive()).xid, round * 3 + i);
  }
}

TEST_P(TransportTest, TheLargestDatagramIsServedAndTheNextIsNotMixedWithIt) {
  constexpr std::size_t largest = 65507;
  bytes_t call = CallMessage(1, PortmapProgram, 2, 3, CEncoder().U32(NfsProgram).U32(3).U32(6).U32(0));
  call.resize(largest, 'x');
  CDatagrams client(111);
  client.Send(call);
  // As long as its own bytes say, and cut where the long one had more.
  client.Send(CallMessage(2, PortmapProgram, 2, 3, CEncoder().U32(NfsProgram).U32(3).U32(6)));
  client.Send(CallMessage(3, PortmapProgram, 2, 3, CEncoder().U32(MountProgram).U32(3).U32(6).U32(0)));
  const SReply first = ParseReply(client.Receive());
  EXPECT_EQ(first.xid, 1U);
  EXPECT_EQ(CDecoder(first.body).U32(), 2049U);
  const SReply second = ParseReply(client.Receive());
  EXPECT_EQ(second.xid, 3U);
  EXPECT_EQ(CDecoder(second.body).U32(), 1058U);
}

TEST_P(TransportTest, AnEmptyDatagramIsLostAlone) {
  CDatagrams client(111);
  client.Send({});
  client.Send(CallMessage(4, PortmapProgram, 2, 0, {}));
  EXPECT_EQ(ParseReply(client.Receive()).xid, 4U);
}

TEST_P(TransportTest, WhatIsNotServedGetsTheFiveWordsInADatagramToo) {
  const bytes_t calls[] = {CallMessage(9, PortmapProgram, 2, 5, "junk"), CallMessage(9, PortmapProgram, 2, 6, {}),
                           CallMessage(9, PortmapProgram, 3, 3, {}), CallMessage(9, NfsProgram, 3, 0, {}),
                           CallMessage(9, PortmapProgram, 2, 0, {}, 3)};
  const bytes_t expected = CEncoder().U32(9).U32(1).U32(0).U32(3).U32(0).U32(0);
  CDatagrams client(111);
  for (const bytes_t& call : calls) {
    client.Send(call);
    EXPECT_EQ(client.Receive(), expected);
  }
}

TEST_P(TransportTest, ThePortmapperAnswersRefusedPeersInDatagrams) {
  // Over TCP the same peer is refused.
  CDatagrams client(111, "127.0.0.2");
  client.Send(CallMessage(5, PortmapProgram, 2, 3, CEncoder().U32(NfsProgram).U32(3).U32(6).U32(0)));
  EXPECT_EQ(CDecoder(ParseReply(client.Receive()).body).U32(), 2049U);
}

TEST_P(TransportTest, AnswersThatDoNotFitIntoADatagramAreLostAlone) {
  CConnection portmap(111);
  bytes_t calls;
  constexpr std::uint32_t rows = 65507 / 20;
  for (std::uint32_t i = 0; i < rows; ++i) {
    const bytes_t call = CallMessage(i, PortmapProgram, 2, 1, CEncoder().U32(400000 + i).U32(1).U32(6).U32(4000));
    calls += Mark(call.size()) + call;
  }
  std::thread sender([&] { portmap.SendRaw(calls); });
  for (std::uint32_t i = 0; i < rows; ++i) {
    const auto record = portmap.ReceiveRecord();
    ASSERT_TRUE(record);
    ASSERT_EQ(CDecoder(ParseReply(*record).body).U32(), 1U);
  }
  sender.join();
  CDatagrams client(111);
  client.Send(CallMessage(1, PortmapProgram, 2, 4, {}));
  client.Send(CallMessage(2, PortmapProgram, 2, 0, {}));
  EXPECT_EQ(ParseReply(client.Receive()).xid, 2U);
  EXPECT_TRUE(Logged(IsSync(GetParam()) ? "Cannot process UDP packet."
                                        : "Failed to send data using UDP socket. Target address: \"127.0.0.1:"));
  EXPECT_EQ(portmap.Call(PortmapProgram, 4).body.size(), (rows + 4) * 20 + 4);
}

TEST_P(TransportTest, AResetIsNoErrorWhereverItComes) {
  WriteFile(HostPath("file"), std::string(1 << 20, 'x'));
  const bytes_t handle = HandleOf("file");
  const bytes_t read = CallMessage(1, NfsProgram, 3, test::Read, CEncoder().Opaque(handle).U64(0).U32(1 << 20));
  const bytes_t record = Mark(read.size()) + read;
  // Opens the file, which stays open.
  ASSERT_EQ(Client().Read(handle, 0, 1).data, "x");
  const auto before = Descriptors();
  for (std::size_t i = 0; i < 60; ++i) {
    CConnection connection(2049);
    // Nothing, a part of the mark, a part of the body, whole calls whose replies nobody takes.
    const std::size_t length = i % 4 == 0 ? 0 : i % 4 == 1 ? 2 : i % 4 == 2 ? record.size() / 2 : record.size();
    connection.SendRaw(record.substr(0, length));
    const linger hard{1, 0};
    setsockopt(connection.Socket(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  }
  EXPECT_EQ(Client().GetAttr(handle), Ok);
  EXPECT_TRUE(WaitUntil([&] { return Descriptors() <= before; })) << Descriptors() << " from " << before;
  EXPECT_FALSE(Logged("receive error"));
}

TEST_P(TransportTest, APeerThatEndedItsSideStillGetsItsReplies) {
  CConnection connection(2049);
  bytes_t calls;
  for (std::uint32_t i = 0; i < 20; ++i) {
    const bytes_t call = CallMessage(i, NfsProgram, 3, test::GetAttr, CEncoder().Opaque(root_));
    calls += Mark(call.size()) + call;
  }
  connection.SendRaw(calls);
  shutdown(connection.Socket(), SHUT_WR);
  for (std::uint32_t i = 0; i < 20; ++i) {
    const auto record = connection.ReceiveRecord();
    ASSERT_TRUE(record) << i;
    EXPECT_EQ(ParseReply(*record).xid, i);
  }
  EXPECT_TRUE(connection.IsClosedByServer());
}

TEST_P(TransportTest, RepliesBeforeAFailedCallArriveAndThenTheConnectionEnds) {
  CConnection connection(2049);
  const bytes_t good = CallMessage(1, NfsProgram, 3, test::GetAttr, CEncoder().Opaque(root_));
  const bytes_t bad = CallMessage(2, NfsProgram, 3, test::GetAttr, {});
  connection.SendRaw(Mark(good.size()) + good + Mark(bad.size()) + bad + Mark(good.size()) + good);
  const auto record = connection.ReceiveRecord();
  ASSERT_TRUE(record);
  EXPECT_EQ(ParseReply(*record).xid, 1U);
  EXPECT_FALSE(connection.ReceiveRecord());
  // The one server tells it first, the other when the connection is over.
  EXPECT_TRUE(WaitUntil(
      [&] { return Logged(IsSync(GetParam()) ? "Client thread error." : "exception while handling request: "); }));
  EXPECT_TRUE(Logged("Failed to de-serialize GETATTR3args"));
}

TEST_P(TransportTest, WithoutDescriptorsAcceptingWaitsAndGoesOn) {
  WriteFile(HostPath("file"), "content");
  const bytes_t handle = HandleOf("file");
  ASSERT_EQ(Client().Read(handle, 0, 10).data, "content");
  LimitDescriptors(Descriptors() + 8);
  // More than it can accept; the system keeps the rest in the listeners' queues.
  std::vector<std::unique_ptr<CConnection>> connections;
  for (int i = 0; i < 40; ++i)
    connections.push_back(std::make_unique<CConnection>(i % 4 == 0 ? 1058 : i % 4 == 1 ? 111 : 2049));
  EXPECT_TRUE(WaitUntil([&] { return Logged("Short of descriptors or memory"); }));
  // Who is connected already is served, with files that are open already.
  EXPECT_EQ(Client().Read(handle, 0, 10).data, "content");
  EXPECT_EQ(connections[2]->Call(NfsProgram, 0).IsSuccess(), true);
  connections.clear();
  CConnection late(2049);
  EXPECT_TRUE(late.Call(NfsProgram, 0).IsSuccess());
  EXPECT_TRUE(CConnection(1058).Call(MountProgram, 0).IsSuccess());
  EXPECT_TRUE(CConnection(111).Call(PortmapProgram, 0).IsSuccess());
  LimitDescriptors(0);
  for (int i = 0; i < 100; ++i)
    connections.push_back(std::make_unique<CConnection>(2049));
  for (const auto& connection : connections)
    ASSERT_TRUE(connection->Call(NfsProgram, 0).IsSuccess());
  EXPECT_EQ(service_.Stop(), 0);
}

TEST_P(TransportTest, ARecordThatSaysItIsEmptyEndsTheConnection) {
  CConnection connection(2049);
  connection.SendRaw(Mark(0));
  EXPECT_TRUE(connection.IsClosedByServer());
  EXPECT_EQ(Client().GetAttr(root_), Ok);
  // To the one server it looks like the end of the stream, to the other like a call that is cut short.
  if (IsSync(GetParam())) {
    EXPECT_TRUE(WaitUntil([&] { return Logged("Client thread error."); }));
  } else {
    EXPECT_FALSE(Logged("ERR |"));
  }
}

/// A service beside programs that hold what it asks for.
class PortsTest : public testing::TestWithParam<SServerKind> {
 protected:
  PortsTest() : service_(GetParam()) {}

  bool Logged(const std::string& text) const { return service_.LogText().find(text) != std::string::npos; }
  void StartWithoutRegistration() {
    process_ = std::make_unique<CProcess>(std::vector<std::string>{Program("KelvoNfsSvc")}, service_.Environment());
    ASSERT_TRUE(WaitUntil([this] { return Logged("Cannot register on portmapper."); }));
  }
  void ExpectServing() { EXPECT_TRUE(CNfsClient().Mount()); }

  CService service_;
  std::unique_ptr<CProcess> process_;
};
KELVO_WIRE_SUITE(PortsTest);

TEST_P(PortsTest, APortmapperThatHangsUpLeavesTheServiceUnregisteredAndServing) {
  const COccupant portmapper(SOCK_STREAM, 111);
  std::thread hangUp([&] { close(portmapper.Accept()); });
  StartWithoutRegistration();
  hangUp.join();
  ExpectServing();
  EXPECT_FALSE(Logged("Listening port \"111\""));
  // The event is there and nobody sets it.
  CProcess verification({Program("KelvoNfsSvc"), "-verifycn"}, service_.Environment());
  EXPECT_EQ(verification.WaitForExit(500ms), std::nullopt);
}

TEST_P(PortsTest, APortmapperThatSaysNothingIsGivenUpAfterItsTime) {
  ASSERT_EQ(service_.Reg({"set", "SOFTWARE/Kelvo/Kelvo Vault", "NfsRecvTimeoutSec", "REG_DWORD", "1"}).exitCode, 0);
  const COccupant portmapper(SOCK_STREAM, 111);
  StartWithoutRegistration();
  EXPECT_TRUE(Logged("Socket recv operation timed out (1 sec)."));
  ExpectServing();
}

TEST_P(PortsTest, AServiceStopsWhileItsPortmapperSaysNothing) {
  const COccupant portmapper(SOCK_STREAM, 111);
  process_ = std::make_unique<CProcess>(std::vector<std::string>{Program("KelvoNfsSvc")}, service_.Environment());
  ASSERT_TRUE(WaitUntil([this] { return Logged("Try to register on portmapper."); }));
  ExpectServing();
  // Half of the time that it would give its portmapper.
  process_->Signal(SIGTERM);
  EXPECT_EQ(process_->WaitForExit(15s), 0);
  EXPECT_TRUE(Logged("NFS server is stopped."));
}

TEST_P(PortsTest, ADatagramPortThatIsTakenLeavesTheWholePortmapperToTheOther) {
  const COccupant other(SOCK_DGRAM, 111);
  StartWithoutRegistration();
  ExpectServing();
  EXPECT_THROW(CConnection(111), std::runtime_error);
}

/// The other server does not wait for its ports.
class WaitingPortsTest : public PortsTest {};
INSTANTIATE_TEST_SUITE_P(Server, WaitingPortsTest, testing::Values(AsyncServer), ServerName);

TEST_P(WaitingPortsTest, ASecondServiceTakesThePortsWhenTheFirstStops) {
  service_.Start();
  CService second(GetParam());
  second.SetValue("Port", "REG_DWORD", "6162");
  CProcess process({Program("KelvoNfsSvc")}, second.Environment());
  ASSERT_TRUE(
      WaitUntil([&] { return second.LogText().find("Port 1058 already in use, waiting") != std::string::npos; }));
  EXPECT_EQ(service_.Stop(), 0);
  EXPECT_TRUE(WaitUntil(
      [&] { return second.LogText().find("NFS server is ready to process incoming calls.") != std::string::npos; }));
  ExpectServing();
  process.Signal(SIGTERM);
  EXPECT_EQ(process.WaitForExit(), 0);
}

}  // namespace
