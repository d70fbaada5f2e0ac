// What is particular to the synchronous server: its ports, its datagrams, the order of its replies, its threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "integration/support/footprint.h"
#include "integration/support/sockets.h"
#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

class SyncServerTest : public testing::Test {
 protected:
  SyncServerTest() : service_(SyncServer) {}

  bool Logged(const std::string& text) const { return service_.LogText().find(text) != std::string::npos; }
  /// For a service that does not come to be registered.
  void StartUntil(const std::string& logged, const std::vector<std::string>& switches = {}) {
    std::vector<std::string> command{Program("KelvoNfsSvc")};
    command.insert(command.end(), switches.begin(), switches.end());
    process_ = std::make_unique<CProcess>(command, service_.Environment());
    ASSERT_TRUE(WaitUntil([&] { return Logged(logged); })) << service_.LogText();
  }
  void StopProcess() {
    process_->Signal(SIGTERM);
    EXPECT_EQ(process_->WaitForExit(), 0);
  }
  /// True when the texts stand in the log in this order; names the first that does not.
  testing::AssertionResult InOrder(const std::vector<std::string>& texts) const {
    const std::string log = service_.LogText();
    std::size_t from = 0;
    for (const std::string& text : texts) {
      const std::size_t found = log.find(text, from);
      if (found == std::string::npos)
        return testing::AssertionFailure() << "missing or out of order: " << text;
      from = found + text.size();
    }
    return testing::AssertionSuccess();
  }
  std::size_t OfStatus(const std::string& name) {
    std::ifstream status("/proc/" + std::to_string(service_.Process().Pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(name))
        return std::stoul(line.substr(name.size()));
    }
    return 0;
  }
  std::size_t Threads() { return OfStatus("Threads:"); }
  std::size_t ResidentKiB() { return OfStatus("VmRSS:"); }
  std::size_t Descriptors() { return FootprintOf(service_.Process().Pid()).descriptors; }
  /// A file of the share with this content, by its handle.
  bytes_t MakeFile(const std::string& name, const std::string& content) {
    WriteFile(service_.Root() + "/" + name, content);
    return HandleOf(name);
  }
  bytes_t HandleOf(const std::string& name) {
    CNfsClient client;
    bytes_t handle;
    EXPECT_EQ(client.Lookup(client.Mount().value(), name, &handle), Ok);
    return handle;
  }
  static bytes_t ReadCall(std::uint32_t xid, const bytes_t& handle, std::uint32_t count) {
    return CallMessage(xid, NfsProgram, 3, test::Read, CEncoder().Opaque(handle).U64(0).U32(count));
  }

  CService service_;
  std::unique_ptr<CProcess> process_;
};

TEST_F(SyncServerTest, StartsAndStopsInOrder) {
  service_.Start();
  EXPECT_EQ(service_.Stop(), 0);
  EXPECT_TRUE(
      InOrder({"Loading options.", "[HostFsFileCache] Cache initialized", "Virtual filesystem is initialized.",
               "Starting server in synchronous mode.", "Try load default mount port from Registry.",
               "Try to bind [1058] port.", "Try load default NFS port from Registry.", "Try to bind [2049] port.",
               "Try to bind [111] port.", "Creating own portmapper.", "Listening...", "Try to register on portmapper.",
               "[EpMapper] Registering program: [100005]. Version: [3], Protocol: [6], Port: [1058]",
               "[EpMapper] Registering program: [100003]. Version: [3], Protocol: [6], Port: [2049]",
               "Generating signal to stop protocol handlers.", "Terminating by stop event.", "Exit.",
               "[HostFsFileCache] Cache deinitialized", "NFS server is stopped."}));
  EXPECT_TRUE(Logged("NFS server is ready to process incoming calls."));
  EXPECT_TRUE(Logged("Protocol handlers were started."));
  EXPECT_FALSE(Logged("Unregistring on foreign portmapper."));
  EXPECT_FALSE(Logged("ERR |"));
}

