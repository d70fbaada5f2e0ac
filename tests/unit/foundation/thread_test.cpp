#include "foundation/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <string>

#include "foundation/events.h"
#include "foundation/monitoring.h"
#include "foundation/term_mediator.h"
#include "foundation/wait_any_trigger.h"
#include "foundation/win_thread.h"
#include "support/captured_log.h"

using synch::manual_event_t;
using synch::thread_t;
using test::CapturedLog;

namespace {

constexpr std::uint32_t PatientMs = 60000;

std::string TextOf(const std::exception& exception) {
  return exception.what();
}

bool IsListed(const std::string& role) {
  const auto threads = monitoring::CThreadStatesCollection::Instance().Snapshot();
  return std::any_of(threads.begin(), threads.end(), [&](const auto& thread) { return thread.role == role; });
}

TEST(Thread, LogsItsStartAndItsEndWithTheIds) {
  const CapturedLog log;
  std::uint32_t id = 0;
  {
    thread_t thread("A worker", [&] { id = monitoring::CurrentThreadId(); });
    EXPECT_TRUE(thread.WaitFor(PatientMs));
    EXPECT_EQ(thread.Role(), "A worker");
    EXPECT_EQ(thread.Exception(), nullptr);
  }
  EXPECT_NE(id, monitoring::CurrentThreadId());
  const std::vector<CapturedLog::Line> expected = {
      {"Info", exc::FormatText("Thread started. Thread id: %1, parent id: %2, role: %3", id,
                               monitoring::CurrentThreadId(), "A worker")},
      {"Info", "Thread finished. Role: 'A worker'."}};
  EXPECT_EQ(log.Lines(), expected);
}

TEST(Thread, KeepsTheExceptionThatEndedItAndLogsIt) {
  const CapturedLog log;
  thread_t thread("Failing", [] { throw exc::win_sys_exc_t("No luck", 5); });
  thread.WaitOrThrow(PatientMs);
  ASSERT_NE(thread.Exception(), nullptr);
  EXPECT_NE(dynamic_cast<const exc::win_sys_exc_t*>(thread.Exception().get()), nullptr);
  EXPECT_FALSE(log.Texts("Error").empty());
  EXPECT_TRUE(log.Has("Thread finished. Role: 'Failing'."));
}

TEST(Thread, KeepsAnExceptionFromOutsideTheFamily) {
  const CapturedLog log;
  thread_t foreign("Foreign", [] { throw std::runtime_error("Something else"); });
  foreign.WaitOrThrow(PatientMs);
  ASSERT_NE(foreign.Exception(), nullptr);
  EXPECT_EQ(TextOf(*foreign.Exception()), "Something else");
  thread_t number("Number", [] { throw 42; });
  number.WaitOrThrow(PatientMs);
  EXPECT_NE(number.Exception(), nullptr);
}

TEST(Thread, BeingToldToEndIsANormalEnd) {
  const CapturedLog log;
  synch::term_mediator_t mediator;
  thread_t thread("Waiting", [&] {
    for (;;)
      mediator.Wait(PatientMs);
  });
  mediator.Terminate();
  thread.WaitOrThrow(PatientMs);
  EXPECT_EQ(thread.Exception(), nullptr);
  EXPECT_TRUE(log.Texts("Error").empty());
  EXPECT_TRUE(log.Has("Thread finished. Role: 'Waiting'."));
}

TEST(Thread, WaitingWithALimitTellsARunningThread) {
  manual_event_t go;
  thread_t thread("Busy", [&] { go.Wait(); });
  EXPECT_FALSE(thread.WaitFor(0));
  try {
    thread.WaitOrThrow(0);
    ADD_FAILURE();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_EQ(TextOf(failure), "Thread not finished within [0] milliseconds.");
  }
  EXPECT_FALSE(thread.WaitFor(10));
  go.Set();
  EXPECT_TRUE(thread.WaitFor(PatientMs));
  EXPECT_TRUE(thread.WaitFor(0));
  EXPECT_TRUE(thread.WaitFor(synch::NoLimit));
}

TEST(Thread, AFailureOfTheWaitNamesTheRole) {
  std::string named;
  std::string unnamed;
  for (const auto& [role, text] : {std::pair{"Self", &named}, std::pair{"", &unnamed}}) {
    manual_event_t made;
    std::unique_ptr<thread_t> thread;
    thread = std::make_unique<thread_t>(role, [&thread, &made, target = text] {
      made.Wait();
      try {
        thread->WaitFor(synch::NoLimit);
      } catch (const exc::exc_base_t& failure) {
        *target = failure.what();
      }
    });
    made.Set();
    thread->WaitOrThrow(PatientMs);
  }
  EXPECT_NE(named.find("\nFailed to wait for thread [Self] to finish."), std::string::npos);
  EXPECT_NE(unnamed.find("\nFailed to wait for thread [unknown] to finish."), std::string::npos);
}

TEST(Thread, TakesASharedProcedureAndIsWaitedForWhenDestroyed) {
  bool ran = false;
  const auto procedure = boost::make_shared<synch::thread_exec_proc_t>([&] { ran = true; });
  { const thread_t thread("Shared", procedure); }
  EXPECT_TRUE(ran);
}

TEST(Thread, StandsInTheCollectionWhileItRuns) {
  manual_event_t inside;
  manual_event_t go;
  std::uint32_t id = 0;
  thread_t thread("Listed", [&] {
    id = monitoring::CurrentThreadId();
    const logging::log_scope_t scope(g_log, "Doing it.");
    inside.Set();
    go.Wait();
  });
  inside.Wait();
  const auto threads = monitoring::CThreadStatesCollection::Instance().Snapshot();
  const auto place =
      std::find_if(threads.begin(), threads.end(), [](const auto& info) { return info.role == "Listed"; });
  ASSERT_NE(place, threads.end());
  EXPECT_EQ(place->threadId, id);
  EXPECT_EQ(place->parentId, monitoring::CurrentThreadId());
  go.Set();
  thread.WaitOrThrow(PatientMs);
  EXPECT_FALSE(IsListed("Listed"));
}

TEST(WinThread, StartsApartFromItsConstruction) {
  const CapturedLog log;
  bool ran = false;
  win::win_thread_t thread("Async server", [&] { ran = true; });
  EXPECT_FALSE(thread.IsStarted());
  thread.Join(0);
  thread.Start();
  EXPECT_TRUE(thread.IsStarted());
  thread.Join(PatientMs);
  thread.Join(0);
  EXPECT_TRUE(ran);
  EXPECT_EQ(thread.Name(), "Async server");
  EXPECT_TRUE(log.Has("Thread finished. Role: 'Async server'."));
}

TEST(WinThread, AThreadThatTheSystemRefusesIsNotStarted) {
  pthread_attr_t before;
  pthread_attr_t huge;
  ASSERT_EQ(::pthread_getattr_default_np(&before), 0);
  ASSERT_EQ(::pthread_getattr_default_np(&huge), 0);
  // No address space holds such a stack.
  ASSERT_EQ(::pthread_attr_setstacksize(&huge, std::size_t{1} << 60), 0);
  bool ran = false;
  win::win_thread_t thread("Refused", [&] { ran = true; });
  ASSERT_EQ(::pthread_setattr_default_np(&huge), 0);
  std::string text;
  try {
    thread.Start();
  } catch (const exc::win_sys_exc_t& failure) {
    text = std::next(failure.Messages().begin())->text;
  }
  ASSERT_EQ(::pthread_setattr_default_np(&before), 0);
  ::pthread_attr_destroy(&before);
  ::pthread_attr_destroy(&huge);
  EXPECT_EQ(text, "Cannot create thread.");
  EXPECT_FALSE(thread.IsStarted());
  thread.Join(0);
  thread.Start();
  thread.Join(PatientMs);
  EXPECT_TRUE(ran);
}

TEST(WinThread, JoinWithALimitTellsARunningThread) {
  manual_event_t go;
  win::win_thread_t thread("Stuck", [&] { go.Wait(); });
  thread.Start();
  try {
    thread.Join(5);
    ADD_FAILURE();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_EQ(TextOf(failure), "Thread failed to stop during specified time");
  }
  go.Set();
  thread.Join(PatientMs);
}

TEST(WinThread, IsWaitedForWhenDestroyedAndSurvivesAFailure) {
  const CapturedLog log;
  {
    win::win_thread_t thread("Failing", [] { throw exc::runtime_exc_t("Bad day"); });
    thread.Start();
  }
  EXPECT_FALSE(log.Texts("Error").empty());
  EXPECT_TRUE(log.Has("Thread finished. Role: 'Failing'."));
}

TEST(TermMediator, SetsItsOwnEventAndAllRegistered) {
  synch::term_mediator_t mediator;
  EXPECT_FALSE(mediator.IsTerminated());
  EXPECT_NO_THROW(mediator.Wait(1));
  const auto kept = boost::make_shared<manual_event_t>();
  const auto gone = boost::make_shared<manual_event_t>();
  const synch::CStopEvtThreadRegistration registration(mediator.StopEvents(), kept);
  { const synch::CStopEvtThreadRegistration brief(mediator.StopEvents(), gone); }
  EXPECT_EQ(mediator.StopEvents().Size(), 1u);
  mediator.Terminate();
  EXPECT_TRUE(mediator.IsTerminated());
  EXPECT_TRUE(mediator.StopEvent().IsSet());
  EXPECT_TRUE(kept->IsSet());
  EXPECT_FALSE(gone->IsSet());
  EXPECT_THROW(mediator.Wait(0), exc::term_exc_t);
}

TEST(TermMediator, ALateRegistrationMissesNothing) {
  synch::term_mediator_t mediator;
  mediator.Terminate();
  const auto late = boost::make_shared<manual_event_t>();
  const synch::CStopEvtThreadRegistration registration(mediator.StopEvents(), late);
  EXPECT_TRUE(late->IsSet());
}

TEST(WaitAnyTrigger, ReturnsTheLowestAndClearsIt) {
  synch::wait_any_trigger_t wait(3);
  wait.Raise(2);
  wait.Raise(1);
  EXPECT_EQ(wait.Wait(), 1u);
  EXPECT_EQ(wait.Wait(), 2u);
  EXPECT_EQ(wait.Wait(0), std::nullopt);
  EXPECT_EQ(wait.Wait(5), std::nullopt);
}

TEST(WaitAnyTrigger, ForgetsWhatIsReset) {
  synch::wait_any_trigger_t wait(2);
  wait.Raise(0);
  wait.Raise(1);
  wait.Reset(0);
  EXPECT_EQ(wait.Wait(0), 1u);
  wait.Raise(1);
  wait.Reset(1);
  EXPECT_EQ(wait.Wait(5), std::nullopt);
}

TEST(WaitAnyTrigger, RefusesAnIdThatIsNotRegistered) {
  synch::wait_any_trigger_t wait(2);
  const std::string text =
      "Atomic trigger ID exceeds number of registered triggers. ID: [2]. Number of registered triggers: [2].";
  for (const bool raise : {true, false}) {
    try {
      raise ? wait.Raise(2) : wait.Reset(2);
      ADD_FAILURE();
    } catch (const exc::runtime_exc_t& failure) {
      EXPECT_EQ(TextOf(failure), text);
    }
  }
  EXPECT_THROW(wait.Raise(SIZE_MAX), exc::runtime_exc_t);
}

TEST(WaitAnyTrigger, SourcesRaiseTheirOwnTrigger) {
  const auto wait = boost::make_shared<synch::wait_any_trigger_t>(2);
  synch::wait_any_signaler_t signaler(wait, 1);
  synch::trigger_sink_t& sink = signaler;
  sink.Trigger(77);
  EXPECT_EQ(wait->Wait(0), 1u);
}

TEST(WaitAnyTrigger, WakesEachOfSeveralWaiters) {
  for (int round = 0; round < 200; ++round) {
    synch::wait_any_trigger_t wait(2);
    std::atomic<std::size_t> sum{0};
    thread_t first("First waiter", [&] { sum += wait.Wait(PatientMs).value_or(100) + 1; });
    thread_t second("Second waiter", [&] { sum += wait.Wait(PatientMs).value_or(100) + 1; });
    wait.Raise(0);
    wait.Raise(1);
    first.WaitOrThrow(PatientMs);
    second.WaitOrThrow(PatientMs);
    EXPECT_EQ(sum, 3u);
  }
}

}  // namespace
