#include "management/dcerpc/wide_text.h"

#include <gmock/gmock.h>

#include "foundation/exc.h"

using testing::HasSubstr;

namespace {

TEST(WideText, ConvertsBothWays) {
  EXPECT_EQ(dcerpc::NarrowText(u""), "");
  EXPECT_EQ(dcerpc::NarrowText(u"a\u20ac\U0001F600"), "a\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(dcerpc::WideText(""), u"");
  EXPECT_EQ(dcerpc::WideText("a\xE2\x82\xAC\xF0\x9F\x98\x80"), u"a\u20ac\U0001F600");
}

TEST(WideText, ASurrogateAloneFails) {
  for (const std::u16string text : {u"\xD800", u"\xDC00", u"a\xD800z", u"\xDC00\xD800"}) {
    try {
      dcerpc::NarrowText(text);
      FAIL();
    } catch (const exc::win_sys_exc_t& failure) {
      EXPECT_EQ(failure.Code(), 1113U);
      EXPECT_THAT(failure.what(), HasSubstr("Unicode string cannot be converted to UTF8 string."));
    }
  }
}

TEST(WideText, WhatIsNoUtf8FailsAndIsShown) {
  for (const std::string text : {"a\xFF", "\xC0\x80", "\xED\xA0\x80", "\xE2\x82"}) {
    try {
      dcerpc::WideText(text);
      FAIL();
    } catch (const exc::win_sys_exc_t& failure) {
      EXPECT_EQ(failure.Code(), 1113U);
      EXPECT_THAT(failure.what(), HasSubstr("Multibyte UTF8 string cannot be converted to unicode string. "
                                            "Source string: [" +
                                            text + "]."));
    }
  }
}

TEST(WideText, AMessageArrivesWhateverItHolds) {
  EXPECT_EQ(dcerpc::WideTextOrReplaced("a\xE2\x82\xAC"), u"a\u20ac");
  EXPECT_EQ(dcerpc::WideTextOrReplaced("\xFF"
                                       "a\xE2\x82\xAC\xF0\x9F\x98\x80\xE2\x82"),
            u"\uFFFDa\u20ac\U0001F600\uFFFD\uFFFD");
  EXPECT_EQ(dcerpc::WideTextOrReplaced("\xED\xA0\x80"), u"\uFFFD\uFFFD\uFFFD");
}

}  // namespace
