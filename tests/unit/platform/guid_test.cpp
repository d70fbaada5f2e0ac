#include "platform/guid.h"

#include <gtest/gtest.h>

#include <set>

namespace {

constexpr const char* Text = "{0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0}";

TEST(Guid, TextAndBytesStandInTheSameOrder) {
  const auto guid = platform::GuidFromText(Text);
  ASSERT_TRUE(guid);
  EXPECT_EQ(guid->bytes[0], 0x0F);
  EXPECT_EQ(guid->bytes[15], 0xF0);
  EXPECT_EQ(platform::GuidToText(*guid), Text);
}

TEST(Guid, UpperCaseIsReadAndLowerCaseWritten) {
  const auto guid = platform::GuidFromText("{0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0}");
  ASSERT_TRUE(guid);
  EXPECT_EQ(platform::GuidToText(*guid), Text);
}

TEST(Guid, TheNilGuidIsAllZeros) {
  EXPECT_EQ(platform::GuidToText(GUID{}), "{00000000-0000-0000-0000-000000000000}");
  EXPECT_TRUE(platform::GuidFromText("{00000000-0000-0000-0000-000000000000}")->IsNil());
  EXPECT_FALSE(platform::GuidFromText(Text)->IsNil());
}

TEST(Guid, WhatIsNoGuidIsNone) {
  const std::string whole = Text;
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_FALSE(platform::GuidFromText(whole.substr(0, length))) << length;
  EXPECT_FALSE(platform::GuidFromText(whole + " "));
  for (std::size_t i = 0; i < whole.size(); ++i) {
    std::string damaged = whole;
    damaged[i] = 'g';
    EXPECT_FALSE(platform::GuidFromText(damaged)) << i;
  }
}

TEST(Guid, NewOnesAreRandomOfVersion4) {
  std::set<GUID> seen;
  for (int i = 0; i < 1000; ++i) {
    const GUID guid = platform::NewGuid();
    EXPECT_EQ(guid.bytes[6] & 0xF0, 0x40);
    EXPECT_EQ(guid.bytes[8] & 0xC0, 0x80);
    EXPECT_TRUE(seen.insert(guid).second);
  }
}

}  // namespace
