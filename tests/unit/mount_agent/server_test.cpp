#include "mount-agent-lib/server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "foundation/events.h"
#include "foundation/exc.h"
#include "kelvo-mount-agent/command_line.h"
#include "mount-agent-lib/session.h"
#include "support/temp_dir.h"
#include "unit/mount_agent/folder_fixture.h"

namespace {

namespace error = platform::error;
using mount_agent::bytes_t;
using mount_agent::CAgentServer;
using mount_agent::Put;
using mount_agent::PutCounted;
using mount_agent::writes_t;

/// A client that speaks bytes.
class Client {
 public:
  explicit Client(const std::string& socketPath) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(::connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }

  /// False when the agent has closed the connection meanwhile.
  bool SendRaw(const bytes_t& bytes) const {
    return ::send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  static bytes_t Framed(const bytes_t& message) {
    bytes_t framed;
    Put(framed, static_cast<std::uint32_t>(message.size()));
    framed.insert(framed.end(), message.begin(), message.end());
    return framed;
  }
  bool Receive(bytes_t& reply) const {
    bytes_t header(4);
    if (!ReceiveAll(header))
      return false;
    std::uint32_t length = 0;
    mount_agent::CRequestReader(header.data(), header.size()).Get(length);
    reply.resize(length);
    return ReceiveAll(reply);
  }
  bool Ask(const bytes_t& request, bytes_t& reply) const { return SendRaw(Framed(request)) && Receive(reply); }
  /// Waits for the agent to close the connection.
  bool IsClosed() const {
    char byte = 0;
    return ::recv(socket_.Get(), &byte, 1, 0) <= 0;
  }
  int Descriptor() const { return socket_.Get(); }

 private:
  bool ReceiveAll(bytes_t& bytes) const {
    return bytes.empty() ||
           ::recv(socket_.Get(), bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size());
  }

  const platform::descriptor_t socket_;
};

bytes_t ReadRequest(std::uint32_t handle, std::uint64_t offset, std::uint32_t length) {
  bytes_t request;
  Put(request, std::uint32_t{2});
  Put(request, handle);
  Put(request, offset);
  Put(request, length);
  return request;
}
bytes_t WriteRequest(std::uint32_t handle, std::uint64_t offset, std::string_view data) {
  bytes_t request;
  Put(request, std::uint32_t{3});
  Put(request, handle);
  Put(request, offset);
  PutCounted(request, data);
  return request;
}

class AgentServerTest : public test::FolderFixture {
 protected:
  AgentServerTest() {
    WriteFile(SourceFile("disk"), "0123456789");
    content_ = MakeOverlaid();
  }

  void Start() {
    server_ = std::make_unique<CAgentServer>("vm", *content_, [this](const std::string& text) { Report(text); });
  }
  void Report(const std::string& text) {
    const std::lock_guard lock(mutex_);
    reports_.push_back(text);
  }
  std::string PipePath() const { return folder_ / "run/pipe/vm-0"; }
  /// What the service does before it connects.
  static void Reset() {
    boost::shared_ptr<platform::named_event_t> event;
    ASSERT_EQ(platform::named_event_t::Open("Global\\VFS_on_vm-0", event), 0U);
    ASSERT_EQ(event->Set(), 0U);
  }
  static std::uint32_t Handle() { return static_cast<std::uint32_t>(mount_agent::CSession::HandleOf("disk")); }
  static std::string ReadDisk(const Client& client) {
    bytes_t reply;
    if (!client.Ask(ReadRequest(Handle(), 0, 100), reply))
      return "closed";
    return {reply.begin(), reply.end()};
  }

