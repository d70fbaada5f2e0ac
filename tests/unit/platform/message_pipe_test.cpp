#include "platform/message_pipe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "platform/meanwhile.h"
#include "support/kernel_pipe_of.h"
#include "unit/platform/pipe_reading.h"

namespace {

using platform::deadline_t;
using platform::descriptor_t;
using platform::message_pipe_t;
using platform::pipe_wait_t;
using bytes_t = std::vector<std::uint8_t>;
using pipe_ptr_t = boost::shared_ptr<message_pipe_t>;
namespace error = platform::error;
using test::Read;
using test::read_t;
using testing::ElementsAre;

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

/// Two ends without a name.
class MessagePipeTest : public testing::Test {
 protected:
  MessagePipeTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
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

/// A file of the pattern.
class PatternFile {
 public:
  explicit PatternFile(std::size_t size) : file_(::memfd_create("pattern", MFD_CLOEXEC)) {
    const bytes_t bytes = Pattern(size);
    EXPECT_EQ(::pwrite(file_.Get(), bytes.data(), size, 0), static_cast<ssize_t>(size));
  }
  int Get() const { return file_.Get(); }

 private:
  descriptor_t file_;
};

/// A thread of which can be told that it waits in the kernel.
class SleepingThread {
 public:
  explicit SleepingThread(std::function<void()> work)
      : thread_([this, work = std::move(work)] {
          id_ = ::gettid();
          work();
        }) {}
  /// Returns when it has been asleep for a while, in the same place.
  void AwaitSleep() const {
    for (int asleep = 0; asleep < 20; ++asleep) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      std::ifstream file("/proc/self/task/" + std::to_string(id_) + "/stat");
      const std::string stat{std::istreambuf_iterator<char>(file), {}};
      if (stat.find(") S ") == std::string::npos)
        asleep = 0;
    }
  }
  void Join() { thread_.join(); }

