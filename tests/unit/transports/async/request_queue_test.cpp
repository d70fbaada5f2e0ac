// One worker, strict order, and its end.
#include "transports/async/request_queue.h"

#include <gtest/gtest.h>

#include "support/captured_log.h"
#include "unit/transports/async/rig.h"

namespace test {
namespace {

struct SHistory {
  std::mutex lock;
  std::vector<std::uint32_t> sent;
  int closed = 0;
  int alive = 0;
};

/// Notes the second word of each reply.
class Sender : public impl::CResponseSender {
 public:
  explicit Sender(SHistory& history) : history_(history) {
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
  void Send(CXDRWriter& writer, impl::completion_ptr) override {
    io::byte_buffer_t out;
    writer.Finish(out, true);
    const std::lock_guard guard(history_.lock);
    history_.sent.push_back(WordAt({out.begin(), out.end()}, 8));
  }
  const sockaddr_in& GetPeerAddress() const override { return peer_; }
  bool IsFsAccessAllowed() const override { return true; }
  void Close() override {
    const std::lock_guard guard(history_.lock);
    ++history_.closed;
  }

 private:
  SHistory& history_;
  sockaddr_in peer_{};
};

class RequestQueueTest : public testing::Test {
 protected:
  void Post(order_t order, std::uint32_t number) {
    const bytes_t record = Request(order, number);
    queue_.Post(new Sender(history_), boost::make_shared<io::byte_buffer_t>(record.begin(), record.end()));
  }

  CapturedLog log_;
  SHistory history_;
  Program program_;
  impl::CRequestQueue queue_{"nfs", program_.Handler()};
};

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
  queue_.Post(new Sender(history_), boost::make_shared<io::byte_buffer_t>(record.begin(), record.end()), extra);
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
