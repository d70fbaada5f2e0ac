// The process itself: start, stop, switches, ports.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "integration/support/service.h"
#include "integration/support/wire.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

/// True when the texts stand in the log in this order; names the first that does not.
testing::AssertionResult InOrder(const std::string& log, const std::vector<std::string>& texts) {
  std::size_t from = 0;
  for (const std::string& text : texts) {
    const std::size_t found = log.find(text, from);
    if (found == std::string::npos)
      return testing::AssertionFailure() << "missing or out of order: " << text;
    from = found + text.size();
  }
  return testing::AssertionSuccess();
}

TEST(ServiceTest, StartsAndStopsInOrder) {
  CService service;
  service.Start();
  EXPECT_EQ(service.Stop(), 0);
  EXPECT_TRUE(
      InOrder(service.LogText(),
              {"Loading options.", "[HostFsFileCache] Cache initialized",
               "NFS Server options:", "Initializing virtual filesystem.", "Trying to create root folder '",
               "Registered shared folders:", "Enumerating NFS items mounted early.", "Items were enumerated.",
               "Virtual filesystem is initialized.", "Starting server in asynchronous mode.",
               "Initializing TCP/UDP handlers.", "Listening port \"1058\" (mount service).",
               "Listening port \"2049\" (nfs).", "Listening port \"111\" (portmapper).",
               "TCP/UDP handlers were initialized.", "NFS server is ready to process incoming calls.",
               "Stopping tcp dispatch thread.", "[HostFsFileCache] Cache deinitialized", "NFS server is stopped."}));
  EXPECT_EQ(service.LogText().find("ERR |"), std::string::npos);
}

TEST(ServiceTest, StopsOnInterruptAsOnTerminate) {
  CService service;
  service.Start();
  service.Process().Signal(SIGINT);
  EXPECT_EQ(service.Process().WaitForExit(), 0);
  EXPECT_NE(service.LogText().find("NFS server is stopped."), std::string::npos);
}

TEST(ServiceTest, StopsWhileClientsAreConnectedAndBusy) {
  CService service;
  service.Start();
  WriteFile(service.Root() + "/file", std::string(1 << 20, 'x'));
  CNfsClient client;
  const auto root = client.Mount();
  ASSERT_TRUE(root);
  bytes_t file;
  ASSERT_EQ(client.Lookup(*root, "file", &file), 0U);
  std::vector<std::unique_ptr<CConnection>> idle;
  for (int i = 0; i < 50; ++i)
    idle.push_back(std::make_unique<CConnection>(2049));
  for (int i = 0; i < 50; ++i) {
    client.Nfs().SendRecord(CallMessage(1, NfsProgram, 3, test::Read, CEncoder().Opaque(file).U64(0).U32(131072)));
  }
  EXPECT_EQ(service.Stop(), 0);
}

TEST(ServiceTest, VerificationFailsAtOnceWithoutAServerAndSucceedsWithOne) {
  CService service;
  EXPECT_EQ(RunProgram({Program("KelvoNfsSvc"), "-verifycn"}, service.Environment()).exitCode, 255);
  EXPECT_FALSE(fs::exists(service.LogPath()));
  service.Start();
  EXPECT_EQ(RunProgram({Program("KelvoNfsSvc"), "-VerifyCN", "-debug"}, service.Environment()).exitCode, 0);
  EXPECT_EQ(service.Stop(), 0);
  EXPECT_EQ(RunProgram({Program("KelvoNfsSvc"), "-verifycn"}, service.Environment()).exitCode, 255);
}

