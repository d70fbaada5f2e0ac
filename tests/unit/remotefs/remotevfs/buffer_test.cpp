#include "remotefs/remotevfs/buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "foundation/exc.h"
#include "remotefs/remotevfs/reply_reader.h"
#include "support/failure_text.h"

namespace {

using remotevfs::Buffer;
using remotevfs::ReplyReader;
using testing::ElementsAre;
using bytes_t = std::vector<std::uint8_t>;
using test::FailureOf;

TEST(VfsBufferTest, BeginsEmptyWithItsCapacity) {
  Buffer buffer(0x10020);
  EXPECT_EQ(buffer.Capacity(), 65568U);
  EXPECT_EQ(buffer.ActualSize(), 0U);
  EXPECT_EQ(Buffer().Capacity(), 0U);
}

TEST(VfsBufferTest, GrowsByHalvesFromAtLeast32) {
  Buffer buffer;
  buffer.Append(bytes_t(1));
  EXPECT_EQ(buffer.Capacity(), 32U);
  buffer.Append(bytes_t(31));
  EXPECT_EQ(buffer.Capacity(), 32U);
  buffer.Append(bytes_t(1));
  EXPECT_EQ(buffer.Capacity(), 48U);
  buffer.Append(bytes_t(100));
  EXPECT_EQ(buffer.Capacity(), 162U);  // 48, 72, 108, 162
  EXPECT_EQ(buffer.ActualSize(), 133U);

  Buffer small(10);
  small.Append(bytes_t(10));
  EXPECT_EQ(small.Capacity(), 10U);
  small.Append(bytes_t(1));
  EXPECT_EQ(small.Capacity(), 32U);

  Buffer large(0x10020);
  large.Append(bytes_t(0x10020));
  large.Append(bytes_t(1));
  EXPECT_EQ(large.Capacity(), 0x10020U + 0x8010U);
}

TEST(VfsBufferTest, KeepsItsBytesWhileItGrows) {
  Buffer buffer;
  bytes_t expected;
  for (int i = 0; i < 1000; ++i) {
    const bytes_t piece(static_cast<std::size_t>(i % 7), static_cast<std::uint8_t>(i));
    buffer.Append(piece);
    expected.insert(expected.end(), piece.begin(), piece.end());
  }
  EXPECT_EQ(bytes_t(buffer.Bytes().begin(), buffer.Bytes().end()), expected);
  buffer.Clear();
  EXPECT_TRUE(buffer.Bytes().empty());
}

TEST(VfsBufferTest, TheActualSizeEndsAtTheCapacity) {
  Buffer buffer(8);
  buffer.SetActualSize(8);
  EXPECT_EQ(buffer.ActualSize(), 8U);
  EXPECT_EQ(FailureOf([&] { buffer.SetActualSize(9); }), "Buffer::SetActualSize error.");
  EXPECT_EQ(buffer.ActualSize(), 8U);
}

TEST(VfsBufferTest, WritesNumbersAndStrings) {
  Buffer buffer;
  buffer.AppendU32(0x01020304);
  buffer.AppendU64(0x1112131415161718);
  buffer.AppendString("ab");
  buffer.AppendString("");
  EXPECT_THAT(buffer.Bytes(), ElementsAre(4, 3, 2, 1, 0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 2, 0, 0, 0, 'a',
                                          'b', 0, 0, 0, 0));
}

TEST(VfsReplyReaderTest, ReadsNumbersAndStrings) {
  const bytes_t bytes{4, 3, 2, 1, 0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 2, 0, 0, 0, 'a', 'b', 0, 0, 0, 0};
  ReplyReader reader(bytes);
  EXPECT_EQ(reader.U32(), 0x01020304U);
  EXPECT_EQ(reader.U64(), 0x1112131415161718U);
  EXPECT_EQ(reader.String(), "ab");
  EXPECT_EQ(reader.String(), "");
  EXPECT_EQ(FailureOf([&] { reader.U32(); }), "Invalid data stream");
}

TEST(VfsReplyReaderTest, ALengthThatLiesIsRefused) {
  for (const std::uint8_t length : bytes_t{3, 4, 255}) {
    const bytes_t bytes{length, 0, 0, 0, 'a', 'b'};
    EXPECT_EQ(FailureOf([&] { ReplyReader(bytes).String(); }), "Invalid data stream");
  }
  const bytes_t most{0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'};
  EXPECT_EQ(FailureOf([&] { ReplyReader(most).String(); }), "Invalid data stream");
}

}  // namespace
