#include "vfs/table/nfs_log_filter.h"

#include <gtest/gtest.h>

#include "support/captured_log.h"

namespace {

class LogFilter : public ::testing::Test {
 public:
  std::uint64_t now = 1000000;
  CNfsLogFilter filter{[this] { return now; }};
};

TEST_F(LogFilter, AFailureIsToldOnceInHalfAnHour) {
  EXPECT_TRUE(filter.AdmitGetAttrs(1));
  EXPECT_FALSE(filter.AdmitGetAttrs(1));
  now += CNfsLogFilter::PurgePeriodMsec - 1;
  EXPECT_FALSE(filter.AdmitGetAttrs(1));
  now += 1;
  EXPECT_TRUE(filter.AdmitGetAttrs(1));
  EXPECT_FALSE(filter.AdmitGetAttrs(1));
}

TEST_F(LogFilter, EveryOperationHasItsOwnKeys) {
  EXPECT_TRUE(filter.AdmitGetAttrs(1));
  EXPECT_TRUE(filter.AdmitRead(1));
  EXPECT_TRUE(filter.AdmitWrite(1));
  EXPECT_TRUE(filter.AdmitRead(2));
  EXPECT_FALSE(filter.AdmitRead(1));
  EXPECT_FALSE(filter.AdmitWrite(1));
}

TEST_F(LogFilter, ALookupIsKeyedByFolderAndName) {
  EXPECT_TRUE(filter.AdmitLookup(1, "a"));
  EXPECT_TRUE(filter.AdmitLookup(1, "b"));
  EXPECT_TRUE(filter.AdmitLookup(2, "a"));
  EXPECT_FALSE(filter.AdmitLookup(1, "a"));
}

TEST_F(LogFilter, AMountLossIsKeyedByShareAndMount) {
  test::CapturedLog log;
  GUID one;
  GUID two;
  two.bytes[0] = 2;
  CBackupMountCfg cfg;
  cfg.nfsFolderID = one;
  cfg.vmName = "machine";
  cfg.pipe = "vm1";
  filter.ReportLost(two, cfg);
  filter.ReportLost(two, cfg);
  const std::string line = "[Mount] Failed to re-connect mount agent. VM: \"machine\". Mount ID: \"" +
                           platform::GuidToText(two) + "\".  Pipe: \"vm1\".";
  EXPECT_EQ(log.Texts("Warning"), std::vector<std::string>{line});
  cfg.nfsFolderID = two;
  filter.ReportLost(one, cfg);
  EXPECT_EQ(log.Texts("Warning").size(), 2U);
  now += CNfsLogFilter::PurgePeriodMsec;
  cfg.nfsFolderID = one;
  filter.ReportLost(two, cfg);
  EXPECT_EQ(log.Count(line), 2U);
}

TEST_F(LogFilter, EndlessNewNamesDoNotGrowIt) {
  EXPECT_TRUE(filter.AdmitLookup(0, "first"));
  for (std::uint64_t i = 1; i < CNfsLogFilter::MaxKeys; ++i)
    EXPECT_TRUE(filter.AdmitLookup(i, "name"));
  EXPECT_TRUE(filter.AdmitLookup(0, "first")) << "the full set was emptied";
  const std::string longName(1000, 'x');
  EXPECT_TRUE(filter.AdmitLookup(1, longName));
  EXPECT_FALSE(filter.AdmitLookup(1, longName + "y")) << "only the beginning is kept";
}

}  // namespace
