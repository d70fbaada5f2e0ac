// Records in and replies out, over real sockets.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>

#include "config/address_checker.h"
#include "rpc/record_buffer.h"
#include "support/captured_log.h"
#include "unit/transports/async/rig.h"

namespace test {
namespace {

class ConnectionTest : public testing::Test {
 protected:
  void ExpectServing() {
    Client other(server_.port);
    other.Call(Request(order_t::Echo, 77));
    EXPECT_EQ(other.Reply(), Request(order_t::Echo, 77));
  }
  /// Requests of others that CallForLargeReplies makes.
  static constexpr int Others = 2;

  /// Calls for more than the client takes. All calls stand in the queue before the first is handled, after which the
  /// client would not be read from.
  void CallForLargeReplies(Client& client, int calls) {
    Client other(server_.port);
    other.Call(Request(order_t::Wait, 0));
    EXPECT_TRUE(Eventually([&] { return server_.program.begun == 1; }));
    for (int i = 0; i < calls; ++i) {
      client.Call(Request(order_t::Blow, static_cast<std::uint32_t>(i), 8U << 20));
    }
    server_.AwaitReceived();
    server_.program.OpenGate();
  }

  CapturedLog log_;
  Server server_;
};

/// Keeps the thread that accepts, which is that of the timers, too.
class CheckerThatKeepsItsThread : public CAddressCheckerStub {
 public:
  bool IsAllowed(const sockaddr*, socklen_t) override {
    while (keeps) {
      isKept = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

  std::atomic<bool> keeps{false};
  std::atomic<bool> isKept{false};
};

std::uint64_t VirtualBytes() {
  std::ifstream statm("/proc/self/statm");
  std::uint64_t pages = 0;
  statm >> pages;
  return pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

TEST_F(ConnectionTest, TakesAMarkByteByByte) {
  Client client(server_.port);
  for (const std::uint8_t byte : WithMark(Request(order_t::Echo, 5))) {
    client.Send({byte});
  }
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 5));
  EXPECT_TRUE(log_.Texts("Error").empty());
}

TEST_F(ConnectionTest, EndsAtAMarkWithoutTheLastFragmentBit) {
  Client client(server_.port);
  bytes_t bytes;
  AppendWord(bytes, 12);
  const bytes_t record = Request(order_t::Echo, 1);
  bytes.insert(bytes.end(), record.begin(), record.end());
  client.Send(bytes);
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_TRUE(Logged(log_, "Client " + client.Name() + ": partial packet not implemented"));
  EXPECT_EQ(server_.program.begun, 0);
  ExpectServing();
}

TEST_F(ConnectionTest, LargeRecordsOfAllClientsTogetherHaveABound) {
  CRecordBuffer other;
  ASSERT_TRUE(other.GrowTo(CRecordBuffer::FirstSize + CRecordBuffer::MostBeyond));
  bytes_t record = Request(order_t::Echo, 2);
  record.resize(CRecordBuffer::FirstSize);
  Client client(server_.port);
  std::thread sender([&] { client.Call(record); });
  EXPECT_TRUE(client.Reply() == record);
  sender.join();
  bytes_t larger = WithMark(bytes_t(CRecordBuffer::FirstSize + 1));
  larger.pop_back();
  client.Send(larger);
  EXPECT_FALSE(client.Reply());
  EXPECT_TRUE(Logged(log_, "Client " + client.Name() + ": large records take too much memory"));
}

TEST_F(ConnectionTest, MemoryOfALargeRecordGoesBackWithItsCall) {
  bytes_t record = Request(order_t::Echo, 2);
  record.resize(CRecordBuffer::FirstSize + 5000);
  Client client(server_.port);
  std::thread sender([&] { client.Call(record); });
  EXPECT_TRUE(client.Reply() == record);
  sender.join();
  CRecordBuffer all;
  EXPECT_TRUE(Eventually([&] { return all.GrowTo(CRecordBuffer::FirstSize + CRecordBuffer::MostBeyond); }));
}

TEST_F(ConnectionTest, EndsQuietlyAtAnEmptyRecord) {
  Client client(server_.port);
  client.Call({});
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_EQ(server_.program.begun, 0);
  EXPECT_TRUE(log_.Texts("Error").empty());
}

TEST_F(ConnectionTest, ClosesAfterARecordThatIsTooShort) {
  Client client(server_.port);
  client.Call({1, 2, 3});
  EXPECT_EQ(client.Reply(), std::nullopt);
  ASSERT_TRUE(Eventually([&] { return Logged(log_, "Client " + client.Name() + ": receive error 995"); }));
  ExpectServing();
}

TEST_F(ConnectionTest, SpendsNothingOnAnAnnouncement) {
  ExpectServing();
  const std::uint64_t before = VirtualBytes();
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<Client>(server_.port));
    bytes_t bytes;
    AppendWord(bytes, 0xFFFFFFFFU);
    bytes.resize(1000);
    clients.back()->Send(bytes);
    ExpectServing();
  }
  EXPECT_LT(VirtualBytes() - before, 256U << 20);
}

TEST_F(ConnectionTest, AnswersAHundredRequestsOfOneSegmentInOrder) {
  Client client(server_.port);
  bytes_t all;
  for (std::uint32_t i = 0; i < 100; ++i) {
    const bytes_t one = WithMark(Request(order_t::Echo, i));
    all.insert(all.end(), one.begin(), one.end());
  }
  client.Send(all);
  for (std::uint32_t i = 0; i < 100; ++i) {
    EXPECT_EQ(client.Reply(), Request(order_t::Echo, i));
  }
}

TEST_F(ConnectionTest, TakesRecordsOfAllSizesMixed) {
  Client client(server_.port);
  std::vector<bytes_t> records;
  for (const std::uint32_t size : {12U, 8188U, 8192U, 8196U, 16U, 70000U, 70000U, 20U, 1200000U, 5000000U, 12U}) {
    bytes_t record = Request(order_t::Echo, size);
    for (std::uint32_t i = 12; i < size; ++i) {
      record.push_back(static_cast<std::uint8_t>(i * 7));
    }
    records.push_back(std::move(record));
  }
  std::thread sender([&] {
    for (const bytes_t& record : records) {
      client.Call(record);
    }
  });
  for (const bytes_t& record : records) {
    EXPECT_EQ(client.Reply(), record);
  }
  sender.join();
}

TEST_F(ConnectionTest, QueuesRepliesBehindOneThatIsBeingSent) {
  Client client(server_.port, 8192);
  client.Call(Request(order_t::Blow, 0, 12U << 20));
  for (std::uint32_t i = 1; i < 20; ++i) {
    client.Call(Request(order_t::Echo, i));
  }
  ASSERT_TRUE(Eventually([&] { return server_.program.handled >= 1; }));
  const auto first = client.Reply();
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->size(), (12U << 20) + 4);
  for (std::uint32_t i = 1; i < 20; ++i) {
    EXPECT_EQ(client.Reply(), Request(order_t::Echo, i));
  }
}

