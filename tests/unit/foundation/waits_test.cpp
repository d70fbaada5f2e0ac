#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "foundation/critical_section.h"
#include "foundation/events.h"
#include "foundation/exc.h"
#include "foundation/nano_time.h"
#include "foundation/unnamed_semaphore.h"
#include "platform/futex.h"

using synch::auto_event_t;
using synch::CUnnamedSemaphore;
using synch::manual_event_t;
using synch::waitable_t;

namespace {

/// Long enough that only a lost wake-up lets it pass.
constexpr std::uint32_t PatientMs = 60000;

bool IsReadable(int descriptor) {
  pollfd entry = {descriptor, POLLIN, 0};
  return ::poll(&entry, 1, 0) == 1;
}

TEST(ManualEvent, LetsEveryWaiterPassUntilReset) {
  manual_event_t event;
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  EXPECT_TRUE(event.IsSet());
  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait());
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
  EXPECT_TRUE(manual_event_t(true).Wait(0));
}

TEST(ManualEvent, TimesOut) {
  manual_event_t event;
  const synch::CNanoTime time;
  EXPECT_FALSE(event.Wait(20));
  EXPECT_GE(time.ElapsedMilliseconds(), 20);
}

TEST(ManualEvent, WakesAllSleepersEvenWhenResetAtOnce) {
  for (int round = 0; round < 50; ++round) {
    manual_event_t event;
    std::atomic<int> passed{0};
    std::vector<std::thread> sleepers;
    for (int i = 0; i < 3; ++i) {
      sleepers.emplace_back([&] {
        while (!event.Wait(1)) {
        }
        ++passed;
      });
    }
    // Whoever sleeps at this moment passes; the others are let through in the end.
    event.Set();
    event.Reset();
    event.Set();
    for (std::thread& sleeper : sleepers)
      sleeper.join();
    EXPECT_EQ(passed, 3);
  }
}

TEST(ManualEvent, EarlierSignalDoesNotReachALaterWait) {
  manual_event_t event;
  event.Set();
  event.Reset();
  EXPECT_FALSE(event.Wait(5));
}

TEST(ManualEvent, DescriptorIsReadableWhileSet) {
  manual_event_t event(true);
  const int descriptor = event.PollDescriptor();
  EXPECT_TRUE(IsReadable(descriptor));
  EXPECT_EQ(event.PollDescriptor(), descriptor);
  event.Reset();
  EXPECT_FALSE(IsReadable(descriptor));
  event.Set();
  event.Set();
  EXPECT_TRUE(IsReadable(descriptor));
  event.Reset();
  EXPECT_FALSE(IsReadable(descriptor));
  EXPECT_FALSE(event.IsSet());
}

TEST(ManualEvent, DescriptorThatCannotBeHadIsTold) {
  manual_event_t event;
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t whole = limit.rlim_cur;
  limit.rlim_cur = 0;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::string text;
  try {
    event.PollDescriptor();
  } catch (const exc::win_sys_exc_t& failure) {
    text = failure.what();
  }
  limit.rlim_cur = whole;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(text, platform::ErrorText(4) + "\nCannot create an event object.\nError code: 4");
  event.Set();
  EXPECT_TRUE(IsReadable(event.PollDescriptor()));
}

TEST(ManualEvent, DescriptorEndsInTheStateOfTheEventUnderContention) {
  manual_event_t event;
  const int descriptor = event.PollDescriptor();
  std::thread setter([&] {
    for (int i = 0; i < 2000; ++i)
      event.Set();
  });
  for (int i = 0; i < 2000; ++i)
    event.Reset();
  setter.join();
  EXPECT_EQ(IsReadable(descriptor), event.IsSet());
  event.Set();
  EXPECT_TRUE(IsReadable(descriptor));
}

TEST(AutoEvent, IsTakenByOneWaiter) {
  auto_event_t event;
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
  EXPECT_TRUE(auto_event_t(true).Wait(0));
}

TEST(AutoEvent, HandsOverWithoutALostWakeUp) {
  auto_event_t ping;
  auto_event_t pong;
  constexpr int Rounds = 5000;
  std::thread peer([&] {
    for (int i = 0; i < Rounds; ++i) {
      ASSERT_TRUE(ping.Wait(PatientMs));
      pong.Set();
    }
  });
  for (int i = 0; i < Rounds; ++i) {
    ping.Set();
    ASSERT_TRUE(pong.Wait(PatientMs));
  }
  peer.join();
}

TEST(Semaphore, CountsDownAndUp) {
  CUnnamedSemaphore semaphore(2, 3);
  EXPECT_TRUE(semaphore.Wait(0));
  EXPECT_TRUE(semaphore.Wait(0));
  EXPECT_FALSE(semaphore.Wait(0));
  semaphore.Release(3);
  EXPECT_EQ(semaphore.Count(), 3);
}

TEST(Semaphore, RefusesToPassItsMaximum) {
  CUnnamedSemaphore semaphore(1, 2);
  try {
    semaphore.Release(2);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), 298u);
    EXPECT_NE(std::string(failure.what()).find("\nCannot release a semaphore object.\n"), std::string::npos);
  }
  EXPECT_EQ(semaphore.Count(), 1);
  EXPECT_THROW(semaphore.Release(0), exc::win_sys_exc_t);
  EXPECT_THROW(semaphore.Release(-1), exc::win_sys_exc_t);
}

TEST(Semaphore, RefusesImpossibleCounts) {
  EXPECT_THROW(CUnnamedSemaphore(-1, 1), exc::win_sys_exc_t);
  EXPECT_THROW(CUnnamedSemaphore(0, 0), exc::win_sys_exc_t);
  try {
    const CUnnamedSemaphore semaphore(2, 1);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_NE(std::string(failure.what()).find("\nCannot create a semaphore object. Initial value: [2"),
              std::string::npos);
  }
}

