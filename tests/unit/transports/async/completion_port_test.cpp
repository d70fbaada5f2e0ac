// The loop itself, and accepting with a system that refuses.
#include "transports/async/completion_port.h"

#include <gtest/gtest.h>

#include <deque>

#include "rpc/rpc_message.h"
#include "support/captured_log.h"
#include "transports/async/async_connection.h"
#include "transports/async/tcp_acceptor.h"
#include "transports/sockets/congestion_control.h"
#include "unit/transports/async/rig.h"
#include "unit/transports/pacing.h"

namespace test {
namespace {

using platform::error_t;

/// One end of a pair of sockets that belongs to a port.
class PairEnd : public win::CSocket {
 public:
  explicit PairEnd(int handle) : CSocket(handle) {}
};

/// Reads what is there and tells the test.
class ReadEvent : public win::CIoEventHandler {
 public:
  static constexpr std::size_t Room = 64;
  using told_t = std::function<void(error_t, std::uint32_t)>;
  ReadEvent(boost::intrusive_ptr<win::CIoObject> owner, told_t told)
      : CIoEventHandler(std::move(owner), win::io_direction_t::Read), told_(std::move(told)) {}
  win::io_attempt_t Attempt(int handle, win::SIoResult& result) override {
    std::uint8_t buffer[Room];
    const auto count = ::recv(handle, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (count < 0) {
      return win::io_attempt_t::WouldBlock;
    }
    result.bytes = static_cast<std::uint32_t>(count);
    return win::io_attempt_t::Done;
  }
  void OnComplete(win::CIoObject&, error_t error, std::uint32_t bytes) override { told_(error, bytes); }

 private:
  told_t told_;
};

class CompletionPortTest : public testing::Test {
 protected:
  CompletionPortTest() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    object_ = new PairEnd(ends[0]);
    peer_ = ends[1];
    port_->Associate(*object_);
    loop_ = std::thread([this] { port_->Run(); });
  }
  ~CompletionPortTest() override {
    StopLoop();
    port_->Abandon();
    object_.reset();
    ::close(peer_);
  }
  void StopLoop() {
    port_->Stop();
    if (loop_.joinable()) {
      loop_.join();
    }
  }
  ReadEvent::told_t Tell() {
    return [this](error_t error, std::uint32_t bytes) {
      lastError_ = error;
      lastBytes_ = bytes;
      ++told_;
    };
  }

