#include "transports/sockets/socket_ip.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <boost/make_shared.hpp>
#include <string>
#include <thread>
#include <vector>

#include "foundation/exc.h"
#include "transports/sockets/close_tcp_connection.h"
#include "transports/sockets/fast_socket_io_dev.h"
#include "transports/sockets/socket_ip_dev.h"
#include "transports/sockets/socket_rpc_stream.h"

namespace {

/// A listener on a loopback port of the system's choice.
class CListener {
 public:
  CListener() {
    socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    listen(socket_, 5);
    listener_ = boost::make_shared<CSocketIP>(socket_, false);
  }
  std::uint16_t Port() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
  }
  boost::shared_ptr<CSocketIP> Accept() { return boost::make_shared<CSocketIP>(listener_->Accept(), true); }

 private:
  int socket_ = -1;
  boost::shared_ptr<CSocketIP> listener_;
};

class CSocketPairTest : public testing::Test {
 protected:
  CSocketPairTest() {
    CListener listener;
    client_ = boost::make_shared<CSocketIP>(true);
    client_->Connect("127.0.0.1", listener.Port());
    server_ = listener.Accept();
  }
  boost::shared_ptr<CSocketIP> client_;
  boost::shared_ptr<CSocketIP> server_;
};

std::string TextOf(const std::exception& failure) {
  return failure.what();
}

TEST_F(CSocketPairTest, CarriesBytesBothWays) {
  client_->Send("hello", 5, 10);
  std::string got(5, '\0');
  server_->Recv(got.data(), got.size(), 10);
  EXPECT_EQ(got, "hello");
  server_->Send("back", 4);
  got.resize(4);
  client_->Recv(got.data(), got.size());
  EXPECT_EQ(got, "back");
}

TEST_F(CSocketPairTest, RecvWaitsForAllBytes) {
  std::string got(6, '\0');
  std::thread sender([this] {
    client_->Send("abc", 3);
    client_->Send("def", 3);
  });
  server_->Recv(got.data(), got.size(), 30);
  sender.join();
  EXPECT_EQ(got, "abcdef");
}

TEST_F(CSocketPairTest, RemoteNameIsThePeersAddressOnceConnected) {
  EXPECT_EQ(CSocketIP(true).RemoteName(), "n/a");
  EXPECT_EQ(client_->RemoteName().rfind("127.0.0.1:", 0), 0U);
  EXPECT_EQ(server_->RemoteName().rfind("127.0.0.1:", 0), 0U);
}

TEST_F(CSocketPairTest, AnOrderlyCloseOfThePeerIsItsOwnException) {
  client_->Close();
  char byte = 0;
  try {
    server_->Read(&byte, 1);
    FAIL();
  } catch (const CCloseTCPConnection& end) {
    EXPECT_EQ(TextOf(end), "TCP stream was closed");
  }
  std::uint64_t count = 0;
  EXPECT_THROW(server_->NonBlockingRead(&byte, 1, count), CCloseTCPConnection);
}

TEST_F(CSocketPairTest, ASilentPeerRunsOutOfTime) {
  char byte = 0;
  try {
    server_->Recv(&byte, 1, 1);
    FAIL();
  } catch (const exc::socket_timeout_exc_t& failure) {
    EXPECT_EQ(TextOf(failure), "Socket recv operation timed out (1 sec).");
  }
}

TEST_F(CSocketPairTest, APeerThatDoesNotReadRunsOutOfTimeWithAPlainFailure) {
  const std::vector<char> much(64 << 20);
  try {
    client_->Send(much.data(), much.size(), 1);
    FAIL();
  } catch (const exc::socket_timeout_exc_t&) {
    FAIL() << "only a receive has an exception of its own";
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_EQ(TextOf(failure), "Timed out in socket send operation.");
  }
}

TEST_F(CSocketPairTest, AResetIsAnErrorWithItsNumber) {
  const linger reset{1, 0};
  setsockopt(client_->Socket(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  client_->SetCloseGracefully(false);
  client_->Close();
  char byte = 0;
  try {
    server_->Read(&byte, 1);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), 10054U);
    EXPECT_NE(TextOf(failure).find("Error in CSocketIP::Read"), std::string::npos);
  }
}

TEST_F(CSocketPairTest, NonBlockingCallsSayWhenTheyWouldWait) {
  char buffer[16];
  std::uint64_t count = 0;
  EXPECT_FALSE(server_->NonBlockingRead(buffer, sizeof buffer, count));
  EXPECT_TRUE(client_->NonBlockingWrite("abc", 3, count));
  EXPECT_EQ(count, 3U);
  while (!server_->NonBlockingRead(buffer, sizeof buffer, count))
    std::this_thread::yield();
  EXPECT_EQ(std::string(buffer, count), "abc");
  const std::vector<char> much(64 << 20);
  bool wouldWait = false;
  while (!wouldWait)
    wouldWait = !client_->NonBlockingWrite(much.data(), much.size(), count);
}

TEST_F(CSocketPairTest, CloseIsIdempotent) {
  client_->Close();
  client_->Close();
  EXPECT_EQ(client_->Socket(), -1);
  EXPECT_FALSE(client_->IsConnected());
}

TEST(CSocketIPTest, TransfersNeedAConnection) {
  CSocketIP socket(true);
  char byte = 0;
  try {
    socket.Recv(&byte, 1);
    FAIL();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_EQ(TextOf(failure), "Trying to receive over not connected socket.");
  }
  try {
    socket.Send(&byte, 1);
    FAIL();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_EQ(TextOf(failure), "Trying to send over not connected socket.");
  }
}

