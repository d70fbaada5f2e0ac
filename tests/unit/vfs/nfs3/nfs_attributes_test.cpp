#include "vfs/nfs3/nfs_attributes.h"

#include <gmock/gmock.h>

#include "support/xdr_record.h"
#include "unit/vfs/nfs3/sample_records.h"

using testing::ElementsAre;

namespace {

constexpr std::uint64_t TicksPerSecond = 10'000'000;

FILETIME FiletimeOfUnix(std::uint64_t seconds, std::uint64_t ticks = 0) {
  return (seconds + platform::FiletimeEpochSeconds) * TicksPerSecond + ticks;
}

TEST(NfsTime, CountsFrom1970) {
  EXPECT_EQ(NfsTimeFromFiletime(FiletimeOfUnix(0)), (nfstime3{0, 0}));
  EXPECT_EQ(NfsTimeFromFiletime(FiletimeOfUnix(1'000'000'000, 1)), (nfstime3{1'000'000'000, 100}));
  EXPECT_EQ(NfsTimeFromFiletime(FiletimeOfUnix(5, 9'999'999)), (nfstime3{5, 999'999'900}));
}

TEST(NfsTime, BeforeAndPastItsRangeWraps) {
  EXPECT_EQ(NfsTimeFromFiletime(0).seconds, 0x49EF6F00U);
  EXPECT_EQ(NfsTimeFromFiletime(FiletimeOfUnix(0) - TicksPerSecond).seconds, 0xFFFFFFFFU);
  EXPECT_EQ(NfsTimeFromFiletime(FiletimeOfUnix(0x100000003ULL)).seconds, 3U);
}

TEST(NfsTime, ClientsTimeIsStoredWithTheUnscaledEpoch) {
  EXPECT_EQ(FiletimeFromNfsTime({1'000'000'000, 250}), 1'000'000'000ULL * TicksPerSecond + 2 + 11644473600ULL);
  EXPECT_EQ(FiletimeFromNfsTime({0, 0}), 11644473600ULL);
  EXPECT_EQ(FiletimeFromNfsTime({0xFFFFFFFF, 0xFFFFFFFF}), 0xFFFFFFFFULL * TicksPerSecond + 42949672 + 11644473600ULL);
}

TEST(NfsTime, ClientsTimeDoesNotComeBackAsItWasSent) {
  const nfstime3 sent{1'000'000'000, 0};
  const nfstime3 back = NfsTimeFromFiletime(FiletimeFromNfsTime(sent));
  EXPECT_NE(back, sent);
  EXPECT_EQ(back.seconds, 1'000'000'000U + 1164U + 0x49EF6F00U);
}

TEST(Fattr, IsFilledFromTheAttributes) {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  attributes.attributes = platform::FileAttributeNormal;
  attributes.creationTime = FiletimeOfUnix(10);
  attributes.lastAccessTime = FiletimeOfUnix(20);
  attributes.lastWriteTime = FiletimeOfUnix(30);
  attributes.SetSize(1234);
  const fattr3 fattr = FattrFromAttributes(77, attributes);
  EXPECT_EQ(fattr.type, NF3REG);
  EXPECT_EQ(fattr.mode, 511U);
  EXPECT_EQ(fattr.nlink, 1U);
  EXPECT_EQ(fattr.uid, 1U);
  EXPECT_EQ(fattr.gid, 1U);
  EXPECT_EQ(fattr.size, 1234U);
  EXPECT_EQ(fattr.used, 1234U);
  EXPECT_EQ(fattr.rdev, specdata3{});
  EXPECT_EQ(fattr.fsid, 1U);
  EXPECT_EQ(fattr.fileid, 77U);
  EXPECT_EQ(fattr.atime, (nfstime3{20, 0}));
  EXPECT_EQ(fattr.mtime, (nfstime3{30, 0}));
  EXPECT_EQ(fattr.ctime, (nfstime3{10, 0}));

  const wcc_attr wcc = WccAttrFromAttributes(attributes);
  EXPECT_EQ(wcc, (wcc_attr{1234, {30, 0}, {10, 0}}));
}

TEST(Fattr, FolderIsADirectoryAndReadOnlyChangesNoMode) {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  attributes.attributes = platform::FileAttributeDirectory | platform::FileAttributeReadOnly;
  const fattr3 fattr = FattrFromAttributes(1, attributes);
  EXPECT_EQ(fattr.type, NF3DIR);
  EXPECT_EQ(fattr.mode, 511U);
}

TEST(Fattr, EmptyFileHasNoSize) {
  const fattr3 fattr = FattrFromAttributes(1, {});
  EXPECT_EQ(fattr.size, 0U);
  EXPECT_EQ(fattr.used, 0U);
}

TEST(Fattr, LargeSizeSendsItsHighWordFirst) {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  attributes.sizeHigh = 1;
  attributes.sizeLow = 0x40000000;
  const auto words = test::WordsOf(test::BytesOf(FattrFromAttributes(0x0000000900000008ULL, attributes)));
  ASSERT_EQ(words.size(), 21U);
  EXPECT_THAT(std::vector(words.begin(), words.begin() + 15),
              ElementsAre(1, 511, 1, 1, 1, 1, 0x40000000, 1, 0x40000000, 0, 0, 0, 1, 9, 8));
}

TEST(AttributeRecords, AreRecords) {
  test::CheckRecord(nfstime3{1, 2});
  test::CheckRecord(test::SampleFattr(1000));
  test::CheckRecord(wcc_attr{0x100000002ULL, {3, 4}, {5, 6}});
  test::CheckRecord(test::SampleWcc(50));
  test::CheckRecord(wcc_data{});
  test::CheckRecord(test::SampleSattr());
  test::CheckRecord(sattr3{});
}

TEST(Sattr, TimeFollowsForTheClientsTimeAlone) {
  for (const std::uint32_t how : {0U, 1U, 3U, 0xFFFFFFFFU}) {
    CXDRReader reader = test::ReaderOf(test::Words({0, 0, 0, 0, how, how}));
    sattr3 attributes;
    attributes.Decode(reader);
    EXPECT_EQ(attributes.atimeHow, how);
    EXPECT_EQ(attributes.mtimeHow, how);
    EXPECT_EQ(attributes.mtime, nfstime3{});
    EXPECT_EQ(reader.Remaining(), 0U);
  }
  CXDRReader reader = test::ReaderOf(test::Words({0, 0, 0, 0, 2, 5, 6, 1}));
  sattr3 attributes;
  attributes.Decode(reader);
  EXPECT_EQ(attributes.atime, (nfstime3{5, 6}));
  EXPECT_EQ(attributes.mtimeHow, 1U);
  EXPECT_EQ(reader.Remaining(), 0U);
}

}  // namespace
