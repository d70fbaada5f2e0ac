// Data of large records that stays in the kernel.
#include <gtest/gtest.h>

#include "unit/transports/async/rig.h"

namespace test {
namespace {

constexpr std::uint32_t HeadSize = 12;
constexpr std::uint32_t Large = 65536;
/// A pipe does not hold all of the data in such pieces.
constexpr std::uint32_t Piece = 400;

bytes_t LargeRequest(order_t order, std::uint32_t number, std::uint32_t length = Large) {
  bytes_t record = Request(order, number, length);
  for (std::uint32_t i = 0; i < length; ++i) {
    record.push_back(static_cast<std::uint8_t>(i * 7 + i / 251 + number));
  }
  return record;
}

bytes_t LeftReply(std::uint32_t inKernel, const bytes_t& record) {
  bytes_t reply;
  AppendWord(reply, inKernel);
  reply.insert(reply.end(), record.begin(), record.end());
  return reply;
}

class ConnectionRestTest : public testing::Test {
 protected:
  /// What all processes of a user may have is little more than what two of these tests do: once made, pipes stay.
  void SetUp() override {
    ASSERT_TRUE(Eventually([] { return FreePipes() == platform::kernel_pipe_t::Most; }));
  }
  /// One request, after which the connection knows what need not come into memory.
  void Teach(Client& client) {
    const bytes_t request = LargeRequest(order_t::Leave, 0);
    client.Call(request);
    const auto reply = client.Reply();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(bytes_t(reply->begin() + 4, reply->end()), request);
  }
  void Teach() { Teach(client_); }
  void ExpectLeft(std::uint32_t inKernel, const bytes_t& request) {
    client_.Call(request);
    EXPECT_EQ(client_.Reply(), LeftReply(inKernel, request));
  }

  /// Sends the first bytes at once, and then all but the last `unsent` ones in pieces that the server takes one by one.
  void SendPieces(Client& client, const bytes_t& request, std::size_t unsent) {
    const bytes_t all = WithMark(request);
    client.Send(bytes_t(all.begin(), all.begin() + 4 + HeadSize));
    for (std::size_t sent = 4 + HeadSize; sent < all.size() - unsent; sent += Piece) {
      const std::size_t end = std::min(all.size() - unsent, sent + Piece);
      server_.AwaitReceived();
      client.Send(
          bytes_t(all.begin() + static_cast<std::ptrdiff_t>(sent), all.begin() + static_cast<std::ptrdiff_t>(end)));
    }
    server_.AwaitReceived();
  }
  void ExpectForgotten(Client& client, bool reset) {
    const int begun = server_.program.begun;
    if (reset) {
      client.Reset();
    } else {
      client.Close();
    }
    EXPECT_TRUE(Eventually([] { return FreePipes() == platform::kernel_pipe_t::Most; })) << reset;
    Teach();
    EXPECT_EQ(server_.program.begun, begun + 1);
  }

