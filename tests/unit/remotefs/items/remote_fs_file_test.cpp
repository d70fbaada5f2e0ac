#include "remotefs/items/remote_fs_file.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <limits>

#include "platform/message_pipe.h"
#include "platform/named_event.h"
#include "support/fake_fs_backend.h"
#include "unit/remotefs/items/remote_file_fixture.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(FileTest, WithoutAHandleWaitsForTheAgent) {
  connector = MakeConnector();
  const CapturedLog log;
  const auto file = MakePlaceholder("a//disk", 0x123456789ABCDEF0);
  EXPECT_EQ(log.Count("[RFS] Item [a//disk] mounted in disconnected state. Size hint: [1311768467463790320]."), 1U);
  const auto attributes = Attributes(*file);
  EXPECT_EQ(attributes.attributes, 128U);
  EXPECT_EQ(attributes.sizeHigh, 0x12345678U);
  EXPECT_EQ(attributes.sizeLow, 0x9ABCDEF0U);
  EXPECT_EQ(attributes.creationTime, Now());
  EXPECT_EQ(attributes.lastAccessTime, Now());
  EXPECT_EQ(attributes.lastWriteTime, Now());
  EXPECT_TRUE(log.Texts("Error").empty());
  EXPECT_TRUE(log.Texts("Warning").empty()) << "asking for attributes while the agent is away is no event";
  EXPECT_THAT(agent->Requests(), IsEmpty());
}

TEST_F(FileTest, WithAHandleAsksForItsSize) {
  agent->SetFile("disk", Bytes(5));
  const CapturedLog log;
  const auto file = OpenFile("disk", 1000);
  EXPECT_EQ(LastRequest(), GetSizeRequest(0));
  SFsItemSpec spec;
  file->GetItemSpec(spec);
  EXPECT_EQ(spec.rfsSize, 5U) << "and forgets the hint";
  EXPECT_THAT(log.Texts(), IsEmpty());
}

TEST_F(FileTest, CannotBeMadeWhenTheSizeIsNotToBeHad) {
  agent->SetFile("a//disk", Bytes(5));
  AnswerTo(GetSizeCommand, AgentReply::Message(Bytes(7)));
  EXPECT_EQ(FailureOf([&] { OpenFile("a//disk"); }),
            "Invalid data stream\nFailed to open file [a//disk] using pipe [vm1].");
  AnswerTo(GetSizeCommand, DieInReply());
  EXPECT_EQ(FailureOf([&] { OpenFile("a//disk"); }),
            std::string(TimedOut) + "\nFailed to open file [a//disk] using pipe [vm1].");
}

TEST_F(FileTest, TellsWhatIsStoredOfIt) {
  cfg->allowedHostAddr = "10.0.0.1";
  Answer(AgentReply::Message(WireNumber<std::uint64_t>(0x1122334455667788)));
  const auto file = OpenFile("a//disk");
  SFsItemSpec spec;
  spec.isFolder = true;
  spec.allowedHostAddr = "left over";
  file->GetItemSpec(spec);
  EXPECT_EQ(spec, (SFsItemSpec{.path = "a//disk",
                               .isFolder = false,
                               .isRfsItem = true,
                               .mountUid = mountUid,
                               .rfsSize = 0x1122334455667788,
                               .allowedHostAddr = ""}));
  GUID uid;
  EXPECT_TRUE(file->GetMountUid(uid));
  EXPECT_EQ(uid, mountUid);
}

TEST_F(FileTest, AsksForTheSizeEachTime) {
  agent->SetFile("disk", Bytes(5));
  const auto file = OpenFile("disk");
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{1} << 32, (std::uint64_t{1} << 63) - 1,
                                   std::uint64_t{1} << 63, std::numeric_limits<std::uint64_t>::max()}) {
    AnswerTo(GetSizeCommand, AgentReply::Message(WireNumber(size)));
    EXPECT_EQ(Size(*file), size);
    EXPECT_EQ(Attributes(*file).sizeHigh, size >> 32);
    EXPECT_EQ(Attributes(*file).sizeLow, size & 0xFFFFFFFF);
  }
}

