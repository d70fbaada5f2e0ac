#include "remotefs/remotevfs/remote_vfs_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "foundation/exc.h"
#include "support/captured_log.h"
#include "support/failure_text.h"
#include "support/fake_mount_agent.h"
#include "support/refused_memory.h"
#include "support/temp_dir.h"

namespace {

using remotevfs::Buffer;
using remotevfs::RemoteVfsClient;
using remotevfs::VfsItem;
using test::AgentReply;
using test::AgentRequest;
using test::Bytes;
using test::FakeMountAgent;
using test::WireNumber;
using test::WireString;
using test::operator+;
using test::FailureOf;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string Pipe = R"(\\.\pipe\vm1-0)";
/// Never reached by a test that passes, and reached by one that waits for it.
constexpr std::uint32_t Long = 60000;
constexpr std::uint32_t Short = 50;

constexpr const char* TimedOut = "Timed out waiting for the response from restore agent.";
constexpr const char* NotAvailable = "Restore agent is not available.";
constexpr const char* Invalid = "Invalid data stream";
constexpr const char* BrokenAtOnce = "NFS input pipe is broken ( probably NFS server was restarted or closed).";
constexpr const char* BrokenLater = "NFS input pipe is broken (probably NFS server was restarted or closed).";

Bytes Pattern(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  return bytes;
}

Bytes Copy(const Buffer& buffer) {
  return {buffer.Bytes().begin(), buffer.Bytes().end()};
}

class RemoteVfsClientTest : public testing::Test {
 protected:
  std::unique_ptr<RemoteVfsClient> MakeClient(std::uint32_t responseTimeoutMs = Long) const {
    return std::make_unique<RemoteVfsClient>(Pipe, 0, responseTimeoutMs);
  }
  void Answer(AgentReply reply) {
    agent_->SetScript([reply](const AgentRequest&) { return reply; });
  }
  void AnswerWell() { agent_->SetScript({}); }
  Bytes LastRequest() const {
    const std::vector<Bytes> requests = agent_->Requests();
    return requests.empty() ? Bytes() : requests.back();
  }
  /// What is thrown by a client that got no answer, and by the same from then on.
  static void ExpectBroken(RemoteVfsClient& client) {
    EXPECT_FALSE(client.IsBroken());
    EXPECT_EQ(FailureOf([&] { client.GetSize(0); }), TimedOut);
    EXPECT_TRUE(client.IsBroken());
    EXPECT_EQ(FailureOf([&] { client.GetSize(0); }), NotAvailable);
    EXPECT_EQ(FailureOf([&] { client.Enumerate(); }), NotAvailable);
  }

