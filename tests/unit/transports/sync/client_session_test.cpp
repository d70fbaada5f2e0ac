// One connection with its three threads.
#include "transports/sync/client_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <boost/smart_ptr/weak_ptr.hpp>
#include <csignal>
#include <future>
#include <thread>

#include "config/address_checker.h"
#include "rpc/record_buffer.h"
#include "unit/transports/sync/rig.h"

namespace test {
namespace {

/// A session on a thread of the test, and its peer.
class SessionTest : public testing::Test {
 protected:
  SessionTest() : listener_(true) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(listener_.Socket(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener_.Socket(), 5), 0);
    socklen_t length = sizeof(address);
    ::getsockname(listener_.Socket(), reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~SessionTest() override {
    program_->OpenGate();
    client_.reset();
    if (result_.valid())
      result_.wait();
  }

  Client& Connect(int receiveBuffer = 0) {
    client_.emplace(receiveBuffer);
    client_->Connect(port_);
    socket_ = boost::make_shared<CSocketIP>(listener_.Accept(), true);
    return *client_;
  }
  void Serve() {
    auto session = boost::make_shared<CClientSession>(ClientThreadArgs{socket_, program_, NoFs(), checker_});
    session_ = session;
    // The connection ends with the last share of its socket.
    result_ = std::async(std::launch::async, [session = std::move(session)]() mutable {
      const int result = session->Run();
      session.reset();
      return result;
    });
  }
  Client& ConnectAndServe(int receiveBuffer = 0) {
    Connect(receiveBuffer);
    Serve();
    socket_.reset();
    return *client_;
  }
  int Result() {
    EXPECT_EQ(result_.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    return result_.get();
  }

  CapturedLog log_;
  boost::shared_ptr<CProgram> program_ = boost::make_shared<CProgram>();
  boost::shared_ptr<IAddressChecker> checker_;
  CSocketIP listener_;
  std::uint16_t port_ = 0;
  std::optional<Client> client_;
  boost::shared_ptr<CSocketIP> socket_;
  boost::weak_ptr<CClientSession> session_;
  std::future<int> result_;
};

TEST_F(SessionTest, AnswersUntilThePeerCloses) {
  Client& client = ConnectAndServe();
  for (std::uint32_t i = 0; i < 3; ++i) {
    client.Call(Request(order_t::Echo, i));
    EXPECT_EQ(client.Reply(), Request(order_t::Echo, i));
  }
  client.Close();
  EXPECT_EQ(Result(), 0);
  EXPECT_TRUE(Logged(log_, "Client [127.0.0.1] connected."));
  EXPECT_TRUE(Logged(log_, "TCP socket was closed, XdrReceiveThread stopped."));
  EXPECT_TRUE(Logged(log_, "XdrReceiveThread finished."));
  EXPECT_TRUE(Logged(log_, "XdrSendThread finished."));
  EXPECT_TRUE(Logged(log_, "Connection closed : protocol server thread is finished."));
  EXPECT_TRUE(log_.Texts("Error").empty());
  EXPECT_TRUE(log_.Texts("Warning").empty());
}

TEST_F(SessionTest, ManyCallsAtOnceAreAnsweredInTheirOrder) {
  Client& client = ConnectAndServe();
  bytes_t calls;
  constexpr std::uint32_t count = 1000;
  for (std::uint32_t i = 0; i < count; ++i) {
    const bytes_t call = WithMark(Request(order_t::Echo, i));
    calls.insert(calls.end(), call.begin(), call.end());
  }
  std::thread sender([&] { client.Send(calls); });
  for (std::uint32_t i = 0; i < count; ++i)
    ASSERT_EQ(client.Reply(), Request(order_t::Echo, i));
  sender.join();
}

TEST_F(SessionTest, ACallThatEndsLateHoldsBackTheRepliesBehindIt) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Hold, 1));
  client.Call(Request(order_t::Echo, 2));
  client.Call(Request(order_t::Hold, 3));
  ASSERT_TRUE(Eventually([&] { return program_->Held() == 2; }));
  program_->End(3);
  pollfd entry{client.Handle(), POLLIN, 0};
  EXPECT_EQ(::poll(&entry, 1, 50), 0);
  program_->End(1);
  EXPECT_EQ(client.Reply(), NumberReply(1));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 2));
  EXPECT_EQ(client.Reply(), NumberReply(3));
}

