// Agents that do not answer, or never to the end.
#include <latch>

#include "integration/support/wrong_agent_fixture.h"

namespace {

using namespace test;
using testing::Le;

constexpr std::uint32_t IoError = 5;
constexpr std::uint32_t ReadCommand = 2;

/// An agent of one file that answers a read of it with the beginning of a long message, and then goes on with a little
/// again and again for as long as it lives.
class CDrippingAgent {
 public:
  explicit CDrippingAgent(const std::string& base) : stop_(::eventfd(0, EFD_CLOEXEC)) {
    if (platform::pipe_listener_t::Listen(base + "-0", 0600, 4, listener_) != 0 ||
        platform::named_event_t::Create("VFS_on_" + base + "-0", 0600, reset_) != 0)
      throw std::runtime_error("The agent cannot start.");
    thread_ = std::thread([this] { Run(); });
  }
  CDrippingAgent(const CDrippingAgent&) = delete;
  CDrippingAgent& operator=(const CDrippingAgent&) = delete;
  ~CDrippingAgent() {
    ::eventfd_write(stop_.Get(), 1);
    thread_.join();
  }

 private:
  void Run() {
    const std::array<int, 1> cancels{stop_.Get()};
    const platform::pipe_wait_t wait{platform::deadline_t::Never(), cancels};
    boost::shared_ptr<platform::message_pipe_t> client;
    while (listener_->Accept(client, wait) == 0) {
      Bytes bytes;
      while (client->ReadMessage(bytes, platform::MaxPipeMessage, wait) == 0) {
        const AgentRequest request(bytes);
        if (request.command == ReadCommand) {
          Drip(client->Descriptor());
          break;
        }
        const Bytes number = WireNumber<std::uint64_t>(request.command == 4 ? std::uint64_t{64} << 20 : 7);
        client->Write(request.command == 4 ? number : Bytes(number.begin(), number.begin() + 4), wait);
      }
    }
  }

  void Drip(int socket) const {
    Bytes piece = WireNumber<std::uint32_t>(64U << 20) + Bytes(0x10020, 'd');
    pollfd entry{stop_.Get(), POLLIN, 0};
    do {
      if (::send(socket, piece.data(), piece.size(), MSG_NOSIGNAL) < 0)
        return;
      piece.assign(1024, 'd');
    } while (::poll(&entry, 1, 500) == 0);
  }

  const platform::descriptor_t stop_;
  boost::shared_ptr<platform::pipe_listener_t> listener_;
  boost::shared_ptr<platform::named_event_t> reset_;
  std::thread thread_;
};

class BackupMountSilentAgentTest : public CWrongAgentTest {
 protected:
  /// In the synchronous server each connection has threads of its own; in the other one all requests of a program wait
  /// for one another, by design.
  static bool IsParallel() { return std::string(GetParam().name) == "Sync"; }

  /// Uses everything else until the calls on bad mounts are done.
  void ServeOthersUntil(const std::function<bool()>& isDone) {
    CNfsClient client;
    std::size_t uses = 0;
    std::chrono::milliseconds longest{};
    while (!isDone()) {
      for (const auto& [file, content] : {std::pair(goodFile_, "good"), std::pair(hostFile_, "host")}) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(client.Read(file, 0, 10).data, content);
        EXPECT_EQ(client.GetAttr(file), Ok);
        EXPECT_EQ(client.Lookup(root_, "host.txt"), Ok);
        EXPECT_FALSE(client.List(root_).empty());
        longest = std::max(
            longest, std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin));
        ++uses;
      }
    }
    std::printf("MEASURE %zu uses of other mounts, the longest took %lld ms\n", uses,
                static_cast<long long>(longest.count()));
    if (IsParallel()) {
      EXPECT_GT(uses, 100U);
      EXPECT_THAT(longest, Le(1000ms));
    }
  }
};
KELVO_WIRE_SUITE(BackupMountSilentAgentTest);

/// What takes long and is the same in both servers runs in one.
class BackupMountSlowAgentTest : public BackupMountSilentAgentTest {};
INSTANTIATE_TEST_SUITE_P(Server, BackupMountSlowAgentTest, testing::Values(test::AsyncServer), test::ServerName);

