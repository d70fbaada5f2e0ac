#include "vfs/nfs3/nfs_results.h"

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>

#include "foundation/exc.h"
#include "support/xdr_record.h"
#include "unit/vfs/nfs3/sample_records.h"

using testing::ElementsAre;

namespace {

const nfs_fh3 Handle = HandleFromFid(5);
constexpr nfs_verifier_t Verifier = {1, 2, 3, 4, 5, 6, 7, 8};

boost::shared_ptr<const io::byte_buffer_t> Bytes(std::size_t size) {
  return boost::make_shared<const io::byte_buffer_t>(size, std::uint8_t{0x5A});
}

template <typename Result>
std::vector<std::uint32_t> FailedWords() {
  Result result;
  SetFailedResult(result, 70);
  test::CheckRecord(result);
  return test::WordsOf(test::BytesOf(result));
}

TEST(NfsResults, SuccessesAreRecords) {
  const fattr3 attributes = test::SampleFattr(1);
  const fattr3 others = test::SampleFattr(300);
  test::CheckRecord(GETATTR3res{0, attributes});
  test::CheckRecord(SETATTR3res{0, test::SampleWcc(1)});
  test::CheckRecord(LOOKUP3res{0, Handle, attributes, others});
  test::CheckRecord(ACCESS3res{0, attributes, 0x1F});
  test::CheckRecord(READ3res{0, std::nullopt, 5, true, Bytes(5)});
  test::CheckRecord(READ3res{0, attributes, 0, true, nullptr});
  test::CheckRecord(WRITE3res{0, test::SampleWcc(1), 4, FILE_SYNC, Verifier});
  test::CheckRecord(CREATE3res{0, Handle, attributes, test::SampleWcc(1)});
  test::CheckRecord(MKDIR3res{0, Handle, attributes, test::SampleWcc(1)});
  test::CheckRecord(REMOVE3res{0, test::SampleWcc(1)});
  test::CheckRecord(RMDIR3res{0, test::SampleWcc(1)});
  test::CheckRecord(RENAME3res{0, test::SampleWcc(1), test::SampleWcc(500)});
  test::CheckRecord(entryplus3{6, "entry", 7, attributes, Handle});
  test::CheckRecord(READDIRPLUS3res{
      0, attributes, Verifier, {{6, "one", 1, std::nullopt, Handle}, {7, "two", 2, others, std::nullopt}}, true});
  test::CheckRecord(FSSTAT3res{0, attributes, 1, 2, 3, 4, 5, 6, 7});
  test::CheckRecord(FSINFO3res{0, attributes, 1, 2, 3, 4, 5, 6, 7, 8, {9, 10}, 11});
}

TEST(NfsResults, FailedFormsAreTheseWords) {
  EXPECT_THAT(FailedWords<GETATTR3res>(), ElementsAre(70));
  EXPECT_THAT(FailedWords<SETATTR3res>(), ElementsAre(70, 0, 0));
  EXPECT_THAT(FailedWords<LOOKUP3res>(), ElementsAre(70, 0));
  EXPECT_THAT(FailedWords<ACCESS3res>(), ElementsAre(70, 0));
  EXPECT_THAT(FailedWords<READ3res>(), ElementsAre(70, 0));
  EXPECT_THAT(FailedWords<WRITE3res>(), ElementsAre(70, 0, 0));
  EXPECT_THAT(FailedWords<CREATE3res>(), ElementsAre(70, 0, 0));
  EXPECT_THAT(FailedWords<MKDIR3res>(), ElementsAre(70, 0, 0));
  EXPECT_THAT(FailedWords<REMOVE3res>(), ElementsAre(70, 0, 0));
  EXPECT_THAT(FailedWords<RMDIR3res>(), ElementsAre(70, 0, 0));
  EXPECT_THAT(FailedWords<RENAME3res>(), ElementsAre(70, 0, 0, 0, 0));
  EXPECT_THAT(FailedWords<READDIRPLUS3res>(), ElementsAre(70, 0));
  EXPECT_THAT(FailedWords<FSSTAT3res>(), ElementsAre(70, 0));
  EXPECT_THAT(FailedWords<FSINFO3res>(), ElementsAre(70, 0));
}

TEST(NfsResults, FailingDropsWhatWasFilledBefore) {
  LOOKUP3res result{0, Handle, test::SampleFattr(1), test::SampleFattr(2)};
  SetFailedResult(result, NFS3ERR_STALE);
  EXPECT_EQ(result, (LOOKUP3res{NFS3ERR_STALE, {}, {}, {}}));
}

TEST(NfsResults, ReadIsStatusNoAttributesCountEofAndData) {
  const READ3res result{0, std::nullopt, 5, true, Bytes(8)};
  EXPECT_THAT(test::WordsOf(test::BytesOf(result)), ElementsAre(0, 0, 5, 1, 5, 0x5A5A5A5A, 0x5A000000));
}

TEST(NfsResults, ReadSendsItsBufferItself) {
  const auto data = Bytes(8);
  CXDRWriter writer;
  READ3res{0, std::nullopt, 8, false, data}.Encode(writer);
  const auto segments = writer.TakeSegments(true);
  ASSERT_EQ(segments.size(), 2U);
  EXPECT_EQ(segments[1].buffer, data);
}

TEST(NfsResults, ReadWithLessDataThanItsCountIsRefused) {
  CXDRReader reader = test::ReaderOf(test::Words({0, 0, 9, 1, 4, 0}));
  READ3res result;
  EXPECT_THROW(result.Decode(reader), exc::runtime_exc_t);
  CXDRWriter writer;
  EXPECT_THROW((READ3res{0, std::nullopt, 9, true, Bytes(8)}.Encode(writer)), exc::runtime_exc_t);
}

TEST(NfsResults, ListingIsAChainOfEntries) {
  const READDIRPLUS3res result{0, std::nullopt, {}, {{5, "ab", 1, std::nullopt, Handle}}, true};
  EXPECT_THAT(test::WordsOf(test::BytesOf(result)),
              ElementsAre(0, 0, 0, 0, 1, 0, 5, 2, 0x61620000, 0, 1, 0, 1, 23, 0x05000000, 0, 0, 0, 0, 0, 0, 1));
  const READDIRPLUS3res empty{0, std::nullopt, {}, {}, true};
  EXPECT_THAT(test::WordsOf(test::BytesOf(empty)), ElementsAre(0, 0, 0, 0, 0, 1));
}

}  // namespace