TEST(ServiceTest, LogAndStateAreForTheirOwnerAlone) {
  CService service;
  service.Start();
  struct stat status {};
  ASSERT_EQ(stat(service.LogPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  ASSERT_EQ(stat((service.Environment()["ALLUSERSPROFILE"] + "/Kelvo/registry.db").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  ASSERT_EQ(stat((service.Environment()["ALLUSERSPROFILE"] + "/Kelvo").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
  ASSERT_EQ(stat((service.Environment()["KELVO_RUNTIME_DIR"] + "/event/KelvoNfsSvcConnection").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0666U);
}

TEST(ServiceTest, TheLogSwitchChoosesTheFile) {
  CService service;
  CTempFolder folder;
  service.Start({"-log", folder.Path() + "/own.log"});
  EXPECT_FALSE(fs::exists(service.LogPath()));
  EXPECT_NE(ReadFile(folder.Path() + "/own.log").find("NFS server is ready to process incoming calls."),
            std::string::npos);
}

TEST(ServiceTest, ProcedureLinesAreWrittenWithVerboseAlone) {
  for (const bool verbose : {false, true}) {
    CService service;
    service.Start(verbose ? std::vector<std::string>{"-VERBOSE"} : std::vector<std::string>{});
    CNfsClient client;
    const auto root = client.Mount();
    ASSERT_TRUE(root);
    client.Access(*root, 1);
    EXPECT_EQ(service.Stop(), 0);
    EXPECT_EQ(service.LogText().find("=== NFSPROC3_ACCESS ========== :") != std::string::npos, verbose);
    EXPECT_EQ(service.LogText().find("=== MOUNTPROC3_MNT ========OK= : path: [/share]") != std::string::npos, verbose);
  }
}

TEST(ServiceTest, PortsOfTheRegistryAreTheOnesThatServe) {
  CService service;
  service.SetValue("MountPort", "REG_DWORD", "2058");
  service.SetValue("NfsPort", "REG_DWORD", "3049");
  service.Start();
  EXPECT_EQ(GetPort(MountProgram), 2058U);
  EXPECT_EQ(GetPort(NfsProgram), 3049U);
  EXPECT_TRUE(CNfsClient(3049, 2058).Mount());
}

TEST(ServiceTest, APortOfZeroIsChosenByTheSystemAndRegistered) {
  CService service;
  service.SetValue("MountPort", "REG_DWORD", "0");
  service.SetValue("NfsPort", "REG_DWORD", "0");
  service.Start();
  const auto mountPort = static_cast<std::uint16_t>(GetPort(MountProgram));
  const auto nfsPort = static_cast<std::uint16_t>(GetPort(NfsProgram));
  EXPECT_GT(mountPort, 0);
  EXPECT_GT(nfsPort, 0);
  EXPECT_TRUE(CNfsClient(nfsPort, mountPort).Mount());
}

TEST(ServiceTest, WithIpChecksDisabledEveryPeerIsAllowed) {
  CService service;
  service.SetValue("QuillNFSDisableIPAuth", "REG_DWORD", "1");
  service.Start();
  CNfsClient client(2049, 1058, "127.0.0.9");
  const auto root = client.Mount();
  ASSERT_TRUE(root);
  EXPECT_EQ(client.GetAttr(*root), 0U);
}

TEST(ServiceTest, APrefixOfTheAddressListLetsItsPeersIn) {
  CService service;
  service.SetValue("AllowedAddresses", "REG_SZ", "127.0.0.8/30;not-a-host");
  service.Start();
  EXPECT_TRUE(CNfsClient(2049, 1058, "127.0.0.10").Mount());
  CNfsClient refused(2049, 1058, "127.0.0.12");
  EXPECT_FALSE(refused.Mount());
  EXPECT_EQ(refused.MountStatus(), 13U);
}

TEST(ServiceTest, ASecondInstanceWaitsForTheMountPortAndTheFirstGoesOn) {
  CService first;
  first.Start();
  CService second;
  second.SetValue("Port", "REG_DWORD", "6162");
  CProcess process({Program("KelvoNfsSvc")}, second.Environment());
  EXPECT_TRUE(
      WaitUntil([&] { return second.LogText().find("Port 1058 already in use, waiting") != std::string::npos; }));
  EXPECT_TRUE(CNfsClient().Mount());
}

TEST(ServiceTest, AServiceWithRpcbindOnPort111RegistersThere) {
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
  CService service;
  service.Start();
  EXPECT_EQ(GetPort(MountProgram), 1058U);
  EXPECT_EQ(GetPort(NfsProgram), 2049U);
  EXPECT_TRUE(CNfsClient().Mount());
  EXPECT_TRUE(rpcbind.IsRunning());
  EXPECT_EQ(service.LogText().find("Listening port \"111\""), std::string::npos);
}

TEST(ServiceTest, TheLogReceiverWritesDatagramsToItsFile) {
  CService service;
  CTempFolder folder;
  const std::string output = folder.Path() + "/udp.log";
  CProcess receiver({Program("KelvoNfsSvc"), "-logreceiver", "-port", "40123", "-log", output}, service.Environment());
  ASSERT_TRUE(WaitUntil([&] { return fs::exists(output); }));
  // Until the socket is bound a datagram is lost, so it is sent until it shows; the file is flushed when all is quiet.
  service.SetValue("ExtLogEnabled", "REG_DWORD", "1");
  service.SetValue("ExtLogPort", "REG_DWORD", "40123");
  service.Start();
  EXPECT_TRUE(WaitUntil(
      [&] { return ReadFile(output).find("NFS server is ready to process incoming calls.") != std::string::npos; }));
  EXPECT_TRUE(InOrder(service.LogText(), {"Launched in UDP Client mode.", "Logging UDP datagram."}));
}

TEST(ServiceTest, DebugModeServesWithoutAContextInTheHolder) {
  CService service;
  CProcess process({Program("KelvoNfsSvc"), "-debug"}, service.Environment());
  ASSERT_TRUE(WaitUntil([&] { return service.LogText().find("Cannot register on portmapper.") != std::string::npos; }));
  EXPECT_NE(service.LogText().find("Launched in debug mode."), std::string::npos);
  EXPECT_NE(service.LogText().find("Launched with async protocol server."), std::string::npos);
  CNfsClient client;
  const auto root = client.Mount();
  ASSERT_TRUE(root);
  EXPECT_EQ(client.GetAttr(*root), 0U);
  CConnection mount(1058);
  mount.SendRecord(CallMessage(1, MountProgram, 3, 5, {}));
  EXPECT_TRUE(mount.IsClosedByServer());
}

/// The service manager's end of the notifications.
class CManager {
 public:
  CManager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Path().copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  CManager(const CManager&) = delete;
  CManager& operator=(const CManager&) = delete;
  ~CManager() { ::close(socket_); }

  std::string Path() const { return folder_.Path() + "/notify"; }
  /// The next notification; empty when none comes.
  std::string Receive() const {
    pollfd state{socket_, POLLIN, 0};
    if (::poll(&state, 1, 30000) != 1)
      return {};
    char text[256] = {};
    const ssize_t length = ::recv(socket_, text, sizeof(text), 0);
    return {text, length < 0 ? 0 : static_cast<std::size_t>(length)};
  }

 private:
  CTempFolder folder_;
  int socket_;
};

TEST(ServiceTest, TheManagerIsToldOfEachStateInOrder) {
  CService service;
  const CManager manager;
  auto environment = service.Environment();
  environment["NOTIFY_SOCKET"] = manager.Path();
  CProcess process({Program("KelvoNfsSvc")}, environment);
  EXPECT_THAT(manager.Receive(), testing::StartsWith("STATUS="));
  EXPECT_THAT(manager.Receive(), testing::StartsWith("READY=1\n"));
  // Whoever was told comes at once.
  EXPECT_TRUE(CNfsClient().Mount());
  process.Signal(SIGTERM);
  EXPECT_THAT(manager.Receive(), testing::StartsWith("STOPPING=1\n"));
  EXPECT_THAT(manager.Receive(), testing::StartsWith("STATUS="));
  EXPECT_EQ(process.WaitForExit(), 0);
}

TEST(ServiceTest, TheManagerIsNeverToldThatAFailedStartIsReady) {
  CService service;
  fs::remove(service.Root());
  WriteFile(service.Root(), "in the way");
  const CManager manager;
  auto environment = service.Environment();
  environment["NOTIFY_SOCKET"] = manager.Path();
  CProcess process({Program("KelvoNfsSvc")}, environment);
  EXPECT_THAT(manager.Receive(), testing::StartsWith("STATUS="));
  EXPECT_THAT(manager.Receive(), testing::StartsWith("STOPPING=1\n"));
  EXPECT_THAT(manager.Receive(), testing::StartsWith("STATUS="));
  EXPECT_EQ(process.WaitForExit(), 0);
}

TEST(ServiceTest, ALogThatWasTakenAwayBeginsAnew) {
  CService service;
  service.Start();
  fs::remove(service.LogPath());
  // Each connection is a line.
  EXPECT_TRUE(WaitUntil([&] {
    const CConnection connection(2049);
    return fs::exists(service.LogPath());
  }));
  EXPECT_EQ(service.Stop(), 0);
  EXPECT_NE(service.LogText().find("NFS server is stopped."), std::string::npos);
}

TEST(ServiceTest, AFileSizeLimitFailsTheWriteAndNotTheService) {
  CService service;
  service.Start();
  rlimit limit{1 << 20, RLIM_INFINITY};
  ASSERT_EQ(prlimit(service.Process().Pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
  CNfsClient client;
  const auto root = client.Mount();
  ASSERT_TRUE(root);
  bytes_t file;
  ASSERT_EQ(client.Create(*root, "file", &file), 0U);
  EXPECT_EQ(client.Write(file, 0, "within"), 0U);
  EXPECT_EQ(client.Write(file, 2 << 20, "beyond"), 223U);
  EXPECT_EQ(client.Read(file, 0, 100).data, "within");
}

TEST(ServiceTest, AFailedStartGoesThroughTheWholeStopAndEndsWith0) {
  CService service;
  // A file where the root folder should be.
  fs::remove(service.Root());
  WriteFile(service.Root(), "in the way");
  CProcess process({Program("KelvoNfsSvc")}, service.Environment());
  EXPECT_EQ(process.WaitForExit(), 0);
  EXPECT_TRUE(InOrder(service.LogText(), {"Failed to start NFS service.", "NFS server is stopped."}));
}

}  // namespace
