// Replies whose data is in pipes, to clients that do not take them.
#include <gtest/gtest.h>

#include <csignal>

#include "unit/transports/async/rig.h"

namespace test {
namespace {

using platform::kernel_pipe_t;

class PipedRepliesTest : public testing::Test {
 protected:
  static constexpr std::uint32_t Small = kernel_pipe_t::Least;
  static constexpr std::uint32_t Large = kernel_pipe_t::Largest;
  /// More than a socket takes that nobody reads from.
  static constexpr std::uint32_t Filling = 7U << 19;
  static constexpr std::uint32_t ManyLarge = 24;

  void SetUp() override {
    // As the service does: what leaves from a pipe cannot say that it wants none.
    std::signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c)
    ASSERT_TRUE(Eventually([] { return FreePipes() == kernel_pipe_t::Most; }));
  }

  /// With a reply that the client does not take, so that the next ones wait.
  void FillSocket(Client& client) {
    client.Call(Request(order_t::Blow, 0, Filling));
    AwaitHandled(1);
  }
  static void TakeFilling(Client& client) { EXPECT_EQ(client.Reply().value_or(bytes_t()).size(), Filling + 4); }
  static void Ask(Client& client, std::uint32_t count, std::uint32_t length) {
    for (std::uint32_t number = 0; number < count; ++number) {
      client.Call(Request(order_t::Pipe, number, length));
    }
  }
  /// Takes the replies to Ask; how many of them came out of pipes.
  static std::uint32_t TakeReplies(Client& client, std::uint32_t count, std::uint32_t length) {
    std::uint32_t piped = 0;
    for (std::uint32_t number = 0; number < count; ++number) {
      const auto reply = client.Reply();
      if (!reply.has_value() || reply->size() != 12 + length) {
        ADD_FAILURE() << number;
        break;
      }
      EXPECT_EQ(WordAt(*reply, 0), number);
      piped += WordAt(*reply, 4);
      EXPECT_EQ(WordAt(*reply, 8), length);
      EXPECT_EQ(bytes_t(reply->begin() + 12, reply->end()), PipeData(number, length));
    }
    return piped;
  }
  /// Until so many requests have been answered, whoever takes the answers.
  void AwaitHandled(int requests) {
    ASSERT_TRUE(Eventually([&] { return server_.program.handled == requests; }));
  }

  CapturedLog log_;
  Server server_;
};

TEST_F(PipedRepliesTest, WhoTakesNoneKeepsHalfOfThePipesAtMost) {
  constexpr std::uint32_t Calls = 100;
  Client slow(server_.port, 8192);
  FillSocket(slow);
  Ask(slow, Calls, Small);
  AwaitHandled(1 + Calls);
  EXPECT_EQ(FreePipes(), kernel_pipe_t::Most / 2);

  Client fast(server_.port);
  Ask(fast, 1, Small);
  EXPECT_EQ(TakeReplies(fast, 1, Small), 1U);

  TakeFilling(slow);
  EXPECT_EQ(TakeReplies(slow, Calls, Small), kernel_pipe_t::Most / 2);
  EXPECT_TRUE(Eventually([] { return FreePipes() == kernel_pipe_t::Most; }));
}

TEST_F(PipedRepliesTest, ManyWhoTakeNoneKeepHalfOfThePipesAtMost) {
  constexpr std::uint32_t Clients = 12;
  std::vector<std::unique_ptr<Client>> slow;
  for (std::uint32_t i = 0; i < Clients; ++i) {
    Ask(*slow.emplace_back(std::make_unique<Client>(server_.port, 8192)), ManyLarge, Large);
  }
  // What they may leave untaken ends before all are answered.
  EXPECT_TRUE(Eventually([&] { return server_.program.begun >= static_cast<int>(Clients * ManyLarge / 2); }));
  EXPECT_TRUE(Eventually([] { return FreePipes() >= kernel_pipe_t::Most / 2; }));
  for (const auto& client : slow) {
    TakeReplies(*client, ManyLarge, Large);
  }
  EXPECT_TRUE(Eventually([] { return FreePipes() == kernel_pipe_t::Most; }));
  EXPECT_TRUE(log_.Texts("Error").empty());
}

TEST_F(PipedRepliesTest, WhatIsPartlySentComesIntoMemoryWherePipesAreScarce) {
  const auto others = TakePipes(kernel_pipe_t::Most / 2);
  Client slow(server_.port, 8192);
  Ask(slow, ManyLarge, Large);
  EXPECT_TRUE(Eventually([&] { return server_.program.begun >= static_cast<int>(ManyLarge / 2); }));
  EXPECT_TRUE(Eventually([] { return FreePipes() == kernel_pipe_t::Most / 2; }));
  TakeReplies(slow, ManyLarge, Large);
  EXPECT_TRUE(Eventually([] { return FreePipes() == kernel_pipe_t::Most / 2; }));
}

TEST_F(PipedRepliesTest, WhoHasTakenAllGetsPipesAgain) {
  const auto others = TakePipes(kernel_pipe_t::Most / 2);
  Client slow(server_.port, 8192);
  FillSocket(slow);
  Ask(slow, 1, Small);
  AwaitHandled(2);
  TakeFilling(slow);
  EXPECT_EQ(TakeReplies(slow, 1, Small), 0U);
  EXPECT_TRUE(Eventually([&] {
    Ask(slow, 1, Small);
    return TakeReplies(slow, 1, Small) == 1;
  }));
}

TEST_F(PipedRepliesTest, WhoGoesWithoutTakingThemKeepsNone) {
  for (const bool reset : {false, true}) {
    Client client(server_.port, 8192);
    const int before = server_.program.begun;
    Ask(client, ManyLarge, Large);
    EXPECT_TRUE(Eventually([&] { return server_.program.begun >= before + static_cast<int>(ManyLarge / 2); }));
    if (reset) {
      client.Reset();
    } else {
      client.Close();
    }
    EXPECT_TRUE(Eventually([] { return FreePipes() == kernel_pipe_t::Most; })) << reset;
  }
}

}  // namespace
}  // namespace test