  CapturedLog log_;
  Server server_;
  Client client_{server_.port};
};

TEST_F(ConnectionRestTest, DataStaysInTheKernelOnceTheRequestBeforeDidNotNeedIt) {
  Teach();
  for (std::uint32_t number = 1; number < 4; ++number) {
    ExpectLeft(Large, LargeRequest(order_t::Leave, number));
  }
  ExpectLeft(16384, LargeRequest(order_t::Leave, 5, 16384));
  EXPECT_TRUE(log_.Texts("Error").empty());
}

TEST_F(ConnectionRestTest, DataOfAnotherSizeComesIntoMemory) {
  Teach();
  const auto most = static_cast<std::uint32_t>(platform::kernel_pipe_t::Largest);
  for (const std::uint32_t length : {8U, 9000U, 16380U, most + 4}) {
    ExpectLeft(0, LargeRequest(order_t::Leave, length, length));
    Teach();
  }
}

TEST_F(ConnectionRestTest, WhoNeedsTheDataInMemoryGetsItThere) {
  Teach();
  const bytes_t echo = LargeRequest(order_t::Echo, 1);
  client_.Call(echo);
  EXPECT_EQ(client_.Reply(), echo);
  ExpectLeft(0, LargeRequest(order_t::Leave, 2));
  ExpectLeft(Large, LargeRequest(order_t::Leave, 3));
}

TEST_F(ConnectionRestTest, RecordsOfAllSizesMixed) {
  Teach();
  std::vector<bytes_t> records;
  for (const std::uint32_t length : {65536U, 0U, 4U, 65536U, 100000U, 8180U, 65536U, 65536U, 20U, 300000U, 65536U}) {
    records.push_back(LargeRequest(order_t::Leave, length, length));
  }
  bytes_t all;
  for (const bytes_t& record : records) {
    const bytes_t one = WithMark(record);
    all.insert(all.end(), one.begin(), one.end());
  }
  for (int round = 0; round < 20; ++round) {
    std::thread sender([&] { client_.Send(all); });
    for (const bytes_t& record : records) {
      const auto reply = client_.Reply();
      ASSERT_TRUE(reply.has_value());
      EXPECT_EQ(bytes_t(reply->begin() + 4, reply->end()), record);
    }
    sender.join();
  }
}

TEST_F(ConnectionRestTest, TheFirstBytesMayComeOneByOne) {
  Teach();
  const bytes_t request = LargeRequest(order_t::Leave, 1);
  const bytes_t all = WithMark(request);
  std::size_t sent = 0;
  for (; sent < 4 + HeadSize + 3; ++sent) {
    client_.Send({all[sent]});
    // Bytes that wait together with the rest would make it more pieces than a pipe holds.
    server_.AwaitReceived();
  }
  client_.Send(bytes_t(all.begin() + static_cast<std::ptrdiff_t>(sent), all.end()));
  EXPECT_EQ(client_.Reply(), LeftReply(Large, request));
}

TEST_F(ConnectionRestTest, MorePiecesThanAPipeHoldsComeIntoMemory) {
  Teach();
  const bytes_t request = LargeRequest(order_t::Leave, 1);
  SendPieces(client_, request, 0);
  EXPECT_EQ(client_.Reply(), LeftReply(0, request));
  Teach();
  ExpectLeft(Large, LargeRequest(order_t::Leave, 2));
}

TEST_F(ConnectionRestTest, SmallRequestsBetweenTellNothing) {
  Teach();
  client_.Call(Request(order_t::Echo, 1));
  EXPECT_EQ(client_.Reply(), Request(order_t::Echo, 1));
  // What was received ahead of it is in memory.
  const bytes_t request = LargeRequest(order_t::Leave, 2);
  client_.Call(request);
  const auto reply = client_.Reply();
  ASSERT_TRUE(reply.has_value());
  EXPECT_GT(WordAt(*reply, 0), Large / 2);
  EXPECT_EQ(bytes_t(reply->begin() + 4, reply->end()), request);
}

TEST_F(ConnectionRestTest, WhoHasSentNothingOfItsDataKeepsNoPipe) {
  std::vector<std::unique_ptr<Client>> clients;
  const bytes_t request = LargeRequest(order_t::Leave, 1);
  const bytes_t all = WithMark(request);
  for (std::size_t i = 0; i < platform::kernel_pipe_t::Most; ++i) {
    Teach(*clients.emplace_back(std::make_unique<Client>(server_.port)));
    clients.back()->Send(bytes_t(all.begin(), all.begin() + 4 + HeadSize));
  }
  server_.AwaitReceived();
  EXPECT_EQ(FreePipes(), platform::kernel_pipe_t::Most);
  // Who has keeps one, but never the last ones.
  for (const auto& client : clients) {
    client->Send({all[4 + HeadSize]});
  }
  server_.AwaitReceived();
  EXPECT_EQ(FreePipes(), platform::kernel_pipe_t::Most / 2);
  for (const auto& client : clients) {
    client->Send(bytes_t(all.begin() + 4 + HeadSize + 1, all.end()));
    const auto reply = client->Reply();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(bytes_t(reply->begin() + 4, reply->end()), request);
  }
}

TEST_F(ConnectionRestTest, WithoutAPipeDataComesIntoMemory) {
  Teach();
  auto pipes = TakePipes();
  const bytes_t request = LargeRequest(order_t::Leave, 1);
  ExpectLeft(0, request);
  pipes.clear();
  ExpectLeft(Large, request);
}

TEST_F(ConnectionRestTest, AClientThatGoesInTheMiddleOfItsDataIsForgotten) {
  const bytes_t all = WithMark(LargeRequest(order_t::Leave, 1));
  for (const bool reset : {false, true}) {
    Client client(server_.port);
    Teach(client);
    client.Send(bytes_t(all.begin(), all.begin() + Large / 2));
    server_.AwaitReceived();
    EXPECT_EQ(FreePipes(), platform::kernel_pipe_t::Most - 1);
    ExpectForgotten(client, reset);
  }
  EXPECT_TRUE(log_.Texts("Error").empty());
}

TEST_F(ConnectionRestTest, AClientThatGoesWhenThePipeIsFullIsForgotten) {
  // A full pipe says nothing of the stream. At one of these counts it is full, and nothing more is there.
  for (const std::uint32_t pieces : {126U, 127U, 128U, 129U}) {
    for (const bool reset : {false, true}) {
      Client client(server_.port);
      Teach(client);
      SendPieces(client, LargeRequest(order_t::Leave, 1), Large - pieces * Piece);
      ExpectForgotten(client, reset);
    }
  }
  EXPECT_TRUE(log_.Texts("Error").empty());
}

}  // namespace
}  // namespace test