TEST(Semaphore, EveryCountReachesAWaiter) {
  constexpr int Waiters = 4;
  constexpr int Each = 1000;
  CUnnamedSemaphore semaphore(0, 1000000);
  std::atomic<int> taken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < Waiters; ++i) {
    waiters.emplace_back([&] {
      for (int n = 0; n < Each; ++n) {
        if (semaphore.Wait(PatientMs))
          ++taken;
      }
    });
  }
  for (int left = Waiters * Each; left > 0;) {
    const int count = std::min(left, 1 + left % 3);
    semaphore.Release(count);
    left -= count;
  }
  for (std::thread& waiter : waiters)
    waiter.join();
  EXPECT_EQ(taken, Waiters * Each);
  EXPECT_EQ(semaphore.Count(), 0);
}

TEST(WaitAny, ReturnsTheFirstInOrderAndTakesItAlone) {
  manual_event_t stop;
  auto_event_t broken;
  CUnnamedSemaphore items(0, 10);
  EXPECT_EQ(waitable_t::WaitAny({&stop, &broken, &items}, 0), std::nullopt);
  EXPECT_EQ(waitable_t::WaitAny({&stop, &broken, &items}, 5), std::nullopt);
  broken.Set();
  items.Release();
  EXPECT_EQ(waitable_t::WaitAny({&stop, &broken, &items}), 1u);
  EXPECT_EQ(items.Count(), 1);
  EXPECT_EQ(waitable_t::WaitAny({&stop, &broken, &items}), 2u);
  stop.Set();
  EXPECT_EQ(waitable_t::WaitAny({&stop, &broken, &items}), 0u);
}

TEST(WaitAny, LosesNoSignalOfAnyOfItsThings) {
  // Each side waits on several things, so that a wake-up meant for one must not be eaten by another.
  constexpr int Threads = 3;
  constexpr int Count = 3000;
  CUnnamedSemaphore first(0, 1000000);
  CUnnamedSemaphore second(0, 1000000);
  manual_event_t stop;
  std::atomic<int> firstTaken{0};
  std::atomic<int> secondTaken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < Threads; ++i) {
    waiters.emplace_back([&, i] {
      for (;;) {
        const auto taken = i == 0   ? waitable_t::WaitAny({&first, &second, &stop}, PatientMs)
                           : i == 1 ? waitable_t::WaitAny({&second, &first, &stop}, PatientMs)
                                    : waitable_t::WaitAny({&first, &stop}, PatientMs);
        ASSERT_TRUE(taken.has_value());
        if (i == 2 ? *taken == 1 : *taken == 2)
          return;
        ((i == 1) == (*taken == 0) ? secondTaken : firstTaken)++;
      }
    });
  }
  for (int i = 0; i < Count; ++i) {
    first.Release();
    second.Release();
    if (i % 64 == 0)
      std::this_thread::yield();
  }
  while (firstTaken != Count || secondTaken != Count) {
    ASSERT_TRUE(first.Count() >= 0);
    std::this_thread::yield();
  }
  stop.Set();
  for (std::thread& waiter : waiters)
    waiter.join();
}

TEST(WaitAny, PassesOnWhatItWasToldOfButDidNotTake) {
  // Two threads sleep on one event; the one that is told may leave for another reason in the same moment.
  for (int round = 0; round < 500; ++round) {
    auto_event_t shared;
    auto_event_t other;
    std::atomic<int> ends{0};
    std::thread both([&] {
      // Prefers `other`: told of `shared`, it may leave with `other`.
      ASSERT_TRUE(waitable_t::WaitAny({&other, &shared}, PatientMs).has_value());
      ++ends;
    });
    std::thread one([&] {
      ASSERT_TRUE(waitable_t::WaitAny({&shared, &other}, PatientMs).has_value());
      ++ends;
    });
    shared.Set();
    other.Set();
    both.join();
    one.join();
    EXPECT_EQ(ends, 2);
  }
}

TEST(CriticalSection, MayBeTakenAgainByItsHolder) {
  synch::CCriticalSection section;
  synch::CAbstractLock& lock = section;
  int counter = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 1000; ++n) {
        const std::lock_guard<synch::CAbstractLock> outer(lock);
        const std::lock_guard<synch::CAbstractLock> inner(lock);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(counter, 2000);
}

TEST(NanoTime, NeverGoesBack) {
  synch::CNanoTime time;
  std::int64_t last = 0;
  for (int i = 0; i < 100; ++i) {
    const std::int64_t now = time.ElapsedNanoseconds();
    EXPECT_GE(now, last);
    last = now;
  }
  manual_event_t().Wait(2);
  EXPECT_GE(time.ElapsedMilliseconds(), 2);
  const std::int64_t before = time.ElapsedNanoseconds();
  time.Restart();
  EXPECT_LT(time.ElapsedNanoseconds(), before);
}

TEST(Deadline, TellsWhatIsLeft) {
  using platform::deadline_t;
  EXPECT_EQ(deadline_t::Never().RemainingMs(), UINT32_MAX);
  EXPECT_FALSE(deadline_t::Never().IsOver());
  EXPECT_EQ(deadline_t::After(0).RemainingMs(), 0u);
  EXPECT_TRUE(deadline_t::After(0).IsOver());
  const std::uint32_t left = deadline_t::After(synch::LongWaitMs).RemainingMs();
  EXPECT_LE(left, synch::LongWaitMs);
  EXPECT_GT(left, synch::LongWaitMs - 60000);
  EXPECT_EQ(deadline_t::After(UINT64_MAX).RemainingMs(), UINT32_MAX);
  EXPECT_GE(platform::AvailableProcessors(), 1u);
}

}  // namespace