TEST_F(SessionTest, AMarkWithoutTheLastFragmentBitEndsTheConnection) {
  Client& client = ConnectAndServe();
  client.Send({0x00, 0x00, 0x00, 0x04, 0, 0, 0, 0});
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_EQ(Result(), 0);
  EXPECT_EQ(log_.Texts("Error").front(), "XdrReceiveThread error");
  EXPECT_TRUE(Logged(log_, "Partial packet not implemented."));
  EXPECT_TRUE(Logged(log_, "Connection closed : protocol server thread is finished."));
  EXPECT_FALSE(Logged(log_, "Client thread error."));
}

TEST_F(SessionTest, ACallThatFailsEndsTheConnectionBehindTheRepliesBeforeIt) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Hold, 1));
  client.Call(Request(order_t::Echo, 2));
  client.Call(Request(order_t::Throw, 3));
  client.Call(Request(order_t::Echo, 4));
  ASSERT_TRUE(Eventually([&] { return program_->begun == 2; }));
  program_->End(1);
  EXPECT_EQ(client.Reply(), NumberReply(1));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 2));
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_EQ(Result(), 1);
  EXPECT_EQ(log_.Texts("Error").front(), "Client thread error.");
  EXPECT_TRUE(Logged(log_, "boom"));
  EXPECT_EQ(program_->begun, 2);
}

TEST_F(SessionTest, ACallWithoutAReplyEndsTheConnectionBehindTheReplies) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Hold, 1));
  client.Call(Request(order_t::Hold, 2));
  client.Call(Request(order_t::Hold, 3));
  ASSERT_TRUE(Eventually([&] { return program_->Held() == 3; }));
  program_->Abandon(2);
  program_->End(1);
  EXPECT_EQ(client.Reply(), NumberReply(1));
  program_->End(3);
  EXPECT_EQ(client.Reply(), NumberReply(3));
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_EQ(Result(), 1);
  EXPECT_TRUE(Logged(log_, "A call has no reply."));
}

TEST_F(SessionTest, APeerThatEndedItsSideStillGetsItsReplies) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Hold, 1));
  for (std::uint32_t i = 2; i < 50; ++i)
    client.Call(Request(order_t::Echo, i));
  ::shutdown(client.Handle(), SHUT_WR);
  ASSERT_TRUE(Eventually([&] { return Logged(log_, "TCP socket was closed, XdrReceiveThread stopped."); }));
  program_->End(1);
  EXPECT_EQ(client.Reply(), NumberReply(1));
  for (std::uint32_t i = 2; i < 50; ++i)
    EXPECT_EQ(client.Reply(), Request(order_t::Echo, i));
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_EQ(Result(), 0);
}

TEST_F(SessionTest, AResetWhileACallRunsEndsTheSessionAndItsReplyGoesNowhere) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Hold, 1));
  ASSERT_TRUE(Eventually([&] { return program_->Held() == 1; }));
  client.Reset();
  EXPECT_EQ(Result(), 0);
  program_->End(1);
}

TEST_F(SessionTest, AnOwnerThatEndsItWaitsForNoCall) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Hold, 1));
  ASSERT_TRUE(Eventually([&] { return program_->Held() == 1; }));
  session_.lock()->End();
  EXPECT_EQ(Result(), 0);
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_TRUE(Logged(log_, "Connection closed : protocol server thread is finished."));
  EXPECT_TRUE(log_.Texts("Error").empty());
  program_->End(1);
}

