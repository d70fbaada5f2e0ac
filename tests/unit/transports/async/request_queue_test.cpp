// One worker, strict order, and its end.
#include "transports/async/request_queue.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <set>
#include <span>

#include "support/captured_log.h"
#include "unit/transports/async/rig.h"

namespace test {
namespace {

struct SHistory {
  std::mutex lock;
  std::vector<std::uint32_t> sent;
  std::vector<std::uint32_t> held;
  int closed = 0;
  int alive = 0;
  std::set<int> slowClients;    ///< Those who have to wait.
  std::map<int, int> heldSent;  ///< How often the held replies of a client were sent.
  int brokenClient = -1;        ///< To whom nothing can be sent.
};

/// One whose address is not admitted.
constexpr int StrangeClient = 4;

/// Notes the second word of each reply.
class Sender : public impl::CResponseSender {
 public:
  Sender(SHistory& history, int client) : history_(history), client_(client) {
    const std::lock_guard guard(history_.lock);
    ++history_.alive;
    peer_.sin_family = AF_INET;
    peer_.sin_port = htons(700);
    peer_.sin_addr.s_addr = htonl(0x0A000001);
  }
  ~Sender() override {
    const std::lock_guard guard(history_.lock);
    --history_.alive;
  }
  void Send(CXDRWriter& writer, impl::completion_ptr) override { Note(writer, history_.sent); }
  void Hold(CXDRWriter& writer, impl::completion_ptr completion) override {
    Note(writer, history_.held);
    Send(writer, std::move(completion));
  }
  void SendHeld() override {
    const std::lock_guard guard(history_.lock);
    ++history_.heldSent[client_];
    if (history_.brokenClient == client_) {
      throw exc::runtime_exc_t(std::string("broken"));
    }
  }
  const sockaddr_in& GetPeerAddress() const override { return peer_; }
  bool IsFsAccessAllowed() const override { return client_ != StrangeClient; }
  void Close() override {
    const std::lock_guard guard(history_.lock);
    ++history_.closed;
  }
  bool MayAnswer() override {
    const std::lock_guard guard(history_.lock);
    return !history_.slowClients.contains(client_);
  }
  const void* Client() const override { return &Clients[static_cast<std::size_t>(client_)]; }

 private:
  static constexpr std::array<char, 5> Clients{};

  void Note(const CXDRWriter& writer, std::vector<std::uint32_t>& numbers) {
    io::byte_buffer_t out;
    writer.Finish(out, true);
    const std::lock_guard guard(history_.lock);
    numbers.push_back(WordAt({out.begin(), out.end()}, 8));
  }

  SHistory& history_;
  const int client_;
  sockaddr_in peer_{};
};

class RequestQueueTest : public testing::Test {
 protected:
  void Post(order_t order, std::uint32_t number, int client = 0) {
    const bytes_t record = Request(order, number);
    queue_.Post(new Sender(history_, client), boost::make_shared<io::byte_buffer_t>(record.begin(), record.end()));
  }
  /// What is posted meanwhile is taken at once when the gate opens.
  void BlockWorker() {
    Post(order_t::Wait, 0, 3);
    ASSERT_TRUE(Eventually([&] { return program_.begun == 1; }));
  }
  void SetSlow(int client, bool slow) {
    const std::lock_guard guard(history_.lock);
    if (slow) {
      history_.slowClients.insert(client);
    } else {
      history_.slowClients.erase(client);
    }
  }
  /// Nothing is held any more once the queue is to stop.
  void StopAfter(std::size_t replies) {
    EXPECT_TRUE(Eventually([&] { return Sent().size() == replies; }));
    queue_.Stop();
  }
  std::vector<std::uint32_t> Sent() {
    const std::lock_guard guard(history_.lock);
    return history_.sent;
  }

