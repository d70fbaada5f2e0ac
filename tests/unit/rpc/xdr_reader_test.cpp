#include "rpc/xdr_reader.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <new>

#include "foundation/exc.h"
#include "support/kernel_pipe_of.h"
#include "support/xdr_record.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using bytes_t = std::vector<std::uint8_t>;

TEST(XdrReader, ReadsBigEndianWordsInOrder) {
  CXDRReader reader = test::ReaderOf(bytes_t{1, 2, 3, 4, 0, 0, 0, 5, 0, 0, 0, 6});
  EXPECT_EQ(reader.UInt(), 0x01020304U);
  EXPECT_EQ(reader.UInt64(), 0x0000000500000006ULL);
  EXPECT_EQ(reader.Remaining(), 0U);
}

TEST(XdrReader, ShortWordFailsWithTheFixedCode) {
  for (std::size_t size = 0; size < 4; ++size) {
    CXDRReader reader(size);
    try {
      reader.UInt();
      FAIL() << size;
    } catch (const exc::win_sys_exc_t& exception) {
      EXPECT_EQ(exception.Code(), 0x80004005U);
      EXPECT_THAT(exception.what(), HasSubstr("Wrong SUNRPC format in UInt()"));
    }
    EXPECT_EQ(reader.Remaining(), size);
  }
}

TEST(XdrReader, EmptyReaderHoldsNothing) {
  CXDRReader reader;
  EXPECT_EQ(reader.Remaining(), 0U);
  EXPECT_TRUE(reader.Record().empty());
  EXPECT_THROW(reader.UInt(), exc::win_sys_exc_t);
  EXPECT_THROW(reader.Fixed8(), exc::runtime_exc_t);
}

TEST(XdrReader, ShortDoubleWordFails) {
  CXDRReader reader(7);
  try {
    reader.UInt64();
    FAIL();
  } catch (const exc::win_sys_exc_t& exception) {
    EXPECT_THAT(exception.what(), HasSubstr("Wrong SUNRPC format in UInt64()"));
  }
}

TEST(XdrReader, AnyNonZeroWordIsTrue) {
  CXDRReader reader = test::ReaderOf(test::Words({0, 1, 256}));
  EXPECT_FALSE(reader.Bool());
  EXPECT_TRUE(reader.Bool());
  EXPECT_TRUE(reader.Bool());
}

TEST(XdrReader, OpaqueOfFiveTakesTwelveBytes) {
  CXDRReader reader = test::ReaderOf(bytes_t{0, 0, 0, 5, 1, 2, 3, 4, 5, 0xFF, 0xFF, 0xFF, 9});
  io::byte_buffer_t out;
  reader.VarLenData(out);
  EXPECT_THAT(out, ElementsAre(1, 2, 3, 4, 5));
  EXPECT_EQ(reader.Remaining(), 1U);
}

TEST(XdrReader, EmptyOpaqueLeavesTheOutputAlone) {
  CXDRReader reader = test::ReaderOf(test::Words({0}));
  io::byte_buffer_t out{7, 8};
  reader.VarLenData(out);
  EXPECT_THAT(out, ElementsAre(7, 8));
  EXPECT_EQ(reader.Remaining(), 0U);
}

TEST(XdrReader, OpaqueNeedsItsPaddingToo) {
  CXDRReader reader = test::ReaderOf(bytes_t{0, 0, 0, 5, 1, 2, 3, 4, 5});
  io::byte_buffer_t out;
  try {
    reader.VarLenData(out);
    FAIL();
  } catch (const exc::win_sys_exc_t& exception) {
    EXPECT_THAT(exception.what(), HasSubstr("Wrong SUNRPC format in VarLenData()"));
  }
}

TEST(XdrReader, HugeOpaqueIsAFormatError) {
  for (const std::uint32_t length : {9U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFCU}) {
    CXDRReader reader = test::ReaderOf(test::Words({length, 1, 2}));
    EXPECT_THROW(reader.VarLenView(), exc::win_sys_exc_t) << length;
  }
}