TEST_F(ConnectionTest, ClosesAfterAFailedRequestWithTheRepliesBeforeItOut) {
  Client client(server_.port, 8192);
  client.Call(Request(order_t::Blow, 0, 4U << 20));
  client.Call(Request(order_t::Throw, 1));
  EXPECT_EQ(client.Reply()->size(), (4U << 20) + 4);
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_TRUE(Logged(log_, "Client " + client.Name() + ": exception while handling request: boom"));
  EXPECT_TRUE(Eventually([&] { return Logged(log_, "Client " + client.Name() + ": receive error 995"); }));
  ExpectServing();
}

TEST_F(ConnectionTest, SaysNothingOfAPeerThatResetsInARecord) {
  {
    Client client(server_.port);
    bytes_t bytes;
    AppendWord(bytes, 0x80000000U | 100000U);
    bytes.resize(500);
    client.Send(bytes);
    client.Reset();
  }
  ExpectServing();
  EXPECT_TRUE(log_.Texts("Error").empty());
  EXPECT_EQ(server_.program.begun, 1);
}

TEST_F(ConnectionTest, SaysOfAPeerThatResetsBelowAReplyNoMoreThanThatSendingFailed) {
  for (int i = 0; i < 20; ++i) {
    Client client(server_.port, 8192);
    const std::string name = client.Name();
    client.Call(Request(order_t::Blow, 0, 4U << 20));
    ASSERT_TRUE(Eventually([&] { return server_.program.handled > 2 * i; }));
    client.Reset();
    ExpectServing();
    ASSERT_TRUE(Eventually([&] { return Logged(log_, "Client " + name + ": send error " + name); }));
  }
  EXPECT_EQ(log_.Texts("Error").size(), 20U);
}