TEST_F(SyncServerTest, TheSwitchIsForDebugModeAlone) {
  service_.SetValue("AsyncTcp", "REG_DWORD", "1");
  service_.Start({"-sync"});
  EXPECT_TRUE(Logged("Starting server in asynchronous mode."));
  EXPECT_FALSE(Logged("Protocol handlers were started."));
}

TEST_F(SyncServerTest, DebugModeServesOnItsOwnThread) {
  service_.SetValue("AsyncTcp", "REG_DWORD", "1");
  StartUntil("Cannot register on portmapper.", {"-debug", "-Sync"});
  EXPECT_TRUE(InOrder({"Launched in debug mode.", "Launched with standard protocol server.", "Listening..."}));
  CNfsClient client;
  const auto root = client.Mount();
  ASSERT_TRUE(root);
  EXPECT_EQ(client.GetAttr(*root), Ok);
}

TEST_F(SyncServerTest, AllProgramsAnswerDatagramsOfAnyPeer) {
  service_.Start();
  const bytes_t file = MakeFile("file", "content");
  for (const char* const source : {"127.0.0.1", "127.0.0.2"}) {
    CDatagrams portmap(111, source);
    portmap.Send(CallMessage(1, PortmapProgram, 2, 3, CEncoder().U32(NfsProgram).U32(3).U32(6).U32(0)));
    EXPECT_EQ(CDecoder(ParseReply(portmap.Receive()).body).U32(), 2049U);

    CDatagrams mount(1058, source);
    mount.Send(CallMessage(2, MountProgram, 3, 1, CEncoder().Opaque("/share")));
    CDecoder mounted(ParseReply(mount.Receive()).body);
    EXPECT_EQ(mounted.U32(), Ok);
    EXPECT_EQ(mounted.Opaque().size(), 23U);

    CDatagrams nfs(2049, source);
    nfs.Send(ReadCall(3, file, 100));
    const SReply reply = ParseReply(nfs.Receive());
    EXPECT_EQ(reply.xid, 3U);
    EXPECT_EQ(reply.body, CEncoder().U32(0).U32(0).U32(7).U32(1).Opaque("content").Bytes());
    nfs.Send(CallMessage(4, NfsProgram, 3, test::Write,
                         CEncoder().Opaque(file).U64(0).U32(3).U32(2).Opaque(source + std::string("!"))));
    EXPECT_EQ(CDecoder(ParseReply(nfs.Receive()).body).U32(), Ok);
    EXPECT_EQ(ReadFile(service_.Root() + "/file").substr(0, 7), "127tent");
    WriteFile(service_.Root() + "/file", "content");
  }
  // Over TCP the same peer gets NULL alone.
  CConnection refused(2049, "127.0.0.2");
  EXPECT_TRUE(refused.Call(NfsProgram, 0).IsSuccess());
  EXPECT_EQ(refused.Call(NfsProgram, test::GetAttr, CEncoder().Opaque(file)).body, CEncoder().U32(13).Bytes());
}

TEST_F(SyncServerTest, ADatagramThatCannotBeReadIsLostAlone) {
  service_.Start();
  for (const std::uint16_t port : {std::uint16_t{1058}, std::uint16_t{2049}}) {
    CDatagrams client(port);
    const bytes_t call = CallMessage(1, port == 2049 ? NfsProgram : MountProgram, 3, 0, {});
    for (std::size_t length = 0; length < call.size(); ++length)
      client.Send(call.substr(0, length));
    client.Send(call);
    EXPECT_EQ(ParseReply(client.Receive()).xid, 1U);
  }
  EXPECT_TRUE(Logged("Cannot process UDP packet."));
}

TEST_F(SyncServerTest, ClientsAreToldNoPortForDatagrams) {
  service_.Start();
  EXPECT_EQ(GetPort(NfsProgram, 17), 0U);
  EXPECT_EQ(GetPort(MountProgram, 17), 0U);
}

