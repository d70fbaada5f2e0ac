// What a stop of the invoker does to calls that wait and to calls that run.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/weak_ptr.hpp>
#include <stdexcept>
#include <thread>
#include <utility>

#include "unit/vfs/items/wrapper_fixture.h"

using test::CapturedLog;
using test::Gate;
using test::PatientMs;
using test::RecordingCallback;
using test::RecordingFile;
using test::WrapperTest;

namespace {

TEST_F(WrapperTest, StopCancelsWhatIsQueuedBehindAThread) {
  const CapturedLog log;
  Make(1, TellingLimits());
  Gate gate;
  Occupy(gate);
  const auto callback = boost::make_shared<RecordingCallback>();
  wrapper->AsyncWrite(0, 1, "x", callback);
  std::string failure;
  std::thread caller([&] {
    try {
      wrapper->Exists();
    } catch (const exc::runtime_exc_t& cancelled) {
      failure = cancelled.what();
    }
  });
  WaitQueued(2);
  std::thread stopper([&] { invoker->Stop(); });
  WaitUntilStopWaits(log);
  // What runs comes to its end first.
  EXPECT_FALSE(callback->told.Wait(0));
  gate.Open();
  stopper.join();
  caller.join();
  EXPECT_EQ(callback->Failure(), "Procedure is cancelled.");
  EXPECT_EQ(failure, "Procedure is cancelled.");
  EXPECT_TRUE(file->Calls().empty());
}

TEST_F(WrapperTest, StopCancelsWhatIsQueuedBehindALoanAfterItsEnd) {
  const CapturedLog log;
  Make(1, TellingLimits());
  Gate gate;
  file->action = [&](const std::string&) { gate.Enter(); };
  std::thread lender([&] { EXPECT_NO_THROW(wrapper->Resize(1)); });
  ASSERT_TRUE(gate.WaitEntered());
  const auto callback = boost::make_shared<RecordingCallback>();
  wrapper->AsyncWrite(0, 1, "x", callback);
  std::thread stopper([&] { invoker->Stop(); });
  WaitUntilStopWaits(log);
  EXPECT_FALSE(callback->told.Wait(0));
  gate.Open();
  lender.join();
  stopper.join();
  EXPECT_EQ(callback->Failure(), "Procedure is cancelled.");
  EXPECT_EQ(file->Calls(), (std::vector<std::string>{"resize 1"}));
}

TEST_F(WrapperTest, AfterTheStopEachCallIsCancelled) {
  Make();
  invoker->Stop();
  invoker->Stop();
  EXPECT_FALSE(IsIdle());
  try {
    wrapper->Exists();
    ADD_FAILURE();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "Procedure is cancelled.");
  }
  EXPECT_TRUE(file->Calls().empty());
}

TEST_F(WrapperTest, DestructionFailsWhatIsQueued) {
  Make();
  Gate gate;
  Occupy(gate);
  const auto callback = boost::make_shared<RecordingCallback>();
  wrapper->AsyncWrite(0, 1, "x", callback);
  wrapper.reset();
  std::thread opener([&] {
    EXPECT_FALSE(callback->told.Wait(20));
    gate.Open();
  });
  invoker.reset();
  opener.join();
  EXPECT_EQ(callback->failed, 1);
  EXPECT_EQ(callback->Failure(), "Procedure is cancelled.");
}

TEST_F(WrapperTest, AFileThatIsRemovedWhileACallWaitsLivesUntilItIsAnswered) {
  Make();
  Gate gate;
  Occupy(gate);
  auto removed = boost::make_shared<RecordingFile>();
  const boost::weak_ptr<RecordingFile> trace(removed);
  SFsReadBuffer buffer;
  const auto read = boost::make_shared<RecordingCallback>();
  const auto write = boost::make_shared<RecordingCallback>();
  {
    CAsyncFsFileWrapper last(std::exchange(removed, nullptr), invoker, allocator);
    last.AsyncRead(0, 1, buffer, read);
    last.AsyncWrite(0, 1, "x", write);
  }
  EXPECT_FALSE(trace.expired());
  gate.Open();
  EXPECT_TRUE(read->told.Wait(PatientMs));
  EXPECT_TRUE(write->told.Wait(PatientMs));
  EXPECT_EQ(read->failed, 0);
  EXPECT_EQ(write->failed, 0);
  WaitIdle();
  while (!trace.expired())
    std::this_thread::yield();
}

TEST_F(WrapperTest, AThreadThatStopsLateIsToldOfAndWaitedFor) {
  const CapturedLog log;
  const SFsInvocationLimits limits;
  EXPECT_EQ(limits.stopLimitMs, 180000u);
  EXPECT_EQ(limits.longStopLimitMs, 1814400000u);
  EXPECT_EQ(limits.callLimitMs, 1814400000u);
  Make(1, TellingLimits());
  Gate gate;
  Occupy(gate);
  std::thread stopper([&] { invoker->Stop(); });
  WaitUntilStopWaits(log);
  gate.Open();
  stopper.join();
  const auto texts = log.Texts();
  EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
    return text.find("Thread finished. Role: 'FsInvocation hostfs - 0'.") != std::string::npos;
  }));
}

}  // namespace
