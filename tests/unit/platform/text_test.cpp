#include "platform/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

namespace {

using platform::CompareIgnoringCase;
using platform::EqualIgnoringCase;
using platform::IsValidUtf8;
using platform::ParseU32;
using platform::ParseU64;
using platform::SplitPath;
using platform::Trim;
using platform::Utf16FromUtf8;
using platform::Utf8FromUtf16;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Text, FoldingChangesAsciiLettersAlone) {
  EXPECT_EQ(platform::FoldAscii(std::string_view("AZaz09[@`{")), "azaz09[@`{");
  EXPECT_EQ(platform::FoldAscii(std::string_view("\xC3\x84")), "\xC3\x84");  // A with diaeresis.
}

TEST(Text, ComparisonIgnoresAsciiCaseAlone) {
  EXPECT_TRUE(EqualIgnoringCase("KelvO", "kELVo"));
  EXPECT_FALSE(EqualIgnoringCase("Kelvo", "Kelvo "));
  EXPECT_FALSE(EqualIgnoringCase("[", "{"));
  EXPECT_FALSE(EqualIgnoringCase("\xC3\x84", "\xC3\xA4"));
  EXPECT_TRUE(EqualIgnoringCase("", ""));
  EXPECT_EQ(CompareIgnoringCase("abc", "ABC"), 0);
  EXPECT_LT(CompareIgnoringCase("ab", "ABC"), 0);
  EXPECT_GT(CompareIgnoringCase("B", "a"), 0);
  EXPECT_GT(CompareIgnoringCase("\xC3", "z"), 0);
  const std::string_view texts[] = {"",         "a",         "AB", "ab",  std::string_view("ab\0", 3),
                                    "abcdefgh", "ABCDEFGHI", "b",  "\xC3"};
  for (const std::string_view left : texts) {
    for (const std::string_view right : texts) {
      const auto a = platform::FoldedBegin(left);
      const auto b = platform::FoldedBegin(right);
      EXPECT_TRUE(a == b || (a < b) == (CompareIgnoringCase(left, right) < 0)) << left << " " << right;
    }
  }
  EXPECT_LT(platform::FoldedBegin("A"), platform::FoldedBegin("b"));
  EXPECT_EQ(platform::FoldedBegin("abcdefgh"), platform::FoldedBegin("ABCDEFGHI"));
}

TEST(Text, EveryByteComparesAlikeAnywhereInAText) {
  const auto sign = [](int value) { return (value > 0) - (value < 0); };
  for (int left = 0; left < 256; ++left) {
    for (int right = 0; right < 256; ++right) {
      const std::string a(1, static_cast<char>(left));
      const std::string b(1, static_cast<char>(right));
      const int expected = sign(static_cast<unsigned char>(platform::FoldAscii(a[0])) -
                                static_cast<unsigned char>(platform::FoldAscii(b[0])));
      for (const std::string& before : {std::string(), std::string("aB\xC3"), std::string("abcdefghIJ")}) {
        ASSERT_EQ(sign(CompareIgnoringCase(before + a + "tail of it", before + b + "TAIL of it")), expected)
            << left << ' ' << right << ' ' << before;
      }
    }
  }
  EXPECT_LT(CompareIgnoringCase("0123456789abcdeA", "0123456789ABCDEaX"), 0);
  EXPECT_LT(CompareIgnoringCase("01234567a1234567", "01234567B0000000"), 0);
}

TEST(Text, AHashIgnoresCaseAndDependsOnTheSeed) {
  using platform::HashIgnoringCase;
  EXPECT_EQ(HashIgnoringCase("A File Of The Listing", 1), HashIgnoringCase("a fILE oF tHE lISTING", 1));
  EXPECT_NE(HashIgnoringCase("A File Of The Listing", 1), HashIgnoringCase("A File Of The Listing", 2));
  std::set<std::uint64_t> hashes;
  for (int i = 0; i < 10000; ++i)
    hashes.insert(HashIgnoringCase("file" + std::to_string(i), 7) & 0xFFFFFF);
  EXPECT_GT(hashes.size(), 9900U) << "the low bits spread";
  EXPECT_NE(HashIgnoringCase("", 7), HashIgnoringCase(std::string_view("\0", 1), 7));
  EXPECT_NE(platform::NewHashSeed(), platform::NewHashSeed());
  // Differences of two words that would cancel each other if the factor were known.
  int meetings = 0;
  for (std::uint64_t seed = 1; seed <= 1000; ++seed)
    meetings += HashIgnoringCase("0aaaaaaa0aaa0aaa", seed) == HashIgnoringCase("paaaaaaapaaapaaa", seed) ? 1 : 0;
  EXPECT_EQ(meetings, 0);
}

