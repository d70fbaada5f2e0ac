// The completion thread carries out large requests of which several are under way at a time, and another one stands in
// for it when that takes its time.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <vector>

#include "support/captured_log.h"
#include "transports/async/completion_port.h"
#include "transports/async/crowd_gauge.h"
#include "transports/async/look_gauge.h"
#include "transports/async/tcp_stream.h"
#include "unit/transports/async/rig.h"

namespace test {
namespace {

class LentThreadTest : public testing::Test {
 protected:
  static constexpr std::uint32_t LargeReply = 20000;

  void SetUp() override {
    // Before anything large was moved, and several requests were under way at a time, nothing is lent.
    client_.Call(Request(order_t::Echo, 1));
    ASSERT_TRUE(client_.Reply());
    worker_ = server_.program.lastThread;
    workerTask_ = server_.program.lastTask;
  }
  void MoveData(Client& client) {
    client.Call(Request(order_t::Blow, 2, LargeReply));
    ASSERT_TRUE(client.Reply());
  }
  /// Requests that arrive while another one is carried out, with large replies.
  void MoveDataTogether() {
    constexpr std::uint32_t Count = 20;
    // May be carried out by either; its small reply leaves the next one to the worker.
    client_.Call(Request(order_t::Echo, 1));
    ASSERT_TRUE(client_.Reply());
    const int before = server_.program.begun;
    client_.Call(Request(order_t::Wait, 1, gate_));
    ASSERT_TRUE(Eventually([&] { return server_.program.begun == before + 1; }));
    for (std::uint32_t i = 0; i < Count; ++i) {
      client_.Call(Request(order_t::Blow, 2, LargeReply));
    }
    server_.AwaitReceived();
    server_.program.OpenGate(gate_++);
    for (std::uint32_t i = 0; i <= Count; ++i) {
      ASSERT_TRUE(client_.Reply());
    }
  }
  /// So many requests in one send.
  void CallAtOnce(std::uint32_t count) {
    bytes_t records;
    for (std::uint32_t i = 0; i < count; ++i) {
      const bytes_t record = WithMark(Request(order_t::Echo, i));
      records.insert(records.end(), record.begin(), record.end());
    }
    client_.Send(records);
  }
  bool WasLent() const { return server_.program.lastThread.load() != worker_; }
  /// Whether the completion thread carries out the last one of these requests at some time. The worker may still be on
  /// its way to sleep when that comes, or offers may be refused for a while: then they are tried again, several times
  /// for each time that several were under way.
  bool IsLentFor(const std::function<void()>& requests) {
    return Eventually([&] {
      MoveDataTogether();
      for (unsigned i = 0; i < Tries; ++i) {
        requests();
        if (WasLent()) {
          return true;
        }
      }
      return false;
    });
  }
  /// Leaves the program waiting for gate_, or not, when the worker carries that out.
  void BlockCompletionThreadIfLent() {
    const int before = server_.program.begun;
    client_.Call(Request(order_t::Wait, Blocked, gate_));
    ASSERT_TRUE(Eventually([&] { return server_.program.begun == before + 1; }));
    if (!WasLent()) {
      server_.program.OpenGate(gate_++);
      ASSERT_TRUE(client_.Reply());
    }
  }
  /// Leaves the program waiting for gate_ on the completion thread. That is lent for a quick request before, and the
  /// worker sleeps then.
  void BlockCompletionThread() {
    ASSERT_TRUE(IsLentFor([&] {
      MoveData(client_);
      if (WasLent()) {
        BlockCompletionThreadIfLent();
      }
    }));
  }
  void Unblock() {
    server_.program.OpenGate(gate_);
    EXPECT_EQ(client_.Reply(), Request(order_t::Wait, Blocked, gate_));
  }

  static constexpr std::uint32_t Blocked = 7;
  /// Of two requests each, which come one at a time: with more of them, nothing would be left of those that came
  /// together.
  static constexpr unsigned Tries = synch::crowd_gauge_t::Most / 2;