 private:
  std::atomic<pid_t> id_{0};
  std::thread thread_;
};

TEST_F(MessagePipeTest, AMessageComesOutOfFiles) {
  const PatternFile file(300000);
  const bytes_t all = Pattern(300000);
  const std::vector<platform::file_part_t> parts{{file.Get(), 1000, 5}, {file.Get(), 0, 250000}, {file.Get(), 7, 0}};
  bytes_t expected(all.begin() + 1000, all.begin() + 1005);
  expected.insert(expected.end(), all.begin(), all.begin() + 250000);
  // More than fits between the two at once.
  platform::error_t written = 1;
  std::thread writer([&] { written = left_->WriteFiles(parts); });
  bytes_t message;
  EXPECT_EQ(right_->ReadMessage(message), 0U);
  writer.join();
  EXPECT_EQ(written, 0U);
  EXPECT_EQ(message, expected);

  EXPECT_EQ(left_->WriteFiles({}), 0U) << "a message of no bytes";
  EXPECT_EQ(left_->Write(Pattern(3)), 0U);
  EXPECT_TRUE(Read(*right_, 10).bytes.empty());
  EXPECT_EQ(Read(*right_, 10).bytes, Pattern(3));
}

TEST_F(MessagePipeTest, AFileThatIsShorterEndsTheMessageInTheMiddle) {
  const PatternFile file(10);
  const std::vector<platform::file_part_t> parts{{file.Get(), 4, 10}};
  EXPECT_EQ(left_->WriteFiles(parts), platform::error_t{error::IoDevice});
  EXPECT_EQ(left_->Write(Pattern(3)), platform::error_t{error::BrokenPipe}) << "it would pass for the rest";
  EXPECT_EQ(left_->WriteFiles({}), platform::error_t{error::BrokenPipe});
}

TEST_F(MessagePipeTest, AMessageOutOfFilesEndsWithItsReader) {
  sigset_t broken;
  sigemptyset(&broken);
  sigaddset(&broken, SIGPIPE);
  sigset_t before;
  ::pthread_sigmask(SIG_BLOCK, &broken, &before);
  const PatternFile file(100);
  const std::vector<platform::file_part_t> parts{{file.Get(), 0, 100}};
  EXPECT_EQ(left_->WriteFiles(parts), 0U);
  right_.reset();
  EXPECT_EQ(left_->WriteFiles(parts), platform::error_t{error::BrokenPipe});
  const timespec now{0, 0};
  ::sigtimedwait(&broken, nullptr, &now);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(MessagePipeTest, AMessageMayEndInThePipeOfTheKernel) {
  constexpr std::size_t Size = 190000;
  const auto pipe = test::PipeOf(Pattern(Size));
  bytes_t expected = Pattern(10);
  const bytes_t middle = Pattern(20);
  const bytes_t tail = Pattern(Size);
  expected.insert(expected.end(), middle.begin(), middle.end());
  expected.insert(expected.end(), tail.begin(), tail.end());
  // More than fits between the two at once.
  platform::error_t written = 1;
  std::thread writer([&] { written = left_->Write(Pattern(10), middle, {}, pipe.get()); });
  bytes_t message;
  EXPECT_EQ(right_->ReadMessage(message), 0U);
  writer.join();
  EXPECT_EQ(written, 0U);
  EXPECT_EQ(message, expected);
  EXPECT_EQ(pipe->Held(), 0U);
  EXPECT_EQ(left_->Write(Pattern(3)), 0U);
  EXPECT_EQ(Read(*right_, 10).bytes, Pattern(3));
}

TEST_F(MessagePipeTest, AMessageWhoseEndFindsNoRoomEndsWithTheWait) {
  platform::error_t result = error::Success;
  while (result == error::Success) {
    const auto pipe = test::PipeOf(Pattern(190000));
    result = left_->Write(Pattern(10), {}, Briefly(), pipe.get());
    EXPECT_EQ(pipe->Held() == 0, result == error::Success);
  }
  EXPECT_EQ(result, error::WaitTimeout);
  EXPECT_EQ(left_->Write(Pattern(3)), platform::error_t{error::BrokenPipe}) << "it would pass for the rest";
}

TEST_F(MessagePipeTest, WhoWaitsInTheSocketIsEndedByTheEnd) {
  right_->WaitInSocket();
  EXPECT_EQ(left_->Write(Pattern(3)), 0U);
  bytes_t message;
  EXPECT_EQ(right_->ReadMessage(message), 0U);
  EXPECT_EQ(message, Pattern(3));
  std::size_t count = 0;
  EXPECT_EQ(right_->Read(message, count, Briefly()), error::WaitTimeout) << "waits with an end keep it";
  SleepingThread reader([&] { EXPECT_EQ(right_->ReadMessage(message), platform::error_t{error::BrokenPipe}); });
  reader.AwaitSleep();
  right_->End();
  reader.Join();
  EXPECT_EQ(left_->ReadMessage(message), platform::error_t{error::BrokenPipe}) << "nor does the peer wait";
}

TEST_F(MessagePipeTest, WhoWritesFromFilesIntoASocketThatWaitsIsEndedByTheEnd) {
  left_->WaitInSocket();
  const PatternFile file(250000);
  const std::vector<platform::file_part_t> parts{{file.Get(), 0, 250000}};
  SleepingThread writer([&] {
    sigset_t broken;
    sigemptyset(&broken);
    sigaddset(&broken, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &broken, nullptr);
    while (left_->WriteFiles(parts) == 0) {
    }
    EXPECT_EQ(left_->WriteFiles(parts), platform::error_t{error::BrokenPipe});
  });
  writer.AwaitSleep();
  left_->End();
  writer.Join();
}

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

TEST_F(MessagePipeTest, ATransactionLeavesTimeForOtherWork) {
  const auto pipe = platform::kernel_pipe_t::Acquire();
  ASSERT_NE(pipe, nullptr);
  std::array<std::promise<void>, 2> done;
  std::size_t worked = 0;
  const platform::meanwhile_t meanwhile([&] { done.at(worked++).set_value(); });
  std::thread peer([&] {
    for (auto& work : done) {
      bytes_t request;
      EXPECT_EQ(right_->ReadMessage(request), 0U);
      // The answer waits for the work.
      EXPECT_EQ(work.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
      EXPECT_EQ(right_->Write(bytes_t{3}), 0U);
    }
  });
  bytes_t reply(2);
  std::size_t count = 0;
  EXPECT_EQ(left_->Transact(bytes_t{1}, reply, count), 0U);
  EXPECT_EQ(left_->Transact(bytes_t{1}, reply, *pipe, count, {}), 0U);
  peer.join();
  // Nobody answers, nor is it asked.
  right_.reset();
  EXPECT_EQ(left_->Transact(bytes_t{1}, reply, count), error::BrokenPipe);
  EXPECT_EQ(worked, 2U);
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

}  // namespace