TEST_F(SessionTest, TheVerdictOnThePeerGoesToTheProgramAndDoesNotDisconnect) {
  checker_ = boost::make_shared<CAddressChecker>("10.0.0.1");
  Client& client = ConnectAndServe();
  program_->lastAllowed = true;
  client.Call(Request(order_t::Echo, 1));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 1));
  EXPECT_FALSE(program_->lastAllowed);
  EXPECT_EQ(program_->lastPeerPort, client.Port());
  // Asked once: what is admitted later is so for the next connection.
  checker_->AddAddresses("127.0.0.1");
  client.Call(Request(order_t::Echo, 2));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 2));
  EXPECT_FALSE(program_->lastAllowed);
}

TEST_F(SessionTest, WithoutACheckerEveryoneIsAllowed) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Echo, 1));
  client.Reply();
  EXPECT_TRUE(program_->lastAllowed);
}

TEST_F(SessionTest, RecordsGrowBeyondTheFirstBuffer) {
  Client& client = ConnectAndServe();
  bytes_t record = Request(order_t::Echo, 1);
  record.resize(3 * CRecordBuffer::FirstSize + 8, 0xA5);
  std::thread sender([&] { client.Call(record); });
  const auto reply = client.Reply();
  sender.join();
  EXPECT_TRUE(reply == record);
}

TEST_F(SessionTest, LargeRecordsOfAllClientsTogetherHaveABound) {
  CRecordBuffer other;
  ASSERT_TRUE(other.GrowTo(CRecordBuffer::FirstSize + CRecordBuffer::MostBeyond));
  Client& client = ConnectAndServe();
  bytes_t record = Request(order_t::Echo, 2);
  record.resize(CRecordBuffer::FirstSize);
  std::thread sender([&] { client.Call(record); });
  EXPECT_TRUE(client.Reply() == record);
  sender.join();
  bytes_t larger = WithMark(bytes_t(CRecordBuffer::FirstSize + 1));
  larger.pop_back();
  client.Send(larger);
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_EQ(Result(), 0);
  EXPECT_TRUE(Logged(log_, "Large records take too much memory."));
}

TEST_F(SessionTest, AnEmptyRecordIsACallThatCannotBeRead) {
  Client& client = ConnectAndServe();
  client.Send({0x80, 0, 0, 0});
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_EQ(Result(), 1);
}

TEST_F(SessionTest, APeerThatLeavesInsideARecordIsAClosedConnection) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Echo, 1));
  client.Send({0x80, 0, 1, 0, 1, 2, 3});
  ::shutdown(client.Handle(), SHUT_WR);
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 1));
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_EQ(Result(), 0);
}

TEST_F(SessionTest, APeerThatTakesNoRepliesIsNotReadFromAndThenGetsAll) {
  Client& client = ConnectAndServe(8192);
  constexpr std::uint32_t count = 3000;
  constexpr std::uint32_t size = 64 << 10;
  std::thread sender([&] {
    for (std::uint32_t i = 0; i < count; ++i)
      client.Call(Request(order_t::Blow, i, size));
  });
  // What goes out is what the buffers of the system take, and a bounded rest is made for it.
  int begun = -1;
  ASSERT_TRUE(Eventually([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return std::exchange(begun, program_->begun.load()) == program_->begun && begun > 100;
  }));
  EXPECT_LT(begun, 1000);
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto reply = client.Reply();
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->size(), size + 4);
    ASSERT_EQ(WordAt(*reply, 0), i);
  }
  sender.join();
}

/// Takes the reply to a Pipe of that number; whether it came out of a pipe.
bool TakePiped(Client& client, std::uint32_t number, std::uint32_t size) {
  const auto reply = client.Reply();
  if (!reply.has_value() || reply->size() != 12 + size) {
    ADD_FAILURE() << number;
    return false;
  }
  EXPECT_EQ(WordAt(*reply, 0), number);
  EXPECT_TRUE(bytes_t(reply->begin() + 12, reply->end()) == PipeData(number, size)) << number;
  return WordAt(*reply, 4) == 1;
}

