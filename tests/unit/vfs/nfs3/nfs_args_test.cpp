#include "vfs/nfs3/nfs_args.h"

#include <gmock/gmock.h>

#include "foundation/exc.h"
#include "support/xdr_record.h"
#include "unit/vfs/nfs3/sample_records.h"

using testing::EndsWith;

namespace {

const nfs_fh3 Handle = HandleFromFid(0x0102030405060708ULL);
constexpr std::uint8_t Payload[] = {1, 2, 3, 4, 5};

TEST(NfsArgs, AreRecords) {
  test::CheckRecord(test::SampleDirOp(5, "name"));
  test::CheckRecord(GETATTR3args{Handle});
  test::CheckRecord(SETATTR3args{Handle, test::SampleSattr(), nfstime3{14, 15}});
  test::CheckRecord(SETATTR3args{Handle, {}, std::nullopt});
  test::CheckRecord(LOOKUP3args{test::SampleDirOp(5, "looked up")});
  test::CheckRecord(ACCESS3args{Handle, 0x3F});
  test::CheckRecord(READ3args{Handle, 0x0000000100000002ULL, 3});
  test::CheckRecord(WRITE3args{Handle, 0x0000000100000002ULL, 5, DATA_SYNC, Payload});
  test::CheckRecord(WRITE3args{Handle, 1, 0, UNSTABLE, {}});
  test::CheckRecord(CREATE3args{test::SampleDirOp(5, "made"), UNCHECKED, test::SampleSattr(), {}});
  test::CheckRecord(CREATE3args{test::SampleDirOp(5, "made"), GUARDED, test::SampleSattr(), {}});
  test::CheckRecord(CREATE3args{test::SampleDirOp(5, "made"), EXCLUSIVE, {}, {1, 2, 3, 4, 5, 6, 7, 8}});
  test::CheckRecord(CREATE3args{test::SampleDirOp(5, "made"), 3, {}, {}});
  test::CheckRecord(MKDIR3args{test::SampleDirOp(5, "folder"), test::SampleSattr()});
  test::CheckRecord(REMOVE3args{test::SampleDirOp(5, "gone")});
  test::CheckRecord(RMDIR3args{test::SampleDirOp(5, "")});
  test::CheckRecord(RENAME3args{test::SampleDirOp(5, "old"), test::SampleDirOp(6, "new")});
  test::CheckRecord(READDIRPLUS3args{Handle, 0x0000000100000002ULL, {8, 7, 6, 5, 4, 3, 2, 1}, 9, 10});
  test::CheckRecord(FSSTAT3args{Handle});
  test::CheckRecord(FSINFO3args{Handle});
}

TEST(NfsArgs, WriteDataLiesInTheRecord) {
  CXDRReader reader = test::ReaderOf(test::BytesOf(WRITE3args{Handle, 1, 5, UNSTABLE, Payload}));
  WRITE3args args;
  args.Decode(reader);
  const auto record = reader.Record();
  EXPECT_GE(args.data.data(), record.data());
  EXPECT_LE(args.data.data() + args.data.size(), record.data() + record.size());
}

TEST(NfsArgs, CreateWithAnUnknownModeReadsNothingMore) {
  CXDRWriter writer;
  test::SampleDirOp(5, "made").Encode(writer);
  writer.UInt(77);
  writer.UInt(0xABCDEF01);
  CXDRReader reader = test::ReaderOf(test::MessageOf(writer));
  CREATE3args args;
  args.Decode(reader);
  EXPECT_EQ(args.how, 77U);
  EXPECT_EQ(reader.Remaining(), 4U);
}

template <typename Args>
std::string FailureOf() {
  CXDRReader reader;
  Args args;
  try {
    args.Decode(reader);
  } catch (const exc::exc_base_t& exception) {
    return exception.what();
  }
  return "";
}

TEST(NfsArgs, FailuresAreWrappedInTheirTexts) {
  EXPECT_THAT(FailureOf<ACCESS3args>(), EndsWith("\nFailed to de-serialize ACCESS3Args"));
  EXPECT_THAT(FailureOf<CREATE3args>(), EndsWith("\nFailed to de-serialize CREATE3args structure."));
  EXPECT_THAT(FailureOf<FSINFO3args>(), EndsWith("\nFailed to de-serialize FSINFOArgs."));
  EXPECT_THAT(FailureOf<FSSTAT3args>(), EndsWith("\nFailed to de-serialize FSSTAT3args."));
  EXPECT_THAT(FailureOf<GETATTR3args>(), EndsWith("\nFailed to de-serialize GETATTR3args"));
  EXPECT_THAT(FailureOf<LOOKUP3args>(), EndsWith("\nFailed to de-serialize LOOKUP3args."));
  EXPECT_THAT(FailureOf<REMOVE3args>(), EndsWith("\nFailed to de-serialize REMOVE3Args structure."));
  EXPECT_THAT(FailureOf<SETATTR3args>(), EndsWith("\nFailed to de-serialize SETATTR3Args structure."));
  EXPECT_THAT(FailureOf<WRITE3args>(), EndsWith("\nFailed to de-serialize WRITE3Args"));
}

TEST(NfsArgs, TheOthersPassTheReadersFailureOn) {
  const std::string bare = FailureOf<READ3args>();
  EXPECT_THAT(bare, testing::HasSubstr("Wrong SUNRPC format in UInt()"));
  EXPECT_THAT(bare, testing::Not(testing::HasSubstr("serialize")));
  EXPECT_EQ(FailureOf<MKDIR3args>(), bare);
  EXPECT_EQ(FailureOf<RMDIR3args>(), bare);
  EXPECT_EQ(FailureOf<RENAME3args>(), bare);
  EXPECT_EQ(FailureOf<READDIRPLUS3args>(), bare);
}

}  // namespace
