// When several requests are taken to be under way at a time.
#include "transports/async/crowd_gauge.h"

#include <gtest/gtest.h>

namespace test {
namespace {

class CrowdGaugeTest : public testing::Test {
 protected:
  /// So many requests, of which each comes while another one is under way.
  void Together(unsigned count) { Tell(count, false); }
  void Alone(unsigned count) { Tell(count, true); }
  void Tell(unsigned count, bool isAlone) {
    for (unsigned i = 0; i < count; ++i) {
      gauge_.Tell(isAlone);
    }
  }

  static constexpr unsigned ThatCrowd = synch::crowd_gauge_t::Crowded / 2;  ///< So many that come together.

  synch::crowd_gauge_t gauge_;
};

TEST_F(CrowdGaugeTest, TakesSeveralThatComeTogether) {
  EXPECT_FALSE(gauge_.IsCrowded());
  Together(ThatCrowd - 1);
  EXPECT_FALSE(gauge_.IsCrowded());
  Together(1);
  EXPECT_TRUE(gauge_.IsCrowded());
}

TEST_F(CrowdGaugeTest, OneThatComesAloneTakesHalfOfOneAway) {
  Together(ThatCrowd - 1);
  Alone(1);
  Together(1);
  EXPECT_FALSE(gauge_.IsCrowded());
  Alone(1);
  Together(1);
  EXPECT_TRUE(gauge_.IsCrowded());
}

TEST_F(CrowdGaugeTest, IsCrowdedUntilNothingIsLeft) {
  Together(ThatCrowd);
  for (unsigned left = synch::crowd_gauge_t::Crowded - 1; left > 0; --left) {
    Alone(1);
    EXPECT_TRUE(gauge_.IsCrowded()) << left;
  }
  Alone(1);
  EXPECT_FALSE(gauge_.IsCrowded());
  // From there it takes as many as at first.
  Together(ThatCrowd - 1);
  EXPECT_FALSE(gauge_.IsCrowded());
  Together(1);
  EXPECT_TRUE(gauge_.IsCrowded());
}

TEST_F(CrowdGaugeTest, CountsNoFurtherThanItsMost) {
  Together(1000);
  Alone(synch::crowd_gauge_t::Most - 1);
  EXPECT_TRUE(gauge_.IsCrowded());
  Alone(1);
  EXPECT_FALSE(gauge_.IsCrowded());
}

TEST_F(CrowdGaugeTest, CountsNothingBelowNone) {
  Alone(100);
  EXPECT_FALSE(gauge_.IsCrowded());
  Together(ThatCrowd);
  EXPECT_TRUE(gauge_.IsCrowded());
}

}  // namespace
}  // namespace test
