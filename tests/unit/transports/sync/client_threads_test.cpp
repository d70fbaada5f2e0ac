// Connections that come and go, and the end of those that stay.
#include "transports/sync/client_threads.h"

#include <gtest/gtest.h>

#include <deque>
#include <fstream>
#include <future>

#include "unit/transports/sync/rig.h"

namespace test {
namespace {

std::size_t ThreadsOfProcess() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Threads:"))
      return std::stoul(line.substr(8));
  }
  return 0;
}

class ClientThreadsTest : public testing::Test {
 protected:
  ClientThreadsTest() : listener_(true) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(listener_.Socket(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener_.Socket(), 128), 0);
    socklen_t length = sizeof(address);
    ::getsockname(listener_.Socket(), reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~ClientThreadsTest() override { program_->OpenGate(); }

  Client& Connect() {
    Client& client = clients_.emplace_back(port_);
    threads_.Start({boost::make_shared<CSocketIP>(listener_.Accept(), true), program_, NoFs(), nullptr});
    return client;
  }

  CapturedLog log_;
  boost::shared_ptr<CProgram> program_ = boost::make_shared<CProgram>();
  CSocketIP listener_;
  std::uint16_t port_ = 0;
  std::deque<Client> clients_;
  CClientThreads threads_;
};

TEST_F(ClientThreadsTest, ServesEachConnectionUntilItEnds) {
  Connect().Call(Request(order_t::Hold, 1));
  Client& other = Connect();
  other.Call(Request(order_t::Echo, 2));
  EXPECT_EQ(other.Reply(), Request(order_t::Echo, 2));
  EXPECT_EQ(threads_.Count(), 2U);
  other.Close();
  EXPECT_TRUE(Eventually([&] { return threads_.Count() == 1; }));
  ASSERT_TRUE(Eventually([&] { return program_->Held() == 1; }));
  program_->End(1);
  EXPECT_EQ(clients_.front().Reply(), NumberReply(1));
}

TEST_F(ClientThreadsTest, ManyThatComeAndGoLeaveNoThreadBehind) {
  Connect().Close();
  ASSERT_TRUE(Eventually([&] { return threads_.Count() == 0; }));
  const std::size_t before = ThreadsOfProcess();
  for (int round = 0; round < 10; ++round) {
    for (std::uint32_t i = 0; i < 20; ++i)
      Connect().Call(Request(i % 2 == 0 ? order_t::Echo : order_t::Throw, i));
    for (Client& client : clients_) {
      while (client.Handle() >= 0 && client.Reply())
        client.Close();
    }
    clients_.clear();
  }
  EXPECT_TRUE(Eventually([&] { return threads_.Count() == 0; }));
  EXPECT_TRUE(Eventually([&] { return ThreadsOfProcess() <= before; })) << ThreadsOfProcess() << " from " << before;
}

TEST_F(ClientThreadsTest, EndClosesTheConnectionsWithoutWaitingForTheirCalls) {
  constexpr std::uint32_t count = 30;
  for (std::uint32_t i = 0; i < count; ++i)
    Connect().Call(Request(order_t::Hold, i));
  ASSERT_TRUE(Eventually([&] { return program_->Held() == count; }));
  EXPECT_TRUE(threads_.End(20000));
  EXPECT_EQ(threads_.Count(), 0U);
  for (Client& client : clients_)
    EXPECT_EQ(client.Reply(), std::nullopt);
  for (std::uint32_t i = 0; i < count; ++i)
    program_->End(i);
}

TEST_F(ClientThreadsTest, EndGivesUpOnACallThatDoesNotReturnAndFindsItTheNextTime) {
  Connect().Call(Request(order_t::Block, 1));
  ASSERT_TRUE(Eventually([&] { return program_->begun == 1; }));
  EXPECT_FALSE(threads_.End(10));
  EXPECT_EQ(threads_.Count(), 1U);
  program_->OpenGate();
  EXPECT_TRUE(threads_.End(20000));
}

TEST_F(ClientThreadsTest, NobodyIsAdmittedAfterTheEnd) {
  EXPECT_TRUE(threads_.End(0));
  EXPECT_EQ(Connect().Reply(), std::nullopt);
  EXPECT_EQ(threads_.Count(), 0U);
}

}  // namespace
}  // namespace test