TEST(XdrReader, LengthThatWrapsFailsAsTheAllocatorDoes) {
  for (const std::uint32_t length : {0xFFFFFFFDU, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
    const auto record = test::Words({length, 1, 2});
    CXDRReader forData = test::ReaderOf(record);
    io::byte_buffer_t out;
    EXPECT_THROW(forData.VarLenData(out), std::bad_alloc);
    EXPECT_TRUE(out.empty());
    CXDRReader forText = test::ReaderOf(record);
    EXPECT_THROW(forText.String(), std::bad_alloc);
    CXDRReader forView = test::ReaderOf(record);
    EXPECT_THROW(forView.VarLenView(), std::bad_alloc);
  }
}

TEST(XdrReader, TextKeepsItsZeroBytes) {
  CXDRReader reader = test::ReaderOf(bytes_t{0, 0, 0, 3, 'a', 0, 'b', 0});
  EXPECT_EQ(reader.String(), std::string("a\0b", 3));
  EXPECT_EQ(reader.Remaining(), 0U);
}

TEST(XdrReader, EmptyTextIsEmpty) {
  CXDRReader reader = test::ReaderOf(test::Words({0}));
  EXPECT_EQ(reader.String(), "");
}

TEST(XdrReader, ViewLiesInTheRecord) {
  CXDRReader reader = test::ReaderOf(bytes_t{0, 0, 0, 4, 1, 2, 3, 4});
  const auto view = reader.VarLenView();
  EXPECT_THAT(view, ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(view.data(), reader.Record().data() + 4);
}

TEST(XdrReader, FixedDataIsNotSwapped) {
  CXDRReader reader = test::ReaderOf(bytes_t{1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_THAT(reader.Fixed8(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
}

TEST(XdrReader, ShortFixedDataTellsBothLengths) {
  CXDRReader reader(7);
  try {
    reader.Fixed8();
    FAIL();
  } catch (const exc::runtime_exc_t& exception) {
    EXPECT_STREQ(exception.what(),
                 "The size of the requested fixed length binary data (8) exceeds the length of unprocessed SUN RPC "
                 "frame (7).");
  }
}

/// Two words, an opaque of 8 bytes and one of 5.
const bytes_t TwoOpaques{0,   0,   0,   1,   0, 0, 0, 2, 0, 0, 0, 8, 'a', 'b', 'c', 'd',
                         'e', 'f', 'g', 'h', 0, 0, 0, 5, 1, 2, 3, 4, 5,   0,   0,   0};

TEST(XdrReader, WhatIsInTheKernelIsReadAsIfItWereInMemory) {
  for (std::size_t first = 0; first <= TwoOpaques.size(); ++first) {
    CXDRReader reader = test::SplitReaderOf(TwoOpaques, first);
    EXPECT_EQ(reader.Remaining(), TwoOpaques.size());
    EXPECT_EQ(reader.UInt64(), 0x100000002U) << first;
    const auto one = reader.VarLenView();
    EXPECT_EQ(reader.Remaining(), 12U);
    const auto two = reader.VarLenView();
    EXPECT_THAT(one, ElementsAre('a', 'b', 'c', 'd', 'e', 'f', 'g', 'h')) << "a view stays good";
    EXPECT_THAT(two, ElementsAre(1, 2, 3, 4, 5));
    EXPECT_EQ(reader.Remaining(), 0U);
    EXPECT_EQ(reader.Rest(), nullptr);
  }
}

TEST(XdrReader, AFixedOpaqueMayBeInTheKernel) {
  EXPECT_THAT(test::SplitReaderOf(bytes_t{1, 2, 3, 4, 5, 6, 7, 8}, 3).Fixed8(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
}

TEST(XdrReader, TheLastOpaqueMayStayInTheKernel) {
  const bytes_t bytes{0, 0, 0, 8, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
  for (std::size_t first = 4; first < bytes.size(); ++first) {
    CXDRReader reader = test::SplitReaderOf(bytes, first);
    const auto view = reader.LastVarLenView();
    EXPECT_EQ(bytes_t(view.begin(), view.end()),
              bytes_t(bytes.begin() + 4, bytes.begin() + static_cast<std::ptrdiff_t>(first)));
    ASSERT_NE(reader.Rest(), nullptr) << first;
    EXPECT_EQ(reader.Rest()->Held(), bytes.size() - first);
    const auto all = reader.GatherLastView();
    EXPECT_EQ(bytes_t(all.begin(), all.end()), bytes_t(bytes.begin() + 4, bytes.end()));
    EXPECT_TRUE(std::ranges::equal(view, all.first(view.size()))) << "a view stays good";
    EXPECT_EQ(reader.Rest(), nullptr);
  }
}

TEST(XdrReader, AnOpaqueThatIsNotTheRecordsEndComesIntoMemory) {
  for (const bytes_t& bytes : {bytes_t{0, 0, 0, 5, 1, 2, 3, 4, 5, 0, 0, 0},
                               bytes_t{0, 0, 0, 5, 1, 2, 3, 4, 5, 0, 0, 0, 9, 9}, bytes_t{0, 0, 0, 0, 9, 9}}) {
    CXDRReader reader = test::SplitReaderOf(bytes, 4);
    const auto view = reader.LastVarLenView();
    EXPECT_EQ(bytes_t(view.begin(), view.end()), bytes_t(bytes.begin() + 4, bytes.begin() + 4 + bytes[3]));
    EXPECT_EQ(reader.Remaining(), bytes.size() - 4 - (bytes[3] + 3U) / 4 * 4);
    EXPECT_EQ(reader.Rest(), nullptr) << "what follows the opaque is none of it";
  }
}

TEST(XdrReader, WhatIsInTheKernelIsNotMoreThanItIs) {
  CXDRReader reader = test::SplitReaderOf(bytes_t{0, 0, 0, 9, 1, 2, 3, 4, 5, 6, 7, 8}, 6);
  EXPECT_THROW(reader.LastVarLenView(), exc::win_sys_exc_t);
  EXPECT_THROW(test::SplitReaderOf(bytes_t{1, 2, 3}, 1).UInt(), exc::win_sys_exc_t);
}

TEST(XdrReader, TellsWhatNobodyNeedsInMemory) {
  CXDRReader reader = test::ReaderOf(bytes_t{0, 0, 0, 1, 0, 0, 0, 4, 1, 2, 3, 4});
  reader.UInt();
  EXPECT_THAT(reader.LastVarLenView(), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(reader.WantedRest(), 0U);
  reader.WantRest();
  EXPECT_EQ(reader.WantedRest(), 8U);
}

}  // namespace
