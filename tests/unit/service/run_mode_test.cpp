#include "service/run_mode.h"

#include <gtest/gtest.h>

namespace {

run_mode_t ModeOf(std::vector<std::string> switches) {
  switches.insert(switches.begin(), "KelvoNfsSvc");
  return ChooseRunMode(CCommandLine(std::move(switches)));
}

TEST(RunMode, NoSwitchIsTheService) {
  EXPECT_EQ(ModeOf({}), run_mode_t::Service);
  EXPECT_EQ(ModeOf({"-sync", "-port", "1", "-verbose", "unknown"}), run_mode_t::Service);
  EXPECT_EQ(ChooseRunMode(CCommandLine()), run_mode_t::Service);
}

TEST(RunMode, SwitchesMatchInAnyCase) {
  EXPECT_EQ(ModeOf({"-VerifyCN"}), run_mode_t::Verify);
  EXPECT_EQ(ModeOf({"-DEBUG"}), run_mode_t::Debug);
  EXPECT_EQ(ModeOf({"-LogReceiver"}), run_mode_t::LogReceiver);
}

TEST(RunMode, VerificationComesBeforeAllAndDebugBeforeTheReceiver) {
  EXPECT_EQ(ModeOf({"-debug", "-verifycn"}), run_mode_t::Verify);
  EXPECT_EQ(ModeOf({"-logreceiver", "-verifycn"}), run_mode_t::Verify);
  EXPECT_EQ(ModeOf({"-logreceiver", "-debug"}), run_mode_t::Debug);
}

}  // namespace