  CapturedLog log_;
  boost::shared_ptr<synch::completion_port_t> port_ = boost::make_shared<synch::completion_port_t>();
  boost::intrusive_ptr<PairEnd> object_;
  int peer_ = -1;
  std::thread loop_;
  std::atomic<int> told_{0};
  std::atomic<error_t> lastError_{0};
  std::atomic<std::uint32_t> lastBytes_{0};
};

TEST_F(CompletionPortTest, TellsAnOperationThatFinishesLater) {
  EXPECT_EQ(object_->StartIo(new ReadEvent(object_, Tell())), 0U);
  EXPECT_EQ(::send(peer_, "abc", 3, 0), 3);
  ASSERT_TRUE(Eventually([this] { return told_ == 1; }));
  EXPECT_EQ(lastBytes_, 3U);
}

TEST_F(CompletionPortTest, TellsAnOperationThatFinishesAtOnce) {
  EXPECT_EQ(::send(peer_, "abcd", 4, 0), 4);
  EXPECT_EQ(object_->StartIo(new ReadEvent(object_, Tell())), 0U);
  ASSERT_TRUE(Eventually([this] { return told_ == 1; }));
  EXPECT_EQ(lastBytes_, 4U);
}

TEST_F(CompletionPortTest, TellsTheEndThatCameWithTheLastBytes) {
  EXPECT_EQ(object_->StartIo(new ReadEvent(object_,
                                           [this](error_t, std::uint32_t bytes) {
                                             lastBytes_ = bytes;
                                             object_->StartIo(new ReadEvent(object_, Tell()), false);
                                           })),
            0U);
  EXPECT_EQ(::send(peer_, "abcd", 4, 0), 4);
  ::shutdown(peer_, SHUT_WR);
  ASSERT_TRUE(Eventually([this] { return told_ == 1; }));
  EXPECT_EQ(lastBytes_, 0U);
  EXPECT_EQ(lastError_, 0U);
}

TEST_F(CompletionPortTest, LosesNoReadinessBetweenTwoOperations) {
  constexpr int Rounds = 20000;
  std::atomic<int> bytes{0};
  std::function<void(error_t, std::uint32_t)> again = [&](error_t, std::uint32_t count) {
    bytes += static_cast<int>(count);
    if (bytes < Rounds) {
      object_->StartIo(new ReadEvent(object_, again), count == ReadEvent::Room);
    }
  };
  object_->StartIo(new ReadEvent(object_, again));
  for (int i = 0; i < Rounds; ++i) {
    ASSERT_EQ(::send(peer_, "x", 1, 0), 1);
  }
  EXPECT_TRUE(Eventually([&] { return bytes == Rounds; }));
}

TEST_F(CompletionPortTest, AbortsWhatIsPendingAndWhatComesLater) {
  object_->StartIo(new ReadEvent(object_, Tell()));
  object_->CancelIo(win::io_direction_t::Read);
  ASSERT_TRUE(Eventually([this] { return told_ == 1; }));
  EXPECT_EQ(lastError_, platform::error::OperationAborted);
  EXPECT_EQ(::send(peer_, "abc", 3, 0), 3);
  object_->StartIo(new ReadEvent(object_, Tell()));
  ASSERT_TRUE(Eventually([this] { return told_ == 2; }));
  EXPECT_EQ(lastError_, platform::error::OperationAborted);
}

TEST_F(CompletionPortTest, LogsACompletionThatNobodyWaitsFor) {
  port_->Post(object_, reinterpret_cast<const void*>(0x1234), {});
  ASSERT_TRUE(Eventually(
      [this] { return Logged(log_, "There is no IO completion handler for the OVERLAPPED object [0x1234]."); }));
}

TEST_F(CompletionPortTest, CompletesAfterADelayInTheOrderOfTime) {
  std::mutex lock;
  std::vector<int> order;
  const auto note = [&](int number) {
    return [&, number](error_t, std::uint32_t) {
      {
        const std::lock_guard guard(lock);
        order.push_back(number);
      }
      ++told_;
    };
  };
  const auto begin = std::chrono::steady_clock::now();
  object_->CompleteIn(std::chrono::milliseconds(30), new ReadEvent(object_, note(2)));
  object_->CompleteIn(std::chrono::milliseconds(60), new ReadEvent(object_, note(3)));
  object_->CompleteIn(std::chrono::milliseconds(1), new ReadEvent(object_, note(1)));
  ASSERT_TRUE(Eventually([this] { return told_ == 3; }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(60));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(CompletionPortTest, DropsWhatIsDueAfterItsEnd) {
  object_->CompleteIn(std::chrono::hours(1), new ReadEvent(object_, Tell()));
  StopLoop();
  port_->Abandon();
  object_->CompleteIn(std::chrono::hours(1), new ReadEvent(object_, Tell()));
  object_->AbandonIo();
  EXPECT_EQ(told_, 0);
}

TEST_F(CompletionPortTest, OutlivesAHandlerThatThrows) {
  object_->CompleteLater(
      new ReadEvent(object_, [](error_t, std::uint32_t) { throw exc::runtime_exc_t(std::string("no")); }), {});
  object_->CompleteLater(new ReadEvent(object_, Tell()), {});
  ASSERT_TRUE(Eventually([this] { return told_ == 1; }));
  EXPECT_TRUE(Logged(log_, "Exception while handling I/O event."));
}

TEST_F(CompletionPortTest, SaysWhenItRunsAndEnds) {
  ASSERT_TRUE(Eventually([this] { return Logged(log_, "IO dispatch loop is started."); }));
  StopLoop();
  EXPECT_TRUE(Logged(log_, "IO dispatch queue is finished."));
}

TEST_F(CompletionPortTest, DropsWhatIsPendingAtItsEnd) {
  boost::intrusive_ptr<CCounted> witness(new CCounted);
  object_->StartIo(new ReadEvent(object_, [witness](error_t, std::uint32_t) {}));
  StopLoop();
  EXPECT_TRUE(witness->TryAddRef());
  witness->Release();
  port_->Abandon();
  object_->CompleteLater(new ReadEvent(object_, Tell()), {});
  object_->AbandonIo();
  EXPECT_EQ(told_, 0);
}

/// A port that each completion tells to look for more. The next one comes with what arrives, or is posted by another
/// thread.
class LookingPortTest : public CompletionPortTest {
 protected:
  /// Enough that looks in vain come to be left out, and to pay again when they find something.
  static constexpr unsigned Turns = 4 * synch::look_gauge_t::Limit;
  static_assert(Turns > synch::look_gauge_t::LeftOut);

  LookingPortTest() {
    const timeval limit{20, 0};
    ::setsockopt(peer_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    Read();
  }
  void Post() {
    object_->CompleteLater(new ReadEvent(object_, [this](error_t, std::uint32_t) { Answer(); }), {});
  }
  void ExpectServing(const std::function<void()>& ask) {
    // Nothing follows until the thread sleeps: looks come to be left out.
    for (unsigned i = 0; i < Turns; ++i) {
      ask();
      ASSERT_TRUE(IsAnswered()) << i;
      ASSERT_TRUE(Eventually([this] { return Sleeps(thread_); }));
    }
    // The next one follows at once, or a little later, during the look: they come to pay.
    for (unsigned i = 0; i < Turns; ++i) {
      ask();
      ASSERT_TRUE(IsAnswered()) << i;
      const auto next = std::chrono::steady_clock::now() + synch::completion_port_t::LookTime * (i % 8) / 16;
      while (std::chrono::steady_clock::now() < next) {
        std::this_thread::yield();
      }
    }
  }

 private:
  /// Returns when the answer is there.
  bool IsAnswered() const {
    char answer = 0;
    return ::recv(peer_, &answer, 1, 0) == 1;
  }
  void Read() {
    object_->StartIo(new ReadEvent(object_, [this](error_t, std::uint32_t) {
      Read();
      Answer();
    }));
  }
  void Answer() {
    thread_ = ::gettid();
    port_->LookForMore();
    EXPECT_EQ(::send(object_->GetHandle(), "y", 1, 0), 1);
  }

  std::atomic<pid_t> thread_{0};
};

TEST_F(LookingPortTest, ServesWhetherOrNotItLooksForMore) {
  ExpectServing([this] { EXPECT_EQ(::send(peer_, "x", 1, 0), 1); });
  ExpectServing([this] { Post(); });
}

/// Accepts with outcomes that the test prescribes before the real one.
class AcceptTest : public testing::Test {
 protected:
  struct SOutcome {
    win::io_attempt_t attempt;
    error_t error;
  };

  void Run(std::deque<SOutcome> outcomes) {
    queue_ = boost::make_shared<impl::CRequestQueue>("nfs", program_.Handler());
    win::SPortBinding binding;
    binding.label = "nfs";
    const auto accept = [this, outcomes](int listener, int& handle, sockaddr_storage& peer, socklen_t& length,
                                         win::SIoResult& result) mutable {
      if (outcomes.empty()) {
        return win::TryAccept(listener, handle, peer, length, result);
      }
      const SOutcome outcome = outcomes.front();
      outcomes.pop_front();
      if (outcome.error == platform::error::NotEnoughMemory) {
        throw std::bad_alloc();
      }
      result.error = outcome.error;
      return outcome.attempt;
    };
    acceptor_ = new win::CTcpAcceptor<impl::CAsyncConnection>(
        port_, binding,
        [this](const sockaddr* peer, socklen_t length, const boost::intrusive_ptr<impl::CAsyncConnection>& connection) {
          connection->Start(peer, length, queue_, nullptr);
        },
        [this](std::chrono::milliseconds pause) { pauses_.push_back(pause); }, accept);
    acceptor_->StartAccept();
    loop_ = std::thread([this] { port_->Run(); });
  }
  ~AcceptTest() override {
    port_->Stop();
    if (loop_.joinable()) {
      loop_.join();
    }
    if (acceptor_) {
      acceptor_->AbandonIo();
      acceptor_.reset();
    }
    if (queue_) {
      queue_->Stop();
    }
    port_->Abandon();
  }
  void ExpectServing() {
    Client client(acceptor_->BoundPort());
    client.Call(Request(order_t::Echo, 3));
    EXPECT_EQ(client.Reply(), Request(order_t::Echo, 3));
  }

  CapturedLog log_;
  Program program_;
  boost::shared_ptr<synch::completion_port_t> port_ = boost::make_shared<synch::completion_port_t>();
  boost::shared_ptr<impl::CRequestQueue> queue_;
  boost::intrusive_ptr<win::CTcpAcceptor<impl::CAsyncConnection>> acceptor_;
  std::vector<std::chrono::milliseconds> pauses_;
  std::thread loop_;
};

TEST_F(AcceptTest, PausesAfterAConnectionThatEndedBeforeItsAccept) {
  Run({{win::io_attempt_t::Refused, platform::error::WsaConnectionReset}});
  ExpectServing();
  EXPECT_EQ(log_.Count("Incoming connection was indicated, but was subsequently terminated by the remote peer."), 1U);
  ASSERT_EQ(pauses_.size(), 1U);
  EXPECT_EQ(pauses_[0], std::chrono::milliseconds(10000));
}

TEST_F(AcceptTest, GoesOnAfterAnAcceptThatFailed) {
  Run({{win::io_attempt_t::Done, 1450}});
  ExpectServing();
  EXPECT_TRUE(Logged(log_, "Failed to accept connection."));
}

TEST_F(AcceptTest, TriesAgainWhenSomethingHasRunOut) {
  Run({{win::io_attempt_t::Exhausted, 10024}, {win::io_attempt_t::Exhausted, 10024}});
  ExpectServing();
  EXPECT_EQ(log_.Texts("Warning").size(), 1U);
}

TEST_F(AcceptTest, GoesOnOnceThereIsMemoryForTheNextAccept) {
  const SOutcome noMemory{win::io_attempt_t::Done, platform::error::NotEnoughMemory};
  // In the start, and then when a connection is there.
  Run({noMemory, noMemory, {win::io_attempt_t::WouldBlock, 0}, noMemory, noMemory});
  ExpectServing();
  EXPECT_TRUE(Logged(log_, "Failed to accept connection."));
}

TEST_F(AcceptTest, RaisesWhatItCannotHelp) {
  EXPECT_THROW(Run({{win::io_attempt_t::Refused, 10038}}), exc::win_sys_exc_t);
}

TEST(PortBindingTest, ConnectionsAreNotPaced) {
  const win::CTcpStream listener;
  ChooseCongestionControl(listener.GetHandle(), "bbr");
  win::BindTcpPort(listener.GetHandle(), {});
  const std::string chosen = CongestionControl(listener.GetHandle());
  EXPECT_FALSE(chosen.empty());
  EXPECT_FALSE(chosen.starts_with("bbr")) << chosen;
}

TEST_F(AcceptTest, DropsAPeerOfAnotherFamily) {
  Run({});
  const boost::intrusive_ptr<impl::CAsyncConnection> connection(new impl::CAsyncConnection);
  sockaddr_in6 peer{};
  peer.sin6_family = AF_INET6;
  connection->Start(reinterpret_cast<const sockaddr*>(&peer), sizeof(peer), queue_, nullptr);
  EXPECT_EQ(log_.Texts("Error"), std::vector<std::string>{"Client :::0: non IPv4 addresses is not supported"});
}

TEST_F(AcceptTest, KeepsNoAddressThatIsTooLong) {
  Run({});
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  boost::intrusive_ptr<impl::CAsyncConnection> connection(new impl::CAsyncConnection);
  connection->AdoptAccepted(ends[0]);
  port_->Associate(*connection);
  char peer[200]{};
  reinterpret_cast<sockaddr*>(peer)->sa_family = AF_INET;
  reinterpret_cast<sockaddr_in*>(peer)->sin_port = htons(700);
  connection->Start(reinterpret_cast<const sockaddr*>(peer), sizeof(peer), queue_, nullptr);
  EXPECT_TRUE(Logged(log_, "Peer address is too large"));
  EXPECT_EQ(connection->PeerAddress().sin_port, 0);
  const bytes_t call = WithMark(Request(order_t::Echo, 1));
  EXPECT_EQ(::send(ends[1], call.data(), call.size(), 0), static_cast<ssize_t>(call.size()));
  bytes_t reply(call.size());
  EXPECT_EQ(::recv(ends[1], reply.data(), reply.size(), MSG_WAITALL), static_cast<ssize_t>(reply.size()));
  EXPECT_EQ(reply, call);
  ::close(ends[1]);
}

}  // namespace
}  // namespace test
