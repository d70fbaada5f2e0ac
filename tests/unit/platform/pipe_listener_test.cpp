// Pipes with a name: who listens, who opens, and what is left of those who died.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/message_pipe.h"
#include "support/temp_dir.h"
#include "unit/platform/pipe_reading.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using platform::deadline_t;
using platform::descriptor_t;
using platform::message_pipe_t;
using platform::pipe_listener_t;
using platform::pipe_place_t;
using bytes_t = std::vector<std::uint8_t>;
using listener_ptr_t = boost::shared_ptr<pipe_listener_t>;
using pipe_ptr_t = boost::shared_ptr<message_pipe_t>;
using test::Read;
using testing::ElementsAre;

constexpr mode_t Private = 0600;
const std::string Name = R"(\\.\pipe\vm1-0)";

/// Pipes with a name.
class NamedPipeTest : public testing::Test {
 protected:
  static listener_ptr_t MustListen(const std::string& name, int waiting = 16) {
    listener_ptr_t listener;
    EXPECT_EQ(pipe_listener_t::Listen(name, Private, waiting, listener), 0U);
    return listener;
  }
  static pipe_ptr_t MustOpen(const std::string& name) {
    pipe_ptr_t pipe;
    EXPECT_EQ(message_pipe_t::Open(name, pipe), 0U);
    return pipe;
  }
  static pipe_ptr_t MustAccept(pipe_listener_t& listener) {
    pipe_ptr_t pipe;
    EXPECT_EQ(listener.Accept(pipe), 0U);
    return pipe;
  }
  static platform::error_t TryOpen(const std::string& name) {
    pipe_ptr_t pipe;
    const platform::error_t result = message_pipe_t::Open(name, pipe);
    EXPECT_EQ(result == 0, pipe != nullptr);
    return result;
  }
  static mode_t Mode(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0);
    return info.st_mode & 07777;
  }
  std::string SocketPath(const std::string& name) const { return folder_ / ("run/pipe/" + name); }

  /// Leaves a socket file as an owner does who dies.
  void LeaveBehind(const std::string& name) const {
    fs::create_directories(folder_ / "run/pipe");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    SocketPath(name).copy(address.sun_path, sizeof(address.sun_path) - 1);
    const descriptor_t socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }

  test::TempDir folder_;
  test::ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", folder_ / "run"};
};

TEST_F(NamedPipeTest, AClientAndItsOwnerTalk) {
  const listener_ptr_t listener = MustListen(Name);
  const pipe_ptr_t client = MustOpen(Name);
  const pipe_ptr_t server = MustAccept(*listener);
  ASSERT_EQ(client->Write(bytes_t{1}), 0U);
  EXPECT_THAT(Read(*server, 10).bytes, ElementsAre(1));
  ASSERT_EQ(server->Write(bytes_t{2}), 0U);
  EXPECT_THAT(Read(*client, 10).bytes, ElementsAre(2));
}

TEST_F(NamedPipeTest, LiesInAFolderForItsGroupAlone) {
  const mode_t old = ::umask(0077);
  const listener_ptr_t listener = MustListen(Name);
  ::umask(old);
  EXPECT_EQ(Mode(folder_ / "run"), 0755U);
  EXPECT_EQ(Mode(folder_ / "run/pipe"), 0770U);
  EXPECT_EQ(Mode(SocketPath("vm1-0")), Private);
}

TEST_F(NamedPipeTest, IsNotThereWithoutAnOwner) {
  EXPECT_EQ(TryOpen(Name), error::FileNotFound);
  pipe_place_t place;
  EXPECT_EQ(message_pipe_t::Wait(Name, 300000, place), error::FileNotFound);
  listener_ptr_t listener = MustListen(Name);
  EXPECT_EQ(TryOpen(R"(\\.\pipe\vm2-0)"), error::FileNotFound);
  EXPECT_EQ(TryOpen("vm1-0"), 0U);
  listener.reset();
  EXPECT_EQ(TryOpen(Name), error::FileNotFound);
  EXPECT_FALSE(fs::exists(SocketPath("vm1-0")));
}

