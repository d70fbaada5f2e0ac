// What a socket's calls leave in the performance log.
#include <gmock/gmock.h>

#include "foundation/perf_logger.h"
#include "support/perf_log.h"
#include "support/temp_dir.h"
#include "transports/sockets/close_tcp_connection.h"
#include "unit/transports/sockets/socket_pair.h"

namespace {

namespace event = perf::event;
using perf::socket_transfer_t;
using test::CListener;
using test::ReadPerfLog;

class SocketEvents : public testing::Test {
 protected:
  SocketEvents() { perf::StartLog(path_, 65536); }
  ~SocketEvents() override { perf::StopLog(); }

  /// Those of one event so far; the log ends with it.
  std::vector<test::SPerfRecord> Records(std::uint32_t eventType) {
    perf::StopLog();
    return ReadPerfLog(path_, eventType);
  }
  socket_transfer_t OnlyTransfer(std::uint32_t eventType) {
    const auto records = Records(eventType);
    EXPECT_EQ(records.size(), 1U);
    return records.empty() ? socket_transfer_t{} : records[0].As<socket_transfer_t>();
  }

  test::TempDir folder_;
  const std::string path_ = folder_ / "perf.log";
};

struct SPair {
  SPair() {
    client->Connect("127.0.0.1", listener.Port());
    server = listener.Accept();
  }
  CListener listener;
  boost::shared_ptr<CSocketIP> client = boost::make_shared<CSocketIP>(true);
  boost::shared_ptr<CSocketIP> server;
};

TEST_F(SocketEvents, ConnectAndAcceptTellTheRemoteAddress) {
  const SPair pair;
  const auto accepts = Records(event::SocketAccept);
  ASSERT_EQ(accepts.size(), 1U);
  EXPECT_EQ(accepts[0].data, "remote: " + pair.server->RemoteName());
  const auto connects = ReadPerfLog(path_, event::SocketConnect);
  ASSERT_EQ(connects.size(), 1U);
  EXPECT_EQ(connects[0].data, "remote: 127.0.0.1:" + std::to_string(pair.listener.Port()));
}

TEST_F(SocketEvents, AConnectionThatFailsIsNone) {
  CSocketIP socket(true);
  EXPECT_THROW(socket.Connect("not an address", 1), std::exception);
  EXPECT_TRUE(Records(event::SocketConnect).empty());
}

TEST_F(SocketEvents, TransfersTellTheirBytesAndTheirTime) {
  const SPair pair;
  char got[5];
  pair.client->Send("12345", 5);
  pair.server->Recv(got, 5, 30);
  const socket_transfer_t sent = OnlyTransfer(event::SocketSend);
  EXPECT_EQ(sent.bytes, 5U);
  EXPECT_EQ(sent.success, 1);
  EXPECT_GT(sent.nanoseconds, 0U);
  EXPECT_LT(sent.nanoseconds, 60'000'000'000U);
  const auto received = ReadPerfLog(path_, event::SocketReceive);
  ASSERT_EQ(received.size(), 1U);
  EXPECT_EQ(received[0].As<socket_transfer_t>().bytes, 5U);
  EXPECT_EQ(received[0].As<socket_transfer_t>().success, 1);
}

TEST_F(SocketEvents, AFailedTransferTellsSo) {
  const SPair pair;
  pair.client->Close();
  char got[7];
  EXPECT_THROW(pair.server->Read(got, 7), CCloseTCPConnection);
  const socket_transfer_t transfer = OnlyTransfer(event::SocketReceive);
  EXPECT_EQ(transfer.bytes, 7U);
  EXPECT_EQ(transfer.success, 0);
}

TEST_F(SocketEvents, DatagramsTellTheirOwnLength) {
  CSocketIP receiver(false);
  receiver.Bind(0);
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  ASSERT_EQ(::getsockname(receiver.Socket(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  CSocketIP sender(false);
  sender.SendTo("abc", 3, address);
  char got[100];
  sockaddr_in peer{};
  EXPECT_EQ(receiver.ReceiveFrom(got, sizeof(got), peer), 3U);
  EXPECT_EQ(OnlyTransfer(event::SocketSendTo).bytes, 3U);
  const auto received = ReadPerfLog(path_, event::SocketReceiveFrom);
  ASSERT_EQ(received.size(), 1U);
  EXPECT_EQ(received[0].As<socket_transfer_t>().bytes, 3U);
}

TEST_F(SocketEvents, CallsThatNeverWaitAreCountedAndToldInOneEvent) {
  const SPair pair;
  const std::uint64_t calls = CSocketIP::Statistics().calls;
  const std::uint64_t bytes = CSocketIP::Statistics().bytes;
  std::uint64_t count = 0;
  ASSERT_TRUE(pair.client->NonBlockingWrite("1234", 4, count));
  char got[10];
  while (!pair.server->NonBlockingRead(got, sizeof(got), count)) {
  }
  CSocketIP::WriteStatisticsEvent();
  const auto records = Records(event::SocketTotals);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_GE(records[0].As<perf::socket_totals_t>().calls, calls + 2);
  EXPECT_EQ(records[0].As<perf::socket_totals_t>().bytes, bytes + 8);
  EXPECT_TRUE(ReadPerfLog(path_, event::SocketSend).empty());
  EXPECT_TRUE(ReadPerfLog(path_, event::SocketReceive).empty());
}

TEST_F(SocketEvents, ASwitchedOffSocketWritesNone) {
  CSocketIP client(true);
  client.SetPerfEvents(false);
  CListener listener;
  client.Connect("127.0.0.1", listener.Port());
  client.Send("12345", 5);
  perf::StopLog();
  EXPECT_TRUE(ReadPerfLog(path_).empty());
}

TEST_F(SocketEvents, WithoutALogNothingIsWritten) {
  perf::StopLog();
  const SPair pair;
  pair.client->Send("12345", 5);
  char got[5];
  pair.server->Recv(got, 5, 30);
  CSocketIP::WriteStatisticsEvent();
  EXPECT_TRUE(ReadPerfLog(path_).empty());
}

}  // namespace
