#include "service/perf_log_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/common_options.h"
#include "config/reg_keys.h"
#include "config/reg_options.h"
#include "foundation/perf_logger.h"
#include "platform/sqlite_registry.h"
#include "support/captured_log.h"
#include "support/perf_log.h"
#include "support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PerfLogControl : public testing::Test {
 protected:
  PerfLogControl() { platform::registry_t::SetInstance(&registry_); }
  ~PerfLogControl() override {
    StopPerfLog();
    CCommonOptions::Instance() = CCommonOptions();
    platform::registry_t::SetInstance(nullptr);
  }

  test::TempDir folder_;
  const std::string path_ = folder_ / "made/own.perf";
  platform::sqlite_registry_t registry_{folder_ / "registry.db"};
};

TEST_F(PerfLogControl, APathStartsTheLogAndTheStopWritesTheCounters) {
  registry_.SetText(regkeys::Root, "PerfLogPath", path_);
  const CRegOptions options(true);
  const test::CapturedLog lines;
  StartPerfLog(options);
  EXPECT_TRUE(perf::IsOn());
  EXPECT_THAT(lines.Texts(), ElementsAre("Perfomance log is enabled. Path to log: \"" + path_ + "\"."));
  StopPerfLog();
  EXPECT_FALSE(perf::IsOn());
  const auto records = test::ReadPerfLog(path_);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].eventType, perf::event::SocketTotals);
  StopPerfLog();
  EXPECT_EQ(test::ReadPerfLog(path_).size(), 1U);
}

TEST_F(PerfLogControl, NoPathAndAnEmptyOneAreNoLog) {
  const test::CapturedLog lines;
  StartPerfLog(CRegOptions(false));
  EXPECT_FALSE(perf::IsOn());
  registry_.SetText(regkeys::Root, "PerfLogPath", "");
  const CRegOptions options(true);
  StartPerfLog(options);
  EXPECT_FALSE(perf::IsOn());
  EXPECT_EQ(lines.Count("Perfomance log is enabled. Path to log: \"\"."), 0U);
}

TEST_F(PerfLogControl, TheBufferIs128KiBWithoutAnOption) {
  EXPECT_EQ(CCommonOptions().perfBufSize, 0x20000U);
  registry_.SetText(regkeys::Root, "PerfLogPath", path_);
  StartPerfLog(CRegOptions(true));
  const std::string data(0x20000 - 20 + 1, 'x');
  perf::WriteEvent(1, static_cast<std::uint32_t>(data.size()), data.data());
  perf::WriteEvent(2, static_cast<std::uint32_t>(data.size() - 1), data.data());
  StopPerfLog();
  const auto records = test::ReadPerfLog(path_);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].eventType, 2U);
}

TEST_F(PerfLogControl, TheBufferHasTheSizeThatTheOptionTells) {
  registry_.SetText(regkeys::Root, "PerfLogPath", path_);
  registry_.SetDword("SOFTWARE\\Kelvo\\Kelvo Vault", "PerfBufSize", 40);
  CCommonOptions::Instance().LoadOptions();
  StartPerfLog(CRegOptions(true));
  perf::WriteEvent(1, 21, std::string(21, 'x').data());
  perf::WriteEvent(2, 20, std::string(20, 'x').data());
  StopPerfLog();
  const auto records = test::ReadPerfLog(path_);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].eventType, 2U);
}

TEST_F(PerfLogControl, ABufferOfNothingLosesAllAndStopsNothing) {
  registry_.SetText(regkeys::Root, "PerfLogPath", path_);
  CCommonOptions::Instance().perfBufSize = 0;
  StartPerfLog(CRegOptions(true));
  EXPECT_TRUE(perf::IsOn());
  StopPerfLog();
  EXPECT_THAT(test::BytesOfFile(path_), IsEmpty());
}

}  // namespace