TEST(Text, AMapMayIgnoreCase) {
  std::map<std::string, int, platform::less_ignoring_case_t> map{{"One", 1}};
  EXPECT_EQ(map.count(std::string_view("ONE")), 1U);
  EXPECT_FALSE(map.emplace("oNE", 2).second);
}

TEST(Text, WellFormedUtf8IsValid) {
  for (const char* text : {"", "abc", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                           "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
    EXPECT_TRUE(IsValidUtf8(text)) << text;
  EXPECT_TRUE(IsValidUtf8(std::string_view("a\0b", 3)));
}

TEST(Text, IllFormedUtf8IsNotValid) {
  for (const char* text : {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC2", "\xC2z", "\xE0\x9F\xBF", "\xE0\xA0",
                           "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF0\x90\x80", "\xF4\x90\x80\x80",
                           "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", "\xFE", "\xFF", "ok\xE4"})
    EXPECT_FALSE(IsValidUtf8(text)) << testing::PrintToString(text);
}

TEST(Text, PathsAreSplitAtBothSeparators) {
  EXPECT_THAT(SplitPath("SOFTWARE\\KelvO/Kelvo NFS"), ElementsAre("SOFTWARE", "KelvO", "Kelvo NFS"));
  EXPECT_THAT(SplitPath("\\\\a//b\\"), ElementsAre("a", "b"));
  EXPECT_THAT(SplitPath(""), IsEmpty());
  EXPECT_THAT(SplitPath("/\\/"), IsEmpty());
}

TEST(Text, TrimTakesBothEnds) {
  EXPECT_EQ(Trim(" \t\n\r a b \r\n"), "a b");
  EXPECT_EQ(Trim(" \t"), "");
  EXPECT_EQ(Trim(""), "");
  EXPECT_EQ(Trim("xxaxx", "x"), "a");
}

TEST(Text, ConversionGoesBothWays) {
  EXPECT_EQ(Utf16FromUtf8("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"), u"a\u00E4\u20AC\U0001F600");
  for (const std::string text :
       {"", "plain", "\xC2\x80\xDF\xBF", "\xE0\xA0\x80\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    const auto wide = Utf16FromUtf8(text);
    ASSERT_TRUE(wide);
    EXPECT_EQ(Utf8FromUtf16(*wide), text);
  }
}

TEST(Text, ConversionRefusesWhatIsIllFormed) {
  EXPECT_FALSE(Utf16FromUtf8("a\xFF"));
  EXPECT_FALSE(Utf16FromUtf8("\xED\xA0\x80"));
  for (const std::u16string& text : {std::u16string{0xD800}, std::u16string{0xDC00}, std::u16string{0xD800, u'a'},
                                     std::u16string{0xDC00, 0xD800}, std::u16string{0xD800, 0xD800}})
    EXPECT_FALSE(Utf8FromUtf16(text));
}

TEST(Text, NumbersAreDecimalDigitsAlone) {
  EXPECT_EQ(ParseU32("0"), 0U);
  EXPECT_EQ(ParseU32("007"), 7U);
  EXPECT_EQ(ParseU32("4294967295"), 4294967295U);
  EXPECT_EQ(ParseU64("18446744073709551615"), 18446744073709551615U);
  for (const char* text : {"", " 1", "1 ", "+1", "-1", "0x1", "1.0", "4294967296", "99999999999999999999"})
    EXPECT_FALSE(ParseU32(text)) << text;
  EXPECT_FALSE(ParseU64("18446744073709551616"));
  EXPECT_FALSE(ParseU64("-0"));
}

}  // namespace