  const test::ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", (folder_.Path() / "run").string()};
  const bool made_ = std::filesystem::create_directory(folder_.Path() / "run");
  std::mutex mutex_;
  std::vector<std::string> reports_;
  std::unique_ptr<content_t> content_;
  std::unique_ptr<CAgentServer> server_;
};

TEST_F(AgentServerTest, AnswersOnThePipeByteByByte) {
  Start();
  const Client client(PipePath());
  const bytes_t open = {16, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 'd', 'i', 's', 'k'};
  // The length of the message is wrong by four, so that it is not complete yet.
  ASSERT_TRUE(client.SendRaw(open));
  pollfd readable{client.Descriptor(), POLLIN, 0};
  EXPECT_EQ(::poll(&readable, 1, 0), 0);
  ASSERT_TRUE(client.SendRaw({0, 0, 0, 0}));
  EXPECT_TRUE(client.IsClosed()) << "Bytes behind the path are no request.";

  const Client next(PipePath());
  bytes_t reply;
  ASSERT_TRUE(next.SendRaw({12, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 'd', 'i', 's', 'k'}));
  ASSERT_TRUE(next.Receive(reply));
  bytes_t expected;
  Put(expected, Handle());
  EXPECT_EQ(reply, expected);
  EXPECT_EQ(ReadDisk(next), "0123456789");
}

TEST_F(AgentServerTest, ARequestThatComesByteForByteIsAnswered) {
  Start();
  const Client client(PipePath());
  for (const std::uint8_t byte : Client::Framed(ReadRequest(Handle(), 3, 4)))
    ASSERT_TRUE(client.SendRaw({byte}));
  bytes_t reply;
  ASSERT_TRUE(client.Receive(reply));
  EXPECT_EQ(std::string(reply.begin(), reply.end()), "3456");
}

TEST_F(AgentServerTest, LargeMessagesGoBothWays) {
  Start();
  const Client client(PipePath());
  const std::string data = Pattern(3U << 20U, 4);
  bytes_t reply;
  std::thread writer([&] { EXPECT_TRUE(client.SendRaw(Client::Framed(WriteRequest(Handle(), 5, data)))); });
  ASSERT_TRUE(client.Receive(reply));
  writer.join();
  EXPECT_EQ(reply, (bytes_t{0, 0, 0x30, 0}));
  ASSERT_TRUE(client.Ask(ReadRequest(Handle(), 5, 4U << 20U), reply));
  EXPECT_TRUE(std::string(reply.begin(), reply.end()) == data);
}

TEST_F(AgentServerTest, OneBadConnectionCostsThatOneAlone) {
  Start();
  const Client good(PipePath());
  EXPECT_EQ(ReadDisk(good), "0123456789");
  const std::vector<bytes_t> hostile = {
      {0, 0, 0, 0},                    // No command.
      {4, 0, 0, 0, 9, 0, 0, 0},        // An unknown one.
      {0xFF, 0xFF, 0xFF, 0xFF, 2, 0},  // A request of 4 GiB, which would be read until it is too long.
  };
  for (std::size_t i = 0; i < hostile.size(); ++i) {
    const Client bad(PipePath());
    ASSERT_TRUE(bad.SendRaw(hostile[i]));
    if (i == 2) {
      const bytes_t filler(1U << 20U);
      while (bad.SendRaw(filler)) {
      }
    }
    EXPECT_TRUE(bad.IsClosed()) << i;
    EXPECT_EQ(ReadDisk(good), "0123456789");
  }
  // In the middle of a request, and without reading the reply.
  for (int i = 0; i < 2 * static_cast<int>(mount_agent::MaxConnections); ++i) {
    const Client gone(PipePath());
    EXPECT_TRUE(gone.SendRaw(i % 2 == 0 ? bytes_t{20, 0, 0, 0, 2} : Client::Framed(ReadRequest(Handle(), 0, 10))));
  }
  EXPECT_EQ(ReadDisk(good), "0123456789");
}

TEST_F(AgentServerTest, TheResetEventEndsEarlierConnectionsAndNoLaterOne) {
  Start();
  for (int i = 0; i < 50; ++i) {
    const Client old(PipePath());
    ASSERT_EQ(ReadDisk(old), "0123456789");
    Reset();
    const Client next(PipePath());
    EXPECT_EQ(ReadDisk(next), "0123456789");
    EXPECT_TRUE(old.IsClosed());
    EXPECT_EQ(ReadDisk(next), "0123456789");
  }
}

TEST_F(AgentServerTest, TheResetEventMakesRoomWhenAllConnectionsAreTaken) {
  Start();
  std::vector<std::unique_ptr<Client>> clients;
  for (std::size_t i = 0; i < mount_agent::MaxConnections; ++i) {
    clients.push_back(std::make_unique<Client>(PipePath()));
    ASSERT_EQ(ReadDisk(*clients.back()), "0123456789");
  }
  const Client refused(PipePath());
  EXPECT_TRUE(refused.IsClosed());
  EXPECT_EQ(ReadDisk(*clients.front()), "0123456789");
  Reset();
  const Client next(PipePath());
  EXPECT_EQ(ReadDisk(next), "0123456789");
  EXPECT_TRUE(clients.front()->IsClosed());
}

/// A content whose write takes until it is let go.
class SlowContent final : public mount_agent::IMountedContent {
 public:
  class Item final : public mount_agent::IMountedItem {
   public:
    explicit Item(SlowContent& content) : content_(content) {}
    platform::error_t Read(std::uint64_t, void*, std::size_t, std::size_t&) override { return error::IoDevice; }
    platform::error_t Write(std::uint64_t, const void*, std::size_t) override {
      content_.begun.Set();
      content_.letGo.Wait(60'000);
      content_.written = true;
      return error::Success;
    }
    platform::error_t GetSize(std::uint64_t& size) override {
      size = content_.written ? 1 : 0;
      return error::Success;
    }

   private:
    SlowContent& content_;
  };