  CapturedLog log_;
  SHistory history_;
  Program program_;
  impl::CRequestQueue queue_{"nfs", program_.Handler()};
};

using numbers_t = std::vector<std::uint32_t>;

TEST_F(RequestQueueTest, ParksTheRequestsOfASlowClientAlone) {
  SetSlow(1, true);
  Post(order_t::Echo, 10, 1);
  Post(order_t::Echo, 20, 2);
  Post(order_t::Echo, 11, 1);
  Post(order_t::Echo, 21, 2);
  ASSERT_TRUE(Eventually([&] { return Sent() == numbers_t({20, 21}); }));
  queue_.ContinueParked();
  Post(order_t::Echo, 22, 2);
  ASSERT_TRUE(Eventually([&] { return Sent() == numbers_t({20, 21, 22}); }));
  SetSlow(1, false);
  // What comes before the client is looked at again may not overtake.
  Post(order_t::Echo, 12, 1);
  Post(order_t::Echo, 23, 2);
  ASSERT_TRUE(Eventually([&] { return Sent() == numbers_t({20, 21, 22, 23}); }));
  queue_.ContinueParked();
  EXPECT_TRUE(Eventually([&] { return Sent() == numbers_t({20, 21, 22, 23, 10, 11, 12}); }));
  Post(order_t::Echo, 13, 1);
  EXPECT_TRUE(Eventually([&] { return Sent() == numbers_t({20, 21, 22, 23, 10, 11, 12, 13}); }));
}

/// The second words of the records of which a queue tells its foresight, group by group.
class ForesightTest : public RequestQueueTest {
 protected:
  /// Posts so many requests that wait together, and gives what was foreseen until all are answered.
  std::vector<numbers_t> ForeseenOf(std::uint32_t requests, std::uint32_t strangers = 0) {
    const auto post = [this](order_t order, std::uint32_t number, bool isAllowed) {
      const bytes_t record = Request(order, number);
      foreseeing_.Post(new Sender(history_, isAllowed ? 0 : StrangeClient),
                       boost::make_shared<io::byte_buffer_t>(record.begin(), record.end()));
    };
    post(order_t::Wait, 0, true);
    EXPECT_TRUE(Eventually([&] { return program_.begun == 1; }));
    for (std::uint32_t number = 1; number <= requests; ++number)
      post(order_t::Echo, number, number > strangers);
    program_.OpenGate();
    EXPECT_TRUE(Eventually([&] { return Sent().size() == requests + 1; }));
    foreseeing_.Stop();
    return foreseen_;
  }

  bool throws_ = false;