TEST(CSocketIPTest, AConnectionThatIsRefusedTellsItsCodeTwice) {
  std::uint16_t port = 0;
  {
    CListener listener;
    port = listener.Port();
  }
  CSocketIP socket(true);
  try {
    socket.Connect("127.0.0.1", port);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), 10061U);
    EXPECT_NE(TextOf(failure).find("Cannot connect to socket."), std::string::npos);
    EXPECT_NE(TextOf(failure).find("TCP error, code: [10061]."), std::string::npos);
  }
  EXPECT_FALSE(socket.IsConnected());
}

TEST(CSocketIPTest, ATextThatIsNoAddressIsRefused) {
  CSocketIP socket(true);
  EXPECT_THROW(socket.Connect("localhost", 1), exc::win_sys_exc_t);
}

TEST(CSocketIPTest, DatagramsCarryTheirSource) {
  CSocketIP receiver(false);
  receiver.Bind(0);
  sockaddr_in target{};
  socklen_t length = sizeof target;
  getsockname(receiver.Socket(), reinterpret_cast<sockaddr*>(&target), &length);
  target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

  CSocketIP sender(false);
  sender.SendTo("datagram", 8, target);
  char buffer[64];
  sockaddr_in source{};
  ASSERT_EQ(receiver.ReceiveFrom(buffer, sizeof buffer, source), 8U);
  EXPECT_EQ(std::string(buffer, 8), "datagram");
  receiver.SendTo("answer", 6, source);
  ASSERT_EQ(sender.ReceiveFrom(buffer, sizeof buffer, source), 6U);
  EXPECT_EQ(source.sin_port, target.sin_port);
  sender.SendTo("", 0, target);
  EXPECT_THROW(receiver.ReceiveFrom(buffer, sizeof buffer, source), CCloseTCPConnection);
}

TEST(CSocketIPTest, APortThatIsTakenIs10048) {
  CSocketIP first(false);
  first.Bind(0);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(first.Socket(), reinterpret_cast<sockaddr*>(&address), &length);
  CSocketIP second(false);
  try {
    second.Bind(ntohs(address.sin_port));
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), 10048U);
    EXPECT_NE(TextOf(failure).find("Cannot bind socket"), std::string::npos);
  }
}

/// Records the writes that reach it.
class CRecordingDev : public io::io_dev_t {
 public:
  std::uint64_t Write(const void* data, std::uint64_t length) override {
    if (fails)
      throw exc::runtime_exc_t("broken");
    writes.emplace_back(static_cast<const char*>(data), length);
    return length;
  }
  std::uint64_t Read(void* data, std::uint64_t length) override {
    std::fill_n(static_cast<char*>(data), length, 'r');
    return length;
  }
  std::vector<std::string> writes;
  bool fails = false;
};

TEST(CFastSocketIoDevTest, SmallWritesLeaveTogetherAndFullBuffersAtOnce) {
  const auto device = boost::make_shared<CRecordingDev>();
  {
    io::net::CFastSocketIoDev fast(device, 8);
    fast.Write("mark", 4);
    EXPECT_TRUE(device->writes.empty());
    fast.Write("0123456789", 10);
    EXPECT_EQ(device->writes, (std::vector<std::string>{"mark0123"}));
    char got[2];
    EXPECT_EQ(fast.Read(got, 2), 2U);
    EXPECT_EQ(got[0], 'r');
  }
  EXPECT_EQ(device->writes, (std::vector<std::string>{"mark0123", "456789"}));
}

TEST(CFastSocketIoDevTest, ADestructorThatCannotWriteDoesNotThrow) {
  const auto device = boost::make_shared<CRecordingDev>();
  {
    io::net::CFastSocketIoDev fast(device, 8);
    fast.Write("left", 4);
    device->fails = true;
  }
  EXPECT_TRUE(device->writes.empty());
}

TEST_F(CSocketPairTest, AnRpcStreamPassesOnToItsSocket) {
  CSocketRpcStream stream(client_);
  stream.Send("call", 4);
  std::string got(4, '\0');
  server_->Recv(got.data(), 4);
  EXPECT_EQ(got, "call");
  EXPECT_THROW(stream.Recv(got.data(), 4, 1), exc::socket_timeout_exc_t);
}

TEST_F(CSocketPairTest, NonBlockingCallsAreCounted) {
  const std::uint64_t calls = CSocketIP::Statistics().calls;
  const std::uint64_t bytes = CSocketIP::Statistics().bytes;
  std::uint64_t count = 0;
  client_->NonBlockingWrite("0123", 4, count);
  EXPECT_EQ(CSocketIP::Statistics().calls, calls + 1);
  EXPECT_EQ(CSocketIP::Statistics().bytes, bytes + 4);
}

TEST_F(CSocketPairTest, SocketDevMovesAllBytes) {
  CSocketIPDev out(client_);
  CSocketIPDev in(server_);
  EXPECT_EQ(out.Write("0123456789", 10), 10U);
  std::string got(10, '\0');
  EXPECT_EQ(in.Read(got.data(), 10), 10U);
  EXPECT_EQ(got, "0123456789");
}

TEST_F(CSocketPairTest, TransfersGoThroughTheSecondDeviceWhenItIsSet) {
  const auto device = boost::make_shared<CRecordingDev>();
  client_->SetDevices(nullptr, device);
  client_->Send("through", 7);
  EXPECT_EQ(device->writes, (std::vector<std::string>{"through"}));
  char got = 0;
  client_->Recv(&got, 1);
  EXPECT_EQ(got, 'r');
}

}  // namespace