TEST_F(FileTest, KeepsItsLastSizeWhileTheAgentIsAway) {
  agent->SetFile("disk", Bytes(5));
  const auto file = OpenFile("disk");
  agent->SetFile("disk", Bytes(6));
  EXPECT_EQ(Size(*file), 6U);
  Lose(*connector);
  agent->SetFile("disk", Bytes(7));
  const CapturedLog log;
  clock.Advance(5000);
  const FILETIME given = 12345;
  file->SetTimes(nullptr, &given, nullptr);
  EXPECT_EQ(Size(*file), 6U);
  EXPECT_EQ(Attributes(*file).lastAccessTime, given) << "its own times are not the agent's to tell";
  EXPECT_THAT(log.Texts(), IsEmpty());
}

TEST_F(FileTest, KeepsItsLastSizeWhenTheAgentTalksNonsense) {
  agent->SetFile("disk", Bytes(5));
  const auto file = OpenFile("disk");
  for (std::size_t size = 0; size < 8; ++size) {
    AnswerTo(GetSizeCommand, AgentReply::Message(Bytes(size, 0xFF)));
    EXPECT_EQ(Size(*file), 5U);
  }
  AnswerTo(GetSizeCommand, AgentReply::Message(WireNumber<std::uint64_t>(9) + Bytes(5000)));
  EXPECT_EQ(Size(*file), 9U) << "what stands behind the number is not looked at";
}

TEST_F(FileTest, SetPermissionsTouchesTheTimesAlone) {
  agent->SetFile("disk", Bytes(5));
  const auto file = OpenFile("disk");
  const FILETIME made = Now();
  const std::size_t requests = agent->Requests().size();
  clock.Advance(1000);
  file->SetPermissions(false, false);
  EXPECT_EQ(agent->Requests().size(), requests);
  const auto attributes = Attributes(*file);
  EXPECT_EQ(attributes.attributes, 128U);
  EXPECT_EQ(attributes.creationTime, made);
  EXPECT_EQ(attributes.lastAccessTime, Now());
  EXPECT_EQ(attributes.lastWriteTime, Now());
}

TEST_F(FileTest, SetTimesStoresWhatIsGivenAndNeverReachesTheAgent) {
  agent->SetFile("disk", Bytes(5));
  const auto file = OpenFile("disk");
  const FILETIME made = Now();
  const std::size_t requests = agent->Requests().size();
  const FILETIME creation = 10;
  const FILETIME access = 20;
  const FILETIME write = 30;
  file->SetTimes(nullptr, nullptr, nullptr);
  file->SetTimes(&creation, nullptr, nullptr);
  EXPECT_EQ(agent->Requests().size(), requests);
  auto attributes = Attributes(*file);
  EXPECT_EQ(attributes.creationTime, creation);
  EXPECT_EQ(attributes.lastAccessTime, made);
  EXPECT_EQ(attributes.lastWriteTime, made);
  file->SetTimes(nullptr, &access, nullptr);
  file->SetTimes(nullptr, nullptr, &write);
  attributes = Attributes(*file);
  EXPECT_EQ(attributes.creationTime, creation);
  EXPECT_EQ(attributes.lastAccessTime, access);
  EXPECT_EQ(attributes.lastWriteTime, write);
  for (const Bytes& request : agent->Requests())
    EXPECT_THAT(request.front(), testing::AnyOf(OpenCommand, GetSizeCommand));
}

TEST_F(FileTest, ExistsWhateverTheAgentSays) {
  agent->SetFile("disk", Bytes(5));
  const auto file = OpenFile("disk");
  agent->RemoveFile("disk");
  const std::size_t requests = agent->Requests().size();
  EXPECT_TRUE(file->Exists());
  Lose(*connector);
  EXPECT_TRUE(file->Exists());
  EXPECT_EQ(agent->Requests().size(), requests + 1) << "the one in which the agent was lost";
}

