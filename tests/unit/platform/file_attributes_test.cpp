#include "platform/file_attributes.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using platform::FiletimeFromTimespec;
using platform::TimespecFromFiletime;

TEST(FileAttributes, TheEpochsLieThisFarApart) {
  EXPECT_EQ(FiletimeFromTimespec({0, 0}), 116444736000000000ULL);
  EXPECT_EQ(FiletimeFromTimespec({1, 100}), 116444736010000001ULL);
  EXPECT_EQ(FiletimeFromTimespec({-11644473600, 0}), 0U);
}

TEST(FileAttributes, TimesComeBackToTheHundredNanoseconds) {
  for (const timespec time : {timespec{0, 0}, timespec{1700000000, 123456789}, timespec{-1, 999999999},
                              timespec{-11644473600, 0}, timespec{4102444800, 1}}) {
    const timespec back = TimespecFromFiletime(FiletimeFromTimespec(time));
    EXPECT_EQ(back.tv_sec, time.tv_sec);
    EXPECT_EQ(back.tv_nsec, time.tv_nsec / 100 * 100);
  }
}

TEST(FileAttributes, TimesOutOfRangeClamp) {
  EXPECT_EQ(FiletimeFromTimespec({-11644473601, 999999999}), 0U);
  EXPECT_EQ(FiletimeFromTimespec({std::numeric_limits<time_t>::min(), 0}), 0U);
  EXPECT_EQ(FiletimeFromTimespec({std::numeric_limits<time_t>::max(), 0}), std::numeric_limits<FILETIME>::max());
  const timespec last = TimespecFromFiletime(std::numeric_limits<FILETIME>::max());
  EXPECT_GT(last.tv_sec, 0);
  EXPECT_LT(last.tv_nsec, 1000000000);
}

TEST(FileAttributes, TheSizeIsKeptInTwoHalves) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  data.SetSize(0x123456789ABCDEF0);
  EXPECT_EQ(data.sizeHigh, 0x12345678U);
  EXPECT_EQ(data.sizeLow, 0x9ABCDEF0U);
  EXPECT_EQ(data.Size(), 0x123456789ABCDEF0U);
}

}  // namespace
