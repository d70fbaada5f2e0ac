// What records may grow to, each and together.
#include "rpc/record_buffer.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

constexpr std::size_t First = CRecordBuffer::FirstSize;
constexpr std::size_t Beyond = CRecordBuffer::MostBeyond;

TEST(RecordBufferTest, WhatCallsNeedDrawsOnNothing) {
  CRecordBuffer all;
  ASSERT_TRUE(all.GrowTo(First + Beyond));
  CRecordBuffer usual;
  EXPECT_TRUE(usual.GrowTo(100));
  EXPECT_TRUE(usual.GrowTo(First));
  EXPECT_EQ(usual.size(), First);
}

TEST(RecordBufferTest, AllTogetherHaveABound) {
  CRecordBuffer one;
  ASSERT_TRUE(one.GrowTo(First / 2));
  ASSERT_TRUE(one.GrowTo(First + Beyond / 2));
  EXPECT_FALSE(one.GrowTo(First + Beyond + 1));
  EXPECT_EQ(one.size(), First + Beyond / 2);
  CRecordBuffer other;
  EXPECT_FALSE(other.GrowTo(First + Beyond - Beyond / 2 + 1));
  EXPECT_TRUE(other.GrowTo(First + Beyond - Beyond / 2));
  EXPECT_FALSE(one.GrowTo(one.size() + 1));
}

TEST(RecordBufferTest, WhatOneHadGoesBackWithIt) {
  for (int i = 0; i < 3; ++i) {
    CRecordBuffer one;
    EXPECT_TRUE(one.GrowTo(First + Beyond));
  }
}

TEST(RecordBufferTest, ItsBytesStayWhileItGrows) {
  CRecordBuffer one;
  ASSERT_TRUE(one.GrowTo(First));
  one.front() = 1;
  one.back() = 2;
  ASSERT_TRUE(one.GrowTo(First * 3));
  EXPECT_EQ(one.front(), 1);
  EXPECT_EQ(one[First - 1], 2);
}

}  // namespace
