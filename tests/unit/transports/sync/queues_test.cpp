// What the threads of a session hand to each other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <stdexcept>
#include <thread>
#include <vector>

#include "foundation/exc.h"
#include "rpc/xdr_reader.h"
#include "rpc/xdr_writer.h"
#include "transports/sockets/close_tcp_connection.h"
#include "transports/sync/xdr_backlog.h"
#include "transports/sync/xdr_rw_queue.h"
#include "transports/sync/xdr_session_stop_ctx.h"

using testing::ElementsAre;

namespace {

using queue_t = CXDRRwQueue<CXDRWriter>;
using state_t = CXdrSessionStopCtx::state_t;

boost::shared_ptr<CXDRWriter> Writer() {
  return boost::make_shared<CXDRWriter>();
}

TEST(RwQueueTest, IsSetWhileItHoldsSomething) {
  queue_t queue;
  EXPECT_FALSE(queue.Event().IsSet());
  queue.Push(Writer());
  EXPECT_TRUE(queue.Event().IsSet());
  queue_t::items_t taken;
  queue.TakeAll(taken);
  EXPECT_FALSE(queue.Event().IsSet());
  EXPECT_EQ(taken.size(), 1U);
  queue.TakeAll(taken);
  EXPECT_EQ(taken.size(), 1U);
  EXPECT_FALSE(queue.Event().IsSet());
}

TEST(RwQueueTest, KeepsTheOrderOfSinglesAndLists) {
  CXDRRwQueue<CXDRReader> queue;
  std::vector<boost::shared_ptr<CXDRReader>> readers;
  for (int i = 0; i < 5; ++i)
    readers.push_back(boost::make_shared<CXDRReader>());
  queue.Push(readers[1]);
  CXDRRwQueue<CXDRReader>::items_t list{readers[2], readers[3]};
  queue.PushList(list);
  EXPECT_TRUE(list.empty());
  queue.Push(readers[4]);
  CXDRRwQueue<CXDRReader>::items_t taken{readers[0]};
  queue.TakeAll(taken);
  EXPECT_THAT(taken, ElementsAre(readers[0], readers[1], readers[2], readers[3], readers[4]));
}

TEST(RwQueueTest, AnEmptyListWakesNobody) {
  queue_t queue;
  queue_t::items_t list;
  queue.PushList(list);
  EXPECT_FALSE(queue.Event().IsSet());
}

TEST(RwQueueTest, HoldsAsMuchAsItCanAndNoMore) {
  queue_t queue(2);
  queue.Push(Writer());
  queue_t::items_t list{Writer(), Writer()};
  try {
    queue.PushList(list);
    FAIL();
  } catch (const std::length_error& failure) {
    EXPECT_STREQ(failure.what(), "list<T> too long");
  }
  EXPECT_EQ(list.size(), 2U);
  queue.Push(Writer());
  EXPECT_THROW(queue.Push(Writer()), std::length_error);
  queue_t::items_t taken;
  queue.TakeAll(taken);
  EXPECT_EQ(taken.size(), 2U);
  queue.PushList(list);
}

TEST(RwQueueTest, LosesNoWakeUp) {
  queue_t queue;
  constexpr std::size_t count = 20000;
  std::thread producer([&] {
    for (std::size_t i = 0; i < count; ++i)
      queue.Push(Writer());
  });
  queue_t::items_t taken;
  bool woken = true;
  while (taken.size() < count && woken) {
    woken = queue.Event().Wait(20000);
    queue.TakeAll(taken);
  }
  producer.join();
  EXPECT_EQ(taken.size(), count);
}

TEST(StopCtxTest, RunsUntilTheFirstReasonToEnd) {
  CXdrSessionStopCtx ctx;
  EXPECT_EQ(ctx.State(), state_t::Running);
  EXPECT_FALSE(ctx.IsStopped());
  EXPECT_FALSE(ctx.Event()->IsSet());
  EXPECT_NO_THROW(ctx.Rethrow());
  ctx.ReportClosed();
  EXPECT_TRUE(ctx.IsStopped());
  EXPECT_TRUE(ctx.Event()->IsSet());
  ctx.ForceStop();
  EXPECT_EQ(ctx.State(), state_t::Closed);
  EXPECT_THROW(ctx.Rethrow(), CCloseTCPConnection);
}

TEST(StopCtxTest, AFailedThreadReadsAsAClosedConnection) {
  CXdrSessionStopCtx ctx;
  ctx.ReportError(exc::runtime_exc_t("Partial packet not implemented."));
  EXPECT_EQ(ctx.State(), state_t::Closed);
  EXPECT_THROW(ctx.Rethrow(), CCloseTCPConnection);
}

TEST(StopCtxTest, AStopByTheOwnerIsNoFailure) {
  CXdrSessionStopCtx ctx;
  ctx.ForceStop();
  EXPECT_EQ(ctx.State(), state_t::Stopped);
  EXPECT_TRUE(ctx.Event()->IsSet());
  EXPECT_NO_THROW(ctx.Rethrow());
  ctx.ReportClosed();
  ctx.ReportError(std::runtime_error("late"));
  EXPECT_EQ(ctx.State(), state_t::Stopped);
}

TEST(BacklogTest, HasRoomBelowBothLimits) {
  CXdrBacklog backlog(3, 100);
  EXPECT_TRUE(backlog.HasRoom());
  backlog.Add(99);
  EXPECT_TRUE(backlog.HasRoom());
  backlog.Add(1);
  EXPECT_FALSE(backlog.HasRoom());
  EXPECT_FALSE(backlog.RoomEvent().IsSet());
  backlog.Remove(1);
  EXPECT_TRUE(backlog.HasRoom());
  backlog.Add(0);
  EXPECT_TRUE(backlog.HasRoom());
  backlog.Add(0);
  EXPECT_FALSE(backlog.HasRoom());
  backlog.Remove(0);
  EXPECT_TRUE(backlog.RoomEvent().IsSet());
}

TEST(BacklogTest, OneRecordMayBeLargerThanAll) {
  CXdrBacklog backlog(3, 100);
  backlog.Add(1 << 30);
  EXPECT_FALSE(backlog.HasRoom());
  backlog.Remove(1 << 30);
  EXPECT_TRUE(backlog.HasRoom());
}

}  // namespace
