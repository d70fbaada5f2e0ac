#include "transports/sockets/socket_ip.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "foundation/exc.h"
#include "transports/sockets/close_tcp_connection.h"
#include "transports/sockets/socket_rpc_stream.h"
#include "unit/transports/sockets/socket_pair.h"

namespace {

using test::CListener;
using test::CSocketPairTest;
using test::TextOf;

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

TEST_F(CSocketPairTest, PiecesArriveAsOneStreamThroughAFullSocket) {
  std::vector<std::string> texts;
  std::string all;
  for (int i = 0; i < 100; ++i) {
    texts.emplace_back(static_cast<std::size_t>(i * 1733), static_cast<char>('!' + i % 90));
    all += texts.back();
  }
  std::vector<iovec> pieces;
  for (std::string& text : texts)
    pieces.push_back({text.data(), text.size()});
  std::thread sender([&] { client_->SendPieces(pieces); });
  std::string got(all.size(), '\0');
  server_->Recv(got.data(), got.size(), 30);
  sender.join();
  EXPECT_TRUE(got == all);
  // Those who hand them in find them as they were.
  EXPECT_EQ(pieces[99].iov_len, texts[99].size());
}

TEST_F(CSocketPairTest, PiecesToNobodyAreAFailure) {
  char byte = 'x';
  const iovec piece = {&byte, 1};
  EXPECT_THROW(CSocketIP(true).SendPieces({&piece, 1}), exc::runtime_exc_t);
}

TEST_F(CSocketPairTest, RecvSomeTakesWhatIsThere) {
  std::string got(10, '\0');
  client_->Send("abc", 3);
  EXPECT_EQ(server_->RecvSome(got.data(), got.size()), 3U);
  EXPECT_EQ(got.substr(0, 3), "abc");
  std::thread sender([this] { client_->Send("defgh", 5); });
  EXPECT_EQ(server_->RecvSome(got.data(), 1), 1U);
  EXPECT_EQ(got[0], 'd');
  sender.join();
  client_->Close();
  EXPECT_EQ(server_->RecvSome(got.data(), got.size()), 4U);
  EXPECT_THROW(server_->RecvSome(got.data(), got.size()), CCloseTCPConnection);
  EXPECT_THROW(CSocketIP(true).RecvSome(got.data(), got.size()), exc::runtime_exc_t);
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
    EXPECT_NE(TextOf(failure).find("\nError in virtual "), std::string::npos);
    EXPECT_NE(TextOf(failure).find(" CSocketIP::Read(void*, "), std::string::npos);
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

TEST(CSocketIPTest, ATextThatIsNoAddressNeverReachesTheNetwork) {
  CSocketIP socket(true);
  try {
    socket.Connect("not an address", 1);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), 10049U);
    EXPECT_NE(TextOf(failure).find("TCP error, code: [10049]."), std::string::npos);
  }
}

TEST_F(CSocketPairTest, AGoneDescriptorFailsTheWait) {
  const int gone = dup(client_->Socket());
  CSocketIP socket(platform::descriptor_t(gone), true);
  close(gone);
  char byte = 0;
  for (const auto& [write, text] : {std::pair{false, "\nSelect error in  CSocketIP::Read.\n"},
                                    std::pair{true, "\nSelect error in  CSocketIP::Write.\n"}}) {
    try {
      write ? socket.Write(&byte, 1) : socket.Read(&byte, 1);
      FAIL();
    } catch (const exc::win_sys_exc_t& failure) {
      EXPECT_EQ(failure.Code(), 10009U);
      EXPECT_NE(TextOf(failure).find(text), std::string::npos);
    }
  }
  socket.SetCloseGracefully(false);
}