  test::TempDir folder_;
  test::ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", folder_ / "run"};
  std::unique_ptr<FakeMountAgent> agent_ = std::make_unique<FakeMountAgent>("vm1");
};

TEST_F(RemoteVfsClientTest, OpensThePipeAndTellsOfIt) {
  const test::CapturedLog log;
  const auto client = MakeClient();
  EXPECT_FALSE(client->IsBroken());
  agent_->WaitForClients(1);
  EXPECT_THAT(log.Texts("Info"), ElementsAre("Opening VFS pipe \"\\\\.\\pipe\\vm1-0\".", "Pipe was opened."));
}

TEST_F(RemoteVfsClientTest, APipeThatIsNotThereIsNotAvailable) {
  agent_.reset();
  const test::CapturedLog log;
  EXPECT_EQ(FailureOf([&] { RemoteVfsClient(Pipe, Long, Long); }),
            "Pipe [\\\\.\\pipe\\vm1-0] is not available.\n"
            "Failed to connect to FS server. Pipe: [\\\\.\\pipe\\vm1-0].");
  EXPECT_TRUE(log.Texts().empty());
}

TEST_F(RemoteVfsClientTest, APipeWithoutRoomIsNotAvailable) {
  agent_.reset();
  agent_ = std::make_unique<FakeMountAgent>("vm1", 0);
  const auto served = MakeClient();
  agent_->WaitForClients(1);
  const auto waiting = MakeClient();
  EXPECT_THAT(FailureOf([&] { RemoteVfsClient(Pipe, 0, Long); }), HasSubstr("is not available."));
  EXPECT_THAT(FailureOf([&] { RemoteVfsClient(Pipe, 20, Long); }), HasSubstr("is not available."));
}

TEST_F(RemoteVfsClientTest, WhatIsNoPipeCannotBeOpened) {
  std::ofstream(folder_ / "run/pipe/vm2-0") << "no socket";
  const test::CapturedLog log;
  try {
    RemoteVfsClient(R"(\\.\pipe\vm2-0)", 0, Long);
    FAIL();
  } catch (const exc::win_sys_exc_t& exception) {
    EXPECT_EQ(exception.Code(), platform::error::InvalidHandle);
    EXPECT_THAT(exception.what(), HasSubstr("Failed to open pipe handle"));
    EXPECT_THAT(exception.what(), testing::EndsWith("Failed to connect to FS server. Pipe: [\\\\.\\pipe\\vm2-0]."));
  }
  EXPECT_THAT(log.Texts(), ElementsAre("Opening VFS pipe \"\\\\.\\pipe\\vm2-0\"."));
}

TEST_F(RemoteVfsClientTest, ListsTheRootWithEightBytes) {
  const auto client = MakeClient();
  agent_->SetFile("disk.img", Pattern(10));
  agent_->SetFile("sub//inner", {});
  const auto items = client->Enumerate();
  EXPECT_EQ(LastRequest(), (Bytes{0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_THAT(items->Items(), ElementsAre(VfsItem{0, 10, "disk.img"}));
}

TEST_F(RemoteVfsClientTest, ListsAFolder) {
  const auto client = MakeClient();
  agent_->SetFile("sub//inner", Pattern(3));
  const auto items = client->Enumerate("sub");
  EXPECT_EQ(LastRequest(), (Bytes{0, 0, 0, 0, 3, 0, 0, 0, 's', 'u', 'b'}));
  EXPECT_THAT(items->Items(), ElementsAre(VfsItem{0, 3, "inner"}));
}

TEST_F(RemoteVfsClientTest, OpensAnItem) {
  const auto client = MakeClient();
  agent_->SetFile("a//b", {});
  EXPECT_EQ(client->Open("a//b"), 0);
  EXPECT_EQ(LastRequest(), (Bytes{1, 0, 0, 0, 4, 0, 0, 0, 'a', '/', '/', 'b'}));
  EXPECT_EQ(client->Open("missing"), -1);
  Answer(AgentReply::Message({0xFE, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(client->Open("a"), -2);
}

TEST_F(RemoteVfsClientTest, NamesTheItemThatCouldNotBeOpened) {
  const auto client = MakeClient();
  Answer(AgentReply::Message({1, 2, 3}));
  EXPECT_EQ(FailureOf([&] { client->Open("a//b"); }), "Invalid data stream\nFailed to open backup item [a//b].");
}

TEST_F(RemoteVfsClientTest, ReadsWhatTheAgentHas) {
  const auto client = MakeClient();
  agent_->SetFile("disk", Pattern(200000));
  const std::int32_t handle = client->Open("disk");
  Buffer out;
  client->Read(handle, 1000, 65536, out);
  EXPECT_EQ(LastRequest(), (Bytes{2, 0, 0, 0, 0, 0, 0, 0, 0xE8, 3, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0}));
  const Bytes content = Pattern(200000);
  EXPECT_EQ(Copy(out), Bytes(content.begin() + 1000, content.begin() + 66536));
  EXPECT_EQ(out.Capacity(), 0x10020U);
  client->Read(handle, 199990, 65536, out);
  EXPECT_EQ(out.ActualSize(), 10U);
}

TEST_F(RemoteVfsClientTest, SendsNumbersOfEverySize) {
  const auto client = MakeClient();
  Answer(AgentReply::Message({}));
  Buffer out;
  client->Read(-1, 0x8877665544332211, 0xFFEEDDCC, out);
  EXPECT_EQ(LastRequest(), (Bytes{2,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0x11, 0x22,
                                  0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0xCC, 0xDD, 0xEE, 0xFF}));
}

TEST_F(RemoteVfsClientTest, AnEmptyReadReplyIsAnEmptyBuffer) {
  const auto client = MakeClient();
  Answer(AgentReply::Message({}));
  Buffer out;
  out.Append(Pattern(10));
  client->Read(3, 0, 100, out);
  EXPECT_EQ(out.ActualSize(), 0U);
  EXPECT_FALSE(client->IsBroken());
}

TEST_F(RemoteVfsClientTest, AReadReplyLongerThanTheBufferGrowsIt) {
  const auto client = MakeClient();
  for (const std::size_t size : {0x1001FU, 0x10020U, 0x10021U, 0x10020U + 1024, 0x10020U + 1025, 3000000U}) {
    const test::CapturedLog log;
    Answer(AgentReply::Message(Pattern(size)));
    Buffer out;
    client->Read(3, 0, 100, out);
    EXPECT_EQ(Copy(out), Pattern(size)) << size;
    EXPECT_EQ(log.Count("PipeHandler::Read()"), size > 0x10020 ? 2U : 0U) << size;
  }
}

TEST_F(RemoteVfsClientTest, WritesData) {
  const auto client = MakeClient();
  agent_->SetFile("disk", Pattern(10));
  const std::int32_t handle = client->Open("disk");
  const Bytes data{0xA0, 0xA1, 0xA2};
  EXPECT_EQ(client->Write(handle, 8, 3, data.data()), 3);
  EXPECT_EQ(LastRequest(), (Bytes{3, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0xA0, 0xA1, 0xA2}));
  EXPECT_EQ(agent_->FileContent("disk").size(), 11U);
  const Bytes large = Pattern(1000000);
  EXPECT_EQ(client->Write(handle, 0, 1000000, large.data()), 1000000);
  EXPECT_EQ(agent_->FileContent("disk"), large);
}

TEST_F(RemoteVfsClientTest, AWriteOfNothingIsTwentyBytesAndStillAnswered) {
  const auto client = MakeClient();
  Answer(AgentReply::Message({0, 0, 0, 0}));
  EXPECT_EQ(client->Write(7, 1, 0, nullptr), 0);
  EXPECT_EQ(LastRequest(), (Bytes{3, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  Answer(AgentReply::Message({}));
  EXPECT_EQ(FailureOf([&] { client->Write(7, 1, 0, nullptr); }), Invalid);
}

TEST_F(RemoteVfsClientTest, AWriteCountIsTheAgentsWord) {
  const auto client = MakeClient();
  Answer(AgentReply::Message({0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(client->Write(7, 0, 1, "x"), -1);
  Answer(AgentReply::Message({0xFF, 0xFF, 0xFF, 0x7F}));
  EXPECT_EQ(client->Write(7, 0, 1, "x"), 0x7FFFFFFF);
}

TEST_F(RemoteVfsClientTest, AsksForTheSize) {
  const auto client = MakeClient();
  Answer(AgentReply::Message({1, 2, 3, 4, 5, 6, 7, 0x88}));
  EXPECT_EQ(client->GetSize(9), 0x8807060504030201U);
  EXPECT_EQ(LastRequest(), (Bytes{4, 0, 0, 0, 9, 0, 0, 0}));
}

TEST_F(RemoteVfsClientTest, ASizeOfSevenBytesIsInvalidAndThePipeStaysUsable) {
  const auto client = MakeClient();
  Answer(AgentReply::Message(Bytes(7)));
  EXPECT_EQ(FailureOf([&] { client->GetSize(0); }), Invalid);
  EXPECT_FALSE(client->IsBroken());
  Answer(AgentReply::Message(Bytes(8)));
  EXPECT_EQ(client->GetSize(0), 0U);
}

TEST_F(RemoteVfsClientTest, AReplyCutAnywhereIsInvalid) {
  const auto client = MakeClient();
  const Bytes listing = WireNumber<std::uint32_t>(2) + WireNumber<std::uint32_t>(0) + WireNumber<std::uint64_t>(1) +
                        WireString("one") + WireNumber<std::uint32_t>(0) + WireNumber<std::uint64_t>(2) +
                        WireString("two");
  for (std::size_t cut = 0; cut < listing.size(); ++cut) {
    SCOPED_TRACE(cut);
    Answer(AgentReply::Message(Bytes(listing.begin(), listing.begin() + static_cast<std::ptrdiff_t>(cut))));
    EXPECT_EQ(FailureOf([&] { client->Enumerate("x"); }), Invalid);
    if (cut < 8) {
      EXPECT_EQ(FailureOf([&] { client->GetSize(0); }), Invalid);
    }
    if (cut < 4) {
      EXPECT_EQ(FailureOf([&] { client->Write(0, 0, 1, "x"); }), Invalid);
      EXPECT_THAT(FailureOf([&] { client->Open("x"); }), HasSubstr(Invalid));
    }
  }
  Answer(AgentReply::Message(listing));
  EXPECT_EQ(client->Enumerate("x")->Size(), 2U);
}

TEST_F(RemoteVfsClientTest, AListingOfAnyLengthIsRead) {
  const auto client = MakeClient();
  // 1,023 to 1,025 bytes, around what is received at once, and far more.
  for (const std::size_t nameLength : {1003U, 1004U, 1005U, 200000U}) {
    const std::string name(nameLength, 'n');
    Answer(AgentReply::Message(WireNumber<std::uint32_t>(1) + WireNumber<std::uint32_t>(3) +
                               WireNumber<std::uint64_t>(4) + WireString(name)));
    EXPECT_THAT(client->Enumerate()->Items(), ElementsAre(VfsItem{3, 4, name}));
  }
  AnswerWell();
  for (int i = 0; i < 2000; ++i)
    agent_->SetFile("file" + std::to_string(i), {});
  EXPECT_EQ(client->Enumerate()->Size(), 2000U);
}

TEST_F(RemoteVfsClientTest, ALongReplyToAShortQuestionIsCutToIt) {
  const auto client = MakeClient();
  Answer(AgentReply::Message(Bytes{5, 0, 0, 0} + Bytes(5000)));
  EXPECT_EQ(client->Open("x"), 5);
  EXPECT_EQ(client->Write(0, 0, 1, "x"), 5);
  EXPECT_EQ(client->GetSize(0), 5U);
}

TEST_F(RemoteVfsClientTest, ASilentAgentBreaksTheClient) {
  const auto client = MakeClient(Short);
  Answer(AgentReply::Silence());
  ExpectBroken(*client);
}

TEST_F(RemoteVfsClientTest, AnAgentThatStopsInTheMiddleBreaksTheClient) {
  // In the length, in the part that is received at once, between it and the remainder, and in the remainder.
  const Bytes announced = WireNumber<std::uint32_t>(5000);
  for (const std::size_t sent : {1U, 3U, 4U, 5U, 4U + 1023, 4U + 1024, 4U + 1025, 4U + 4999}) {
    SCOPED_TRACE(sent);
    const auto client = MakeClient(Short);
    Bytes raw = announced + Bytes(5000);
    raw.resize(sent);
    Answer(AgentReply::Raw(raw));
    ExpectBroken(*client);
  }
}

TEST_F(RemoteVfsClientTest, AnAgentThatDiesInTheMiddleBreaksTheClient) {
  const Bytes announced = WireNumber<std::uint32_t>(5000);
  for (const std::size_t sent : {0U, 1U, 3U, 4U, 5U, 4U + 1023, 4U + 1024, 4U + 1025, 4U + 4999}) {
    SCOPED_TRACE(sent);
    const auto client = MakeClient(Short);
    Bytes raw = announced + Bytes(5000);
    raw.resize(sent);
    Answer(AgentReply::RawAndHangUp(raw));
    ExpectBroken(*client);
  }
}

TEST_F(RemoteVfsClientTest, TellsOfAPipeThatBreaksInTheRemainder) {
  const auto client = MakeClient();
  Bytes raw = WireNumber<std::uint32_t>(5000) + Bytes(2000);
  Answer(AgentReply::RawAndHangUp(raw));
  const test::CapturedLog log;
  EXPECT_EQ(FailureOf([&] { client->GetSize(0); }), TimedOut);
  // Which of the two depends on whether the agent was quicker to close than the client to read.
  EXPECT_EQ(log.Count("  " + std::string(BrokenAtOnce)) + log.Count("  " + std::string(BrokenLater)) +
                log.Count(BrokenAtOnce) + log.Count(BrokenLater),
            1U);
}

TEST_F(RemoteVfsClientTest, AnAgentThatWasGoneBeforeBreaksTheClient) {
  const auto client = MakeClient(Short);
  agent_->WaitForClients(1);
  agent_.reset();
  ExpectBroken(*client);
}

TEST_F(RemoteVfsClientTest, AnAgentThatDoesNotReadBreaksTheClient) {
  Answer(AgentReply::Silence());
  const auto first = MakeClient();
  agent_->WaitForClients(1);
  // Served by nobody while the first one is there.
  const auto client = MakeClient(Short);
  const Bytes data(4 << 20);
  EXPECT_EQ(FailureOf([&] { client->Write(0, 0, static_cast<std::uint32_t>(data.size()), data.data()); }), TimedOut);
  EXPECT_TRUE(client->IsBroken());
}

TEST_F(RemoteVfsClientTest, SomethingUnaskedIsNobodysAnswer) {
  const auto client = MakeClient();
  const Bytes reply = WireNumber<std::uint32_t>(8) + WireNumber<std::uint64_t>(1);
  Answer(AgentReply::Raw(reply + reply));
  EXPECT_EQ(client->GetSize(0), 1U);
  AnswerWell();
  // So that it does not wait for what cannot come.
  client->StopEvent()->Set();
  ExpectBroken(*client);
  EXPECT_EQ(agent_->Requests().size(), 1U);
}

TEST_F(RemoteVfsClientTest, AReplyThatMemoryIsRefusedToIsNobodyElses) {
  constexpr std::uint32_t Files = 300;
  for (std::uint32_t i = 0; i < Files; ++i)
    agent_->SetFile("file" + std::to_string(i), {});
  std::size_t broken = 0;
  test::UntilNoneIsRefused([&](std::size_t granted) {
    const auto client = MakeClient(Short);
    bool isRefused = false;
    std::size_t found = 0;
    {
      const test::RefusedRequest refusal(granted);
      try {
        found = client->Enumerate()->Size();
      } catch (const std::bad_alloc&) {
      }
      isRefused = refusal.HasHappened();
    }
    EXPECT_EQ(found, isRefused ? 0 : Files) << granted;
    broken += client->IsBroken() ? 1 : 0;
    EXPECT_EQ(client->IsBroken() ? Files : client->Enumerate()->Size(), Files) << granted;
    return isRefused;
  });
  EXPECT_GT(broken, 0U);
}

TEST_F(RemoteVfsClientTest, AnEventAbandonsTheRequest) {
  const auto client = MakeClient();
  Answer(AgentReply::Silence());
  std::thread stopper([&] {
    agent_->WaitForRequests(1);
    client->StopEvent()->Set();
  });
  ExpectBroken(*client);
  stopper.join();
}

TEST_F(RemoteVfsClientTest, AnEventAbandonsARequestToADeadAgent) {
  const auto client = MakeClient();
  agent_->WaitForClients(1);
  agent_.reset();
  client->StopEvent()->Set();
  ExpectBroken(*client);
}

TEST_F(RemoteVfsClientTest, AnotherClientIsServedWhenTheAgentIsBack) {
  auto client = MakeClient(Short);
  agent_->WaitForClients(1);
  agent_.reset();
  ExpectBroken(*client);
  agent_ = std::make_unique<FakeMountAgent>("vm1");
  agent_->SetFile("disk", Pattern(5));
  EXPECT_EQ(FailureOf([&] { client->GetSize(0); }), NotAvailable);
  client = MakeClient();
  EXPECT_EQ(client->GetSize(client->Open("disk")), 5U);
}

TEST_F(RemoteVfsClientTest, RequestsOfManyThreadsDoNotMix) {
  const auto client = MakeClient();
  agent_->SetFile("disk", Pattern(100000));
  const std::int32_t handle = client->Open("disk");
  const Bytes content = Pattern(100000);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (std::size_t i = 0; i < 50; ++i) {
        const std::size_t offset = t * 10000 + i * 100;
        Buffer out;
        client->Read(handle, offset, 5000, out);
        EXPECT_TRUE(
            std::equal(out.Bytes().begin(), out.Bytes().end(), content.begin() + static_cast<std::ptrdiff_t>(offset)));
        EXPECT_EQ(out.ActualSize(), 5000U);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

}  // namespace