TEST_F(ConnectionTest, AnswersAPeerThatHasEndedItsSide) {
  Client client(server_.port);
  client.Call(Request(order_t::Wait, 1));
  client.Call(Request(order_t::Echo, 2));
  ::shutdown(client.Handle(), SHUT_WR);
  server_.program.OpenGate();
  EXPECT_EQ(client.Reply(), Request(order_t::Wait, 1));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 2));
  EXPECT_EQ(client.Reply(), std::nullopt);
}

TEST_F(ConnectionTest, StopsReadingFromAClientThatNeverReads) {
  constexpr std::uint32_t Calls = 3000;
  constexpr std::uint32_t ReplySize = 64U << 10;
  Client client(server_.port, 8192);
  bytes_t record = Request(order_t::Blow, 0, ReplySize);
  record.resize(4096);
  std::atomic<std::uint32_t> sent{0};
  std::thread sender([&] {
    for (std::uint32_t i = 0; i < Calls; ++i) {
      record[7] = static_cast<std::uint8_t>(i);
      client.Call(record);
      ++sent;
    }
  });
  // Far more than its share would be under way by the time that others were answered this often.
  ASSERT_TRUE(Eventually([&] { return server_.program.handled > 60; }));
  for (int i = 0; i < 50; ++i) {
    ExpectServing();
  }
  EXPECT_LT(server_.program.handled, 500);
  for (std::uint32_t i = 0; i < Calls; ++i) {
    const auto reply = client.Reply();
    ASSERT_TRUE(reply.has_value());
    ASSERT_EQ(reply->size(), ReplySize + 4);
    ASSERT_EQ((*reply)[3], static_cast<std::uint8_t>(i));
  }
  sender.join();
}

TEST_F(ConnectionTest, CarriesNothingOutForAClientThatOwesReads) {
  constexpr std::uint32_t Calls = 40;
  constexpr std::uint32_t ReplySize = 8U << 20;
  Client client(server_.port, 8192);
  for (std::uint32_t i = 0; i < Calls; ++i) {
    client.Call(Request(order_t::Blow, i, ReplySize));
  }
  ASSERT_TRUE(Eventually([&] { return server_.program.handled >= 1; }));
  server_.AwaitReceived();
  const int others = server_.program.handled;
  for (int i = 0; i < 20; ++i) {
    ExpectServing();
  }
  // One reply exceeds the bound: all that was handled since is of others.
  EXPECT_LE(others, 2);
  EXPECT_EQ(server_.program.handled, others + 20);
  client.Call(Request(order_t::Echo, Calls));
  for (std::uint32_t i = 0; i < Calls; ++i) {
    const auto reply = client.Reply();
    ASSERT_TRUE(reply.has_value());
    ASSERT_EQ(reply->size(), ReplySize + 4);
    ASSERT_EQ(WordAt(*reply, 0), i);
  }
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, Calls));
}

