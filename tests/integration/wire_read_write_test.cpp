// READ and WRITE over the wire.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "integration/support/footprint.h"
#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

class ReadWriteTest : public CWireTest {};
KELVO_WIRE_SUITE(ReadWriteTest);

std::string Pattern(std::size_t length, unsigned seed = 1) {
  std::string data(length, '\0');
  for (char& byte : data) {
    seed = seed * 1664525U + 1013904223U;
    byte = static_cast<char>(seed >> 24);
  }
  return data;
}

TEST_P(ReadWriteTest, ReadsWhatTheHostWrote) {
  const std::string content = Pattern(300000);
  WriteFile(HostPath("file"), content);
  const bytes_t handle = HandleOf("file");
  for (const auto& [offset, count] : {std::pair<std::uint64_t, std::uint32_t>{0, 1},
                                      {1, 3},
                                      {7, 65536},
                                      {131072, 131072},
                                      {299999, 1},
                                      {0, 299999}}) {
    const SReadResult result = Client().Read(handle, offset, count);
    EXPECT_EQ(result.status, Ok);
    EXPECT_EQ(result.data, content.substr(offset, count)) << offset << " " << count;
    EXPECT_EQ(result.eof, false);
  }
}

TEST_P(ReadWriteTest, ReadsOfEachLengthAndPlaceGiveTheFile) {
  const std::string content = Pattern(500001);
  WriteFile(HostPath("file"), content);
  const bytes_t handle = HandleOf("file");
  for (const std::uint32_t count : {16383U, 16384U, 16385U, 65535U, 65536U, 131072U, 196608U, 196609U, 400000U}) {
    for (const std::uint64_t offset : {0U, 1U, 4095U, 65536U, 400000U, 483617U, 483618U, 500000U, 500001U, 600000U}) {
      const SReadResult result = Client().Read(handle, offset, count);
      EXPECT_EQ(result.status, Ok);
      const std::string expected = offset < content.size() ? content.substr(offset, count) : "";
      EXPECT_TRUE(result.data == expected) << offset << " " << count << " gave " << result.data.size();
      EXPECT_EQ(result.eof, offset + count > content.size()) << offset << " " << count;
    }
  }
}

TEST_P(ReadWriteTest, LargeReadsAreNotBroughtIntoTheServicesMemory) {
  constexpr std::uint32_t Count = 65536;
  constexpr std::size_t Reads = 100;
  WriteFile(HostPath("file"), Pattern(Count));
  const bytes_t handle = HandleOf("file");
  const auto copied = [&](std::uint32_t count) {
    const std::uint64_t before = BytesReadBy(service_.Process().Pid());
    for (std::size_t i = 0; i < Reads; ++i)
      EXPECT_EQ(Client().Read(handle, 0, count).data.size(), count);
    return BytesReadBy(service_.Process().Pid()) - before;
  };
  EXPECT_GE(copied(Count / 8), Reads * (Count / 8)) << "the figure counts reads at all";
  EXPECT_LT(copied(Count), Reads * Count / 2);
}

TEST_P(ReadWriteTest, ManyLargeReadsInFlightComeInOrderAndWhole) {
  constexpr std::uint32_t Count = 65536;
  constexpr std::uint32_t Blocks = 40;
  const std::string content = Pattern(Blocks * Count);
  WriteFile(HostPath("file"), content);
  const bytes_t handle = HandleOf("file");
  // More than the service keeps for one client, let alone in pipes: the client begins to take them late.
  constexpr std::uint32_t Calls = 200;
  CConnection connection(2049);
  std::thread asking([&] {
    for (std::uint32_t i = 0; i < Calls; ++i) {
      connection.SendRecord(CallMessage(i, NfsProgram, 3, test::Read,
                                        CEncoder().Opaque(handle).U64(std::uint64_t{i % Blocks} * Count).U32(Count)));
    }
  });
  for (std::uint32_t i = 0; i < Calls; ++i) {
    const SReply reply = ParseReply(connection.ReceiveRecord().value());
    EXPECT_EQ(reply.xid, i);
    EXPECT_TRUE(reply.body.ends_with(content.substr(std::size_t{i % Blocks} * Count, Count))) << i;
  }
  asking.join();
}