TEST_F(SessionTest, APeerThatTakesNoRepliesKeepsNoPipeWhileTheyAreScarce) {
  using platform::kernel_pipe_t;
  ASSERT_TRUE(Eventually([] { return FreePipes() == kernel_pipe_t::Most; }));
  std::signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): as the service does.
  constexpr std::uint32_t count = 100;
  constexpr std::uint32_t size = kernel_pipe_t::Largest;
  const auto others = TakePipes(kernel_pipe_t::Most / 2);
  Client& client = ConnectAndServe(8192);
  for (std::uint32_t i = 0; i < count; ++i)
    client.Call(Request(order_t::Pipe, i, size));
  // More than the buffers of the system take.
  ASSERT_TRUE(Eventually([&] { return program_->begun > 50; }));
  EXPECT_TRUE(Eventually([] { return FreePipes() == kernel_pipe_t::Most / 2; }));
  std::uint32_t piped = 0;
  for (std::uint32_t i = 0; i < count; ++i)
    piped += TakePiped(client, i, size) ? 1 : 0;
  EXPECT_LT(piped, count);
  // Who has taken all gets pipes again.
  EXPECT_TRUE(Eventually([&] {
    client.Call(Request(order_t::Pipe, 0, size));
    return TakePiped(client, 0, size);
  }));
}

TEST_F(SessionTest, CallsThatMayKeepMuchAreBegunFewAtATime) {
  Client& client = ConnectAndServe();
  constexpr std::uint32_t size = 1 << 20;
  for (std::uint32_t i = 0; i < 100; ++i)
    client.Call(Request(order_t::Hold, i, size));
  constexpr std::size_t atOnce = CClientSession::MaxPendingBytes / size;
  ASSERT_TRUE(Eventually([&] { return program_->Held() == atOnce; }));
  for (std::uint32_t i = 0; i < 100; ++i) {
    ASSERT_TRUE(Eventually([&] { return program_->Held() != 0; }));
    EXPECT_LE(program_->Held(), atOnce);
    program_->End(i);
    EXPECT_EQ(client.Reply(), NumberReply(i));
  }
}

TEST_F(SessionTest, OneCallMayKeepMoreThanAllTogether) {
  Client& client = ConnectAndServe();
  client.Call(Request(order_t::Hold, 1, 0xFFFFFFFF));
  client.Call(Request(order_t::Hold, 2, 1));
  ASSERT_TRUE(Eventually([&] { return program_->Held() == 1; }));
  program_->End(1);
  EXPECT_EQ(client.Reply(), NumberReply(1));
  ASSERT_TRUE(Eventually([&] { return program_->Held() == 1; }));
  program_->End(2);
  EXPECT_EQ(client.Reply(), NumberReply(2));
}

TEST_F(SessionTest, SocketsSendAtOnceAndBufferMuch) {
  Connect();
  const auto option = [&](int level, int name) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(::getsockopt(socket_->Socket(), level, name, &value, &length), 0);
    return value;
  };
  const int small = 20000;
  EXPECT_EQ(::setsockopt(socket_->Socket(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
  EXPECT_EQ(::setsockopt(socket_->Socket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 0);
  Serve();
  client_->Call(Request(order_t::Echo, 1));
  EXPECT_EQ(client_->Reply(), Request(order_t::Echo, 1));
  EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1) << "who lost power never closes";
  EXPECT_GT(option(SOL_SOCKET, SO_RCVBUF), 100000);
  EXPECT_GT(option(SOL_SOCKET, SO_SNDBUF), 100000);
  EXPECT_TRUE(Logged(log_, "SO_SNDBUF option is updated."));
}

TEST_F(SessionTest, ASocketThatIsGoneIsAFailureOfItsThread) {
  Connect();
  socket_->Close();
  Serve();
  EXPECT_EQ(Result(), 1);
  EXPECT_TRUE(Logged(log_, "Client thread error."));
  EXPECT_TRUE(Logged(log_, "setsockopt failed to set TCP_NODELAY"));
}

}  // namespace
}  // namespace test