TEST_F(ConnectionTest, RunsOutTheRequestsOfAClientThatOwedReadsAndLeft) {
  constexpr int Calls = 20;
  {
    Client client(server_.port, 8192);
    CallForLargeReplies(client, Calls);
    ASSERT_TRUE(Eventually([&] { return server_.program.handled == Others + 1; }));
    client.Reset();
  }
  EXPECT_TRUE(Eventually([&] { return server_.program.handled == Others + Calls; }));
  ExpectServing();
}

TEST_F(ConnectionTest, RunsOutTheRequestsOfAClientThatOwesReadsAtTheStop) {
  constexpr int Calls = 20;
  Client client(server_.port, 8192);
  CallForLargeReplies(client, Calls);
  ASSERT_TRUE(Eventually([&] { return server_.program.handled == Others + 1; }));
  server_.server.reset();
  EXPECT_EQ(server_.program.handled, Others + Calls);
  EXPECT_TRUE(log_.Texts("Error").empty());
}

TEST_F(ConnectionTest, ClosesAfterAFailureAmongRequestsThatHadToWait) {
  Client client(server_.port, 8192);
  client.Call(Request(order_t::Blow, 0, 8U << 20));
  client.Call(Request(order_t::Blow, 1, 8U << 20));
  client.Call(Request(order_t::Throw, 2));
  client.Call(Request(order_t::Echo, 3));
  server_.AwaitReceived();
  for (std::uint32_t i = 0; i < 2; ++i) {
    const auto reply = client.Reply();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(WordAt(*reply, 0), i);
  }
  EXPECT_EQ(client.Reply(), std::nullopt);
  EXPECT_TRUE(Logged(log_, "Client " + client.Name() + ": exception while handling request: boom"));
  ExpectServing();
}

TEST_F(ConnectionTest, SendsAHeldReplyAlthoughTheNextOneTakesLong) {
  Client first(server_.port);
  first.Call(Request(order_t::Wait, 1, 0));
  ASSERT_TRUE(Eventually([&] { return server_.program.begun == 1; }));
  Client client(server_.port);
  bytes_t both = WithMark(Request(order_t::Echo, 2));
  const bytes_t slow = WithMark(Request(order_t::Wait, 3, 1));
  both.insert(both.end(), slow.begin(), slow.end());
  client.Send(both);
  server_.AwaitReceived();
  server_.program.OpenGate(0);
  EXPECT_EQ(first.Reply(), Request(order_t::Wait, 1, 0));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 2));
  server_.program.OpenGate(1);
  EXPECT_EQ(client.Reply(), Request(order_t::Wait, 3, 1));
}

TEST(ConnectionHoldTest, SendsAReplyWhileItAsksForTheNext) {
  CapturedLog log;
  const auto checker = boost::make_shared<CheckerThatKeepsItsThread>();
  Server server(checker);
  Client client(server.port);
  std::vector<std::size_t> arrived;
  server.program.asked = [&] { arrived.push_back(client.Arrived()); };
  client.Call(Request(order_t::Wait, 1, 1));
  client.Call(Request(order_t::Ask, 2));
  client.Call(Request(order_t::Ask, 3));
  server.AwaitReceived();
  // The timer that would send what is held is of the thread that accepts.
  checker->keeps = true;
  Client other(server.port);
  const bool isKept = Eventually([&] { return checker->isKept.load(); });
  server.program.OpenGate();
  const bool areHandled = Eventually([&] { return server.program.handled == 4; });
  checker->keeps = false;
  EXPECT_TRUE(isKept && areHandled);
  for (std::uint32_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(client.Reply().value_or(bytes_t(8)).at(7), i);
  }
  const std::size_t reply = WithMark(Request(order_t::Ask, 2)).size();
  EXPECT_EQ(arrived, (std::vector{reply, 2 * reply}));
}

