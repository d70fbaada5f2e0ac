#include "remotefs/remotevfs/pipe_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "support/captured_log.h"
#include "support/fake_mount_agent.h"

namespace {

using platform::descriptor_t;
using platform::message_pipe_t;
using remotevfs::Buffer;
using remotevfs::PipeHandler;
using test::Bytes;
using test::WireNumber;
using test::operator+;
using testing::ElementsAre;

constexpr std::uint32_t Long = 60000;
constexpr std::uint32_t Short = 50;
/// Of a reply.
constexpr std::size_t Largest = 1 << 20;
const std::string Function = "PipeHandler::Read()";

/// Does something in the thread that begins to read a remainder, before it reads.
class AtTheRemainder : public logging::text_filter_t {
 public:
  explicit AtTheRemainder(std::function<void()> action) : action_(std::move(action)) {}
  std::string Apply(std::string_view text) override {
    if (text == Function) {
      if (const std::function<void()> action = std::exchange(action_, {}))
        action();
    }
    return std::string(text);
  }

 private:
  std::function<void()> action_;
};

bool IsAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name = text.rfind(") ");
  return name != std::string::npos && text.substr(name + 2, 1) == "S";
}

/// A handler at one end, the test as the agent at the other.
class PipeHandlerTest : public testing::Test {
 protected:
  PipeHandlerTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    handler_ = std::make_unique<PipeHandler>(boost::make_shared<message_pipe_t>(descriptor_t(ends[0])), stop_, abandon_,
                                             Largest);
    agent_ = std::make_unique<message_pipe_t>(descriptor_t(ends[1]));
    request_.AppendU32(4);
  }
  ~PipeHandlerTest() override { logging::TheLog().SetFilter({}); }

  /// Receives a request, and sends bytes as they are.
  void AnswerRaw(const Bytes& bytes) const {
    Bytes request;
    EXPECT_EQ(agent_->ReadMessage(request), 0U);
    EXPECT_EQ(::send(agent_->Descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  static void AtRemainder(std::function<void()> action) {
    logging::TheLog().SetFilter(boost::make_shared<AtTheRemainder>(std::move(action)));
  }

  const boost::shared_ptr<synch::manual_event_t> stop_ = boost::make_shared<synch::manual_event_t>();
  const boost::shared_ptr<synch::manual_event_t> abandon_ = boost::make_shared<synch::manual_event_t>();
  std::unique_ptr<PipeHandler> handler_;
  std::unique_ptr<message_pipe_t> agent_;
  Buffer request_;
};

TEST_F(PipeHandlerTest, AReplyWithoutACapacityHas1024Bytes) {
  std::thread agent([&] { AnswerRaw(Bytes{3, 0, 0, 0, 7, 8, 9}); });
  Buffer reply;
  EXPECT_TRUE(handler_->Transact(request_, reply, Long));
  agent.join();
  EXPECT_EQ(reply.Capacity(), 1024U);
  EXPECT_THAT(reply.Bytes(), ElementsAre(7, 8, 9));
}

TEST_F(PipeHandlerTest, TheRemainderFollowsWhatFitsTheBuffer) {
  std::thread agent([&] { AnswerRaw(Bytes{5, 0, 0, 0, 1, 2, 3, 4, 5}); });
  const test::CapturedLog log;
  Buffer reply(2);
  EXPECT_TRUE(handler_->Transact(request_, reply, Long));
  agent.join();
  EXPECT_THAT(reply.Bytes(), ElementsAre(1, 2, 3, 4, 5));
  EXPECT_THAT(log.Texts(), ElementsAre(Function, Function));
}

TEST_F(PipeHandlerTest, ThePipeIsFoundBrokenInTheRemainder) {
  std::thread agent([&] { AnswerRaw(WireNumber<std::uint32_t>(5000) + Bytes(2000)); });
  const test::CapturedLog log;
  AtRemainder([&] {
    agent.join();
    agent_.reset();
  });
  Buffer reply;
  EXPECT_FALSE(handler_->Transact(request_, reply, Long));
  EXPECT_THAT(log.Texts("Info"),
              ElementsAre(Function,
                          testing::EndsWith("NFS input pipe is broken ( probably NFS server was restarted or closed)."),
                          Function));
}

TEST_F(PipeHandlerTest, ThePipeBreaksWhileTheRemainderIsAwaited) {
  std::atomic<pid_t> client = 0;
  std::thread agent([&] {
    AnswerRaw(WireNumber<std::uint32_t>(5000) + Bytes(2000));
    while (client == 0 || !IsAsleep(client))
      std::this_thread::yield();
    agent_.reset();
  });
  const test::CapturedLog log;
  AtRemainder([&] { client = ::gettid(); });
  Buffer reply;
  EXPECT_FALSE(handler_->Transact(request_, reply, Long));
  agent.join();
  EXPECT_THAT(log.Texts("Info"),
              ElementsAre(Function,
                          testing::EndsWith("NFS input pipe is broken (probably NFS server was restarted or closed)."),
                          Function));
}

TEST_F(PipeHandlerTest, EitherEventEndsTheWaitForTheReply) {
  stop_->Set();
  Buffer reply;
  EXPECT_FALSE(handler_->Transact(request_, reply, Long));
  stop_->Reset();
  abandon_->Set();
  EXPECT_FALSE(handler_->Transact(request_, reply, Long));
}

TEST_F(PipeHandlerTest, AnEventEndsTheWaitForTheRemainder) {
  std::thread agent([&] { AnswerRaw(WireNumber<std::uint32_t>(5000) + Bytes(2000)); });
  const test::CapturedLog log;
  AtRemainder([&] { abandon_->Set(); });
  Buffer reply;
  EXPECT_FALSE(handler_->Transact(request_, reply, Long));
  agent.join();
  EXPECT_THAT(log.Texts(), ElementsAre(Function, Function));
}

TEST_F(PipeHandlerTest, AReplyThatIsThereIsTakenInSpiteOfAnEvent) {
  std::thread agent([&] { AnswerRaw(WireNumber<std::uint32_t>(3000) + Bytes(3000)); });
  const test::CapturedLog log;
  // The agent has sent all that there is before the event is set.
  AtRemainder([&] {
    agent.join();
    stop_->Set();
  });
  Buffer reply;
  EXPECT_TRUE(handler_->Transact(request_, reply, Long));
  EXPECT_EQ(reply.ActualSize(), 3000U);
}

TEST_F(PipeHandlerTest, ADeadAgentIsNoticedAsLateAsASilentOne) {
  agent_.reset();
  Buffer reply;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(handler_->Transact(request_, reply, Short));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(Short));
}

TEST_F(PipeHandlerTest, TheLargestReplyIsTaken) {
  std::thread agent([&] {
    Bytes request;
    EXPECT_EQ(agent_->ReadMessage(request), 0U);
    EXPECT_EQ(agent_->Write(Bytes(Largest)), 0U);
  });
  Buffer reply;
  EXPECT_TRUE(handler_->Transact(request_, reply, Long));
  EXPECT_EQ(reply.ActualSize(), Largest);
  agent.join();
}

TEST_F(PipeHandlerTest, AReplyThatComesALittleAtATimeIsNotWaitedForToItsEnd) {
  std::thread agent([&] {
    AnswerRaw(WireNumber<std::uint32_t>(Largest) + Bytes(2048));
    // Each in time; until the handler's end goes.
    const Bytes piece(16);
    while (::send(agent_->Descriptor(), piece.data(), piece.size(), MSG_NOSIGNAL) > 0)
      std::this_thread::sleep_for(std::chrono::microseconds(200));
  });
  Buffer reply;
  EXPECT_FALSE(handler_->Transact(request_, reply, Short));
  handler_.reset();
  agent.join();
}

TEST_F(PipeHandlerTest, AReplyWithoutAnEndIsNotTaken) {
  std::thread agent([&] {
    AnswerRaw(WireNumber<std::uint32_t>(0xFFFFFFFF));
    const Bytes block(65536);
    // Until the handler's end goes.
    while (::send(agent_->Descriptor(), block.data(), block.size(), MSG_NOSIGNAL) > 0) {
    }
  });
  const test::CapturedLog log;
  Buffer reply;
  EXPECT_FALSE(handler_->Transact(request_, reply, Long));
  EXPECT_THAT(log.Texts("Warning"),
              ElementsAre(testing::EndsWith("The reply of the restore agent is longer than [1048576] bytes.")));
  EXPECT_EQ(reply.ActualSize(), 1024U);
  handler_.reset();
  agent.join();
}

}  // namespace
