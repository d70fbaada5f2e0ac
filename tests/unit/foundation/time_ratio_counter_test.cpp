#include "foundation/time_ratio_counter.h"

#include <gtest/gtest.h>

namespace {

using workload::CTimeRatioCounter;

TEST(TimeRatioCounter, TellsTheShareOfBusyTime) {
  CTimeRatioCounter counter(1000);
  EXPECT_EQ(counter.Permille(1000), 0U);
  EXPECT_EQ(counter.Permille(2000), 0U);
  counter.Begin(2000);
  counter.End(2250);
  counter.Begin(2500);
  counter.End(2750);
  EXPECT_EQ(counter.Period(3000), 2000);
  EXPECT_EQ(counter.Permille(3000), 250U);
}

TEST(TimeRatioCounter, CountsWhatIsStillBusy) {
  CTimeRatioCounter counter(0);
  counter.Begin(0);
  EXPECT_EQ(counter.Permille(10), CTimeRatioCounter::Full);
  counter.Restart(10);
  EXPECT_EQ(counter.Permille(10), 0U);
  EXPECT_EQ(counter.Permille(20), CTimeRatioCounter::Full);
  counter.End(20);
  EXPECT_EQ(counter.Permille(40), 333U);
}

TEST(TimeRatioCounter, ASecondBeginAndASecondEndCountNothing) {
  CTimeRatioCounter counter(0);
  counter.End(5);
  counter.Begin(10);
  counter.Begin(15);
  counter.End(20);
  counter.End(30);
  EXPECT_EQ(counter.Permille(100), 100U);
}

TEST(TimeRatioCounter, BearsPeriodsOfYears) {
  CTimeRatioCounter counter(0);
  counter.Begin(0);
  EXPECT_EQ(counter.Permille(INT64_MAX), CTimeRatioCounter::Full);
}

}  // namespace
