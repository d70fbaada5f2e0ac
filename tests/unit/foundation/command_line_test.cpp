#include "foundation/command_line.h"

#include <gtest/gtest.h>

#include "foundation/exc.h"

namespace {

TEST(CommandLine, SwitchesMatchInAnyCase) {
  const CCommandLine line({"KelvoNfsSvc", "-DeBuG", "-sync"});
  EXPECT_EQ(line.Find("-debug"), 1U);
  EXPECT_EQ(line.Find("-SYNC"), 2U);
  EXPECT_FALSE(line.Has("-logreceiver"));
  EXPECT_FALSE(line.Has("-debu"));
  EXPECT_FALSE(line.Has("debug"));
}

TEST(CommandLine, TheFirstMatchCountsAndArgumentZeroIsSearched) {
  const CCommandLine line({"-port", "1", "-port", "2"});
  EXPECT_EQ(line.Find("-port"), 0U);
  EXPECT_EQ(line.ValueOf("-port"), "1");
}

TEST(CommandLine, ValueIsTheNextArgumentWhateverItIs) {
  const CCommandLine line({"x", "-log", "-debug"});
  EXPECT_EQ(line.ValueOf("-log"), "-debug");
  EXPECT_TRUE(line.Has("-debug"));
}

TEST(CommandLine, TrailingSwitchHasNoValue) {
  const CCommandLine line({"x", "-port"});
  EXPECT_TRUE(line.Has("-port"));
  EXPECT_FALSE(line.ValueOf("-port"));
  EXPECT_FALSE(line.ValueOf("-log"));
  EXPECT_FALSE(CCommandLine().Has("-port"));
}

TEST(CommandLine, WithoutTakesTheSwitchAndItsValue) {
  const CCommandLine line({"x", "-LOG", "a", "-port", "1", "-log"});
  EXPECT_EQ(line.Without("-log").Arguments(), (std::vector<std::string>{"x", "-port", "1", "-log"}));
  EXPECT_EQ(line.Without("-log").Without("-log").Arguments(), (std::vector<std::string>{"x", "-port", "1"}));
  EXPECT_EQ(line.Without("-sync").Arguments(), line.Arguments());
}

TEST(CommandLine, ComesFromTheArgumentVector) {
  const char* const arguments[] = {"x", "-sync", nullptr};
  EXPECT_EQ(CCommandLine(2, arguments).Arguments(), (std::vector<std::string>{"x", "-sync"}));
  EXPECT_THROW(CCommandLine(0, arguments), exc::runtime_exc_t);
}

}  // namespace