  platform::error_t List(const path_t&, std::vector<mount_agent::SListedItem>& items) override {
    items = {{0, 0, "disk"}};
    return error::Success;
  }
  platform::error_t Open(const path_t&, boost::shared_ptr<mount_agent::IMountedItem>& item) override {
    item = boost::make_shared<Item>(*this);
    return error::Success;
  }
  platform::error_t Flush() override { return error::Success; }

  synch::manual_event_t begun;
  synch::manual_event_t letGo;
  std::atomic<bool> written{false};
};

TEST_F(AgentServerTest, ANewConnectionIsServedAfterWhatTheOldOneWasDoing) {
  SlowContent slow;
  const CAgentServer server("vm", slow, [](const std::string&) {});
  const Client old(PipePath());
  ASSERT_TRUE(old.SendRaw(Client::Framed(WriteRequest(Handle(), 0, "late"))));
  ASSERT_TRUE(slow.begun.Wait(60'000));
  Reset();
  const Client next(PipePath());
  bytes_t request;
  Put(request, std::uint32_t{4});
  Put(request, Handle());
  ASSERT_TRUE(next.SendRaw(Client::Framed(request)));
  slow.letGo.Set();
  bytes_t reply;
  ASSERT_TRUE(next.Receive(reply));
  EXPECT_EQ(reply, (bytes_t{1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(AgentServerTest, ASecondAgentOfOneNameIsRefused) {
  Start();
  try {
    const CAgentServer second("vm", *content_, [](const std::string&) {});
    FAIL();
  } catch (const exc::exc_base_t& failure) {
    EXPECT_STREQ(failure.what(), "Another agent serves the pipe [vm].");
  }
  const Client client(PipePath());
  EXPECT_EQ(ReadDisk(client), "0123456789");
}

TEST_F(AgentServerTest, EndsWhileClientsAreConnectedAndCanStartAnew) {
  for (int i = 0; i < 3; ++i) {
    Start();
    const Client idle(PipePath());
    const Client busy(PipePath());
    EXPECT_EQ(ReadDisk(busy), "0123456789");
    server_.reset();
    EXPECT_TRUE(idle.IsClosed());
    EXPECT_TRUE(busy.IsClosed());
    EXPECT_FALSE(std::filesystem::exists(PipePath()));
  }
}

/// The program without its process.
class AgentProgramTest : public AgentServerTest {
 protected:
  int Run(const std::vector<std::string>& arguments) { return mount_agent::Run(arguments, stop_.Get(), out_, err_); }

  const platform::descriptor_t stop_{::eventfd(1, EFD_CLOEXEC)};
  std::ostringstream out_;
  std::ostringstream err_;
};

TEST_F(AgentProgramTest, ServesUntilItIsToldToEnd) {
  content_.reset();
  EXPECT_EQ(Run({"--pipe", "vm", "--source", Source(), "--overlay", Overlay(), "--sync"}), mount_agent::Succeeded);
  EXPECT_EQ(out_.str(), "Serving [" + Source() + "] on the pipe [vm]. Writes go to the overlay.\n");
  EXPECT_EQ(err_.str(), "");
}

TEST_F(AgentProgramTest, TellsWhatBecomesOfWrites) {
  EXPECT_EQ(Run({"--pipe", "vm", "--source", Source(), "--read-only"}), mount_agent::Succeeded);
  EXPECT_NE(out_.str().find("Writes are refused."), std::string::npos);
  EXPECT_EQ(Run({"--pipe", "vm", "--source", Source(), "--write-through"}), mount_agent::Succeeded);
  EXPECT_NE(out_.str().find("Writes change the files of the source."), std::string::npos);
}

TEST_F(AgentProgramTest, BadUsageAndFailuresHaveExitCodesOfTheirOwn) {
  using arguments_t = std::vector<std::string>;
  for (const arguments_t& arguments :
       {arguments_t{}, arguments_t{"--pipe", "vm"}, arguments_t{"--pipe", "a/b", "--source", Source()},
        arguments_t{"--pipe", "", "--source", Source()}, arguments_t{"--pipe", "vm", "--source", Source(), "--sync"},
        arguments_t{"--pipe", "vm", "--source", Source(), "--overlay", Overlay(), "--write-through"},
        arguments_t{"--pipe", "vm", "--source", Source(), "--read-only", "--write-through"}}) {
    EXPECT_EQ(Run(arguments), mount_agent::BadUsage);
    EXPECT_NE(err_.str(), "");
    err_.str("");
  }
  EXPECT_EQ(Run({"--pipe", "vm", "--source", folder_ / "none"}), mount_agent::Failed);
  EXPECT_NE(err_.str().find("The source folder ["), std::string::npos);
  EXPECT_EQ(Run({"--help"}), mount_agent::Succeeded);
  EXPECT_NE(out_.str().find("Examples:"), std::string::npos);
}

}  // namespace
