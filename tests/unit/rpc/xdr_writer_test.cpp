#include "rpc/xdr_writer.h"

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <string>

#include "foundation/exc.h"
#include "support/xdr_record.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using bytes_t = std::vector<std::uint8_t>;

/// Keeps each write as it came.
class CRecordingDevice : public io::io_dev_t {
 public:
  std::uint64_t Write(const void* data, std::uint64_t length) override {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    writes.emplace_back(bytes, bytes + length);
    return length;
  }
  std::uint64_t Read(void*, std::uint64_t) override { throw exc::runtime_exc_t("Nothing to read."); }

  std::vector<bytes_t> writes;
};

bytes_t Joined(const std::vector<SXdrSegment>& segments) {
  bytes_t out;
  for (const SXdrSegment& segment : segments) {
    const auto begin = segment.buffer->begin() + static_cast<std::ptrdiff_t>(segment.offset);
    out.insert(out.end(), begin, begin + static_cast<std::ptrdiff_t>(segment.length));
  }
  return out;
}

bytes_t Finished(const CXDRWriter& writer, bool lastFragment = true) {
  io::byte_buffer_t out;
  writer.Finish(out, lastFragment);
  return {out.begin(), out.end()};
}

/// Restores the process-wide initial size.
class XdrWriter : public testing::Test {
 protected:
  ~XdrWriter() override { SetXdrBufInitialSize(128); }
};

TEST_F(XdrWriter, NewWriterHoldsTheRoomOfTheMark) {
  CXDRWriter writer;
  EXPECT_EQ(writer.Used(), 4U);
  EXPECT_EQ(Finished(writer), (bytes_t{0x80, 0, 0, 0}));
  CRecordingDevice device;
  writer.Send(device, true);
  EXPECT_THAT(device.writes, ElementsAre(bytes_t{0x80, 0, 0, 0}));
  EXPECT_EQ(Joined(writer.TakeSegments(true)), (bytes_t{0x80, 0, 0, 0}));
}

TEST_F(XdrWriter, WordsAreBigEndian) {
  CXDRWriter writer;
  writer.UInt(0x01020304);
  EXPECT_EQ(test::MessageOf(writer), (bytes_t{1, 2, 3, 4}));
}

TEST_F(XdrWriter, OnlyTheLowByteOfABoolCounts) {
  CXDRWriter writer;
  for (const std::uint32_t value : {0U, 1U, 2U, 255U, 256U, 0xFFFFFF00U, 257U})
    writer.Bool(value);
  EXPECT_THAT(test::WordsOf(test::MessageOf(writer)), ElementsAre(0, 1, 1, 1, 0, 0, 1));
}

TEST_F(XdrWriter, OpaqueIsPaddedWithZeros) {
  for (std::size_t length = 0; length <= 8; ++length) {
    const bytes_t data(length, 0xAA);
    CXDRWriter writer;
    writer.VarLenData(data.data(), data.size());
    bytes_t expected{0, 0, 0, static_cast<std::uint8_t>(length)};
    expected.insert(expected.end(), data.begin(), data.end());
    expected.resize(4 + (length + 3) / 4 * 4, 0);
    EXPECT_EQ(test::MessageOf(writer), expected);
  }
}

TEST_F(XdrWriter, TextEndsAtItsFirstZeroByte) {
  CXDRWriter writer;
  writer.String(std::string_view("ab\0c", 4));
  EXPECT_EQ(test::MessageOf(writer), (bytes_t{0, 0, 0, 2, 'a', 'b', 0, 0}));
}

