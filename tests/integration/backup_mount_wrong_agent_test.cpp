// Agents that answer what no agent should: the call alone fails, and everything else is served as before.
#include <cstring>

#include "integration/support/wrong_agent_fixture.h"

namespace {

using namespace test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSubsetOf;
using testing::Not;

class BackupMountWrongAgentTest : public CWrongAgentTest {};
KELVO_WIRE_SUITE(BackupMountWrongAgentTest);

/// A record of a listing.
Bytes Record(const std::string& name, std::uint64_t size = 5) {
  return WireNumber<std::uint32_t>(0) + WireNumber<std::uint64_t>(size) + WireString(name);
}

TEST_P(BackupMountWrongAgentTest, ListingsThatDoNotHoldWhatTheyAnnounce) {
  PublishBad();
  // Known before the trouble begins.
  const bytes_t known = HandleOf("a", badFolder_);
  const Bytes two = Record("a") + Record("b");
  const Bytes cut(two.begin(), two.end() - 1);
  const std::vector<Bytes> listings{
      WireNumber<std::uint32_t>(0xFFFFFFFF) + two,
      WireNumber<std::uint32_t>(0xFFFFFFFF),
      WireNumber<std::uint32_t>(0x80000000) + two,
      WireNumber<std::uint32_t>(3) + two,
      WireNumber<std::uint32_t>(2) + cut,
      WireNumber<std::uint32_t>(1) + WireNumber<std::uint32_t>(0) + WireNumber<std::uint64_t>(0) +
          WireNumber<std::uint32_t>(0xFFFFFFFF) + WireBytes("a"),
      WireBytes("abc"),
      {},
  };
  for (std::size_t i = 0; i < listings.size(); ++i) {
    Answer(0, listings[i]);
    // What was known of the mount stays; what is not of it is not touched.
    EXPECT_THAT(NamesIn(badFolder_), ElementsAre("a", "beside.txt")) << i;
    EXPECT_EQ(ContentOf(known), "aaaaa");
    ExpectOthersServed();
  }
  EXPECT_EQ(LinesInLog("Failed to enumerate items of the folder []. Pipe: [bad]."), listings.size());
  // More than is announced is left alone.
  Answer(0, WireNumber<std::uint32_t>(1) + two);
  EXPECT_THAT(NamesIn(badFolder_), ElementsAre("a", "beside.txt"));
  AnswerRightly();
  EXPECT_THAT(NamesIn(badFolder_), ElementsAre("a", "b", "beside.txt"));
  EXPECT_EQ(HandleOf("a", badFolder_), known);
}

TEST_P(BackupMountWrongAgentTest, NamesThatAreNoNamesAreSkippedAndNothingElseIs) {
  PublishBad();
  const std::vector<std::string> names{"..",
                                       ".",
                                       "",
                                       "a/b",
                                       "/",
                                       "a\\b",
                                       "a//b",
                                       "../b",
                                       std::string("a\0b", 3),
                                       std::string(1, '\0'),
                                       "\xff",
                                       "\xc3(",
                                       "\xed\xa0\x80",
                                       "a\xf5"};
  Bytes records = Record("a");
  for (const std::string& name : names)
    records = records + Record(name);
  records = records + Record("b") + Record("B") + Record("b");
  Answer(0, WireNumber(static_cast<std::uint32_t>(names.size() + 4)) + records);
  EXPECT_THAT(NamesIn(badFolder_), ElementsAre("a", "b", "beside.txt"));
  EXPECT_EQ(LinesInLog("An item of the backup is skipped, its name is not that of a file: ["), names.size());
  // Neither can a client ask an agent for them.
  const std::size_t before = bad_->Requests().size();
  for (const std::string& name : names) {
    if (name != "." && name != "..") {
      EXPECT_NE(Client().Lookup(badFolder_, name), Ok) << testing::PrintToString(name);
    }
  }
  EXPECT_EQ(bad_->Requests().size(), before);
}

TEST_P(BackupMountWrongAgentTest, NamesThatTheAgentListsAndDoesNotOpenAreLeftOut) {
  PublishBad();
  Answer(0, WireNumber<std::uint32_t>(3) + Record("a") + Record("ghost") + Record("b"));
  EXPECT_THAT(NamesIn(badFolder_), ElementsAre("a", "b", "beside.txt"));
  EXPECT_EQ(Client().Lookup(badFolder_, "ghost"), NoEntry);
}

TEST_P(BackupMountWrongAgentTest, ShortLongAndEmptyAnswersCostTheCallAlone) {
  PublishBad();
  const bytes_t file = HandleOf("a", badFolder_);
  // Open and GetSize: there is no such file then, or its size is the last that was known.
  for (const std::uint32_t command : {1U, 4U}) {
    for (const Bytes& bytes : {Bytes(), Bytes(3)}) {
      Answer(command, bytes);
      EXPECT_EQ(Client().Lookup(badFolder_, "b"), NoEntry);
      EXPECT_EQ(AttributesOf(file).size, 5U);
    }
  }
  Answer(4, Bytes(7));
  EXPECT_EQ(AttributesOf(file).size, 5U);
  EXPECT_EQ(Client().Lookup(badFolder_, "b"), NoEntry);
  Answer(4, WireNumber<std::uint64_t>(9) + Bytes(100));
  EXPECT_EQ(AttributesOf(file).size, 9U);

  const auto written = [](std::int32_t count) { return WireNumber(count); };
  for (const Bytes& bytes : {Bytes(), Bytes(3), written(-1), written(0), written(4), written(6), written(INT32_MIN)}) {
    Answer(3, bytes);
    EXPECT_EQ(Client().Write(file, 0, "AAAAA"), ServerFault);
  }
  Answer(3, written(5) + Bytes(2000));
  EXPECT_EQ(Client().Write(file, 0, "AAAAA"), Ok);

  for (const std::size_t length : {std::size_t{11}, std::size_t{2000}, std::size_t{70000}, std::size_t{5} << 20}) {
    Answer(2, Bytes(length, 'x'));
    EXPECT_EQ(Client().Read(file, 0, 10).status, ServerFault) << length;
  }
  Answer(2, Bytes(3, 'x'));
  const SReadResult part = Client().Read(file, 0, 10);
  EXPECT_EQ(part.data, "xxx");
  EXPECT_TRUE(part.eof);
  Answer(2, {});
  EXPECT_TRUE(Client().Read(file, 0, 10).eof);
  AnswerRightly();
  EXPECT_EQ(ContentOf(file), "aaaaa");
  EXPECT_EQ(ContentOf(HandleOf("b", badFolder_)), "bbbbb");
  EXPECT_EQ(bad_->Clients(), 1);
  EXPECT_EQ(Locks(), (std::set<std::string>{"bad", "good"}));
}

TEST_P(BackupMountWrongAgentTest, HandlesBelowZeroAreHandles) {
  PublishBad();
  for (const std::int32_t handle : {-2, INT32_MIN, INT32_MAX}) {
    bad_->SetScript([handle](const AgentRequest& request) -> std::optional<AgentReply> {
      if (request.command == 1)
        return AgentReply::Message(WireNumber(handle));
      if (request.command == 4)
        return AgentReply::Message(WireNumber<std::uint64_t>(request.handle == handle ? 7 : 0));
      if (request.command == 2)
        return AgentReply::Message(WireBytes(request.handle == handle ? "content" : ""));
      return {};
    });
    const std::string name = "file" + std::to_string(handle);
    const bytes_t file = HandleOf(name, badFolder_);
    EXPECT_EQ(AttributesOf(file).size, 7U);
    EXPECT_EQ(ContentOf(file), "content");
  }
}

TEST_P(BackupMountWrongAgentTest, SizesAndOffsetsUpToTheLastBit) {
  PublishBad();
  const bytes_t file = HandleOf("a", badFolder_);
  constexpr std::uint64_t Half = std::uint64_t{1} << 63;
  for (const std::uint64_t size : {Half - 1, Half, Half + 1, ~std::uint64_t{0}}) {
    Answer(4, WireNumber(size));
    SAttributes found;
    ASSERT_EQ(Client().Lookup(badFolder_, "a", nullptr, &found), Ok);
    EXPECT_EQ(found.size, size);
    EXPECT_EQ(AttributesOf(file).size, size);
    Answer(0, WireNumber<std::uint32_t>(1) + Record("a", size));
    EXPECT_THAT(NamesIn(badFolder_), ElementsAre("a", "beside.txt"));
    for (const std::uint64_t offset : {size, size - 1, size - 10}) {
      Answer(2, WireBytes("12345"));
      EXPECT_EQ(Client().Read(file, offset, 5).data, "12345");
      Answer(3, WireNumber<std::int32_t>(5));
      EXPECT_EQ(Client().Write(file, offset, "12345"), Ok);
      EXPECT_EQ(AgentRequest(bad_->Requests().back()).offset, offset);
    }
  }
}

TEST_P(BackupMountWrongAgentTest, ASecondAgentOfTheSameNameDoesNotStartAndDoesNotDisturb) {
  const CBackupFolder backup{{"disk.img", "disk"}};
  const CBackupFolder other{{"disk.img", "other"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  const std::string id = Publish("vm1", "bad");
  const bytes_t disk = HandleOf("disk.img", badFolder_);
  const std::vector<std::string> command{Program("kelvo-mount-agent"), "--pipe", "vm1", "--source", other.Path()};
  const SResult second = RunProgram(command, service_.Environment());
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_THAT(second.err, HasSubstr("kelvo-mount-agent: "));
  EXPECT_THAT(second.err, HasSubstr("vm1"));
  EXPECT_EQ(ContentOf(disk), "disk");
  EXPECT_EQ(Locks(), (std::set<std::string>{"good", "vm1"}));
  Withdraw(id);
  EXPECT_EQ(agent.Stop(), 0);
}

TEST_P(BackupMountWrongAgentTest, HalfAnAgentIsNone) {
  const auto refused = [&] { return Refused("half", "bad"); };
  {
    // A pipe and no event.
    boost::shared_ptr<platform::pipe_listener_t> pipe;
    ASSERT_EQ(platform::pipe_listener_t::Listen("half-0", 0600, 4, pipe), 0U);
    EXPECT_THAT(refused(), HasSubstr("NFS mount agent is not started or not functional (2)."));
  }
  {
    // An event and no pipe.
    boost::shared_ptr<platform::named_event_t> event;
    ASSERT_EQ(platform::named_event_t::Create("VFS_on_half-0", 0600, event), 0U);
    EXPECT_THAT(refused(), HasSubstr("Failed to open pipe pool with VFS server"));
    EXPECT_EQ(LinesInLog("Pipe [\\\\.\\pipe\\half-0] is not available."), 1U);
    EXPECT_TRUE(event->IsSet());
  }
  {
    // Something that listens in the event's place and gives nothing.
    const std::string path = service_.Environment().at("KELVO_RUNTIME_DIR") + "/event/VFS_on_half-0";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const platform::descriptor_t listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.Get(), 4), 0);
    EXPECT_THAT(refused(), HasSubstr("Failed to connect to the FS server. Pipe: [half]."));
    ::unlink(path.c_str());
  }
  EXPECT_EQ(Locks(), std::set<std::string>{"good"});
}

}  // namespace