TEST_F(CSocketPairTest, APeerThatHasGoneRaisesNoSignal) {
  server_->SetCloseGracefully(false);
  const linger reset{1, 0};
  setsockopt(server_->Socket(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  server_->Close();
  std::uint64_t count = 0;
  char byte = 0;
  // The first failure takes the reset, every later one is a broken pipe.
  for (int i = 0; i < 3; ++i)
    EXPECT_THROW(client_->Write(&byte, 1), exc::win_sys_exc_t);
  EXPECT_THROW(client_->NonBlockingWrite(&byte, 1, count), exc::win_sys_exc_t);
}

TEST_F(CSocketPairTest, WorksWithDescriptorsPastThoseOfSelect) {
  constexpr int High = 1500;
  const int high = fcntl(client_->Socket(), F_DUPFD_CLOEXEC, High);
  if (high < 0)
    GTEST_FAIL() << "the limit of open files is below " << High;
  CSocketIP socket(platform::descriptor_t(high), true);
  server_->Send("x", 1);
  char byte = 0;
  socket.Recv(&byte, 1, 30);
  EXPECT_EQ(byte, 'x');
  EXPECT_THROW(socket.Recv(&byte, 1, 1), exc::socket_timeout_exc_t);
}

TEST_F(CSocketPairTest, TheLimitIsForEachWaitNotForTheWhole) {
  std::string got(4, '\0');
  std::thread sender([this] {
    // Each byte within the limit, all of them beyond it.
    for (const char byte : std::string("slow")) {
      std::this_thread::sleep_for(std::chrono::milliseconds(400));
      client_->Send(&byte, 1);
    }
  });
  server_->Recv(got.data(), got.size(), 1);
  sender.join();
  EXPECT_EQ(got, "slow");
}

TEST_F(CSocketPairTest, ManyBytesArriveWhole) {
  std::vector<std::uint32_t> sent(2 << 20);
  for (std::size_t i = 0; i < sent.size(); ++i)
    sent[i] = static_cast<std::uint32_t>(i * 2654435761U);
  for (const std::uint32_t limit : {0U, 30U}) {
    std::vector<std::uint32_t> got(sent.size());
    std::thread sender([&] { client_->Send(sent.data(), sent.size() * sizeof(sent[0]), limit); });
    server_->Recv(got.data(), got.size() * sizeof(got[0]), limit);
    sender.join();
    EXPECT_EQ(got, sent);
  }
}

TEST_F(CSocketPairTest, NothingToMoveIsDoneAtOnce) {
  EXPECT_EQ(server_->Read(nullptr, 0), 0U);
  EXPECT_EQ(server_->Write(nullptr, 0), 0U);
}

TEST_F(CSocketPairTest, SetDelayTurnsNoDelayOff) {
  for (const bool delay : {false, true}) {
    client_->SetDelay(delay);
    int noDelay = -1;
    socklen_t length = sizeof noDelay;
    getsockopt(client_->Socket(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
    EXPECT_EQ(noDelay != 0, !delay);
  }
  CSocketIP udp(false);
  try {
    udp.SetDelay(false);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_NE(TextOf(failure).find("\nsetsockopt failed to set TCP_NODELAY\n"), std::string::npos);
  }
}

TEST(CSocketIPTest, ASocketThatDoesNotListenAcceptsNothing) {
  CSocketIP socket(true);
  try {
    socket.Accept();
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_NE(TextOf(failure).find("\nCannot accept socket\n"), std::string::npos);
  }
}

TEST(CSocketIPTest, DatagramCallsNameTheirFailures) {
  CSocketIP socket(false);
  char buffer[8];
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(9);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const std::vector<char> tooLong(70000);
  try {
    socket.SendTo(tooLong.data(), tooLong.size(), address);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), 10040U);
    EXPECT_NE(TextOf(failure).find("\nConnection aborted in SendTo().\n"), std::string::npos);
  }
  socket.Close();
  try {
    socket.ReceiveFrom(buffer, sizeof buffer, address);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_NE(TextOf(failure).find("Select error."), std::string::npos);
  }
  try {
    socket.SendTo(buffer, 1, address);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_NE(TextOf(failure).find("Select error in SendTo()."), std::string::npos);
  }
}

TEST(CSocketIPTest, AReservedPortIsBoundWhereTheProcessMay) {
  CSocketIP socket(true);
  const bool bound = socket.BindReservedPort();
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(socket.Socket(), reinterpret_cast<sockaddr*>(&address), &length);
  EXPECT_EQ(bound, ntohs(address.sin_port) != 0);
  EXPECT_LT(ntohs(address.sin_port), 1024);
}

TEST(CSocketIPTest, AnRpcStreamConnects) {
  CListener listener;
  const auto stream = ConnectRpcStream("127.0.0.1", listener.Port());
  const auto server = listener.Accept();
  stream->Send("call", 4);
  std::string got(4, '\0');
  server->Recv(got.data(), 4);
  EXPECT_EQ(got, "call");
  EXPECT_THROW(ConnectRpcStream("not an address", 1), exc::win_sys_exc_t);
}

TEST(CSocketIPTest, AnRpcStreamCanBeAbortedByAnotherThread) {
  CListener listener;
  boost::shared_ptr<CSocketIP> socket;
  const auto stream =
      ConnectRpcStream("127.0.0.1", listener.Port(), [&](const boost::shared_ptr<CSocketIP>& made) { socket = made; });
  const auto server = listener.Accept();
  ASSERT_NE(socket, nullptr);
  std::thread other([&] { socket->Abort(); });
  char byte = 0;
  EXPECT_THROW(stream->Recv(&byte, 1, 0), CCloseTCPConnection);
  other.join();
}

TEST(CSocketIPTest, AnRpcStreamIsNotConnectedAgainstItsOwnersWill) {
  CListener listener;
  const auto refuse = [](const boost::shared_ptr<CSocketIP>&) { throw exc::runtime_exc_t(std::string("no")); };
  EXPECT_THROW(ConnectRpcStream("127.0.0.1", listener.Port(), refuse), exc::runtime_exc_t);
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

}  // namespace
