#include "vfs/nfs3/nfs_handle.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>

#include "foundation/exc.h"
#include "support/xdr_record.h"

namespace {

using bytes_t = std::vector<std::uint8_t>;

nfs_fh3 Received(const bytes_t& bytes) {
  CXDRWriter writer;
  writer.VarLenData(bytes.data(), bytes.size());
  CXDRReader reader = test::ReaderOf(test::MessageOf(writer));
  nfs_fh3 handle;
  handle.Decode(reader);
  EXPECT_EQ(reader.Remaining(), 0U);
  return handle;
}

TEST(NfsHandle, HoldsTheFidLeastSignificantByteFirst) {
  const nfs_fh3 handle = HandleFromFid(0x0102030405060708ULL);
  bytes_t expected{8, 7, 6, 5, 4, 3, 2, 1};
  expected.resize(23, 0);
  EXPECT_TRUE(std::ranges::equal(handle.Bytes(), expected));
}

TEST(NfsHandle, TakesTwentyEightBytesOnTheWire) {
  const bytes_t bytes = test::BytesOf(HandleFromFid(1));
  ASSERT_EQ(bytes.size(), 28U);
  EXPECT_EQ(bytes[3], 23);
  EXPECT_EQ(bytes[27], 0);
}

TEST(NfsHandle, GivesItsFidBack) {
  for (const std::uint64_t fid : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{0x8000000000000001ULL},
                                  std::numeric_limits<std::uint64_t>::max()}) {
    EXPECT_EQ(FidFromHandle(HandleFromFid(fid)), fid);
  }
}

TEST(NfsHandle, IsARecord) {
  test::CheckRecord(HandleFromFid(0x1122334455667788ULL));
}

TEST(NfsHandle, NeedsEightBytesAndNoMore) {
  const bytes_t full(100, 3);
  for (const std::size_t size : {0U, 1U, 7U}) {
    const nfs_fh3 handle = Received(bytes_t(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(size)));
    try {
      FidFromHandle(handle);
      FAIL() << size;
    } catch (const exc::runtime_exc_t& exception) {
      EXPECT_STREQ(exception.what(), "Cannot generate FID from file handle.");
    }
  }
  for (const std::size_t size : {8U, 9U, 23U, 63U, 64U, 65U, 100U}) {
    const nfs_fh3 handle = Received(bytes_t(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(size)));
    EXPECT_EQ(FidFromHandle(handle), 0x0303030303030303ULL) << size;
    EXPECT_LE(handle.size, nfs_fh3::MaxSize);
  }
}

TEST(NfsHandle, BytesPastTheFidAreNotLookedAt) {
  bytes_t bytes{5, 0, 0, 0, 0, 0, 0, 0};
  bytes.resize(23, 0xEE);
  EXPECT_EQ(FidFromHandle(Received(bytes)), 5U);
}

}  // namespace
