#include "management/version_compatibility.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/config/config_fixture.h"

namespace {

TEST(VersionCompatibility, TheModulesOwnVersionAndLaterOnesPass) {
  for (const char* console : {"1.2.3.4", "1.2.3.5", "1.2.4.0", "1.3.0.0", "2.0.0.0", "01.02.03.04"})
    EXPECT_TRUE(IsConsoleCompatible(console, "1.2.3.4")) << console;
  for (const char* console : {"1.2.3.3", "1.2.2.9", "1.1.9.9", "0.9.9.9"})
    EXPECT_FALSE(IsConsoleCompatible(console, "1.2.3.4")) << console;
}

TEST(VersionCompatibility, PartsAreHalfWords) {
  EXPECT_TRUE(IsConsoleCompatible("1.65536.0.0", "1.0.0.0")) << "its bit is that of the first part, which has it";
  EXPECT_TRUE(IsConsoleCompatible("65535.65535.65535.65535", "65535.65535.65535.65535"));
  EXPECT_FALSE(IsConsoleCompatible("32767.0.0.0", "65535.0.0.0")) << "words have no sign";
}

TEST(VersionCompatibility, AnythingButFourNumbersIsTold) {
  for (const char* console : {"", "1", "1.2.3", "1.2.3.4.5", "1..3.4", ".1.2.3", "1.2.3.", "a.b.c.d", "1.2.3.x",
                              "1.2.3.4 ", "-1.0.0.0", "1,2,3,4", "4294967296.0.0.0"}) {
    EXPECT_THAT(test::ThrownTexts([&] { IsConsoleCompatible(console, "1.0.0.0"); }),
                testing::ElementsAre("Failed to parse version string '" + std::string(console) + "'."));
  }
}

}  // namespace