TEST_F(FileTest, IsForEveryoneWithoutAnAddressList) {
  const auto file = MakePlaceholder("disk", 1);
  EXPECT_TRUE(file->IsAddressAllowed(Client("192.168.7.7")));
  EXPECT_EQ(file->GetAllowedHostAddr(), "");
}

TEST_F(FileTest, IsForTheMountsHostAlone) {
  cfg->allowedHostAddr = "10.0.0.1;10.1.0.0/16";
  const auto file = MakePlaceholder("disk", 1);
  EXPECT_TRUE(file->IsAddressAllowed(Client("10.0.0.1")));
  EXPECT_TRUE(file->IsAddressAllowed(Client("10.1.200.3")));
  EXPECT_FALSE(file->IsAddressAllowed(Client("10.0.0.2")));
  EXPECT_EQ(file->GetAllowedHostAddr(), "10.0.0.1;10.1.0.0/16");
}

TEST_F(FileTest, AReopenFindsANewHandle) {
  agent->SetFile("disk", Counting(10));
  const auto file = MakePlaceholder("disk", 99);
  bool notFound = true;
  file->Reopen(notFound);
  EXPECT_FALSE(notFound);
  EXPECT_THAT(agent->Requests(), ElementsAre(OpenRequest("disk")));
  AnswerTo(OpenCommand, AgentReply::Message(WireNumber<std::int32_t>(4711)));
  notFound = true;
  file->Reopen(notFound);
  EXPECT_FALSE(notFound);
  AnswerWell();
  EXPECT_EQ(Size(*file), 0U);
  EXPECT_EQ(LastRequest(), GetSizeRequest(4711));
}

TEST_F(FileTest, AReopenThatFindsNothingChangesNothing) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  agent->RemoveFile("disk");
  bool notFound = false;
  file->Reopen(notFound);
  EXPECT_TRUE(notFound);
  EXPECT_EQ(Size(*file), 0U);
  EXPECT_EQ(LastRequest(), GetSizeRequest(0)) << "with the handle that it has";
}

TEST_F(FileTest, AReopenWithoutAgentFails) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  bool notFound = false;
  AnswerTo(OpenCommand, DieInReply());
  EXPECT_EQ(FailureOf([&] { file->Reopen(notFound); }), std::string(TimedOut) + "\nFailed to open backup item [disk].");
  EXPECT_EQ(FailureOf([&] { file->Reopen(notFound); }), Hanging);
  EXPECT_FALSE(notFound);
}

TEST_F(FileTest, AnyHandleButMinusOneIsOne) {
  agent->SetFile("disk", Counting(10));
  for (const std::int32_t handle :
       {0, -2, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()}) {
    AnswerTo(OpenCommand, AgentReply::Message(WireNumber(handle)));
    const auto file = OpenFile("disk");
    EXPECT_EQ(LastRequest(), GetSizeRequest(handle));
    bool notFound = true;
    file->Reopen(notFound);
    EXPECT_FALSE(notFound);
    file->Read(0, 1, buffer);
    EXPECT_EQ(AgentRequest(LastRequest()).handle, handle);
  }
}

TEST_F(FileTest, WhatAnAgentWouldAnswerInPartIsNotAskedFor) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  const std::size_t asked = agent->Requests().size();
  const std::string refusal = "Specified  length of the file buffer is invalid: [41943040].";
  EXPECT_EQ(FailureOf([&] { file->Read(0, 41943040, buffer); }), refusal);
  EXPECT_EQ(FailureOf([&] { file->Write(0, 41943040, ""); }), refusal);
  EXPECT_EQ(agent->Requests().size(), asked);
  file->Read(0, 41943039, buffer);
  EXPECT_EQ(Delivered(buffer), Counting(10));
  EXPECT_TRUE(buffer.eof);
}

TEST_F(FileTest, MinusOneOnItsOwnConnectionGoesToTheAgent) {
  const std::uint64_t connection = connector->GetClient().Connection();
  CRemoteFsFile file(connector, "disk", mountUid, {SRemoteHandle::None, connection}, 0);
  file.Read(0, 5, buffer);
  EXPECT_EQ(AgentRequest(LastRequest()).handle, -1);
  EXPECT_TRUE(buffer.eof) << "the agent's answer decides";
}