TEST_P(ReadWriteTest, AClientThatLeavesInTheMiddleOfItsDataTakesNothingAlong) {
  constexpr std::uint32_t Count = 131072;
  const std::string content = Pattern(Count);
  WriteFile(HostPath("file"), content);
  const bytes_t handle = HandleOf("file");
  for (int round = 0; round < 100; ++round) {
    CConnection connection(2049);
    for (std::uint32_t i = 0; i < 16; ++i)
      connection.SendRecord(CallMessage(i, NfsProgram, 3, test::Read, CEncoder().Opaque(handle).U64(0).U32(Count)));
    // Something is on its way.
    bytes_t some(100, '\0');
    EXPECT_GT(::recv(connection.Socket(), some.data(), some.size(), 0), 0);
  }
  const SReadResult result = Client().Read(handle, 0, Count);
  EXPECT_EQ(result.status, Ok);
  EXPECT_TRUE(result.data == content);
}

TEST_P(ReadWriteTest, EndOfFileIsToldWhenLessCameThanWasAskedFor) {
  WriteFile(HostPath("file"), "0123456789");
  const bytes_t handle = HandleOf("file");
  EXPECT_FALSE(Client().Read(handle, 0, 10).eof);
  EXPECT_TRUE(Client().Read(handle, 0, 11).eof);
  const SReadResult beyond = Client().Read(handle, 100, 10);
  EXPECT_EQ(beyond.status, Ok);
  EXPECT_EQ(beyond.data, "");
  EXPECT_TRUE(beyond.eof);
}

TEST_P(ReadWriteTest, ACountOfZeroTellsWhetherTheOffsetIsAtTheEnd) {
  WriteFile(HostPath("file"), "0123456789");
  const bytes_t handle = HandleOf("file");
  EXPECT_FALSE(Client().Read(handle, 5, 0).eof);
  EXPECT_TRUE(Client().Read(handle, 10, 0).eof);
}

TEST_P(ReadWriteTest, ReadOfAFolderIs10004AndOfAnUnknownHandle2) {
  EXPECT_EQ(Client().Read(root_, 0, 10).status, NotSupported);
  EXPECT_EQ(Client().Read(bytes_t(23, '\x33'), 0, 10).status, NoEntry);
}

TEST_P(ReadWriteTest, CountsUpTo40MiBAreServedAndNoMore) {
  WriteFile(HostPath("file"), "0123456789");
  const bytes_t handle = HandleOf("file");
  const SReadResult most = Client().Read(handle, 0, (40U << 20) - 1);
  EXPECT_EQ(most.status, Ok);
  EXPECT_EQ(most.data, "0123456789");
  EXPECT_TRUE(most.eof);
  EXPECT_EQ(Client().Read(handle, 0, 40U << 20).status, ServerFault);
  EXPECT_EQ(Client().Read(handle, 0, 0xFFFFFFFF).status, ServerFault);
  EXPECT_EQ(Client().Read(handle, 0, 10).data, "0123456789");
}

TEST_P(ReadWriteTest, OneReadMayDeliver40MiBLessOne) {
  const std::string content = Pattern(40U << 20);
  WriteFile(HostPath("file"), content);
  const SReadResult result = Client().Read(HandleOf("file"), 0, (40U << 20) - 1);
  EXPECT_EQ(result.status, Ok);
  EXPECT_TRUE(result.data == content.substr(0, (40U << 20) - 1));
}

TEST_P(ReadWriteTest, OffsetsNear2To64FailAndHarmNobody) {
  WriteFile(HostPath("file"), "0123456789");
  const bytes_t handle = HandleOf("file");
  for (const std::uint64_t offset : {1ULL << 63, ~0ULL, ~0ULL - 5}) {
    const SReadResult result = Client().Read(handle, offset, 100);
    EXPECT_TRUE(result.status != Ok || (result.data.empty() && result.eof)) << offset;
    EXPECT_NE(Client().Write(handle, offset, "data"), Ok) << offset;
  }
  EXPECT_EQ(ReadFile(HostPath("file")), "0123456789");
  EXPECT_EQ(Client().Read(handle, 0, 10).data, "0123456789");
}

TEST_P(ReadWriteTest, WritesLandAtTheirOffsetAndGrowTheFile) {
  bytes_t handle;
  ASSERT_EQ(Client().Create(root_, "file", &handle), Ok);
  const std::string block = Pattern(65536);
  EXPECT_EQ(Client().Write(handle, 0, block), Ok);
  EXPECT_EQ(Client().Write(handle, 65536, block), Ok);
  EXPECT_EQ(Client().Write(handle, 10, "patch"), Ok);
  std::string expected = block + block;
  expected.replace(10, 5, "patch");
  EXPECT_EQ(ReadFile(HostPath("file")), expected);
  EXPECT_EQ(Client().Write(handle, 1ULL << 32, "far"), Ok);
  EXPECT_EQ(fs::file_size(HostPath("file")), (1ULL << 32) + 3);
}

