#include "platform/clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "support/manual_clock.h"
#include "support/temp_dir.h"

namespace {

TEST(Clock, TheSystemsClockTellsTheTime) {
  platform::clock_source_t& clock = platform::SystemClock();
  EXPECT_EQ(&platform::Clock(), &clock);
  EXPECT_LE(std::abs(clock.WallNanoseconds() / 1000000000 - std::time(nullptr)), 1);
  const std::uint64_t before = clock.MonotonicMilliseconds();
  clock.Sleep(20);
  EXPECT_GE(clock.MonotonicMilliseconds() - before, 19U);
}

TEST(Clock, LocalTimeFollowsTheZone) {
  const test::ScopedEnvironment zone("TZ", "XXX-3");
  ::tzset();
  const std::tm local = platform::SystemClock().LocalTime(0);
  EXPECT_EQ(local.tm_year, 70);
  EXPECT_EQ(local.tm_hour, 3);
}

TEST(Clock, ATestMayMoveTheTimeByHand) {
  test::ManualClock clock;
  const test::ScopedClock scope(clock);
  const std::int64_t start = platform::Clock().WallNanoseconds();
  std::atomic<bool> woken = false;
  std::thread sleeper([&] {
    platform::Clock().Sleep(60000);
    woken = true;
  });
  clock.WaitForSleepers(1);
  clock.Advance(59999);
  EXPECT_FALSE(woken);
  clock.Advance(1);
  sleeper.join();
  EXPECT_TRUE(woken);
  EXPECT_EQ(platform::Clock().WallNanoseconds() - start, 60000000000);
}

TEST(Clock, TheSystemsComesBack) {
  {
    test::ManualClock clock;
    const test::ScopedClock scope(clock);
    EXPECT_EQ(&platform::Clock(), &clock);
  }
  EXPECT_EQ(&platform::Clock(), &platform::SystemClock());
}

}  // namespace
