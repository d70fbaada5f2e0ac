#include "rpc/xdr_completion_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <deque>
#include <stdexcept>
#include <thread>
#include <vector>

#include "rpc/rpc_message.h"
#include "support/xdr_record.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

boost::shared_ptr<CXDRWriter> Reply(std::uint32_t xid) {
  const auto writer = boost::make_shared<CXDRWriter>();
  writer->UInt(xid);
  return writer;
}

std::vector<std::uint32_t> Xids(const xdr_replies_t& replies) {
  std::vector<std::uint32_t> xids;
  for (const auto& reply : replies)
    xids.push_back(test::WordsOf(test::MessageOf(*reply)).front());
  return xids;
}

class CompletionQueue : public testing::Test {
 protected:
  std::vector<std::uint32_t> Take() {
    xdr_replies_t replies;
    queue_->TakeFinished(replies);
    return Xids(replies);
  }
  bool IsSet() const { return queue_->Event().IsSet(); }

  boost::shared_ptr<CXDRCompletionQueue> queue_ = boost::make_shared<CXDRCompletionQueue>();
};

TEST_F(CompletionQueue, IsEmptyAndSilentAtFirst) {
  EXPECT_FALSE(IsSet());
  EXPECT_TRUE(queue_->IsEmpty());
  EXPECT_THAT(Take(), IsEmpty());
}

TEST_F(CompletionQueue, FinishedRepliesAreTakenInTheirOrderAndAllAtOnce) {
  queue_->PostFinished(Reply(1));
  EXPECT_TRUE(IsSet());
  queue_->PostFinished(Reply(2));
  EXPECT_THAT(Take(), ElementsAre(1, 2));
  EXPECT_FALSE(IsSet());
  EXPECT_TRUE(queue_->IsEmpty());
}

TEST_F(CompletionQueue, AppendsToTheListThatItIsGiven) {
  xdr_replies_t replies{Reply(7)};
  queue_->PostFinished(Reply(8));
  queue_->TakeFinished(replies);
  EXPECT_THAT(Xids(replies), ElementsAre(7, 8));
}

TEST_F(CompletionQueue, AnUnfinishedCallHoldsBackThoseBehindIt) {
  const CXDRCallCompletionRec write = queue_->Reserve(Reply(1));
  queue_->PostFinished(Reply(2));
  const CXDRCallCompletionRec read = queue_->Reserve(Reply(3));
  EXPECT_FALSE(IsSet());
  EXPECT_THAT(Take(), IsEmpty());
  write.Complete();
  EXPECT_TRUE(IsSet());
  EXPECT_THAT(Take(), ElementsAre(1, 2));
  EXPECT_FALSE(IsSet());
  EXPECT_FALSE(queue_->IsEmpty());
  read.Complete();
  EXPECT_TRUE(IsSet());
  EXPECT_THAT(Take(), ElementsAre(3));
}

TEST_F(CompletionQueue, CallsThatEndInAnyOrderKeepTheirOrder) {
  std::vector<CXDRCallCompletionRec> calls;
  for (std::uint32_t i = 0; i < 5; ++i)
    calls.push_back(queue_->Reserve(Reply(i)));
  for (const std::size_t i : {4, 2, 1, 3}) {
    calls[i].Complete();
    EXPECT_FALSE(IsSet());
  }
  calls[0].Complete();
  EXPECT_THAT(Take(), ElementsAre(0, 1, 2, 3, 4));
}

TEST_F(CompletionQueue, AppendingBehindAReadyHeadLeavesTheEventSet) {
  queue_->PostFinished(Reply(1));
  const CXDRCallCompletionRec call = queue_->Reserve(Reply(2));
  EXPECT_TRUE(IsSet());
  EXPECT_THAT(Take(), ElementsAre(1));
  EXPECT_FALSE(IsSet());
  call.Complete();
}

TEST_F(CompletionQueue, TheReplyIsMadeThroughTheHandle) {
  const CXDRCallCompletionRec call = queue_->Reserve(Reply(1));
  call.Writer().UInt(42);
  call.Complete();
  xdr_replies_t replies;
  queue_->TakeFinished(replies);
  EXPECT_THAT(test::WordsOf(test::MessageOf(*replies.front())), ElementsAre(1, 42));
}

TEST_F(CompletionQueue, ACallThatIsAbandonedGetsNoReplyAndFreesTheOrder) {
  const CXDRCallCompletionRec call = queue_->Reserve(Reply(1), 100);
  queue_->PostFinished(Reply(2));
  EXPECT_FALSE(queue_->HasLostReply());
  call.Abandon();
  EXPECT_TRUE(queue_->HasLostReply());
  EXPECT_TRUE(IsSet());
  EXPECT_THAT(Take(), ElementsAre(2));
  EXPECT_EQ(queue_->Weight(), 0U);
}

TEST_F(CompletionQueue, TheFirstEndOfACallCounts) {
  const CXDRCallCompletionRec kept = queue_->Reserve(Reply(1));
  kept.Complete();
  kept.Abandon();
  EXPECT_FALSE(queue_->HasLostReply());
  const CXDRCallCompletionRec gone = queue_->Reserve(Reply(2));
  gone.Abandon();
  gone.Complete();
  EXPECT_THAT(Take(), ElementsAre(1));
}