TEST_F(SyncServerTest, BusyPortsMoveItUpwardAndWhatItFoundIsStored) {
  const COccupant mount(SOCK_STREAM, 1058);
  const COccupant nextMount(SOCK_DGRAM, 1059);
  const COccupant nfs(SOCK_DGRAM, 2049);
  service_.Start();
  EXPECT_EQ(GetPort(MountProgram), 1060U);
  EXPECT_EQ(GetPort(NfsProgram), 2050U);
  EXPECT_EQ(service_.GetValue("MountPort"), "1060");
  EXPECT_EQ(service_.GetValue("NfsPort"), "2050");
  EXPECT_TRUE(CNfsClient(2050, 1060).Mount());
  EXPECT_TRUE(
      InOrder({"Try to bind [1058] port.", "Try to bind [1058] port.", "Try to bind [1058] port.",
               "Port [1058] is busy. Trying to bind to next one.", "Port [1059] is busy.", "Try to bind [1060] port.",
               "Port [2049] is busy.", "The Mount or NFS ports have been changed. Trying to perform new values."}));
}

TEST_F(SyncServerTest, ARestartTakesTheSamePortsUnderItsClients) {
  service_.Start();
  CNfsClient client;
  ASSERT_TRUE(client.Mount());
  service_.Kill();
  service_.Start();
  EXPECT_EQ(GetPort(NfsProgram), 2049U);
  EXPECT_FALSE(Logged("is busy. Trying to bind to next one."));
}

TEST_F(SyncServerTest, TheLastPortIsNeverTried) {
  const COccupant nfs(SOCK_STREAM, 65534);
  service_.SetValue("NfsPort", "REG_DWORD", "65534");
  StartUntil("Fatal error of the dispatcher thread.");
  EXPECT_TRUE(InOrder({"Try to bind [65534] port.", "Try to bind [65534] port.", "Try to bind [65534] port.",
                       "Port [65534] is busy.", "No port found."}));
  EXPECT_THAT(service_.LogText(), Not(HasSubstr("[65535]")));
  // The service is up without it: only the management interface answers.
  EXPECT_EQ(RunProgram({Program("kelvo-nfsctl"), "call", "GetParams"}, service_.Environment()).exitCode, 0);
  EXPECT_THROW(CConnection(1058), std::runtime_error);
  EXPECT_EQ(service_.GetValue("NfsPort"), "65534");
  StopProcess();
  EXPECT_TRUE(Logged("NFS server is stopped."));
}

TEST_F(SyncServerTest, TwoEqualPortsMeetWhenTheSecondIsBound) {
  service_.SetValue("MountPort", "REG_DWORD", "2049");
  StartUntil("Fatal error of the dispatcher thread.");
  EXPECT_TRUE(Logged("Cannot bind socket in CreateEventAndListen()"));
  EXPECT_THROW(CConnection(2049), std::runtime_error);
  StopProcess();
}

TEST_F(SyncServerTest, ASecondServiceServesBesideTheFirst) {
  service_.Start();
  CService second(SyncServer);
  second.SetValue("Port", "REG_DWORD", "6162");
  CProcess process({Program("KelvoNfsSvc")}, second.Environment());
  // The rows of the first stay, and the second is not registered.
  ASSERT_TRUE(WaitUntil([&] { return second.LogText().find("Cannot register on portmapper.") != std::string::npos; }));
  EXPECT_NE(second.LogText().find("Foreign portmapper found."), std::string::npos);
  EXPECT_EQ(GetPort(NfsProgram), 2049U);
  EXPECT_TRUE(CNfsClient(2050, 1059).Mount());
  EXPECT_TRUE(CNfsClient().Mount());
  process.Signal(SIGTERM);
  EXPECT_EQ(process.WaitForExit(), 0);
  EXPECT_TRUE(CNfsClient().Mount());
}