 private:
  std::vector<numbers_t> foreseen_;
  impl::CRequestQueue foreseeing_{"nfs", program_.Handler(), nullptr,
                                  [this](std::span<io::byte_buffer_t* const> records) {
                                    numbers_t numbers;
                                    for (const io::byte_buffer_t* const record : records)
                                      numbers.push_back(WordAt({record->begin(), record->end()}, 4));
                                    foreseen_.push_back(numbers);
                                    if (throws_)
                                      throw exc::runtime_exc_t(std::string("no call"));
                                  }};
};

TEST_F(ForesightTest, IsToldOfWhatWaitsTogether) {
  EXPECT_EQ(ForeseenOf(5), (std::vector<numbers_t>{{1, 2, 3, 4, 5}}));
}

TEST_F(ForesightTest, IsNotToldOfAFew) {
  EXPECT_EQ(ForeseenOf(3), std::vector<numbers_t>{});
}

TEST_F(ForesightTest, IsToldOfManyInGroupsJustBeforeTheyAreServed) {
  const std::vector<numbers_t> foreseen = ForeseenOf(32 + 32 + 3);
  ASSERT_EQ(foreseen.size(), 2U);
  EXPECT_EQ(foreseen[0].size(), 32U);
  EXPECT_EQ(foreseen[0].front(), 1U);
  EXPECT_EQ(foreseen[1].size(), 32U);
  EXPECT_EQ(foreseen[1].front(), 33U);
}

TEST_F(ForesightTest, IsNotToldOfStrangers) {
  EXPECT_EQ(ForeseenOf(6, 2), (std::vector<numbers_t>{{3, 4, 5, 6}}));
}

TEST_F(ForesightTest, MayFailAndCostsNoReply) {
  throws_ = true;
  EXPECT_EQ(ForeseenOf(5).size(), 1U);
  EXPECT_EQ(Sent(), numbers_t({0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(history_.closed, 0);
}

TEST_F(RequestQueueTest, RunsOutParkedRequestsWithoutReplies) {
  SetSlow(1, true);
  Post(order_t::Echo, 10, 1);
  Post(order_t::Throw, 11, 1);
  Post(order_t::Echo, 12, 1);
  Post(order_t::Echo, 20, 2);
  queue_.Stop();
  EXPECT_EQ(Sent(), numbers_t{20});
  EXPECT_EQ(program_.handled, 3);
  EXPECT_EQ(program_.begun, 4);
  EXPECT_EQ(history_.alive, 0);
}

TEST_F(RequestQueueTest, HoldsRepliesWhileTheSameClientHasMore) {
  BlockWorker();
  numbers_t all{0};
  for (std::uint32_t i = 1; i <= 40; ++i) {
    Post(order_t::Echo, i, 1);
    all.push_back(i);
  }
  program_.OpenGate();
  StopAfter(all.size());
  EXPECT_EQ(Sent(), all);
  // At least every sixteenth one leaves at once with those before it, and the last one.
  ASSERT_FALSE(history_.held.empty());
  std::size_t inRow = 0;
  std::uint32_t last = 0;
  for (const std::uint32_t number : history_.held) {
    inRow = number == last + 1 ? inRow + 1 : 1;
    EXPECT_LT(inRow, impl::CRequestQueue::MaxHeld);
    last = number;
  }
  EXPECT_NE(last, 40U);
}

TEST_F(RequestQueueTest, HoldsAFewRepliesHoweverLongTheirCallsTake) {
  constexpr auto Few = static_cast<std::uint32_t>(impl::CRequestQueue::FewHeld);
  BlockWorker();
  numbers_t held;
  for (std::uint32_t i = 1; i <= 2 * Few; ++i) {
    Post(order_t::Dawdle, i, 1);
    if (i % Few != 0) {
      held.push_back(i);
    }
  }
  program_.OpenGate();
  StopAfter(2 * Few + 1);
  EXPECT_EQ(history_.held, held);
}

TEST_F(RequestQueueTest, HoldsNoReplyBeforeAnotherClientsRequest) {
  BlockWorker();
  for (std::uint32_t i = 1; i <= 40; ++i) {
    Post(order_t::Echo, i, static_cast<int>(1 + i % 2));
  }
  program_.OpenGate();
  queue_.Stop();
  EXPECT_EQ(Sent().size(), 41U);
  EXPECT_TRUE(history_.held.empty());
}

TEST_F(RequestQueueTest, SendsWhatItHasAskedForWhileItAsksForTheNext) {
  std::vector<int> sentBefore;
  program_.asked = [&] {
    const std::lock_guard guard(history_.lock);
    sentBefore.push_back(history_.heldSent[1]);
  };
  BlockWorker();
  Post(order_t::Ask, 1, 1);
  Post(order_t::Ask, 2, 2);
  Post(order_t::Ask, 3, 1);
  Post(order_t::Ask, 4, 1);
  program_.OpenGate();
  StopAfter(5);
  EXPECT_EQ(Sent(), numbers_t({0, 1, 2, 3, 4}));
  // Behind the last one nobody is asked.
  EXPECT_EQ(history_.held, numbers_t({1, 2, 3}));
  EXPECT_EQ(sentBefore, std::vector<int>({0, 1, 1, 2}));
  EXPECT_EQ(history_.heldSent[2], 1);
  EXPECT_EQ(history_.alive, 0);
}

TEST_F(RequestQueueTest, SendsWhatItHasAskedForBeforeTheReplyOfAnotherClient) {
  BlockWorker();
  Post(order_t::Ask, 1, 1);
  Post(order_t::Echo, 2, 2);
  Post(order_t::Ask, 3, 2);
  Post(order_t::Throw, 4, 1);
  Post(order_t::Echo, 5, 2);
  program_.OpenGate();
  StopAfter(5);
  EXPECT_EQ(history_.held, numbers_t({1, 2, 3}));
  EXPECT_EQ(history_.heldSent[1], 1);
  EXPECT_EQ(history_.heldSent[2], 2);
  EXPECT_EQ(history_.closed, 1);
}

TEST_F(RequestQueueTest, SendsWhatIsHeldBeforeItSleeps) {
  BlockWorker();
  Post(order_t::Ask, 1, 1);
  Post(order_t::Echo, 2, 2);
  SetSlow(2, true);
  program_.OpenGate();
  ASSERT_TRUE(Eventually([&] {
    const std::lock_guard guard(history_.lock);
    return history_.heldSent[1] == 1 && history_.alive == 1;
  }));
  EXPECT_EQ(history_.held, numbers_t{1});
}

TEST_F(RequestQueueTest, HoldsNothingOnceItIsToStop) {
  BlockWorker();
  Post(order_t::Ask, 1, 1);
  Post(order_t::Echo, 2, 1);
  Post(order_t::Ask, 3, 1);
  Post(order_t::Echo, 4, 2);
  std::thread stopper([&] { queue_.Stop(); });
  // From then on what is posted is dropped.
  const auto alive = [&] {
    const std::lock_guard guard(history_.lock);
    return history_.alive;
  };
  EXPECT_TRUE(Eventually([&] {
    const int before = alive();
    Post(order_t::Echo, 5, 3);
    return alive() == before;
  }));
  program_.OpenGate();
  stopper.join();
  EXPECT_GE(Sent().size(), 5U);
  EXPECT_TRUE(history_.held.empty());
}

TEST_F(RequestQueueTest, ClosesAClientToWhomWhatIsHeldCannotBeSent) {
  history_.brokenClient = 1;
  BlockWorker();
  Post(order_t::Ask, 1, 1);
  Post(order_t::Ask, 2, 2);
  program_.OpenGate();
  StopAfter(3);
  EXPECT_EQ(Sent(), numbers_t({0, 1, 2}));
  EXPECT_EQ(history_.closed, 1);
  EXPECT_TRUE(Logged(log_, "Client 10.0.0.1:700: exception while handling request: broken"));
}

TEST_F(RequestQueueTest, RunsOutInOrderAndTakesNothingAfterwards) {
  Post(order_t::Wait, 0);
  std::vector<std::uint32_t> expected{0};
  for (std::uint32_t i = 1; i < 1000; ++i) {
    Post(order_t::Echo, i);
    expected.push_back(i);
  }
  program_.OpenGate();
  queue_.Stop();
  EXPECT_EQ(history_.sent, expected);
  Post(order_t::Echo, 5);
  EXPECT_EQ(history_.sent, expected);
  EXPECT_EQ(history_.alive, 0);
}

TEST_F(RequestQueueTest, ClosesTheClientOfARequestThatFails) {
  Post(order_t::Throw, 1);
  Post(order_t::Echo, 2);
  queue_.Stop();
  EXPECT_EQ(history_.closed, 1);
  EXPECT_EQ(history_.sent, std::vector<std::uint32_t>{2});
  EXPECT_TRUE(Logged(log_, "Client 10.0.0.1:700: exception while handling request: boom"));
}

TEST_F(RequestQueueTest, ReleasesTheExtraWithItsRequest) {
  const boost::intrusive_ptr<CCounted> extra(new CCounted);
  const bytes_t record = Request(order_t::Echo, 1);
  queue_.Post(new Sender(history_, 0), boost::make_shared<io::byte_buffer_t>(record.begin(), record.end()), extra);
  queue_.Stop();
  EXPECT_EQ(history_.sent.size(), 1U);
}

TEST_F(RequestQueueTest, LosesNoRequestThatComesAsItFallsAsleep) {
  for (std::uint32_t i = 0; i < 2000; ++i) {
    Post(order_t::Echo, i);
    if (i % 3 == 0) {
      ASSERT_TRUE(Eventually([&] { return program_.handled == static_cast<int>(i) + 1; }));
    }
    if (i % 50 == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
  queue_.Stop();
  EXPECT_EQ(history_.sent.size(), 2000U);
}

}  // namespace
}  // namespace test
