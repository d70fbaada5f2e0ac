#include "platform/message_pipe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using platform::deadline_t;
using platform::descriptor_t;
using platform::message_pipe_t;
using platform::pipe_listener_t;
using platform::pipe_place_t;
using platform::pipe_wait_t;
using bytes_t = std::vector<std::uint8_t>;
using listener_ptr_t = boost::shared_ptr<pipe_listener_t>;
using pipe_ptr_t = boost::shared_ptr<message_pipe_t>;
namespace error = platform::error;
using testing::ElementsAre;

constexpr mode_t Private = 0600;
const std::string Name = R"(\\.\pipe\vm1-0)";

/// Nothing comes within it; a test that passes never waits longer.
pipe_wait_t Briefly() {
  return {deadline_t::After(20), {}};
}

bytes_t Pattern(std::size_t size) {
  bytes_t bytes(size);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  return bytes;
}

struct read_t {
  platform::error_t result;
  bytes_t bytes;
};

read_t Read(message_pipe_t& pipe, std::size_t size, const pipe_wait_t& wait = {}) {
  read_t read{0, bytes_t(size)};
  std::size_t count = 0;
  read.result = pipe.Read(read.bytes, count, wait);
  read.bytes.resize(count);
  return read;
}

/// Two ends without a name.
class MessagePipeTest : public testing::Test {
 protected:
  MessagePipeTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    left_.reset(new message_pipe_t(descriptor_t(ends[0])));
    right_.reset(new message_pipe_t(descriptor_t(ends[1])));
  }
  /// Bytes that are not framed.
  void SendRaw(const bytes_t& bytes) const {
    EXPECT_EQ(::send(left_->Descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  /// Fills what the system keeps for a reader who does not read.
  platform::error_t Fill() const {
    const bytes_t block(65536);
    platform::error_t result = 0;
    while (result == 0)
      result = left_->Write(block, Briefly());
    return result;
  }

  pipe_ptr_t left_;
  pipe_ptr_t right_;
};

TEST_F(MessagePipeTest, AMessageArrivesWhole) {
  for (const std::size_t size : {0U, 1U, 3U, 4U, 5U, 1024U, 65556U}) {
    const bytes_t sent = Pattern(size);
    ASSERT_EQ(left_->Write(sent), 0U);
    const read_t read = Read(*right_, size + 10);
    EXPECT_EQ(read.result, 0U);
    EXPECT_EQ(read.bytes, sent);
  }
}

TEST_F(MessagePipeTest, AMessageIsItsLengthAndItsBytes) {
  ASSERT_EQ(left_->Write(bytes_t{0xAA, 0xBB, 0xCC}), 0U);
  ASSERT_EQ(left_->Write(bytes_t{1}, bytes_t{2, 3}), 0U);
  std::array<std::uint8_t, 14> raw{};
  ASSERT_EQ(::recv(right_->Descriptor(), raw.data(), raw.size(), MSG_WAITALL), 14);
  EXPECT_THAT(raw, ElementsAre(3, 0, 0, 0, 0xAA, 0xBB, 0xCC, 3, 0, 0, 0, 1, 2, 3));
}

TEST_F(MessagePipeTest, MessagesKeepTheirOrderAndTheirEnds) {
  ASSERT_EQ(left_->Write(bytes_t{1, 2}), 0U);
  ASSERT_EQ(left_->Write({}), 0U);
  ASSERT_EQ(left_->Write(bytes_t{3}), 0U);
  EXPECT_THAT(Read(*right_, 100).bytes, ElementsAre(1, 2));
  const read_t empty = Read(*right_, 100);
  EXPECT_EQ(empty.result, 0U);
  EXPECT_TRUE(empty.bytes.empty());
  EXPECT_THAT(Read(*right_, 100).bytes, ElementsAre(3));
}

TEST_F(MessagePipeTest, ABufferThatIsTooSmallLeavesMoreData) {
  ASSERT_EQ(left_->Write(bytes_t{1, 2, 3, 4, 5}), 0U);
  ASSERT_EQ(left_->Write(bytes_t{6}), 0U);
  read_t read = Read(*right_, 2);
  EXPECT_EQ(read.result, error::MoreData);
  EXPECT_THAT(read.bytes, ElementsAre(1, 2));
  read = Read(*right_, 0);
  EXPECT_EQ(read.result, error::MoreData);
  read = Read(*right_, 2);
  EXPECT_EQ(read.result, error::MoreData);
  EXPECT_THAT(read.bytes, ElementsAre(3, 4));
  read = Read(*right_, 2);
  EXPECT_EQ(read.result, 0U);
  EXPECT_THAT(read.bytes, ElementsAre(5));
  EXPECT_THAT(Read(*right_, 1).bytes, ElementsAre(6));
}

TEST_F(MessagePipeTest, AMessageThatFillsTheBufferHasNoMoreData) {
  ASSERT_EQ(left_->Write(bytes_t{1, 2, 3}), 0U);
  EXPECT_EQ(Read(*right_, 3).result, 0U);
}

TEST_F(MessagePipeTest, AReadGoesOnWhereATimeoutEndedIt) {
  const bytes_t raw{5, 0, 0, 0, 1, 2, 3, 4, 5};
  for (std::size_t cut = 0; cut < raw.size(); ++cut) {
    SCOPED_TRACE(cut);
    SendRaw(bytes_t(raw.begin(), raw.begin() + static_cast<std::ptrdiff_t>(cut)));
    const read_t first = Read(*right_, 100, Briefly());
    EXPECT_EQ(first.result, error::WaitTimeout);
    EXPECT_EQ(first.bytes.size(), cut < 4 ? 0 : cut - 4);
    SendRaw(bytes_t(raw.begin() + static_cast<std::ptrdiff_t>(cut), raw.end()));
    const read_t second = Read(*right_, 100);
    EXPECT_EQ(second.result, 0U);
    EXPECT_EQ(first.bytes.size() + second.bytes.size(), 5U);
    EXPECT_EQ(second.bytes.back(), 5);
  }
}

TEST_F(MessagePipeTest, APeerThatGoesBreaksThePipeWhereverTheMessageIs) {
  const bytes_t raw{5, 0, 0, 0, 1, 2, 3, 4, 5};
  for (std::size_t cut = 0; cut < raw.size(); ++cut) {
    SCOPED_TRACE(cut);
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    message_pipe_t pipe{descriptor_t(ends[0])};
    {
      const descriptor_t peer(ends[1]);
      ASSERT_EQ(::send(peer.Get(), raw.data(), cut, 0), static_cast<ssize_t>(cut));
    }
    EXPECT_EQ(Read(pipe, 100).result, error::BrokenPipe);
    EXPECT_EQ(Read(pipe, 100).result, error::BrokenPipe);
  }
}

TEST_F(MessagePipeTest, WhatAPeerWroteBeforeItWentIsStillRead) {
  ASSERT_EQ(left_->Write(bytes_t{1, 2, 3}), 0U);
  left_.reset();
  EXPECT_THAT(Read(*right_, 10).bytes, ElementsAre(1, 2, 3));
  EXPECT_EQ(Read(*right_, 10).result, error::BrokenPipe);
}

TEST_F(MessagePipeTest, APeerThatWentWithoutReadingBreaksThePipe) {
  ASSERT_EQ(right_->Write(bytes_t{1}), 0U);
  left_.reset();
  EXPECT_EQ(Read(*right_, 10).result, error::BrokenPipe);
}

TEST_F(MessagePipeTest, WritingToAPeerThatWentIsNoSignal) {
  right_.reset();
  EXPECT_EQ(left_->Write(bytes_t{1}), error::BrokenPipe);
  EXPECT_EQ(left_->Write(bytes_t{1}), error::BrokenPipe);
}

TEST_F(MessagePipeTest, AnAnnouncedLengthCostsNothing) {
  SendRaw({0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3});
  bytes_t message;
  EXPECT_EQ(right_->ReadMessage(message, platform::MaxPipeMessage, Briefly()), error::WaitTimeout);
  EXPECT_THAT(message, ElementsAre(1, 2, 3));
  EXPECT_LT(message.capacity(), 100000U);
}

TEST_F(MessagePipeTest, AWholeMessageIsReadWhateverItsLength) {
  for (const std::size_t size : {0U, 1U, 4096U, 4097U, 70000U, 5000000U}) {
    const bytes_t sent = Pattern(size);
    std::thread writer([&] { EXPECT_EQ(left_->Write(sent), 0U); });
    bytes_t message;
    EXPECT_EQ(right_->ReadMessage(message), 0U);
    EXPECT_EQ(message, sent);
    writer.join();
  }
}

TEST_F(MessagePipeTest, AWholeMessageStopsAtTheLimit) {
  ASSERT_EQ(left_->Write(Pattern(10)), 0U);
  bytes_t message;
  EXPECT_EQ(right_->ReadMessage(message, 9), error::MoreData);
  EXPECT_EQ(message, Pattern(9));
  EXPECT_EQ(right_->ReadMessage(message, 9), 0U);
  EXPECT_EQ(message.size(), 1U);
  ASSERT_EQ(left_->Write(Pattern(9)), 0U);
  EXPECT_EQ(right_->ReadMessage(message, 9), 0U);
  EXPECT_EQ(message, Pattern(9));
}

TEST_F(MessagePipeTest, AReaderWhoDoesNotReadEndsTheWriteInTime) {
  EXPECT_EQ(Fill(), error::WaitTimeout);
}

TEST_F(MessagePipeTest, NothingFollowsHalfAMessage) {
  // Longer than what the system keeps, so that a part of it has left.
  EXPECT_EQ(left_->Write(bytes_t(8U << 20), Briefly()), error::WaitTimeout);
  EXPECT_EQ(left_->Write(bytes_t{1}), error::BrokenPipe);
}

TEST_F(MessagePipeTest, ADescriptorCancelsAWait) {
  const descriptor_t idle(::eventfd(0, EFD_CLOEXEC));
  const descriptor_t cancel(::eventfd(0, EFD_CLOEXEC));
  const std::array<int, 2> cancels{idle.Get(), cancel.Get()};
  std::thread canceller([&] { ::eventfd_write(cancel.Get(), 1); });
  EXPECT_EQ(Read(*right_, 10, {deadline_t::Never(), cancels}).result, error::OperationAborted);
  canceller.join();
  EXPECT_EQ(left_->Write(bytes_t(8U << 20), {deadline_t::Never(), cancels}), error::OperationAborted);
}

TEST_F(MessagePipeTest, WhatIsThereIsReadInSpiteOfTimeAndCancel) {
  const descriptor_t cancel(::eventfd(1, EFD_CLOEXEC));
  const std::array<int, 1> cancels{cancel.Get()};
  ASSERT_EQ(left_->Write(bytes_t{1}), 0U);
  EXPECT_EQ(Read(*right_, 10, {deadline_t::After(0), cancels}).result, 0U);
}

TEST_F(MessagePipeTest, ASignalDoesNotEndAWait) {
  struct sigaction action {};
  struct sigaction old {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &old), 0);
  std::atomic<bool> done = false;
  std::thread reader([&] {
    EXPECT_THAT(Read(*right_, 10).bytes, ElementsAre(9));
    done = true;
  });
  for (int i = 0; i < 200; ++i)
    ::pthread_kill(reader.native_handle(), SIGUSR1);
  EXPECT_FALSE(done);
  ASSERT_EQ(left_->Write(bytes_t{9}), 0U);
  reader.join();
  ::sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(MessagePipeTest, ATransactionWritesAndReads) {
  std::thread peer([&] {
    bytes_t request;
    EXPECT_EQ(right_->ReadMessage(request), 0U);
    EXPECT_THAT(request, ElementsAre(1, 2));
    EXPECT_EQ(right_->Write(bytes_t{3, 4, 5}), 0U);
  });
  bytes_t reply(2);
  std::size_t count = 0;
  EXPECT_EQ(left_->Transact(bytes_t{1, 2}, reply, count), error::MoreData);
  EXPECT_EQ(count, 2U);
  EXPECT_THAT(reply, ElementsAre(3, 4));
  peer.join();
  // The reply has not been read whole: another would be mistaken for its rest.
  EXPECT_EQ(left_->Transact(bytes_t{1}, reply, count), error::PipeBusy);
  EXPECT_THAT(Read(*left_, 10).bytes, ElementsAre(5));
}

TEST_F(MessagePipeTest, ATransactionTakesNoMessageThatCameBeforeIt) {
  ASSERT_EQ(right_->Write(bytes_t{7}), 0U);
  bytes_t reply(2);
  std::size_t count = 0;
  EXPECT_EQ(left_->Transact(bytes_t{1}, reply, count), error::PipeBusy);
  EXPECT_EQ(Read(*right_, 10, Briefly()).result, error::WaitTimeout);
  right_.reset();
  EXPECT_THAT(Read(*left_, 10).bytes, ElementsAre(7));
  EXPECT_EQ(left_->Transact(bytes_t{1}, reply, count), error::BrokenPipe);
}

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