  CapturedLog log_;
  Server server_;
  Client client_{server_.port};
  std::thread::id worker_;
  pid_t workerTask_ = 0;
  std::uint32_t gate_ = 0;
};

TEST_F(LentThreadTest, CarriesOutLargeRequestsOfWhichSeveralAreUnderWay) {
  EXPECT_TRUE(IsLentFor([&] { MoveData(client_); }));
}

TEST_F(LentThreadTest, CarriesOutThoseThatArriveTogetherInTheirOrder) {
  EXPECT_TRUE(IsLentFor([&] {
    // The small replies of the last try leave the next one to the worker.
    MoveData(client_);
    const std::uint32_t count = impl::CRequestQueue::MostLent;
    CallAtOnce(count);
    for (std::uint32_t i = 0; i < count; ++i) {
      EXPECT_EQ(client_.Reply(), Request(order_t::Echo, i));
    }
  }));
}

TEST_F(LentThreadTest, LeavesManyThatArriveTogetherToTheWorker) {
  for (int round = 0; round < 10; ++round) {
    MoveDataTogether();
    const std::uint32_t count = impl::CRequestQueue::MostLent + 1;
    CallAtOnce(count);
    for (std::uint32_t i = 0; i < count; ++i) {
      EXPECT_EQ(client_.Reply(), Request(order_t::Echo, i));
    }
    EXPECT_FALSE(WasLent());
  }
}

TEST_F(LentThreadTest, LeavesWhatComesOneByOneToTheWorker) {
  MoveDataTogether();
  // At first those that came together still count. Once the worker sleeps, it has told that it is done.
  EXPECT_TRUE(Eventually([&] {
    bool wasLent = false;
    for (int i = 0; i < 40; ++i) {
      MoveData(client_);
      wasLent = wasLent || WasLent();
      EXPECT_TRUE(Eventually([&] { return Sleeps(workerTask_); }));
    }
    return !wasLent;
  }));
}

TEST_F(LentThreadTest, LeavesRequestsThatAskAnotherProcessToTheWorker) {
  MoveDataTogether();
  server_.program.OpenGate();
  bytes_t record = Request(order_t::Ask, 3);
  record.resize(LargeReply);
  client_.Call(record);
  ASSERT_EQ(client_.Reply(), record);
  for (int i = 0; i < 10; ++i) {
    client_.Call(record);
    ASSERT_EQ(client_.Reply(), record);
    EXPECT_FALSE(WasLent());
  }
}

TEST_F(LentThreadTest, LeavesSmallRequestsToTheWorker) {
  MoveDataTogether();
  // May be carried out by either: the reply before it was large.
  client_.Call(Request(order_t::Echo, 100));
  ASSERT_TRUE(client_.Reply());
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
  for (unsigned i = 0; i < 3; ++i) {
    MoveDataTogether();
    for (unsigned k = 0; k < 10; ++k) {
      MoveData(client_);
      EXPECT_FALSE(WasLent());
    }
  }
  EXPECT_TRUE(IsLentFor([&] { MoveData(client_); }));
}

TEST_F(LentThreadTest, GoesOnAfterALentRequestThatFailed) {
  EXPECT_TRUE(IsLentFor([&] {
    Client failing(server_.port);
    MoveData(failing);
    failing.Call(Request(order_t::Throw, 5));
    EXPECT_FALSE(failing.Reply());
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
  void RunLent() noexcept override {
    ++run;
    if (meanwhile) {
      meanwhile();
    }
  }
  void Decline() noexcept override { ++declined; }

  std::function<void()> meanwhile;  ///< While it runs; before it is offered.
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

TEST_F(LentPortTest, HandsOutWhatElseIsReadyFirst) {
  OnCompletionThread([&] {
    EXPECT_TRUE(port_->OfferWork(work_));
    object_->CompleteLater(new CallEvent(object_, [&] { EXPECT_EQ(work_.run, 0); }), {});
  });
  EXPECT_EQ(work_.run, 1);
  EXPECT_EQ(work_.declined, 0);
}

TEST_F(LentPortTest, DeclinesWhenMoreIsReadyThanATurnHandsOut) {
  constexpr int Enough = 1000;
  OnCompletionThread([&] {
    EXPECT_TRUE(port_->OfferWork(work_));
    for (int i = 0; i < Enough; ++i) {
      object_->CompleteLater(new CallEvent(object_, [] {}), {});
    }
  });
  EXPECT_EQ(work_.run, 0);
  EXPECT_EQ(work_.declined, 1);
  OnCompletionThread([&] { EXPECT_FALSE(port_->OfferWork(work_)); });
}

TEST_F(LentPortTest, DeclinesBeforeItRests) {
  OnCompletionThread([&] {
    EXPECT_TRUE(port_->OfferWork(work_));
    port_->Pause(std::chrono::milliseconds(1));
    EXPECT_EQ(work_.declined, 1);
  });
  EXPECT_EQ(work_.run, 0);
}

TEST_F(LentPortTest, RefusesForAWhileAfterLendingThatDidNotPay) {
  OnCompletionThread([&] {
    port_->RefuseOffers();
    for (unsigned i = 0; i < synch::completion_port_t::OffersRefused; ++i) {
      EXPECT_FALSE(port_->OfferWork(work_));
    }
    EXPECT_TRUE(port_->OfferWork(work_));
  });
  EXPECT_EQ(work_.run, 1);
}

TEST(LookGaugeTest, LeavesLooksOutThatMostlyFindNothing) {
  using synch::look_gauge_t;
  look_gauge_t gauge;
  // As many as pay for it.
  for (unsigned i = 0; i < 1000; ++i) {
    ASSERT_TRUE(gauge.Pays());
    gauge.Tell(i % (look_gauge_t::CostInVain + 1) != 0);
  }
  unsigned looks = 0;
  for (; gauge.Pays() && looks < 1000; ++looks) {
    gauge.Tell(looks % look_gauge_t::CostInVain != 0);
  }
  EXPECT_LT(looks, 1000U);
  for (unsigned i = 1; i < look_gauge_t::LeftOut; ++i) {
    EXPECT_FALSE(gauge.Pays());
  }
  // One try in vain costs as many again.
  EXPECT_TRUE(gauge.Pays());
  gauge.Tell(false);
  for (unsigned i = 0; i < look_gauge_t::LeftOut; ++i) {
    EXPECT_FALSE(gauge.Pays());
  }
  for (unsigned i = 0; i < look_gauge_t::Limit; ++i) {
    EXPECT_TRUE(gauge.Pays());
    gauge.Tell(true);
  }
  EXPECT_TRUE(gauge.Pays());
  gauge.Tell(false);
  EXPECT_TRUE(gauge.Pays());
}

TEST_F(LentPortTest, NobodyStandsInForAThreadThatIsThere) {
  std::atomic<bool> served{false};
  port_->StandIn(work_);
  OnCompletionThread([&] {
    served = true;
    EXPECT_TRUE(port_->OfferWork(work_));
  });
  EXPECT_TRUE(served);
  EXPECT_EQ(work_.run, 1);
}

TEST_F(LentPortTest, NobodyStandsInForAThreadThatIsLentForSomethingElse) {
  Work second;
  // Nobody has the turn meanwhile.
  work_.meanwhile = [&] { port_->StandIn(second); };
  OnCompletionThread([&] { EXPECT_TRUE(port_->OfferWork(work_)); });
  EXPECT_EQ(work_.run, 1);
  // Nothing took its time.
  OnCompletionThread([&] { EXPECT_TRUE(port_->OfferWork(second)); });
  EXPECT_EQ(second.run, 1);
}

}  // namespace
}  // namespace test