TEST_F(XdrWriter, FixedDataIsNotSwapped) {
  CXDRWriter writer;
  writer.Fixed8({1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(test::MessageOf(writer), (bytes_t{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(XdrWriter, RepliesAreTheseWords) {
  CXDRWriter accepted;
  accepted.AcceptedReply();
  EXPECT_THAT(test::WordsOf(test::MessageOf(accepted)), ElementsAre(1, 0, 0, 0, 0));
  CXDRWriter unavailable;
  unavailable.UnavailableReply();
  EXPECT_THAT(test::WordsOf(test::MessageOf(unavailable)), ElementsAre(1, 0, 3, 0, 0));
  CXDRWriter denied;
  denied.AccessDeniedReply();
  EXPECT_THAT(test::WordsOf(test::MessageOf(denied)), ElementsAre(1, 0, 0, 0, 0, 13));
}

TEST_F(XdrWriter, PortmapCallsCountTheirXid) {
  CXDRWriter first;
  first.PortmapCall(1);
  CXDRWriter second;
  second.PortmapCall(2);
  const auto firstWords = test::WordsOf(test::MessageOf(first));
  const auto secondWords = test::WordsOf(test::MessageOf(second));
  EXPECT_GE(firstWords[0], 2U);
  EXPECT_THAT(firstWords, ElementsAre(firstWords[0], 0, 2, 100000, 2, 1, 0, 0, 0, 0));
  EXPECT_THAT(secondWords, ElementsAre(firstWords[0] + 1, 0, 2, 100000, 2, 2, 0, 0, 0, 0));
}

TEST_F(XdrWriter, MarkHoldsLengthAndFragmentBit) {
  CXDRWriter writer;
  writer.UInt(7);
  writer.UInt(8);
  EXPECT_EQ(Finished(writer, true), (bytes_t{0x80, 0, 0, 8, 0, 0, 0, 7, 0, 0, 0, 8}));
  EXPECT_EQ(Finished(writer, false), (bytes_t{0, 0, 0, 8, 0, 0, 0, 7, 0, 0, 0, 8}));
}

TEST_F(XdrWriter, CrookedLengthReachesNobody) {
  CXDRWriter writer;
  writer.Data("ab", 2);
  EXPECT_EQ(writer.Used(), 6U);
  const auto expectRefusal = [](const auto& work) {
    try {
      work();
      FAIL();
    } catch (const exc::runtime_exc_t& exception) {
      EXPECT_STREQ(exception.what(), "Invalid length of the XDR stream: \"6\".");
    }
  };
  CRecordingDevice device;
  expectRefusal([&] { writer.Send(device, true); });
  EXPECT_THAT(device.writes, IsEmpty());
  expectRefusal([&] { Finished(writer); });
  expectRefusal([&] { writer.TakeSegments(true); });
}

TEST_F(XdrWriter, SendsTheMarkAndThenTheRest) {
  CXDRWriter writer;
  writer.UInt(9);
  CRecordingDevice device;
  writer.Send(device, true);
  EXPECT_THAT(device.writes, ElementsAre(bytes_t{0x80, 0, 0, 4}, bytes_t{0, 0, 0, 9}));
}

TEST_F(XdrWriter, SharedDataGoesOutUncopied) {
  for (std::size_t length = 1; length <= 9; ++length) {
    const auto data = boost::make_shared<const io::byte_buffer_t>(std::size_t{12}, std::uint8_t{0xBB});
    CXDRWriter shared;
    shared.UInt(1);
    shared.SharedVarLenData(data, length);
    shared.UInt(2);
    CXDRWriter copied;
    copied.UInt(1);
    copied.VarLenData(data->data(), length);
    copied.UInt(2);

    const bytes_t expected = Finished(copied);
    EXPECT_EQ(shared.Used(), copied.Used());
    EXPECT_EQ(Finished(shared), expected);
    CRecordingDevice device;
    shared.Send(device, true);
    bytes_t sent;
    for (const bytes_t& write : device.writes)
      sent.insert(sent.end(), write.begin(), write.end());
    EXPECT_EQ(sent, expected);

    const std::vector<SXdrSegment> segments = shared.TakeSegments(true);
    EXPECT_EQ(Joined(segments), expected);
    ASSERT_EQ(segments.size(), 3U);
    EXPECT_EQ(segments[1].buffer, data);
    EXPECT_EQ(segments[1].length, length);
  }
}

/// A pipe that holds so many bytes of the value.
boost::shared_ptr<platform::kernel_pipe_t> PipeOf(std::size_t length, std::uint8_t value) {
  const platform::descriptor_t file(::memfd_create("data", MFD_CLOEXEC));
  const bytes_t content(length, value);
  EXPECT_EQ(::pwrite(file.Get(), content.data(), length, 0), static_cast<ssize_t>(length));
  const auto pipe = platform::kernel_pipe_t::Acquire();
  std::size_t moved = 0;
  EXPECT_EQ(pipe->TakeFromFile(file.Get(), 0, length, moved), 0U);
  EXPECT_EQ(moved, length);
  return pipe;
}

TEST_F(XdrWriter, PipedDataIsASegmentOfItsOwn) {
  const auto pipe = PipeOf(5, 0xBB);
  CXDRWriter writer;
  writer.TakePipes();
  writer.UInt(1);
  writer.PipedVarLenData(pipe);
  writer.UInt(2);
  EXPECT_EQ(writer.Used(), 4U + 4 + 4 + 8 + 4);
  const std::vector<SXdrSegment> segments = writer.TakeSegments(true);
  ASSERT_EQ(segments.size(), 3U);
  EXPECT_EQ(Joined({segments[0]}), (bytes_t{0x80, 0, 0, 20, 0, 0, 0, 1, 0, 0, 0, 5}));
  EXPECT_EQ(segments[1].pipe, pipe);
  EXPECT_EQ(segments[1].length, 5U);
  EXPECT_EQ(segments[1].buffer, nullptr);
  EXPECT_EQ(Joined({segments[2]}), (bytes_t{0, 0, 0, 0, 0, 0, 2}));
  bytes_t data(6);
  std::size_t read = 0;
  EXPECT_EQ(pipe->Read(data, read), 0U);
  EXPECT_EQ(read, 5U) << "it still holds them";
}

TEST_F(XdrWriter, PipedDataIsNotForAWriterThatDoesNotTakeIt) {
  const auto pipe = PipeOf(4, 1);
  CXDRWriter writer;
  EXPECT_FALSE(writer.TakesPipes());
  EXPECT_THROW(writer.PipedVarLenData(pipe), exc::runtime_exc_t);
  EXPECT_EQ(writer.Used(), 4U);
  writer.TakePipes();
  writer.PipedVarLenData(platform::kernel_pipe_t::Acquire());
  EXPECT_EQ(test::MessageOf(writer), (bytes_t{0, 0, 0, 0})) << "an empty one is a zero word";
}

TEST_F(XdrWriter, SharedDataMayEndTheRecord) {
  const auto data = boost::make_shared<const io::byte_buffer_t>(std::size_t{4}, std::uint8_t{1});
  CXDRWriter writer;
  writer.SharedVarLenData(data, 4);
  const auto segments = writer.TakeSegments(true);
  EXPECT_EQ(segments.size(), 2U);
  EXPECT_EQ(Joined(segments), (bytes_t{0x80, 0, 0, 8, 0, 0, 0, 4, 1, 1, 1, 1}));
}

TEST_F(XdrWriter, TwoSharedPiecesKeepTheirPlaces) {
  const auto first = boost::make_shared<const io::byte_buffer_t>(std::size_t{4}, std::uint8_t{1});
  const auto second = boost::make_shared<const io::byte_buffer_t>(std::size_t{2}, std::uint8_t{2});
  CXDRWriter writer;
  writer.SharedVarLenData(first, 4);
  writer.SharedVarLenData(second, 2);
  EXPECT_EQ(test::MessageOf(writer), (bytes_t{0, 0, 0, 4, 1, 1, 1, 1, 0, 0, 0, 2, 2, 2, 0, 0}));
}

TEST_F(XdrWriter, EmptySharedDataIsAZeroWord) {
  CXDRWriter writer;
  writer.SharedVarLenData(nullptr, 0);
  EXPECT_EQ(test::MessageOf(writer), (bytes_t{0, 0, 0, 0}));
  EXPECT_EQ(writer.TakeSegments(true).size(), 1U);
}

TEST_F(XdrWriter, SharedDataMustBeThere) {
  CXDRWriter writer;
  EXPECT_THROW(writer.SharedVarLenData(nullptr, 1), exc::runtime_exc_t);
  EXPECT_THROW(writer.SharedVarLenData(boost::make_shared<const io::byte_buffer_t>(std::size_t{3}), 4),
               exc::runtime_exc_t);
  EXPECT_EQ(writer.Used(), 4U);
}

TEST_F(XdrWriter, IsEmptyAfterItsSegmentsWereTaken) {
  CXDRWriter writer;
  writer.UInt(1);
  const auto segments = writer.TakeSegments(false);
  EXPECT_EQ(Joined(segments), (bytes_t{0, 0, 0, 4, 0, 0, 0, 1}));
  EXPECT_EQ(writer.Used(), 4U);
  writer.UInt(2);
  EXPECT_EQ(Finished(writer), (bytes_t{0x80, 0, 0, 4, 0, 0, 0, 2}));
  EXPECT_EQ(Joined(segments), (bytes_t{0, 0, 0, 4, 0, 0, 0, 1}));
}

TEST_F(XdrWriter, WorksWithAnyInitialSize) {
  for (const std::uint32_t size : {0U, 1U, 4U, 5U, 128U, 0xFFFFFFFFU}) {
    SetXdrBufInitialSize(size);
    CXDRWriter writer;
    for (std::uint32_t i = 0; i < 100; ++i)
      writer.UInt(i);
    CXDRReader reader = test::ReaderOf(test::MessageOf(writer));
    for (std::uint32_t i = 0; i < 100; ++i)
      EXPECT_EQ(reader.UInt(), i);
    EXPECT_EQ(reader.Remaining(), 0U);
  }
}

TEST_F(XdrWriter, ReservedRoomIsOneBufferForAll) {
  CXDRWriter writer;
  writer.Reserve(1000);
  for (std::uint32_t i = 0; i < 250; ++i)
    writer.UInt(i);
  writer.Reserve(0);
  const auto segments = writer.TakeSegments(true);
  ASSERT_EQ(segments.size(), 1U);
  EXPECT_EQ(segments[0].buffer->size(), 1004U);
  EXPECT_EQ(segments[0].length, 1004U);
}

}  // namespace
