// READ and WRITE of files behind an agent.
#include <gmock/gmock.h>

#include <limits>

#include "support/kernel_pipe_of.h"
#include "unit/remotefs/items/remote_file_fixture.h"

namespace test {
namespace {

TEST_F(FileTest, ReadsWithItsHandle) {
  agent->SetFile("other", {});
  agent->SetFile("disk", Counting(100));
  const auto other = OpenFile("other");
  const auto file = OpenFile("disk");
  file->Read(10, 20, buffer);
  EXPECT_EQ(LastRequest(), WireNumber(ReadCommand) + WireNumber<std::int32_t>(1) + WireNumber<std::uint64_t>(10) +
                               WireNumber<std::uint32_t>(20));
  const Bytes content = Counting(100);
  EXPECT_EQ(Delivered(buffer), Bytes(content.begin() + 10, content.begin() + 30));
  EXPECT_FALSE(buffer.eof);
}

TEST_F(FileTest, ReachesItsEndExactlyWhenLessComesThanWasAsked) {
  agent->SetFile("disk", Counting(100));
  const auto file = OpenFile("disk");
  file->Read(80, 20, buffer);
  EXPECT_EQ(buffer.length, 20U);
  EXPECT_FALSE(buffer.eof) << "all that was asked came, though the file ends here";
  file->Read(80, 21, buffer);
  EXPECT_EQ(buffer.length, 20U);
  EXPECT_TRUE(buffer.eof);
  file->Read(200, 10, buffer);
  EXPECT_EQ(buffer.length, 0U);
  EXPECT_TRUE(buffer.eof);
  file->Read(0, 0, buffer);
  EXPECT_EQ(buffer.length, 0U);
  EXPECT_FALSE(buffer.eof);
}

TEST_F(FileTest, AShortReadInTheMiddleIsTakenForTheEnd) {
  agent->SetFile("disk", Counting(100));
  const auto file = OpenFile("disk");
  AnswerTo(ReadCommand, AgentReply::Message({1, 2, 3}));
  file->Read(0, 10, buffer);
  EXPECT_EQ(Delivered(buffer), (Bytes{1, 2, 3}));
  EXPECT_TRUE(buffer.eof);
}

TEST_F(FileTest, ReadsMuchAtOnce) {
  Bytes content(5000000);
  for (std::size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<std::uint8_t>(i * 31 + i / 65537);
  agent->SetFile("disk", content);
  const auto file = OpenFile("disk");
  file->Read(1, 4999999, buffer);
  EXPECT_EQ(Delivered(buffer), Bytes(content.begin() + 1, content.end()));
  EXPECT_FALSE(buffer.eof);
}

TEST_F(FileTest, PassesOnOffsetsOfEverySize) {
  agent->SetFile("disk", Counting(100));
  const auto file = OpenFile("disk");
  for (const std::uint64_t offset : {(std::uint64_t{1} << 63) - 1, std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
    file->Read(offset, 10, buffer);
    EXPECT_EQ(AgentRequest(LastRequest()).offset, offset);
    EXPECT_TRUE(buffer.eof);
  }
}

TEST_F(FileTest, LargeReadsLeaveTheBytesInAPipeThatIsLent) {
  const Bytes content = Counting(200000);
  agent->SetFile("disk", content);
  const auto file = OpenFile("disk");
  buffer.pipe = platform::kernel_pipe_t::Acquire();
  for (const std::uint32_t count : {16384U, 65536U, 65568U}) {
    file->Read(1, count, buffer);
    EXPECT_TRUE(buffer.isInPipe) << count;
    EXPECT_EQ(buffer.length, count);
    EXPECT_EQ(buffer.pipe->Held(), count);
    Bytes came(count);
    std::size_t read = 0;
    EXPECT_EQ(buffer.pipe->Read(came, read), 0U);
    EXPECT_EQ(came, Bytes(content.begin() + 1, content.begin() + 1 + count));
  }
  for (const std::uint32_t count : {10U, 65569U}) {
    file->Read(1, count, buffer);
    EXPECT_FALSE(buffer.isInPipe) << count;
    EXPECT_EQ(Delivered(buffer), Bytes(content.begin() + 1, content.begin() + 1 + count));
  }
}

TEST_F(FileTest, RefusesMoreThanItAskedForAlsoInAPipe) {
  agent->SetFile("disk", Counting(100));
  const auto file = OpenFile("disk");
  buffer.pipe = platform::kernel_pipe_t::Acquire();
  AnswerTo(ReadCommand, AgentReply::Message(Bytes(20000)));
  EXPECT_EQ(FailureOf([&] { file->Read(0, 16384, buffer); }),
            "The restore agent has read [20000] bytes of item [disk] where [16384] were asked for.");
}

TEST_F(FileTest, RefusesMoreThanItAskedFor) {
  agent->SetFile("disk", Counting(100));
  const auto file = OpenFile("disk");
  for (const std::size_t size : {11U, 65568U, 200000U}) {
    AnswerTo(ReadCommand, AgentReply::Message(Bytes(size)));
    EXPECT_EQ(FailureOf([&] { file->Read(0, 10, buffer); }), "The restore agent has read [" + std::to_string(size) +
                                                                 "] bytes of item [disk] where [10] were asked for.");
  }
  AnswerWell();
  file->Read(0, 10, buffer);
  EXPECT_EQ(Delivered(buffer), Counting(10)) << "the pipe is as good as before";
}

TEST_F(FileTest, AReadIsTheLastAccess) {
  agent->SetFile("disk", Counting(100));
  const auto file = OpenFile("disk");
  const FILETIME made = Now();
  clock.Advance(1000);
  file->Read(0, 10, buffer);
  auto attributes = Attributes(*file);
  EXPECT_EQ(attributes.lastAccessTime, Now());
  EXPECT_EQ(attributes.lastWriteTime, made);
  EXPECT_EQ(attributes.creationTime, made);
  clock.Advance(1000);
  AnswerTo(ReadCommand, DieInReply());
  EXPECT_EQ(FailureOf([&] { file->Read(0, 10, buffer); }), TimedOut);
  EXPECT_EQ(Attributes(*file).lastAccessTime, Now()) << "also one that fails";
}

TEST_F(FileTest, WritesWithItsHandle) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  const FILETIME made = Now();
  clock.Advance(1000);
  file->Write(8, 4, "abcd");
  EXPECT_EQ(LastRequest(),
            WireNumber(WriteCommand) + WireNumber<std::int32_t>(0) + WireNumber<std::uint64_t>(8) + WireString("abcd"));
  EXPECT_EQ(agent->FileContent("disk"), Bytes(Counting(8)) + WireBytes("abcd"));
  const auto attributes = Attributes(*file);
  EXPECT_EQ(attributes.lastAccessTime, Now());
  EXPECT_EQ(attributes.lastWriteTime, Now());
  EXPECT_EQ(attributes.creationTime, made);
  file->Write(0, 0, nullptr);
}

TEST_F(FileTest, WritesOnFromAPipe) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  EXPECT_TRUE(file->TakesPipes());
  const Bytes data = Counting(65536);
  for (const std::size_t first : {0U, 5U, 65535U}) {
    const auto pipe = PipeOf(std::span(data).subspan(first));
    file->WritePipe(8, 65536, first == 0 ? nullptr : data.data(), *pipe);
    EXPECT_EQ(LastRequest(), WireNumber(WriteCommand) + WireNumber<std::int32_t>(0) + WireNumber<std::uint64_t>(8) +
                                 WireNumber<std::uint32_t>(65536) + data);
    EXPECT_EQ(agent->FileContent("disk"), Bytes(Counting(8)) + data);
    EXPECT_EQ(pipe->Held(), 0U);
  }
}

TEST_F(FileTest, AWriteThatIsNotWholeFails) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  for (const std::int32_t written :
       {0, 3, 5, -1, std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::min()}) {
    AnswerTo(WriteCommand, AgentReply::Message(WireNumber(written)));
    EXPECT_EQ(FailureOf([&] { file->Write(0, 4, "abcd"); }),
              "The restore agent has written [" + std::to_string(written) + "] of [4] bytes to item [disk].");
  }
  AnswerTo(WriteCommand, AgentReply::Message(Bytes(3)));
  EXPECT_EQ(FailureOf([&] { file->Write(0, 4, "abcd"); }), "Invalid data stream");
  EXPECT_TRUE(connector->IsConnected());
}

TEST_F(FileTest, CannotBeResized) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  const std::size_t requests = agent->Requests().size();
  for (const std::uint64_t size : {0U, 10U, 11U})
    EXPECT_EQ(FailureOf([&] { file->Resize(size); }), "[Remote FS] Resize() procedure is not supported.");
  EXPECT_EQ(agent->Requests().size(), requests);
}

TEST_F(FileTest, ReadsAndWritesOfALostMountFail) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  AnswerTo(ReadCommand, DieInReply());
  EXPECT_EQ(FailureOf([&] { file->Read(0, 1, buffer); }), TimedOut);
  EXPECT_EQ(FailureOf([&] { file->Read(0, 1, buffer); }), Hanging);
  EXPECT_EQ(FailureOf([&] { file->Write(0, 1, "x"); }), Hanging);
}

}  // namespace
}  // namespace test