TEST_P(ReadWriteTest, AWriteIsReadBackByAnotherClientAtOnce) {
  bytes_t handle;
  ASSERT_EQ(Client().Create(root_, "file", &handle), Ok);
  CNfsClient other;
  for (int i = 0; i < 50; ++i) {
    const std::string data = Pattern(4096, static_cast<unsigned>(i + 1));
    ASSERT_EQ(Client().Write(handle, 4096U * static_cast<unsigned>(i), data), Ok);
    ASSERT_EQ(other.Read(handle, 4096U * static_cast<unsigned>(i), 4096).data, data);
  }
}

TEST_P(ReadWriteTest, AnUnstableWriteIsReportedAsFileSync) {
  bytes_t handle;
  ASSERT_EQ(Client().Create(root_, "file", &handle), Ok);
  // The client checks committed and the verifier of every reply.
  for (const std::uint32_t stable : {0U, 1U, 2U, 99U})
    EXPECT_EQ(Client().Write(handle, 0, "data", stable), Ok);
}

TEST_P(ReadWriteTest, AWriteOfNothingSucceeds) {
  WriteFile(HostPath("file"), "0123456789");
  EXPECT_EQ(Client().Write(HandleOf("file"), 3, ""), Ok);
  EXPECT_EQ(ReadFile(HostPath("file")), "0123456789");
}

TEST_P(ReadWriteTest, ACountAboveTheDataIs22AndBelowItTheSurplusIsIgnored) {
  WriteFile(HostPath("file"), "0123456789");
  const bytes_t handle = HandleOf("file");
  const auto write = [&](std::uint32_t count, const std::string& data) {
    const SReply reply =
        Client().Nfs().Call(NfsProgram, test::Write, CEncoder().Opaque(handle).U64(0).U32(count).U32(2).Opaque(data));
    return CDecoder(reply.body).U32();
  };
  EXPECT_EQ(write(5, "abc"), Invalid);
  EXPECT_EQ(ReadFile(HostPath("file")), "0123456789");
  EXPECT_EQ(write(3, "abcdef"), Ok);
  EXPECT_EQ(ReadFile(HostPath("file")), "abc3456789");
}

TEST_P(ReadWriteTest, WriteToAFolderIs10006AndToAnUnknownHandle2) {
  EXPECT_EQ(Client().Write(root_, 0, "data"), ServerFault);
  EXPECT_EQ(Client().Write(bytes_t(23, '\x33'), 0, "data"), NoEntry);
}

TEST_P(ReadWriteTest, ManyCallsInFlightAreAnsweredInTheirOrder) {
  const std::string content = Pattern(1 << 20);
  WriteFile(HostPath("file"), content);
  const bytes_t handle = HandleOf("file");
  CConnection connection(2049);
  bytes_t calls;
  for (std::uint32_t i = 0; i < 64; ++i) {
    const bytes_t message =
        CallMessage(i, NfsProgram, 3, i % 2 == 0 ? test::Read : test::GetAttr,
                    i % 2 == 0 ? CEncoder().Opaque(handle).U64(i * 8192ULL).U32(8192) : CEncoder().Opaque(handle));
    calls += Mark(message.size()) + message;
  }
  connection.SendRaw(calls);
  for (std::uint32_t i = 0; i < 64; ++i) {
    const auto record = connection.ReceiveRecord();
    ASSERT_TRUE(record);
    const SReply reply = ParseReply(*record);
    EXPECT_EQ(reply.xid, i);
    if (i % 2 == 0) {
      CDecoder decoder(reply.body);
      EXPECT_EQ(decoder.U32(), Ok);
      decoder.Fixed(12);
      EXPECT_EQ(decoder.Opaque(), content.substr(i * 8192ULL, 8192));
    }
  }
}

TEST_P(ReadWriteTest, AFileRemovedOnTheHostGivesAnErrorAndNothingElseSuffers) {
  WriteFile(HostPath("one"), "one");
  WriteFile(HostPath("two"), "two");
  const bytes_t one = HandleOf("one");
  fs::remove(HostPath("one"));
  EXPECT_NE(Client().Read(one, 0, 10).status, Ok);
  EXPECT_EQ(Client().Read(HandleOf("two"), 0, 10).data, "two");
}

}  // namespace