TEST_F(FileTest, APlaceholderIsOpenedOnFirstUse) {
  agent->SetFile("a//disk", Counting(10));
  const auto file = MakePlaceholder("a//disk", 99);
  EXPECT_EQ(Size(*file), 10U);
  EXPECT_THAT(agent->Requests(), ElementsAre(OpenRequest("a//disk"), GetSizeRequest(0)));
  file->Read(0, 3, buffer);
  EXPECT_EQ(agent->Requests().size(), 3U) << "and not again";
}

TEST_F(FileTest, AHandleOfAnOldConnectionIsNeverSent) {
  agent->SetFile("disk", Counting(10));
  agent->SetFile("other", Bytes(10, 0xEE));
  const auto file = OpenFile("disk");
  Lose(*connector);
  ASSERT_TRUE(connector->Reconnect());
  // The number that "disk" had is that of "other" now.
  ASSERT_EQ(connector->GetClient()->Open("other"), 0);
  file->Read(0, 10, buffer);
  EXPECT_EQ(Delivered(buffer), Counting(10));
  EXPECT_EQ(AgentRequest(LastRequest()).handle, 1);
  file->Write(0, 1, "x");
  EXPECT_EQ(agent->FileContent("other"), Bytes(10, 0xEE));
}

TEST_F(FileTest, AFileThatIsGoneAfterAReconnectFails) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  agent->RemoveFile("disk");
  Lose(*connector);
  ASSERT_TRUE(connector->Reconnect());
  EXPECT_EQ(FailureOf([&] { file->Read(0, 1, buffer); }), "The restore agent has no item [disk] any more.");
  EXPECT_EQ(FailureOf([&] { file->Write(0, 1, "x"); }), "The restore agent has no item [disk] any more.");
  EXPECT_EQ(Size(*file), 10U);
}

TEST_F(FileTest, AnswersToThePreviousQuestionAreNotTaken) {
  agent->SetFile("disk", Counting(10));
  const auto file = OpenFile("disk");
  const Bytes second = WireNumber<std::uint32_t>(4) + WireNumber<std::uint32_t>(0xAAAAAAAA);
  // Two answers to one question: the second is there before the next question is asked.
  AnswerTo(ReadCommand, AgentReply::Raw(WireNumber<std::uint32_t>(1) + Bytes{1} + second));
  file->Read(0, 1, buffer);
  EXPECT_EQ(Delivered(buffer), (Bytes{1}));
  AnswerWell();
  const auto client = connector->GetClient();
  client->StopEvent()->Set();  // So that nothing waits for what cannot come.
  EXPECT_EQ(FailureOf([&] { client->GetSize(0); }), TimedOut);
}

TEST_F(FileTest, AnAgentThatStopsReadingCostsOneTime) {
  boost::shared_ptr<platform::named_event_t> reset;
  ASSERT_EQ(platform::named_event_t::Create("Global\\VFS_on_deaf-0", 0600, reset), 0U);
  boost::shared_ptr<platform::pipe_listener_t> listener;
  ASSERT_EQ(platform::pipe_listener_t::Listen(R"(\\.\pipe\deaf-0)", 0600, 16, listener), 0U);
  cfg->pipe = "deaf";
  limits.responseMs = ShortMs;
  connector = Connected();
  CRemoteFsFile file(connector, "disk", mountUid, {SRemoteHandle::None, connector->GetClient().Connection()}, 0);
  const Bytes data(8 << 20);
  EXPECT_EQ(FailureOf([&] { file.Write(0, static_cast<std::uint32_t>(data.size()), data.data()); }), TimedOut);
  EXPECT_EQ(FailureOf([&] { file.Write(0, 1, "x"); }), "Pipe pool is hanging. Base pipe name: [deaf].");
}

}  // namespace
}  // namespace test
