#include "vfs/items/fs_invocation_queue.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <thread>
#include <vector>

#include "recording_file.h"
#include "support/captured_log.h"
#include "support/refused_memory.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/synchronous_fs_call_completion_proc.h"

using test::CapturedLog;
using test::FunctionProc;
using test::PatientMs;
using test::RecordingCallback;

namespace {

CFsInvocation Record(std::function<void()> function, boost::shared_ptr<RecordingCallback> callback) {
  return CFsInvocation(boost::make_shared<FunctionProc>(std::move(function)), std::move(callback));
}

CFsInvocation Nothing(boost::shared_ptr<RecordingCallback> callback = boost::make_shared<RecordingCallback>()) {
  return Record([] {}, std::move(callback));
}

TEST(Invocation, TellsOfTheEndAndOfTheFailure) {
  const auto callback = boost::make_shared<RecordingCallback>();
  Nothing(callback).Run();
  EXPECT_EQ(callback->completed, 1);
  Record([] { throw exc::runtime_exc_t("No"); }, callback).Run();
  EXPECT_EQ(callback->failed, 1);
  EXPECT_EQ(callback->Failure(), "No");
  Record([] { throw 42; }, callback).Run();
  EXPECT_EQ(callback->failed, 2);
}

TEST(Invocation, AThrowFromOnCompletedIsAFailureToo) {
  const auto callback = boost::make_shared<RecordingCallback>();
  callback->onCompleted = [] { throw exc::runtime_exc_t("Cannot answer"); };
  Nothing(callback).Run();
  EXPECT_EQ(callback->completed, 1);
  EXPECT_EQ(callback->failed, 1);
  EXPECT_EQ(callback->Failure(), "Cannot answer");
}

TEST(Invocation, AThrowFromOnFailedIsLoggedWithItsCause) {
  const CapturedLog log;
  const auto callback = boost::make_shared<RecordingCallback>();
  callback->onFailed = [] { throw exc::runtime_exc_t("Second"); };
  Record([] { throw exc::runtime_exc_t("First"); }, callback).Run();
  const std::vector<std::string> texts = log.Texts();
  ASSERT_EQ(texts.size(), 6u);
  EXPECT_NE(texts[0].find("Failed to call finalization procedure for the failure of asynchronous fs procedure."),
            std::string::npos);
  EXPECT_NE(texts[1].find("Second"), std::string::npos);
  EXPECT_NE(texts[3].find("Original failure of the fs procedure."), std::string::npos);
  EXPECT_NE(texts[4].find("First"), std::string::npos);
}

TEST(Invocation, CancellingRunsNothing) {
  bool ran = false;
  const auto callback = boost::make_shared<RecordingCallback>();
  Record([&] { ran = true; }, callback).Cancel();
  EXPECT_FALSE(ran);
  EXPECT_EQ(callback->completed, 0);
  EXPECT_EQ(callback->Failure(), "Procedure is cancelled.");
}

TEST(InvocationQueue, GivesRecordsInTheirOrder) {
  CFsInvocationQueue queue(1);
  synch::manual_event_t stop;
  std::vector<int> order;
  for (int i = 0; i < 3; ++i)
    queue.Push(Record([&order, i] { order.push_back(i); }, boost::make_shared<RecordingCallback>()));
  EXPECT_EQ(queue.Waiting(), 3u);
  for (int i = 0; i < 3; ++i) {
    queue.Pop(stop).Run();
    queue.Finish();
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(queue.Waiting(), 0u);
}

TEST(InvocationQueue, TheRecordPastTheSlotsWaitsAndThenFails) {
  SFsInvocationLimits limits;
  EXPECT_EQ(limits.slots, 1000);
  EXPECT_EQ(limits.pushLimitMs, 600000u);
  limits.pushLimitMs = 20;
  CFsInvocationQueue queue(1, limits);
  for (int i = 0; i < 1000; ++i)
    queue.Push(Nothing());
  try {
    queue.Push(Nothing());
    ADD_FAILURE();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "Timed out to wait for invocation queue.");
  }
  EXPECT_EQ(queue.Waiting(), 1000u);
}

TEST(InvocationQueue, ATakenRecordFreesItsSlot) {
  SFsInvocationLimits limits;
  limits.slots = 1;
  limits.pushLimitMs = PatientMs;
  CFsInvocationQueue queue(1, limits);
  synch::manual_event_t stop;
  queue.Push(Nothing());
  std::thread blocked([&] { queue.Push(Nothing()); });
  EXPECT_TRUE(queue.Pop(stop));
  queue.Finish();
  blocked.join();
  EXPECT_TRUE(queue.Pop(stop));
}

TEST(InvocationQueue, TheStopEventGoesBeforeTheItems) {
  CFsInvocationQueue queue(1);
  synch::manual_event_t stop;
  queue.Push(Nothing());
  stop.Set();
  EXPECT_FALSE(queue.Pop(stop));
}

TEST(InvocationQueue, BreakCancelsWhatIsQueuedAndWhatComesLater) {
  CFsInvocationQueue queue(1);
  synch::manual_event_t stop;
  const auto first = boost::make_shared<RecordingCallback>();
  const auto second = boost::make_shared<RecordingCallback>();
  const auto late = boost::make_shared<RecordingCallback>();
  first->onFailed = [&] { EXPECT_EQ(second->failed, 0); };
  queue.Push(Nothing(first));
  queue.Push(Nothing(second));
  queue.Break();
  EXPECT_EQ(first->Failure(), "Procedure is cancelled.");
  EXPECT_EQ(second->Failure(), "Procedure is cancelled.");
  queue.Push(Nothing(late));
  EXPECT_EQ(late->Failure(), "Procedure is cancelled.");
  EXPECT_EQ(queue.Waiting(), 0u);
  EXPECT_FALSE(queue.TryBorrow());
  try {
    queue.Pop(stop);
    ADD_FAILURE();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "CFsInvocationQueue::Pop(): Queue has been broken");
  }
}