TEST_F(CompletionQueue, WeighsWhatIsExpectedAndThenWhatIsThere) {
  constexpr std::size_t Place = CXDRCompletionQueueInternal::PlaceWeight;
  EXPECT_EQ(queue_->Weight(), 0U);
  const CXDRCallCompletionRec call = queue_->Reserve(Reply(1), 1000);
  EXPECT_EQ(queue_->Weight(), Place + 1000);
  queue_->PostFinished(Reply(2));
  EXPECT_EQ(queue_->Weight(), 2 * Place + 1008);
  call.Complete();
  EXPECT_EQ(queue_->Weight(), 2 * Place + 16);
  Take();
  EXPECT_EQ(queue_->Weight(), 0U);
}

TEST_F(CompletionQueue, ManySmallRepliesAndAbandonedCallsThatWaitWeighMoreThanTheirBytes) {
  const CXDRCallCompletionRec first = queue_->Reserve(Reply(1));
  for (std::uint32_t i = 0; i < 1000; ++i) {
    queue_->PostFinished(Reply(i));
    queue_->Reserve(Reply(i)).Abandon();
  }
  EXPECT_GE(queue_->Weight(), 2000 * CXDRCompletionQueueInternal::PlaceWeight);
  first.Complete();
  Take();
  EXPECT_EQ(queue_->Weight(), 0U);
}

TEST_F(CompletionQueue, ASessionThatEndsDropsItsRepliesAndOneThatComesLaterGoesNowhere) {
  boost::weak_ptr<CXDRWriter> held;
  boost::weak_ptr<CXDRWriter> making;
  {
    const auto reply = Reply(1);
    making = reply;
    CXDRCallCompletionRec call = queue_->Reserve(reply);
    const auto behind = Reply(2);
    held = behind;
    queue_->PostFinished(behind);
    queue_.reset();
    call.Writer().UInt(3);
    call.Complete();
    call.Abandon();
    EXPECT_FALSE(making.expired());
  }
  EXPECT_TRUE(held.expired());
  EXPECT_TRUE(making.expired());
}

TEST_F(CompletionQueue, NoReplyIsLostBetweenItsMakersAndTheTaker) {
  constexpr std::uint32_t count = 5000;
  std::deque<CXDRCallCompletionRec> calls;
  for (std::uint32_t i = 0; i < count; ++i)
    calls.push_back(queue_->Reserve(Reply(i)));
  std::atomic<std::uint32_t> next{0};
  std::vector<std::thread> makers;
  for (int i = 0; i < 3; ++i) {
    makers.emplace_back([&] {
      for (std::uint32_t at = next++; at < count; at = next++)
        calls[at].Complete();
    });
  }
  std::vector<std::uint32_t> xids;
  while (xids.size() < count) {
    ASSERT_TRUE(queue_->Event().Wait(20000)) << xids.size();
    const auto taken = Take();
    xids.insert(xids.end(), taken.begin(), taken.end());
  }
  for (std::thread& maker : makers)
    maker.join();
  for (std::uint32_t i = 0; i < count; ++i)
    ASSERT_EQ(xids[i], i);
}

/// Answers with the first word of the call, and fails for 0.
class CEchoProgram : public IXdrRpcInterface {
 public:
  void ProcessCall(bool isClientAllowed, const sockaddr_in&, CXDRReader& reader, CXDRWriter& writer,
                   CVirtualFs&) override {
    const std::uint32_t word = reader.UInt();
    if (word == 0)
      throw std::runtime_error("zero");
    writer.UInt(word);
    writer.UInt(isClientAllowed ? 1 : 0);
  }
};

class ProgramOfAQueue : public CompletionQueue {
 protected:
  static boost::shared_ptr<CXDRReader> Call(std::uint32_t word) {
    const auto bytes = test::Words({word});
    return boost::make_shared<CXDRReader>(boost::make_shared<io::byte_buffer_t>(bytes.begin(), bytes.end()));
  }

  /// Not looked at by the program.
  CVirtualFs& fs_ = reinterpret_cast<CVirtualFs&>(*this);
  CEchoProgram program_;
  sockaddr_in peer_{};
};

TEST_F(ProgramOfAQueue, PostsEachCallAsAFinishedReply) {
  program_.ProcessAsyncCalls(true, peer_, {Call(1), Call(2), Call(3)}, queue_, fs_);
  EXPECT_THAT(Take(), ElementsAre(1, 2, 3));
  program_.ProcessAsyncCall(false, peer_, Call(4), queue_, fs_);
  xdr_replies_t replies;
  queue_->TakeFinished(replies);
  EXPECT_THAT(test::WordsOf(test::MessageOf(*replies.front())), ElementsAre(4, 0));
}

TEST_F(ProgramOfAQueue, ACallThatCannotBeReadEndsTheList) {
  EXPECT_THROW(program_.ProcessAsyncCalls(true, peer_, {Call(1), Call(0), Call(3)}, queue_, fs_), std::runtime_error);
  EXPECT_THAT(Take(), ElementsAre(1));
  EXPECT_TRUE(queue_->IsEmpty());
}

}  // namespace
