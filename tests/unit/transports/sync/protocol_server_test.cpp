// The dispatcher: its ports, its datagrams, its start and its stop.
#include "transports/sync/protocol_server_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <future>
#include <mutex>

#include "config/address_checker.h"
#include "config/reg_config_ports.h"
#include "platform/sqlite_registry.h"
#include "rpc/service_ports.h"
#include "support/temp_dir.h"
#include "transports/sockets/congestion_control.h"
#include "transports/sync/client_threads.h"
#include "transports/sync/listening.h"
#include "unit/transports/pacing.h"
#include "unit/transports/sync/rig.h"

namespace test {
namespace {

using testing::ElementsAre;

/// A socket of another program.
class COccupant {
 public:
  explicit COccupant(bool tcp) : socket_(tcp) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(::bind(socket_.Socket(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    if (tcp) {
      EXPECT_EQ(::listen(socket_.Socket(), 5), 0);
    }
    socklen_t length = sizeof(address);
    ::getsockname(socket_.Socket(), reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
  }
  std::uint16_t port = 0;

 private:
  CSocketIP socket_;
};

/// A UDP socket that talks to one port of this machine.
class CDatagrams {
 public:
  explicit CDatagrams(std::uint16_t port) : socket_(false) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(socket_.Socket(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  void Send(const bytes_t& datagram) {
    EXPECT_EQ(::send(socket_.Socket(), datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
  }
  std::optional<bytes_t> Receive() {
    pollfd entry{socket_.Socket(), POLLIN, 0};
    if (::poll(&entry, 1, 20000) != 1)
      return std::nullopt;
    bytes_t data(65536);
    const ssize_t length = ::recv(socket_.Socket(), data.data(), data.size(), 0);
    if (length < 0)
      return std::nullopt;
    data.resize(static_cast<std::size_t>(length));
    return data;
  }

 private:
  CSocketIP socket_;
};

TEST(PortSearchTest, TakesTheWantedPortWhenItIsFree) {
  const CapturedLog log;
  std::vector<std::uint16_t> tried;
  const auto probe = [&](std::uint16_t port) {
    tried.push_back(port);
    return true;
  };
  EXPECT_EQ(FindFreePort(2049, probe), 2049);
  EXPECT_THAT(tried, ElementsAre(2049));
  EXPECT_THAT(log.Texts("Info"), ElementsAre("Try to bind [2049] port."));
}

TEST(PortSearchTest, TriesEachThreeTimesAndMovesUpward) {
  const CapturedLog log;
  std::vector<std::uint16_t> tried;
  std::chrono::milliseconds waited{0};
  const auto probe = [&](std::uint16_t port) {
    tried.push_back(port);
    return tried.size() == 5;
  };
  EXPECT_EQ(FindFreePort(1058, probe, [&](std::chrono::milliseconds pause) { waited += pause; }), 1059);
  EXPECT_THAT(tried, ElementsAre(1058, 1058, 1058, 1059, 1059));
  EXPECT_EQ(waited.count(), 4);
  EXPECT_THAT(log.Texts("Warning"), ElementsAre("Port [1058] is busy. Trying to bind to next one."));
}

TEST(PortSearchTest, NeverTriesTheLastPort) {
  std::vector<std::uint16_t> tried;
  const auto busy = [&](std::uint16_t port) {
    tried.push_back(port);
    return false;
  };
  try {
    FindFreePort(65534, busy, [](std::chrono::milliseconds) {});
    FAIL();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "No port found.");
  }
  EXPECT_THAT(tried, ElementsAre(65534, 65534, 65534));
  EXPECT_THROW(FindFreePort(65535, [](std::uint16_t) { return true; }), exc::runtime_exc_t);
}

TEST(PortSearchTest, APortIsFreeWhenBothProtocolsAre) {
  const COccupant tcp(true);
  EXPECT_FALSE(IsPortFree(tcp.port));
  const COccupant udp(false);
  EXPECT_FALSE(IsPortFree(udp.port));
  std::uint16_t left = 0;
  {
    const COccupant gone(true);
    left = gone.port;
  }
  EXPECT_TRUE(IsPortFree(left));
  EXPECT_TRUE(IsPortFree(left));
}

TEST(PortSearchTest, APortThatConnectionsOfAnEarlierRunHoldIsFree) {
  std::uint16_t port = 0;
  {
    const COccupant listener(true);
    port = listener.port;
  }
  CSocketIP listener(true);
  CreateEventAndListen(listener, port);
  Client client(port);
  {
    pollfd entry{listener.Socket(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 20000), 1);
    const CSocketIP accepted(listener.Accept(), true);
  }
  client.Close();
  listener.Close();
  EXPECT_TRUE(IsPortFree(port));
}

TEST(ListeningTest, ConnectionsAreNotPaced) {
  CSocketIP listener(true);
  ChooseCongestionControl(listener.Socket(), "bbr");
  CreateEventAndListen(listener, 0);
  const std::string chosen = CongestionControl(listener.Socket());
  EXPECT_FALSE(chosen.empty());
  EXPECT_FALSE(chosen.starts_with("bbr")) << chosen;
}

class ProtocolServerTest : public testing::Test {
 protected:
  ProtocolServerTest() : replaced_(platform::registry_t::SetInstance(&registry_)) {
    StorePorts(FreePort(), FreePort());
    params_.fs = NoFs();
    params_.mountProgram = mount_;
    params_.nfsProgram = nfs_;
    params_.portmapProgram = portmap_;
    params_.clientThreads = clientThreads_;
    params_.portmapPort = FreePort();
    params_.pause = [](std::chrono::milliseconds) {};
    params_.prepareRegistration = [this] { Note("prepare"); };
    params_.registrationProc = [this] { Note("register"); };
    params_.unregister = [this] { Note("unregister"); };
  }
  ~ProtocolServerTest() override {
    for (const auto& program : {mount_, nfs_, portmap_})
      program->OpenGate();
    server_.reset();
    clientThreads_.reset();
    platform::registry_t::SetInstance(replaced_);
  }

  /// Free a moment ago.
  static std::uint16_t FreePort() {
    for (;;) {
      const COccupant occupant(true);
      // The next ones are needed free, too.
      if (occupant.port < 60000)
        return occupant.port;
    }
  }
  static void StorePorts(std::uint16_t mountPort, std::uint16_t nfsPort) {
    CRegConfigPorts ports(false);
    ports.SetMountPort(mountPort);
    ports.SetNfsPort(nfsPort);
    ports.Save();
  }
  static std::uint16_t StoredMountPort() { return CRegConfigPorts(true).GetMountPort(); }
  static std::uint16_t StoredNfsPort() { return CRegConfigPorts(true).GetNfsPort(); }

  void Start() {
    server_.emplace(params_);
    ASSERT_TRUE(Eventually([this] { return Noted("register") || Logged(log_, FatalError); }));
  }
  /// A start that fails; all that it tells is told.
  void StartInVain() {
    Start();
    server_.reset();
    EXPECT_TRUE(Logged(log_, FatalError));
  }
  void Note(const std::string& event) {
    const std::lock_guard guard(lock_);
    events_.push_back(event);
  }
  std::vector<std::string> Events() {
    const std::lock_guard guard(lock_);
    return events_;
  }
  bool Noted(const std::string& event) {
    const auto events = Events();
    return std::find(events.begin(), events.end(), event) != events.end();
  }
  static void ExpectEcho(std::uint16_t port) {
    Client client(port);
    client.Call(Request(order_t::Echo, 4));
    EXPECT_EQ(client.Reply(), Request(order_t::Echo, 4));
  }
  static void ExpectEchoOfDatagram(std::uint16_t port) {
    CDatagrams client(port);
    client.Send(Request(order_t::Echo, 5));
    EXPECT_EQ(client.Receive(), Request(order_t::Echo, 5));
  }

  static constexpr char FatalError[] = "Fatal error of the dispatcher thread.";

  CapturedLog log_;
  TempDir dir_;
  platform::sqlite_registry_t registry_{dir_ / "registry.db"};
  platform::registry_t* const replaced_;
  boost::shared_ptr<CProgram> mount_ = boost::make_shared<CProgram>();
  boost::shared_ptr<CProgram> nfs_ = boost::make_shared<CProgram>();
  boost::shared_ptr<CProgram> portmap_ = boost::make_shared<CProgram>();
  boost::shared_ptr<CClientThreads> clientThreads_ = boost::make_shared<CClientThreads>();
  SProtocolServerParams params_;
  std::mutex lock_;
  std::vector<std::string> events_;  // Guarded by lock_.
  std::optional<CProtocolServerThread> server_;
};

TEST_F(ProtocolServerTest, ServesEachProgramOverBothProtocols) {
  Start();
  ExpectEcho(StoredMountPort());
  EXPECT_EQ(mount_->begun, 1);
  ExpectEchoOfDatagram(StoredMountPort());
  EXPECT_EQ(mount_->begun, 2);
  ExpectEcho(StoredNfsPort());
  ExpectEchoOfDatagram(StoredNfsPort());
  EXPECT_EQ(nfs_->begun, 2);
  ExpectEcho(params_.portmapPort);
  ExpectEchoOfDatagram(params_.portmapPort);
  EXPECT_EQ(portmap_->begun, 2);
  EXPECT_EQ(mount_->begun, 2);
}

TEST_F(ProtocolServerTest, TellsWhatItDoes) {
  const std::vector<std::string> own = {"Try load default mount port from Registry.",
                                        "Try load default NFS port from Registry.",
                                        "Creating own portmapper.",
                                        "Listening...",
                                        "Generating signal to stop protocol handlers.",
                                        "Terminating by stop event.",
                                        "Exit."};
  Start();
  ExpectEcho(StoredNfsPort());
  server_.reset();
  std::vector<std::string> lines = log_.Texts();
  // The threads of the client's session write theirs among them.
  std::erase_if(lines, [&](const std::string& line) { return std::ranges::find(own, line) == own.end(); });
  EXPECT_EQ(lines, own);
  EXPECT_TRUE(Logged(log_, "Protocol handlers were started."));
  EXPECT_THAT(Events(), ElementsAre("prepare", "register"));
}

TEST_F(ProtocolServerTest, ABusyPortMovesItUpwardAndIsStored) {
  std::optional<COccupant> mount;
  std::optional<COccupant> nfs;
  // Two searches that begin close together would end at one port.
  const auto areApart = [](int left, int right) { return std::abs(left - right) > 16; };
  do {
    mount.emplace(true);
    nfs.emplace(false);
  } while (!areApart(mount->port, nfs->port) || !areApart(mount->port, params_.portmapPort) ||
           !areApart(nfs->port, params_.portmapPort));
  StorePorts(mount->port, nfs->port);
  std::atomic<std::uint16_t> registeredMount{0};
  std::atomic<std::uint16_t> registeredNfs{0};
  params_.registrationProc = [&] {
    registeredMount = ServicePorts().mount.load();
    registeredNfs = ServicePorts().nfs.load();
    Note("register");
  };
  Start();
  EXPECT_GT(StoredMountPort(), mount->port);
  EXPECT_GT(StoredNfsPort(), nfs->port);
  EXPECT_EQ(registeredMount, StoredMountPort());
  EXPECT_EQ(registeredNfs, StoredNfsPort());
  ExpectEcho(StoredMountPort());
  ExpectEchoOfDatagram(StoredNfsPort());
  EXPECT_TRUE(Logged(log_, "The Mount or NFS ports have been changed. Trying to perform new values."));
  EXPECT_TRUE(Logged(log_, "Port [" + std::to_string(mount->port) + "] is busy. Trying to bind to next one."));
}

TEST_F(ProtocolServerTest, PortsThatAreFreeAreNotStoredAgain) {
  Start();
  EXPECT_FALSE(Logged(log_, "The Mount or NFS ports have been changed. Trying to perform new values."));
}

TEST_F(ProtocolServerTest, TheLastPortIsNeverTaken) {
  StorePorts(StoredMountPort(), 65535);
  StartInVain();
  EXPECT_TRUE(Logged(log_, "No port found."));
  EXPECT_FALSE(Noted("register"));
}

TEST_F(ProtocolServerTest, TwoEqualPortsMeetWhenTheSecondIsBound) {
  StorePorts(StoredMountPort(), StoredMountPort());
  StartInVain();
  EXPECT_TRUE(Logged(log_, "Cannot bind socket in CreateEventAndListen()"));
  // Nothing stays bound.
  EXPECT_TRUE(IsPortFree(StoredMountPort()));
}

TEST_F(ProtocolServerTest, AnotherPortmapperLeavesTwoProgramsAndIsToldAtTheStop) {
  for (const bool tcp : {true, false}) {
    const COccupant portmapper(tcp);
    params_.portmapPort = portmapper.port;
    events_.clear();
    Start();
    EXPECT_TRUE(Logged(log_, "Foreign portmapper found."));
    ExpectEcho(StoredNfsPort());
    ExpectEchoOfDatagram(StoredMountPort());
    server_.reset();
    EXPECT_THAT(Events(), ElementsAre("prepare", "register", "unregister"));
  }
  EXPECT_EQ(portmap_->begun, 0);
}

TEST_F(ProtocolServerTest, UnregistersWhenTheRegistrationHasEnded) {
  const COccupant portmapper(true);
  params_.portmapPort = portmapper.port;
  std::promise<void> aborted;
  params_.registrationProc = [&] {
    Note("register");
    aborted.get_future().wait();
    Note("aborted");
  };
  params_.abortRegistration = [&] { aborted.set_value(); };
  Start();
  server_.reset();
  EXPECT_THAT(Events(), ElementsAre("prepare", "register", "aborted", "unregister"));
}

TEST_F(ProtocolServerTest, AFailedUnregistrationIsToldAndTheServerEnds) {
  const COccupant portmapper(true);
  params_.portmapPort = portmapper.port;
  params_.unregister = [] { throw exc::runtime_exc_t(std::string("nobody there")); };
  Start();
  server_.reset();
  EXPECT_TRUE(Logged(log_, FatalError));
  EXPECT_TRUE(Logged(log_, "nobody there"));
}

TEST_F(ProtocolServerTest, DatagramsAreServedWithoutTheChecker) {
  params_.addressChecker = boost::make_shared<CAddressChecker>("10.0.0.1");
  Start();
  ExpectEchoOfDatagram(StoredNfsPort());
  EXPECT_TRUE(nfs_->lastAllowed);
  ExpectEcho(StoredNfsPort());
  EXPECT_FALSE(nfs_->lastAllowed);
}

TEST_F(ProtocolServerTest, ADatagramThatFailsIsLostAlone) {
  Start();
  CDatagrams client(StoredNfsPort());
  client.Send(Request(order_t::Throw, 1));
  client.Send({});
  client.Send({0, 0});
  // A reply that fits into no datagram.
  client.Send(Request(order_t::Blow, 2, 100000));
  client.Send(Request(order_t::Echo, 3));
  EXPECT_EQ(client.Receive(), Request(order_t::Echo, 3));
  const auto errors = log_.Texts("Error");
  EXPECT_EQ(std::count(errors.begin(), errors.end(), "Cannot process UDP packet."), 3);
  EXPECT_TRUE(Logged(log_, "boom"));
}

TEST_F(ProtocolServerTest, ConnectionsRunOnWhenItStops) {
  Start();
  Client client(StoredNfsPort());
  client.Call(Request(order_t::Echo, 1));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 1));
  server_.reset();
  client.Call(Request(order_t::Echo, 2));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 2));
  EXPECT_THROW(Client{StoredNfsPort()}, std::runtime_error);
  EXPECT_TRUE(clientThreads_->End(20000));
  EXPECT_EQ(client.Reply(), std::nullopt);
}

TEST_F(ProtocolServerTest, StopsWhileManyConnectionsAreBusy) {
  Start();
  std::deque<Client> clients;
  constexpr std::uint32_t count = 100;
  for (std::uint32_t i = 0; i < count; ++i) {
    Client& client = clients.emplace_back(StoredNfsPort());
    client.Call(Request(order_t::Hold, i));
    for (std::uint32_t number = 0; number < 20; ++number)
      client.Call(Request(order_t::Blow, number, 10000));
  }
  ASSERT_TRUE(Eventually([&] { return nfs_->Held() == count; }));
  server_.reset();
  EXPECT_TRUE(clientThreads_->End(60000));
  EXPECT_TRUE(Logged(log_, "Exit."));
  EXPECT_FALSE(Logged(log_, "Failed to stop protocol handlers."));
}

TEST_F(ProtocolServerTest, TakesItsPortsAgainAfterAStop) {
  Start();
  ExpectEcho(StoredNfsPort());
  const std::uint16_t port = StoredNfsPort();
  server_.reset();
  EXPECT_TRUE(clientThreads_->End(20000));
  clientThreads_ = boost::make_shared<CClientThreads>();
  params_.clientThreads = clientThreads_;
  events_.clear();
  Start();
  EXPECT_EQ(StoredNfsPort(), port);
  ExpectEcho(port);
}

TEST_F(ProtocolServerTest, RunsOnTheCallersThreadUntilItIsTold) {
  const auto terminate = boost::make_shared<synch::term_mediator_t>();
  CProtocolServer server(params_, terminate);
  auto run = std::async(std::launch::async, [&] { server.Run(); });
  ASSERT_TRUE(Eventually([this] { return Noted("register"); }));
  ExpectEcho(StoredMountPort());
  terminate->Terminate();
  EXPECT_NO_THROW(run.get());
}

}  // namespace
}  // namespace test