TEST(InvocationQueue, BreaksWithoutMemory) {
  CFsInvocationQueue queue(1);
  const test::RefusedRequest refusal(0);
  queue.Break();
  EXPECT_FALSE(refusal.HasHappened());
}

TEST(InvocationQueue, BreakLetsBlockedCallersGo) {
  SFsInvocationLimits limits;
  limits.slots = 1;
  limits.pushLimitMs = PatientMs;
  CFsInvocationQueue queue(1, limits);
  queue.Push(Nothing());
  const auto callback = boost::make_shared<RecordingCallback>();
  std::vector<std::thread> blocked;
  for (int i = 0; i < 3; ++i)
    blocked.emplace_back([&] { queue.Push(Nothing(callback)); });
  queue.Break();
  for (std::thread& thread : blocked)
    thread.join();
  EXPECT_EQ(callback->failed, 3);
}

TEST(InvocationQueue, LendsOnlyTheFreePlaceOfAnEmptyQueue) {
  CFsInvocationQueue queue(1);
  synch::manual_event_t stop;
  EXPECT_TRUE(queue.TryBorrow());
  EXPECT_FALSE(queue.TryBorrow());
  queue.Push(Nothing());
  queue.FinishLoan();
  EXPECT_FALSE(queue.TryBorrow());
  EXPECT_TRUE(queue.Pop(stop));
  EXPECT_FALSE(queue.TryBorrow());
  queue.Finish();
  EXPECT_TRUE(queue.TryBorrow());
  queue.FinishLoan();
  queue.CloseLoans();
  EXPECT_FALSE(queue.TryBorrow());
  EXPECT_TRUE(queue.WaitForLoans(0));
}

TEST(InvocationQueue, SeveralPlacesAreLentOneByOne) {
  CFsInvocationQueue queue(2);
  synch::manual_event_t stop;
  EXPECT_TRUE(queue.TryBorrow());
  queue.Push(Nothing());
  EXPECT_TRUE(queue.Pop(stop));
  EXPECT_FALSE(queue.TryBorrow());
  queue.FinishLoan();
  EXPECT_TRUE(queue.TryBorrow());
  queue.CloseLoans();
  EXPECT_FALSE(queue.WaitForLoans(0));
  queue.FinishLoan();
  EXPECT_TRUE(queue.WaitForLoans(0));
  queue.WaitForPlace();
}

TEST(CompletionEvents, AreKeptUpToAHundredAndComeOutInOrder) {
  CCompletionEventsAllocator allocator;
  std::vector<boost::shared_ptr<synch::manual_event_t>> events;
  for (int i = 0; i < 101; ++i)
    events.push_back(allocator.Acquire());
  EXPECT_EQ(allocator.FreeCount(), 0u);
  for (const auto& event : events) {
    EXPECT_FALSE(event->IsSet());
    event->Set();
    allocator.Release(event);
    EXPECT_FALSE(event->IsSet());
  }
  EXPECT_EQ(allocator.FreeCount(), 100u);
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(allocator.Acquire(), events[static_cast<std::size_t>(i)]);
  EXPECT_EQ(allocator.FreeCount(), 0u);
  const auto fresh = allocator.Acquire();
  EXPECT_EQ(std::find(events.begin(), events.end(), fresh), events.end());
}

TEST(SynchronousCompletion, WaitsAndThrowsWhatFailed) {
  const auto allocator = boost::make_shared<CCompletionEventsAllocator>();
  {
    CSynchronousFsCallCompletionProc completion(allocator, 5);
    try {
      completion.Wait();
      ADD_FAILURE();
    } catch (const exc::runtime_exc_t& failure) {
      EXPECT_STREQ(failure.what(), "Timed out to wait for FS call procedure call.");
    }
    completion.OnFailed(exc::win_sys_exc_t("Denied", 5));
    EXPECT_THROW(completion.Wait(), exc::win_sys_exc_t);
    // A callback bears both, in either order.
    completion.OnCompleted();
    EXPECT_NO_THROW(completion.Wait());
  }
  EXPECT_EQ(allocator->FreeCount(), 1u);
  CSynchronousFsCallCompletionProc again(allocator, 1);
  EXPECT_EQ(allocator->FreeCount(), 0u);
  EXPECT_THROW(again.Wait(), exc::runtime_exc_t);
}

}  // namespace
