// The completion thread carries out what comes alone, and another one stands in for it when that takes its time.
#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "support/captured_log.h"
#include "transports/async/completion_port.h"
#include "transports/async/tcp_stream.h"
#include "unit/transports/async/rig.h"

namespace test {
namespace {

class LentThreadTest : public testing::Test {
 protected:
  static constexpr std::uint32_t LargeReply = 20000;

  void SetUp() override {
    // Before anything large was moved, nothing is lent.
    client_.Call(Request(order_t::Echo, 1));
    ASSERT_TRUE(client_.Reply());
    worker_ = server_.program.lastThread;
  }
  void MoveData(Client& client) {
    client.Call(Request(order_t::Blow, 2, LargeReply));
    ASSERT_TRUE(client.Reply());
  }
  bool WasLent() const { return server_.program.lastThread.load() != worker_; }
  /// Leaves the program waiting for gate_ on the completion thread. The worker may still be on its way to sleep when
  /// the request comes; then it is tried again.
  void BlockCompletionThread() {
    ASSERT_TRUE(Eventually([&] {
      MoveData(client_);
      const int before = server_.program.begun;
      client_.Call(Request(order_t::Wait, Blocked, gate_));
      EXPECT_TRUE(Eventually([&] { return server_.program.begun == before + 1; }));
      if (WasLent()) {
        return true;
      }
      server_.program.OpenGate(gate_++);
      EXPECT_TRUE(client_.Reply());
      return false;
    }));
  }
  void Unblock() {
    server_.program.OpenGate(gate_);
    EXPECT_EQ(client_.Reply(), Request(order_t::Wait, Blocked, gate_));
  }

  static constexpr std::uint32_t Blocked = 7;

  CapturedLog log_;
  Server server_;
  Client client_{server_.port};
  std::thread::id worker_;
  std::uint32_t gate_ = 0;
};

TEST_F(LentThreadTest, CarriesOutWhatComesAloneAfterALargeReply) {
  EXPECT_TRUE(Eventually([&] {
    MoveData(client_);
    return WasLent();
  }));
}

TEST_F(LentThreadTest, CarriesOutWhatComesAloneAfterALargeRecord) {
  bytes_t record = Request(order_t::Echo, 3);
  record.resize(LargeReply);
  EXPECT_TRUE(Eventually([&] {
    client_.Call(record);
    EXPECT_EQ(client_.Reply(), record);
    client_.Call(Request(order_t::Echo, 4));
    EXPECT_EQ(client_.Reply(), Request(order_t::Echo, 4));
    return WasLent();
  }));
}

TEST_F(LentThreadTest, LeavesSmallRequestsToTheWorker) {
  ASSERT_NO_FATAL_FAILURE(BlockCompletionThread());
  Unblock();
  // The request that was lent was small, and so was its reply.
  for (std::uint32_t i = 0; i < 20; ++i) {
    client_.Call(Request(order_t::Echo, i));
    ASSERT_EQ(client_.Reply(), Request(order_t::Echo, i));
    EXPECT_FALSE(WasLent());
  }
}

TEST_F(LentThreadTest, OthersAreServedWhileALentRequestTakesItsTime) {
  ASSERT_NO_FATAL_FAILURE(BlockCompletionThread());
  Client other(server_.mountPort);
  other.Call(Request(order_t::Echo, 8));
  EXPECT_EQ(other.Reply(), Request(order_t::Echo, 8));
  Unblock();
}

TEST_F(LentThreadTest, RequestsOfItsProgramFollowInTheOrderOfTheirArrival) {
  ASSERT_NO_FATAL_FAILURE(BlockCompletionThread());
  const int before = server_.program.begun;
  Client second(server_.port);
  Client third(server_.port);
  second.Call(Request(order_t::Wait, 20, gate_ + 1));
  server_.AwaitReceived();
  third.Call(Request(order_t::Echo, 30));
  server_.AwaitReceived();
  // Those of the other port alone.
  EXPECT_EQ(server_.program.begun, before + 2);
  Unblock();
  ASSERT_TRUE(Eventually([&] { return server_.program.begun == before + 3; }));
  EXPECT_EQ(third.Arrived(), 0U);
  server_.program.OpenGate();
  EXPECT_EQ(second.Reply(), Request(order_t::Wait, 20, gate_ + 1));
  EXPECT_EQ(third.Reply(), Request(order_t::Echo, 30));
}

TEST_F(LentThreadTest, IsNotLentForAWhileAfterARequestThatTookItsTime) {
  ASSERT_NO_FATAL_FAILURE(BlockCompletionThread());
  Client other(server_.mountPort);
  other.Call(Request(order_t::Echo, 8));
  ASSERT_TRUE(other.Reply());
  Unblock();
  for (unsigned i = 0; i < 20; ++i) {
    MoveData(client_);
    EXPECT_FALSE(WasLent());
  }
  EXPECT_TRUE(Eventually([&] {
    MoveData(client_);
    return WasLent();
  }));
}

TEST_F(LentThreadTest, GoesOnAfterALentRequestThatFailed) {
  EXPECT_TRUE(Eventually([&] {
    Client failing(server_.port);
    MoveData(failing);
    failing.Call(Request(order_t::Throw, 5));
    EXPECT_FALSE(failing.Reply());
    return WasLent();
  }));
  MoveData(client_);
}

TEST_F(LentThreadTest, StopsWhileALentRequestGoesOn) {
  ASSERT_NO_FATAL_FAILURE(BlockCompletionThread());
  std::future<void> stopped = std::async(std::launch::async, [&] { server_.server->Stop(); });
  EXPECT_TRUE(Eventually([&] { return Logged(log_, "Stopping tcp dispatch thread."); }));
  Unblock();
  stopped.get();
  EXPECT_FALSE(client_.Reply());
}

/// Work that tells which of its ends it came to.
class Work : public synch::ILentWork {
 public:
  void RunLent() noexcept override { ++run; }
  void Decline() noexcept override { ++declined; }

