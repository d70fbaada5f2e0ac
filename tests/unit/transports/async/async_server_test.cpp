// Start and stop of the whole server.
#include "transports/async/async_server.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "support/captured_log.h"
#include "transports/async/async_server_state.h"
#include "unit/transports/async/rig.h"

namespace test {
namespace {

struct CrashSink : INFSCrashSink {
  void OnCrash(const std::exception& exception) override { text = exception.what(); }
  std::string text;
};

/// A port of this test's own.
class OwnPort {
 public:
  /// isShared: whoever asks for the port with SO_REUSEADDR, as a server does, has it as well.
  explicit OwnPort(bool isShared) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = isShared ? 1 : 0;
    EXPECT_EQ(::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)), 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    socklen_t length = sizeof(address);
    ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
  }
  OwnPort(const OwnPort&) = delete;
  OwnPort& operator=(const OwnPort&) = delete;
  ~OwnPort() { Leave(); }
  void Leave() {
    if (socket_ >= 0) {
      ::close(std::exchange(socket_, -1));
    }
  }
  std::uint16_t port = 0;

 protected:
  int socket_;
};

/// A listener of another program.
class Occupant : public OwnPort {
 public:
  Occupant() : OwnPort(false) { EXPECT_EQ(::listen(socket_, 5), 0); }
};

class AsyncServerTest : public testing::Test {
 protected:
  void ExpectServing(std::uint16_t port) {
    Client client(port);
    client.Call(Request(order_t::Echo, 4));
    EXPECT_EQ(client.Reply(), Request(order_t::Echo, 4));
  }

  CapturedLog log_;
  Program program_;
  SAsyncServerParams params_ = Server::Params(program_);
};

TEST_F(AsyncServerTest, ServesBothPortsThatItTellsTheRegistration) {
  std::atomic<bool> prepared{false};
  std::atomic<std::uint16_t> registeredNfs{0};
  params_.prepareRegistration = [&] { prepared = true; };
  params_.registrationProc = [&] { registeredNfs = ServicePorts().nfs.load(); };
  CAsyncServer server(params_);
  EXPECT_TRUE(prepared);
  ExpectServing(ServicePorts().mount);
  ExpectServing(ServicePorts().nfs);
  EXPECT_TRUE(Eventually([&] { return registeredNfs == ServicePorts().nfs; }));
  EXPECT_TRUE(Logged(log_, "Initializing TCP/UDP handlers."));
  EXPECT_TRUE(Logged(log_, "TCP/UDP handlers were initialized."));
  EXPECT_TRUE(Logged(log_, "Listening port \"" + std::to_string(ServicePorts().mount) + "\" (mount service)."));
}

TEST_F(AsyncServerTest, EndsARegistrationThatWaitsForItsPortmapper) {
  std::promise<void> aborted;
  std::atomic<bool> ended{false};
  params_.registrationProc = [&] {
    aborted.get_future().wait();
    ended = true;
  };
  params_.abortRegistration = [&] { aborted.set_value(); };
  CAsyncServer server(params_);
  ExpectServing(ServicePorts().nfs);
  EXPECT_FALSE(ended);
  server.Stop();
  EXPECT_TRUE(ended);
}

TEST_F(AsyncServerTest, RaisesTheVeryFailureOfItsSetUp) {
  const auto sink = boost::make_shared<CrashSink>();
  params_.crashSink = sink;
  params_.prepareRegistration = [] { throw exc::win_sys_exc_t("nothing prepared", 1450); };
  try {
    CAsyncServer server(params_);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), 1450U);
  }
  EXPECT_NE(sink->text.find("nothing prepared"), std::string::npos);
  EXPECT_TRUE(Logged(log_, "Fatal error of the TCP server loop."));
}

TEST_F(AsyncServerTest, WaitsAMinuteForATakenPortAndFails) {
  const Occupant occupant;
  std::chrono::milliseconds waited{0};
  params_.mountPort = occupant.port;
  params_.pause = [&](std::chrono::milliseconds pause) { waited += pause; };
  try {
    CAsyncServer server(params_);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), platform::error::WsaAddressInUse);
    EXPECT_NE(std::string(failure.what())
                  .find("Failed to bind socket object to port \"" + std::to_string(occupant.port) + "\"."),
              std::string::npos);
  }
  EXPECT_EQ(waited, std::chrono::milliseconds(55000));
  const std::vector<std::string> warnings = log_.Texts("Warning");
  ASSERT_EQ(warnings.size(), 11U);
  EXPECT_NE(warnings[0].find("Port " + std::to_string(occupant.port) + " already in use, waiting"), std::string::npos);
}

TEST_F(AsyncServerTest, TakesAPortThatIsFreedInTime) {
  Occupant occupant;
  params_.nfsPort = occupant.port;
  params_.pause = [&](std::chrono::milliseconds) { occupant.Leave(); };
  CAsyncServer server(params_);
  ExpectServing(occupant.port);
}

TEST_F(AsyncServerTest, GoesOnBesideAnotherPortmapper) {
  const Occupant occupant;
  std::atomic<bool> registered{false};
  params_.portmapPort = occupant.port;
  params_.registrationProc = [&] { registered = true; };
  CAsyncServer server(params_);
  ExpectServing(ServicePorts().nfs);
  EXPECT_TRUE(Eventually([&] { return registered.load(); }));
  EXPECT_TRUE(log_.Texts("Error").empty());
}

TEST_F(AsyncServerTest, FreesItsPortsWhenItStops) {
  // Nobody else is given it between the two.
  const OwnPort shared(true);
  params_.nfsPort = shared.port;
  params_.pause = [](std::chrono::milliseconds) { FAIL(); };
  { const CAsyncServer server(params_); }
  CAsyncServer server(params_);
  ExpectServing(params_.nfsPort);
}

TEST_F(AsyncServerTest, RunsOutItsQueuesAndLeavesOpenConnections) {
  auto server = std::make_unique<CAsyncServer>(params_);
  Client idle(ServicePorts().nfs);
  Client busy(ServicePorts().nfs);
  Client greedy(ServicePorts().mount, 8192);
  greedy.Call(Request(order_t::Blow, 0, 32U << 20));
  busy.Call(Request(order_t::Wait, 1));
  for (std::uint32_t i = 2; i < 50; ++i) {
    busy.Call(Request(order_t::Echo, i));
  }
  // The gate holds the first; what was received with it still gets its reply.
  ASSERT_TRUE(Eventually([&] { return program_.begun >= 2; }));
  std::thread stopper([&] { server->Stop(); });
  program_.OpenGate();
  stopper.join();
  EXPECT_EQ(busy.Reply(), Request(order_t::Wait, 1));
  EXPECT_EQ(idle.Reply(), std::nullopt);
  server->Stop();
  EXPECT_TRUE(Logged(log_, "Stopping tcp dispatch thread."));
  EXPECT_FALSE(Logged(log_, "Failed to dispose TCP dispatcher."));
}

TEST(AsyncServerStateTest, PrefersDoneToFinished) {
  using reached_t = CAsyncServerState::reached_t;
  CAsyncServerState state;
  EXPECT_EQ(state.WaitForAny(std::chrono::milliseconds(1)), reached_t::Neither);
  state.SetFinished(exc::CloneException(exc::runtime_exc_t(std::string("why"))));
  EXPECT_EQ(state.WaitForAny(std::chrono::milliseconds(1)), reached_t::Finished);
  EXPECT_STREQ(state.Error()->what(), "why");
  state.SetInitDone();
  EXPECT_EQ(state.WaitForAny(std::chrono::milliseconds(1)), reached_t::InitDone);
}

}  // namespace
}  // namespace test
