#include "service/udp_log_receiver.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <thread>

#include "foundation/exc.h"
#include "foundation/log_setup.h"
#include "platform/sqlite_registry.h"
#include "support/temp_dir.h"

namespace {

class UdpLogReceiver : public testing::Test {
 protected:
  UdpLogReceiver() {
    platform::registry_t::SetInstance(&registry_);
    logging::InitLog("own.log", CCommandLine({"x", "-log", folder_ / "own.log"}));
  }
  ~UdpLogReceiver() override {
    logging::CloseLog();
    platform::registry_t::SetInstance(nullptr);
  }

  static CUdpLogReceiverCfg Read(std::vector<std::string> switches) {
    switches.insert(switches.begin(), "KelvoNfsSvc");
    return ReadUdpLogReceiverCfg(CCommandLine(std::move(switches)));
  }

  test::TempDir folder_;
  platform::sqlite_registry_t registry_{folder_ / "registry.db"};
};

TEST_F(UdpLogReceiver, DefaultsStandBesideTheOwnLog) {
  const CUdpLogReceiverCfg cfg = Read({"-logreceiver"});
  EXPECT_EQ(cfg.port, 37183U);
  EXPECT_EQ(cfg.logPath, folder_ / "KelvoUDP.log");
}

TEST_F(UdpLogReceiver, SwitchesOverwriteThem) {
  const CUdpLogReceiverCfg cfg = Read({"-logreceiver", "-LOG", "/l/x.log", "-Port", "65535"});
  EXPECT_EQ(cfg.port, 65535U);
  EXPECT_EQ(cfg.logPath, "/l/x.log");
}

TEST_F(UdpLogReceiver, TrailingSwitchesAreIgnored) {
  EXPECT_EQ(Read({"-logreceiver", "-port"}).port, 37183U);
  EXPECT_EQ(Read({"-logreceiver", "-log"}).logPath, folder_ / "KelvoUDP.log");
}

TEST_F(UdpLogReceiver, PortThatIsNoneIsRefused) {
  for (const char* port : {"65536", "-1", "port", "", "99999999999999999999"})
    EXPECT_THROW(Read({"-port", port}), exc::runtime_exc_t) << port;
}

/// A bound socket of this machine, and so a port that is taken.
class TakenPort {
 public:
  TakenPort() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof(address);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    port = ntohs(address.sin_port);
  }
  TakenPort(const TakenPort&) = delete;
  TakenPort& operator=(const TakenPort&) = delete;
  ~TakenPort() { ::close(socket_); }

  std::uint16_t port = 0;

 private:
  int socket_;
};

TEST_F(UdpLogReceiver, TakenPortIsTold) {
  const TakenPort taken;
  try {
    RunUdpLogReceiver({taken.port, folder_ / "out.log"});
    FAIL() << "was bound twice";
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_THAT(failure.what(), testing::HasSubstr("\nCannot bind socket\n"));
    EXPECT_EQ(failure.Code(), platform::error::WsaAddressInUse);
  }
}

TEST_F(UdpLogReceiver, OutputThatCannotBeOpenedEndsTheModeSilently) {
  RunUdpLogReceiver({0, folder_ / "missing/out.log"});
}

void Send(std::uint16_t port, const std::string& datagram) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(
      ::sendto(socket, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
      static_cast<ssize_t>(datagram.size()));
  ::close(socket);
}

std::string Content(const std::string& path) {
  std::ifstream stream(path);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

TEST_F(UdpLogReceiver, WritesDatagramsUpToTheirFirstZeroAndSurvivesEmptyOnes) {
  std::uint16_t port = 0;
  {
    const TakenPort taken;
    port = taken.port;
  }
  const std::string output = folder_ / "out.log";
  // The mode has no end of its own, so that it runs in a process that can be killed.
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    RunUdpLogReceiver({port, output});
    ::_exit(0);
  }
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  const auto waitFor = [&](const std::function<bool()>& condition) {
    while (!condition() && std::chrono::steady_clock::now() < limit)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return condition();
  };
  // The file is opened after the socket is bound.
  EXPECT_TRUE(waitFor([&] { return std::ifstream(output).is_open(); }));
  Send(port, "one ");
  Send(port, "");
  Send(port, std::string("two\0hidden", 10));
  Send(port, " three\n");
  EXPECT_TRUE(waitFor([&] { return Content(output) == "one two three\n"; })) << Content(output);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

}  // namespace