TEST_P(BackupMountSilentAgentTest, EveryKindOfSilenceIsAnErrorAfterTheSameTime) {
  std::latch over(1);
  std::map<std::string, std::function<AgentReply(const AgentRequest&)>> kinds;
  kinds["silent"] = [](const AgentRequest&) { return AgentReply::Silence(); };
  kinds["gone"] = [](const AgentRequest&) { return AgentReply::HangUp(); };
  kinds["gone-in-header"] = [](const AgentRequest&) { return AgentReply::RawAndHangUp({5, 0}); };
  kinds["gone-in-message"] = [](const AgentRequest&) {
    return AgentReply::RawAndHangUp(WireNumber<std::uint32_t>(5) + WireBytes("xx"));
  };
  kinds["gone-in-rest"] = [](const AgentRequest&) {
    return AgentReply::RawAndHangUp(WireNumber<std::uint32_t>(100000) + Bytes(70000, 'x'));
  };
  kinds["stuck-in-message"] = [](const AgentRequest&) {
    return AgentReply::Raw(WireNumber<std::uint32_t>(5) + WireBytes("xx"));
  };
  kinds["stuck-in-rest"] = [](const AgentRequest&) {
    return AgentReply::Raw(WireNumber<std::uint32_t>(100000) + Bytes(70000, 'x'));
  };
  kinds["without-end"] = [](const AgentRequest&) {
    return AgentReply::Raw(WireNumber<std::uint32_t>(0xFFFFFFFF) + Bytes(70000, 'x'));
  };
  kinds["stops-reading"] = [&over](const AgentRequest&) {
    over.wait();
    return AgentReply::Silence();
  };
  std::map<std::string, std::unique_ptr<FakeMountAgent>> agents;
  std::map<std::string, std::string> mounts;
  std::map<std::string, bytes_t> files;
  for (const auto& [name, answer] : kinds) {
    agents[name] = std::make_unique<FakeMountAgent>(name);
    agents[name]->SetFile(name, WireBytes("content"));
    mounts[name] = Publish(name, "bad");
    files[name] = HandleOf(name, badFolder_);
    EXPECT_EQ(ContentOf(files[name]), "content");
    agents[name]->SetScript([answer = answer](const AgentRequest& request) -> std::optional<AgentReply> {
      return request.command == ReadCommand ? std::optional(answer(request)) : std::nullopt;
    });
  }
  std::map<std::string, std::unique_ptr<CReader>> readers;
  for (const auto& [name, file] : files)
    readers[name] = std::make_unique<CReader>(file, 7);
  ServeOthersUntil([&] {
    return std::all_of(readers.begin(), readers.end(), [](const auto& reader) { return reader.second->IsDone(); });
  });
  for (const auto& [name, reader] : readers) {
    EXPECT_EQ(reader->Wait().status, ServerFault) << name;
    // One after another where requests wait for one another.
    EXPECT_THAT(reader->Took(), Le(IsParallel() ? 8s : 60s)) << name;
  }
  for (const auto& [name, mount] : mounts)
    Withdraw(mount);
  over.count_down();
}

TEST_P(BackupMountSlowAgentTest, ALateAnswerIsNeverTakenForThatOfALaterQuestion) {
  PublishBad();
  const bytes_t a = HandleOf("a", badFolder_);
  const bytes_t b = HandleOf("b", badFolder_);
  std::atomic<bool> isFirst = true;
  bad_->SetScript([&isFirst](const AgentRequest& request) -> std::optional<AgentReply> {
    if (request.command != ReadCommand || !isFirst.exchange(false))
      return {};
    std::this_thread::sleep_for(3s);
    return AgentReply::Message(WireBytes("aaaaa"));
  });
  EXPECT_EQ(Client().Read(a, 0, 5).status, ServerFault);
  // The answer comes while this one waits, or never; the mount comes back with a connection of its own.
  const SReadResult second = Client().Read(b, 0, 5);
  EXPECT_TRUE(second.status == IoError || (second.status == Ok && second.data == "bbbbb")) << second.status;
  EXPECT_TRUE(WaitUntil([&] { return Client().Read(b, 0, 5).data == "bbbbb"; }, ReconnectLimit));
  EXPECT_EQ(ContentOf(a), "aaaaa");
  EXPECT_EQ(bad_->Clients(), 2);
  bad_->SetScript({});
}

TEST_P(BackupMountSilentAgentTest, TheAnswerToAnotherQuestionIsNone) {
  PublishBad();
  const bytes_t a = HandleOf("a", badFolder_);
  const bytes_t b = HandleOf("b", badFolder_);
  // Two messages for one request: from the second on, each would answer the one before.
  bad_->SetScript([](const AgentRequest& request) -> std::optional<AgentReply> {
    if (request.command != ReadCommand)
      return {};
    const Bytes message = WireNumber<std::uint32_t>(5) + WireBytes(request.handle == 0 ? "aaaaa" : "bbbbb");
    return AgentReply::Raw(message + message);
  });
  EXPECT_EQ(ContentOf(a, 5), "aaaaa");
  const SReadResult second = Client().Read(b, 0, 5);
  EXPECT_EQ(second.status, ServerFault);
  EXPECT_NE(second.data, "aaaaa");
}

TEST_P(BackupMountSilentAgentTest, WithdrawingWhileACallHangsLeavesNoCallWithoutAnAnswer) {
  PublishBad();
  const bytes_t a = HandleOf("a", badFolder_);
  bad_->SetScript([](const AgentRequest& request) -> std::optional<AgentReply> {
    return request.command == ReadCommand ? std::optional(AgentReply::Silence()) : std::nullopt;
  });
  const std::size_t before = bad_->Requests().size();
  CReader first(a, 5);
  bad_->WaitForRequests(before + 1);
  CReader second(a, 5);
  Withdraw(badMount_);
  badMount_.clear();
  EXPECT_NE(first.Wait().status, Ok);
  EXPECT_NE(second.Wait().status, Ok);
  EXPECT_THAT(second.Took(), Le(25s));
}

TEST_P(BackupMountSlowAgentTest, AnAgentThatNeverFinishesItsAnswer) {
  CDrippingAgent agent("drip");
  const std::string id = Publish("drip", "bad");
  const bytes_t file = HandleOf("file", badFolder_);
  CReader reader(file, 1 << 20);
  EXPECT_TRUE(WaitUntil([&] { return reader.IsDone(); }, 25s));
  Withdraw(id);
  EXPECT_NE(reader.Wait().status, Ok);
}

}  // namespace
