#include "foundation/dump/text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

namespace crash {
namespace {

TEST(TextTest, NumbersHaveTheirForms) {
  fixed_text_t<256> text;
  text.AddDecimal(0).Add(' ').AddDecimal(7, 3).Add(' ').AddDecimal(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(text.View(), "0 007 18446744073709551615");
  text.Clear();
  text.AddHex(0, 8).Add(' ').AddHex(0xabc, 8).Add(' ').AddHex(0x123456789abcdef0, 8);
  EXPECT_EQ(text.View(), "00000000 00000abc 123456789abcdef0");
  text.Clear();
  text.AddSigned(0).Add(' ').AddSigned(-1).Add(' ').AddSigned(std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(text.View(), "+0 -1 -9223372036854775808");
}

TEST(TextTest, IsCutAtTheEndOfItsPlace) {
  fixed_text_t<8> text;
  text.Add("12345");
  EXPECT_FALSE(text.IsFull());
  text.Add("6789").Add('x');
  EXPECT_EQ(text.View(), "1234567");
  EXPECT_STREQ(text.CStr(), "1234567");
  EXPECT_TRUE(text.IsFull());
  fixed_text_t<1> none;
  none.Add("a").AddSpaces(1000);
  EXPECT_TRUE(none.IsEmpty());
}

TEST(TextTest, PlaceholdersAreFilledInAnyOrderAndNotTwice) {
  fixed_text_t<64> text;
  text.Format("%2 and %1, %2; %3 % %%", {"a%2", "b"});
  EXPECT_EQ(text.View(), "b and a%2, b; %3 % %%");
}

TEST(FailureTest, GathersALineALevel) {
  failure_t failure;
  EXPECT_EQ(failure.Text(), "");
  failure.AddSystem("Failed to open [%1].", {"x"}, ENOENT).Add("Nothing can be done. [%1]", {"y"}).Add("The end.");
  EXPECT_EQ(failure.Text(),
            "The file does not exist.\nFailed to open [x].\nError code: 2\nNothing can be done. [y]\nThe end.");
}

}  // namespace
}  // namespace crash