  std::atomic<int> run{0};
  std::atomic<int> declined{0};
};

/// Calls what it is given on the completion thread.
class CallEvent : public win::CIoEventHandler {
 public:
  CallEvent(boost::intrusive_ptr<win::CIoObject> owner, std::function<void()> call)
      : CIoEventHandler(std::move(owner), win::io_direction_t::Read), call_(std::move(call)) {}
  win::io_attempt_t Attempt(int, win::SIoResult&) override { return win::io_attempt_t::Done; }
  void OnComplete(win::CIoObject&, platform::error_t, std::uint32_t) override { call_(); }

 private:
  const std::function<void()> call_;
};

class LentPortTest : public testing::Test {
 protected:
  LentPortTest() {
    port_->Associate(*object_);
    loop_ = std::thread([this] { port_->Run(); });
  }
  ~LentPortTest() override {
    port_->Stop();
    loop_.join();
    port_->Abandon();
  }
  /// Returns when the turn is over.
  void OnCompletionThread(const std::function<void()>& call) {
    Begin(call);
    Begin([] {});
  }
  void Begin(const std::function<void()>& call) {
    std::promise<void> done;
    object_->CompleteLater(new CallEvent(object_,
                                         [&] {
                                           call();
                                           done.set_value();
                                         }),
                           {});
    done.get_future().wait();
  }

  CapturedLog log_;
  boost::shared_ptr<synch::completion_port_t> port_ = boost::make_shared<synch::completion_port_t>();
  boost::intrusive_ptr<win::CTcpStream> object_ = new win::CTcpStream();
  std::thread loop_;
  Work work_;
};

TEST_F(LentPortTest, RunsWhatIsOfferedAtTheEndOfTheTurn) {
  OnCompletionThread([&] {
    EXPECT_TRUE(port_->OfferWork(work_));
    EXPECT_EQ(work_.run, 0);
  });
  EXPECT_EQ(work_.run, 1);
  EXPECT_EQ(work_.declined, 0);
}

TEST_F(LentPortTest, TakesOffersOnItsThreadAloneAndOneAtATime) {
  EXPECT_FALSE(port_->OfferWork(work_));
  Work second;
  OnCompletionThread([&] {
    EXPECT_TRUE(port_->OfferWork(work_));
    EXPECT_FALSE(port_->OfferWork(second));
  });
  EXPECT_EQ(work_.run, 1);
  EXPECT_EQ(second.run, 0);
}

TEST_F(LentPortTest, DeclinesBeforeMoreIsHandedOut) {
  OnCompletionThread([&] {
    EXPECT_TRUE(port_->OfferWork(work_));
    // What comes next may take its time, and the work does not wait for it.
    object_->CompleteLater(new CallEvent(object_, [&] { EXPECT_EQ(work_.declined, 1); }), {});
  });
  EXPECT_EQ(work_.run, 0);
  EXPECT_EQ(work_.declined, 1);
}

TEST_F(LentPortTest, RefusesForAWhileAfterLendingThatDidNotPay) {
  port_->RefuseOffers();
  EXPECT_FALSE(port_->AcceptsOffers());
  OnCompletionThread([&] {
    for (unsigned i = 0; i < synch::completion_port_t::OffersRefused; ++i) {
      EXPECT_FALSE(port_->OfferWork(work_));
    }
    EXPECT_TRUE(port_->AcceptsOffers());
    EXPECT_TRUE(port_->OfferWork(work_));
  });
  EXPECT_EQ(work_.run, 1);
}

TEST_F(LentPortTest, NobodyStandsInForAThreadThatIsThere) {
  std::atomic<bool> served{false};
  port_->StandIn(work_);
  OnCompletionThread([&] { served = true; });
  EXPECT_TRUE(served);
}

}  // namespace
}  // namespace test
