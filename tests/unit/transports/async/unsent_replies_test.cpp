// What replies keep that a client does not take.
#include <gtest/gtest.h>

#include "unit/transports/async/rig.h"

namespace test {
namespace {

class UnsentRepliesTest : public testing::Test {
 protected:
  void ExpectServing() {
    Client other(server_.port);
    other.Call(Request(order_t::Echo, 77));
    EXPECT_EQ(other.Reply(), Request(order_t::Echo, 77));
  }
  /// Returns when nothing is handled any more but the requests of others, with the number of those that were not.
  int HandledWhenStill() {
    constexpr int Asked = 10;
    int others = 0;
    EXPECT_TRUE(Eventually([&] {
      const int before = server_.program.handled;
      for (int i = 0; i < Asked; ++i) {
        ExpectServing();
      }
      others += Asked;
      return server_.program.handled == before + Asked;
    }));
    return server_.program.handled - others;
  }

  /// Of a reply to who does not read, so that what follows stays in memory.
  static constexpr std::uint32_t FillsTheSocket = 7U << 19;

  CapturedLog log_;
  Server server_;
};

TEST_F(UnsentRepliesTest, CountsWhatUnsentRepliesKeepAndNotOnlyTheirBytes) {
  constexpr std::uint32_t Calls = 100;
  Client client(server_.port, 8192);
  client.Call(Request(order_t::Blow, 0, FillsTheSocket));
  for (std::uint32_t i = 1; i <= Calls; ++i) {
    client.Call(Request(order_t::Hoard, i, 1U << 20));
  }
  ASSERT_TRUE(Eventually([&] { return server_.program.handled >= 1; }));
  EXPECT_LE(HandledWhenStill(), 6);
  EXPECT_EQ(client.Reply().value_or(bytes_t()).size(), FillsTheSocket + 4);
  for (std::uint32_t i = 1; i <= Calls; ++i) {
    const auto reply = client.Reply();
    ASSERT_TRUE(reply.has_value());
    ASSERT_EQ(WordAt(*reply, 0), i);
  }
  ExpectServing();
}

TEST_F(UnsentRepliesTest, BoundsTheNumberOfSmallRepliesThatAreNotRead) {
  constexpr std::uint32_t Calls = 60000;
  Client client(server_.port, 8192);
  client.Call(Request(order_t::Blow, 0, FillsTheSocket));
  std::thread sender([&] {
    bytes_t all;
    for (std::uint32_t i = 0; i < Calls; ++i) {
      const bytes_t one = WithMark(Request(order_t::Echo, i));
      all.insert(all.end(), one.begin(), one.end());
    }
    client.Send(all);
  });
  EXPECT_TRUE(Eventually([&] { return server_.program.handled > 100; }));
  EXPECT_LT(HandledWhenStill(), static_cast<int>(Calls / 2));
  EXPECT_EQ(client.Reply().value_or(bytes_t()).size(), FillsTheSocket + 4);
  for (std::uint32_t i = 0; i < Calls; ++i) {
    const auto reply = client.Reply();
    EXPECT_TRUE(reply.has_value());
    if (!reply.has_value()) {
      break;
    }
    EXPECT_EQ(WordAt(*reply, 4), i);
  }
  sender.join();
}

}  // namespace
}  // namespace test