TEST_F(SyncServerTest, WithAnotherPortmapperItRegistersThereAndTakesItBack) {
  // rpcbind keeps its state below /run, which is this test's own.
  fs::create_directories("/run/rpcbind");
  CProcess rpcbind({"rpcbind", "-f", "-w"}, {});
  ASSERT_TRUE(WaitUntil([] {
    try {
      return GetPort(PortmapProgram, 6, 2) == 111;
    } catch (const std::exception&) {
      return false;
    }
  }));
  service_.Start();
  EXPECT_TRUE(Logged("Foreign portmapper found."));
  EXPECT_EQ(GetPort(MountProgram), 1058U);
  EXPECT_EQ(GetPort(NfsProgram), 2049U);
  EXPECT_TRUE(CNfsClient().Mount());
  EXPECT_EQ(service_.Stop(), 0);
  EXPECT_TRUE(InOrder({"Terminating by stop event.", "Unregistring on foreign portmapper.", "Exit."}));
  EXPECT_EQ(GetPort(MountProgram), 0U);
  EXPECT_EQ(GetPort(NfsProgram), 0U);
  // A second start finds its rows free.
  service_.Start();
  EXPECT_EQ(GetPort(NfsProgram), 2049U);
}

TEST_F(SyncServerTest, RepliesKeepTheOrderOfTheCallsBehindASlowRead) {
  service_.Start();
  constexpr std::uint32_t large = 32U << 20;
  const bytes_t small = MakeFile("small", "small");
  const bytes_t slow = MakeFile("slow", "");
  fs::resize_file(service_.Root() + "/slow", large);
  CConnection connection(2049);
  for (std::uint32_t round = 0; round < 3; ++round) {
    const std::uint32_t xid = round * 10;
    bytes_t calls;
    for (const bytes_t& call : {ReadCall(xid, slow, large), CallMessage(xid + 1, NfsProgram, 3, 0, {}),
                                CallMessage(xid + 2, NfsProgram, 3, test::GetAttr, CEncoder().Opaque(small)),
                                CallMessage(xid + 3, NfsProgram, 3, test::Write,
                                            CEncoder().Opaque(small).U64(0).U32(5).U32(2).Opaque("SMALL")),
                                ReadCall(xid + 4, small, 100), CallMessage(xid + 5, NfsProgram, 3, 21, {})})
      calls += Mark(call.size()) + call;
    connection.SendRaw(calls);
    for (std::uint32_t i = 0; i < 6; ++i) {
      const auto record = connection.ReceiveRecord();
      ASSERT_TRUE(record);
      const SReply reply = ParseReply(*record);
      ASSERT_EQ(reply.xid, xid + i);
      if (i == 0) {
        EXPECT_GT(reply.body.size(), large);
      }
      if (i == 4) {
        EXPECT_EQ(reply.body, CEncoder().U32(0).U32(0).U32(5).U32(1).Opaque("SMALL").Bytes());
      }
    }
  }
}