TEST_F(ConnectionTest, SendsHeldRepliesBeforeItClosesAfterAFailure) {
  Client first(server_.port);
  first.Call(Request(order_t::Wait, 1, 0));
  ASSERT_TRUE(Eventually([&] { return server_.program.begun == 1; }));
  Client client(server_.port);
  client.Call(Request(order_t::Echo, 2));
  client.Call(Request(order_t::Echo, 3));
  client.Call(Request(order_t::Throw, 4));
  server_.AwaitReceived();
  server_.program.OpenGate(0);
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 2));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 3));
  EXPECT_EQ(client.Reply(), std::nullopt);
}

TEST_F(ConnectionTest, BoundsTheRequestsOfOneConnection) {
  Client client(server_.port);
  std::thread sender([&] {
    for (std::uint32_t i = 0; i < 5000; ++i) {
      client.Call(Request(i == 0 ? order_t::Wait : order_t::Echo, i));
    }
  });
  ASSERT_TRUE(Eventually([&] { return server_.program.begun == 1; }));
  server_.program.OpenGate();
  for (std::uint32_t i = 0; i < 5000; ++i) {
    const auto reply = client.Reply();
    ASSERT_TRUE(reply.has_value());
    ASSERT_EQ(WordAt(*reply, 4), i);
  }
  sender.join();
}

TEST_F(ConnectionTest, ServesOthersBesideAConnectionThatAlwaysHasData) {
  Client busy(server_.port);
  std::atomic<bool> stop{false};
  std::thread sender([&] {
    bytes_t many;
    for (std::uint32_t i = 0; i < 200; ++i) {
      const bytes_t one = WithMark(Request(order_t::Echo, i));
      many.insert(many.end(), one.begin(), one.end());
    }
    while (!stop) {
      busy.Send(many);
    }
    ::shutdown(busy.Handle(), SHUT_WR);
  });
  std::thread reader([&] {
    while (busy.Reply()) {
    }
  });
  for (int i = 0; i < 50; ++i) {
    ExpectServing();
  }
  stop = true;
  sender.join();
  reader.join();
}

TEST_F(ConnectionTest, LeavesAnAcceptPendingWithoutDescriptors) {
  Client client(0);
  ExpectServing();
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  const int lowest = ::dup(client.Handle());
  ::close(lowest);
  rlimit tight = old;
  tight.rlim_cur = static_cast<rlim_t>(lowest);
  // The connection of ExpectServing may still hold its descriptor for a moment below the limit.
  std::vector<int> fillers;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  for (int filler = 0; (filler = ::dup(client.Handle())) >= 0;) {
    fillers.push_back(filler);
  }
  client.Connect(server_.port);
  client.Call(Request(order_t::Echo, 9));
  const bool warned = Eventually([&] { return !log_.Texts("Warning").empty(); });
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
  for (const int filler : fillers) {
    ::close(filler);
  }
  EXPECT_TRUE(warned);
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 9));
  ExpectServing();
}

TEST_F(ConnectionTest, TellsTheProgramWhoCalls) {
  Client client(server_.port);
  client.Call(Request(order_t::Echo, 1));
  ASSERT_TRUE(client.Reply().has_value());
  EXPECT_TRUE(server_.program.lastAllowed);
  EXPECT_EQ(server_.program.lastPeerPort, client.Port());
  EXPECT_TRUE(Logged(log_, "Connection accepted from \"" + client.Name() + "\". Target queue \"nfs\"."));
}

TEST(ConnectionAccessTest, ServesARefusedHostAndSaysSoToTheProgram) {
  CapturedLog log;
  Server server(boost::make_shared<CAddressChecker>("10.9.8.7"));
  Client client(server.port);
  client.Call(Request(order_t::Echo, 1));
  EXPECT_EQ(client.Reply(), Request(order_t::Echo, 1));
  EXPECT_FALSE(server.program.lastAllowed);
  EXPECT_TRUE(Logged(log, "Access to FS denied for " + client.Name()));
}

}  // namespace
}  // namespace test
