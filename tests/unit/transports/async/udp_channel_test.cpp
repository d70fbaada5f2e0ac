// Datagrams in and out.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <new>

#include "support/captured_log.h"
#include "transports/async/async_udp_channel.h"
#include "unit/transports/async/rig.h"

namespace test {
namespace {

class UdpChannelTest : public testing::Test {
 protected:
  UdpChannelTest() {
    win::SPortBinding binding;
    binding.label = "portmapper";
    channel_ = new impl::CAsyncUdpChannel(binding, queue_);
    port_->Associate(*channel_);
    channel_->Start();
    loop_ = std::thread([this] { port_->Run(); });
    client_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const timeval limit{20, 0};
    ::setsockopt(client_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(channel_->BoundPort());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(client_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  ~UdpChannelTest() override {
    program_.OpenGate();
    port_->Stop();
    loop_.join();
    queue_->Stop();
    channel_->AbandonIo();
    channel_.reset();
    port_->Abandon();
    ::close(client_);
  }
  void Send(const bytes_t& datagram) {
    EXPECT_EQ(::send(client_, datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
  }
  bytes_t Receive() {
    bytes_t datagram(65536);
    const auto count = ::recv(client_, datagram.data(), datagram.size(), 0);
    datagram.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return datagram;
  }

  CapturedLog log_;
  Program program_;
  boost::shared_ptr<synch::completion_port_t> port_ = boost::make_shared<synch::completion_port_t>();
  boost::shared_ptr<impl::CRequestQueue> queue_ =
      boost::make_shared<impl::CRequestQueue>("portmapper", program_.Handler());
  boost::intrusive_ptr<impl::CAsyncUdpChannel> channel_;
  std::thread loop_;
  int client_ = -1;
};

TEST_F(UdpChannelTest, AnswersInOrderWithoutARecordMark) {
  Send(Request(order_t::Wait, 1));
  Send(Request(order_t::Echo, 2));
  Send(Request(order_t::Echo, 3));
  program_.OpenGate();
  EXPECT_EQ(Receive(), Request(order_t::Wait, 1));
  EXPECT_EQ(Receive(), Request(order_t::Echo, 2));
  EXPECT_EQ(Receive(), Request(order_t::Echo, 3));
  EXPECT_TRUE(program_.lastAllowed);
}

TEST_F(UdpChannelTest, TakesTheLargestDatagram) {
  bytes_t datagram = Request(order_t::Echo, 1);
  datagram.resize(65504, 7);
  Send(datagram);
  EXPECT_EQ(Receive(), datagram);
  Send(Request(order_t::Echo, 2));
  EXPECT_EQ(Receive(), Request(order_t::Echo, 2));
}

TEST_F(UdpChannelTest, LosesOneBadDatagramAlone) {
  Send({1, 2});
  Send(Request(order_t::Throw, 1));
  Send(Request(order_t::Echo, 2));
  EXPECT_EQ(Receive(), Request(order_t::Echo, 2));
}

TEST_F(UdpChannelTest, GoesOnAfterAReplyThatDoesNotFit) {
  Send(Request(order_t::Blow, 1, 100000));
  Send(Request(order_t::Echo, 2));
  EXPECT_EQ(Receive(), Request(order_t::Echo, 2));
  const std::vector<std::string> errors = log_.Texts("Error");
  ASSERT_FALSE(errors.empty());
  EXPECT_NE(errors[0].find("exception while handling request"), std::string::npos);
  EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [](const std::string& line) {
    return line.find("Failed to send data using UDP socket. Target address: \"127.0.0.1:") != std::string::npos;
  }));
}

/// Has no memory for its first datagram.
class CForgetfulSocket : public win::CUdpSocket, public win::IUdpEventsHandler {
 public:
  explicit CForgetfulSocket(const win::SPortBinding& binding)
      : CUdpSocket(static_cast<win::IUdpEventsHandler&>(*this), binding) {}
  void Start() { Receive(buffer_.data(), buffer_.size()); }
  void OnDatagramReceived(const win::SDatagramAddress&, std::size_t size) override {
    if (first.exchange(false))
      throw std::bad_alloc();
    received = size;
  }
  void OnDatagramSent() override {}

  std::atomic<bool> first{true};
  std::atomic<std::size_t> received{0};

 private:
  std::array<std::uint8_t, 100> buffer_;
};

TEST(UdpSocketTest, ReceivesOnAfterADatagramThatFailed) {
  const CapturedLog log;
  const auto port = boost::make_shared<synch::completion_port_t>();
  win::SPortBinding binding;
  binding.label = "test";
  boost::intrusive_ptr<CForgetfulSocket> socket(new CForgetfulSocket(binding));
  port->Associate(*socket);
  socket->Start();
  std::thread loop([&] { port->Run(); });
  const int client = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(socket->BoundPort());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (const std::size_t size : {1, 2, 3}) {
    EXPECT_EQ(::sendto(client, "abc", size, 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              static_cast<ssize_t>(size));
  }
  EXPECT_TRUE(Eventually([&] { return socket->received == 3; }));
  ::close(client);
  port->Stop();
  loop.join();
  EXPECT_FALSE(log.Texts("Error").empty());
  socket->AbandonIo();
  socket.reset();
  port->Abandon();
}

TEST(UdpPortTest, IsTakenOnce) {
  const auto queue = boost::make_shared<impl::CRequestQueue>("portmapper", Program().Handler());
  win::SPortBinding binding;
  const boost::intrusive_ptr<impl::CAsyncUdpChannel> first(new impl::CAsyncUdpChannel(binding, queue));
  binding.port = first->BoundPort();
  try {
    const boost::intrusive_ptr<impl::CAsyncUdpChannel> second(new impl::CAsyncUdpChannel(binding, queue));
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), platform::error::WsaAddressInUse);
  }
}

}  // namespace
}  // namespace test