TEST_F(SyncServerTest, SessionsThatEndWhileTheirCallsRunLeaveNothingBehind) {
  service_.Start();
  const bytes_t slow = MakeFile("slow", "");
  fs::resize_file(service_.Root() + "/slow", 9 << 20);
  CNfsClient client;
  ASSERT_EQ(client.Read(slow, 0, 1).status, Ok);
  const std::size_t threads = Threads();
  const std::size_t descriptors = Descriptors();
  for (int i = 0; i < 20; ++i) {
    CConnection connection(2049);
    for (std::uint32_t xid = 0; xid < 5; ++xid)
      connection.SendRecord(ReadCall(xid, slow, 9U << 20));
    if (i % 2 == 0) {
      const linger hard{1, 0};
      setsockopt(connection.Socket(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
  }
  EXPECT_EQ(client.GetAttr(slow), Ok);
  EXPECT_TRUE(WaitUntil([&] { return Threads() <= threads && Descriptors() <= descriptors; }))
      << Threads() << " threads from " << threads << ", " << Descriptors() << " descriptors from " << descriptors;
}

TEST_F(SyncServerTest, FiveHundredConnectionsThatComeAndGoUnderLoadLeaveNothingBehind) {
  service_.Start();
  const bytes_t file = MakeFile("file", std::string(1 << 20, 'x'));
  std::atomic<bool> enough{false};
  std::atomic<std::uint64_t> served{0};
  const auto round = [&](int connections) {
    for (int i = 0; i < connections; ++i) {
      CConnection connection(2049);
      connection.SendRecord(ReadCall(1, file, 65536));
      connection.SendRecord(CallMessage(2, NfsProgram, 3, test::GetAttr, CEncoder().Opaque(file)));
      // Some leave before their replies come, some in the middle of a record.
      if (i % 3 == 0)
        continue;
      ASSERT_TRUE(connection.ReceiveRecord());
      if (i % 3 == 1)
        connection.SendRaw(Mark(100) + bytes_t(10, 'x'));
    }
  };
  {
    std::thread load([&] {
      CNfsClient client;
      while (!enough) {
        ASSERT_EQ(client.Read(file, 0, 131072).data.size(), 131072U);
        ++served;
      }
    });
    // What is kept for the next connections is made by the first ones.
    round(100);
    ASSERT_TRUE(WaitUntil([&] { return Threads() < 30; }));
    const std::size_t threads = Threads();
    const std::size_t descriptors = Descriptors();
    const std::size_t resident = ResidentKiB();
    round(500);
    EXPECT_TRUE(WaitUntil([&] { return Threads() <= threads && Descriptors() <= descriptors; }))
        << Threads() << " threads from " << threads << ", " << Descriptors() << " descriptors from " << descriptors;
    EXPECT_LT(ResidentKiB(), resident + 32 * 1024);
    enough = true;
    load.join();
  }
  EXPECT_GT(served, 0U);
}

TEST_F(SyncServerTest, APeerThatTakesNothingHoldsNobodyUp) {
  service_.Start();
  const bytes_t file = MakeFile("file", std::string(1 << 20, 'x'));
  const std::size_t resident = ResidentKiB();
  std::deque<CConnection> deaf;
  for (int i = 0; i < 10; ++i) {
    CConnection& connection = deaf.emplace_back(2049);
    for (std::uint32_t xid = 0; xid < 100; ++xid)
      connection.SendRecord(ReadCall(xid, file, 1 << 20));
  }
  CNfsClient client;
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(client.GetAttr(file), Ok);
    ASSERT_EQ(client.Read(file, 0, 4096).data.size(), 4096U);
  }
  // A gigabyte was asked for.
  EXPECT_LT(ResidentKiB(), resident + 512 * 1024);
  // Whoever begins to read gets everything.
  for (std::uint32_t xid = 0; xid < 100; ++xid) {
    const auto record = deaf.front().ReceiveRecord();
    ASSERT_TRUE(record);
    ASSERT_EQ(ParseReply(*record).xid, xid);
  }
}

TEST_F(SyncServerTest, StopsWhileAHundredConnectionsAreBusy) {
  service_.Start();
  const bytes_t file = MakeFile("file", std::string(1 << 20, 'x'));
  std::deque<CConnection> busy;
  for (int i = 0; i < 100; ++i) {
    CConnection& connection = busy.emplace_back(2049);
    for (std::uint32_t xid = 0; xid < 20; ++xid)
      connection.SendRecord(ReadCall(xid, file, 1 << 20));
  }
  for (CConnection& connection : busy)
    ASSERT_TRUE(connection.ReceiveRecord());
  service_.Process().Signal(SIGTERM);
  EXPECT_EQ(service_.Process().WaitForExit(30s), 0);
  EXPECT_TRUE(Logged("NFS server is stopped."));
  EXPECT_FALSE(Logged("Connections did not end"));
}

}  // namespace