TEST_F(NamedPipeTest, AFileLeftBehindIsNotThere) {
  LeaveBehind("vm1-0");
  EXPECT_EQ(TryOpen(Name), error::FileNotFound);
  pipe_place_t place;
  EXPECT_EQ(message_pipe_t::Wait(Name, 300000, place), error::FileNotFound);
}

TEST_F(NamedPipeTest, AFileLeftBehindIsReplaced) {
  LeaveBehind("vm1-0");
  const listener_ptr_t listener = MustListen(Name);
  EXPECT_EQ(TryOpen(Name), 0U);
}

TEST_F(NamedPipeTest, AnOwnerWhoWasKilledIsReplaced) {
  const pid_t child = ::fork();
  if (child == 0) {
    listener_ptr_t listener;
    pipe_listener_t::Listen(Name, Private, 1, listener);
    ::raise(SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_TRUE(fs::exists(SocketPath("vm1-0")));
  EXPECT_EQ(TryOpen(Name), error::FileNotFound);
  const listener_ptr_t listener = MustListen(Name);
  EXPECT_EQ(TryOpen(Name), 0U);
}

TEST_F(NamedPipeTest, ASecondOwnerIsRefusedAndTheFirstLearnsNothing) {
  const listener_ptr_t first = MustListen(Name);
  listener_ptr_t second;
  EXPECT_EQ(pipe_listener_t::Listen(Name, Private, 16, second), error::PipeBusy);
  EXPECT_FALSE(second);
  pipe_ptr_t peer;
  EXPECT_EQ(first->Accept(peer, {deadline_t::After(0), {}}), error::WaitTimeout);
  EXPECT_EQ(TryOpen(Name), 0U);
}

TEST_F(NamedPipeTest, OfManyOwnersAtOnceOneWins) {
  LeaveBehind("vm1-0");
  std::array<listener_ptr_t, 8> listeners;
  std::array<platform::error_t, 8> results{};
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < listeners.size(); ++i)
    threads.emplace_back([&, i] { results[i] = pipe_listener_t::Listen(Name, Private, 16, listeners[i]); });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(std::count(results.begin(), results.end(), 0U), 1);
  EXPECT_EQ(std::count(results.begin(), results.end(), error::PipeBusy), 7);
  EXPECT_EQ(TryOpen(Name), 0U);
}

TEST_F(NamedPipeTest, AnOwnerWhoseNameWasTakenLeavesItToTheOther) {
  listener_ptr_t first = MustListen(Name);
  fs::remove(SocketPath("vm1-0"));
  const listener_ptr_t second = MustListen(Name);
  first.reset();
  EXPECT_EQ(TryOpen(Name), 0U);
}

TEST_F(NamedPipeTest, AnOwnerWithoutRoomIsBusy) {
  const listener_ptr_t listener = MustListen(Name, 0);
  const pipe_ptr_t first = MustOpen(Name);
  EXPECT_EQ(TryOpen(Name), error::PipeBusy);
  pipe_place_t place;
  EXPECT_EQ(message_pipe_t::Wait(Name, 0, place), error::SemaphoreTimeout);
  EXPECT_EQ(message_pipe_t::Wait(Name, 20, place), error::SemaphoreTimeout);
  EXPECT_TRUE(MustAccept(*listener));
  EXPECT_EQ(TryOpen(Name), 0U);
}

TEST_F(NamedPipeTest, AWaitEndsWhenThereIsRoom) {
  const listener_ptr_t listener = MustListen(Name, 0);
  const pipe_ptr_t first = MustOpen(Name);
  std::thread owner([&] { EXPECT_TRUE(MustAccept(*listener)); });
  pipe_place_t place;
  EXPECT_EQ(message_pipe_t::Wait(Name, 300000, place), 0U);
  owner.join();
  pipe_ptr_t pipe;
  EXPECT_EQ(message_pipe_t::Open(std::move(place), pipe), 0U);
  const pipe_ptr_t server = MustAccept(*listener);
  ASSERT_EQ(pipe->Write(bytes_t{4}), 0U);
  EXPECT_THAT(Read(*server, 10).bytes, ElementsAre(4));
}

TEST_F(NamedPipeTest, AnOwnerWhoGoesBetweenWaitAndOpenIsNotThere) {
  listener_ptr_t listener = MustListen(Name);
  pipe_place_t place;
  ASSERT_EQ(message_pipe_t::Wait(Name, 0, place), 0U);
  listener.reset();
  pipe_ptr_t pipe;
  EXPECT_EQ(message_pipe_t::Open(std::move(place), pipe), error::FileNotFound);
  EXPECT_FALSE(pipe);
}

TEST_F(NamedPipeTest, WhatIsNoPipeCannotBeOpened) {
  fs::create_directories(folder_ / "run/pipe");
  std::ofstream(SocketPath("vm1-0")) << "no socket";
  pipe_place_t place;
  EXPECT_EQ(message_pipe_t::Wait(Name, 0, place), 0U);
  EXPECT_EQ(TryOpen(Name), error::InvalidHandle);
  listener_ptr_t listener;
  EXPECT_EQ(pipe_listener_t::Listen(Name, Private, 16, listener), error::InvalidHandle);
  EXPECT_TRUE(fs::exists(SocketPath("vm1-0")));
}

TEST_F(NamedPipeTest, WhatIsNoNameIsNoPipe) {
  for (const char* name : {"", R"(\\.\pipe\)", R"(\\.\pipe\a/b)", R"(\\.\pipe\..)", R"(\\.\pipe\a\b)", "../event/x"}) {
    EXPECT_EQ(TryOpen(name), error::PathNotFound) << name;
    listener_ptr_t listener;
    EXPECT_EQ(pipe_listener_t::Listen(name, Private, 16, listener), error::PathNotFound) << name;
  }
}

TEST_F(NamedPipeTest, ANameIsReachedBelowALongFolder) {
  // Longer than what the address of a socket holds.
  const test::ScopedEnvironment runtime("KELVO_RUNTIME_DIR", folder_ / std::string(90, 'f'));
  const std::string name(85, 'n');
  const listener_ptr_t listener = MustListen(name);
  EXPECT_EQ(TryOpen(name), 0U);
  const std::string longer(200, 'n');
  listener_ptr_t none;
  EXPECT_EQ(pipe_listener_t::Listen(longer, Private, 16, none), error::FilenameExceedsRange);
}

TEST_F(NamedPipeTest, AcceptEndsInTimeAndByCancel) {
  const listener_ptr_t listener = MustListen(Name);
  pipe_ptr_t pipe;
  EXPECT_EQ(listener->Accept(pipe, {deadline_t::After(0), {}}), error::WaitTimeout);
  const descriptor_t cancel(::eventfd(1, EFD_CLOEXEC));
  const std::array<int, 1> cancels{cancel.Get()};
  EXPECT_EQ(listener->Accept(pipe, {deadline_t::Never(), cancels}), error::OperationAborted);
  const pipe_ptr_t client = MustOpen(Name);
  EXPECT_EQ(listener->Accept(pipe, {deadline_t::Never(), cancels}), 0U);
}

TEST_F(NamedPipeTest, WithoutDescriptorsAClientWaits) {
  const listener_ptr_t listener = MustListen(Name);
  const pipe_ptr_t client = MustOpen(Name);
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  const rlimit none{3, old.rlim_max};
  pipe_ptr_t server;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const platform::error_t accepted = listener->Accept(server);
  pipe_place_t place;
  const platform::error_t waited = message_pipe_t::Wait(Name, 0, place);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_EQ(accepted, error::TooManyOpenFiles);
  EXPECT_EQ(waited, 0U);
  pipe_ptr_t pipe;
  EXPECT_EQ(message_pipe_t::Open(std::move(place), pipe), error::TooManyOpenFiles);
  EXPECT_EQ(listener->Accept(server), 0U);
}

}  // namespace
