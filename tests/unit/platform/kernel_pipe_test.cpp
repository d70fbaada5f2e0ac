#include "platform/kernel_pipe.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "platform/message_pipe.h"

namespace {

using platform::deadline_t;
using platform::descriptor_t;
using platform::kernel_pipe_t;
using platform::message_pipe_t;
using bytes_t = std::vector<std::uint8_t>;
namespace error = platform::error;

bytes_t Pattern(std::size_t size) {
  bytes_t bytes(size);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  return bytes;
}

descriptor_t FileOf(const bytes_t& content) {
  descriptor_t file(::memfd_create("content", MFD_CLOEXEC));
  EXPECT_EQ(::pwrite(file.Get(), content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return file;
}

bytes_t ContentOf(kernel_pipe_t& pipe) {
  bytes_t content(pipe.Held() + 1);
  std::size_t read = 0;
  EXPECT_EQ(pipe.Read(content, read), 0U);
  content.resize(read);
  return content;
}

std::array<descriptor_t, 2> SocketPair() {
  int ends[2]{-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  return {descriptor_t(ends[0]), descriptor_t(ends[1])};
}

TEST(KernelPipe, TakesFromAFileWhatItHas) {
  const bytes_t content = Pattern(100000);
  const descriptor_t file = FileOf(content);
  const auto pipe = kernel_pipe_t::Acquire();
  ASSERT_TRUE(pipe);
  std::size_t moved = 0;
  for (const auto& [offset, length] : {std::pair<std::size_t, std::size_t>{0, 65536}, {1, 65536}, {4095, 3}}) {
    bytes_t all;
    for (std::size_t done = 0; done < length; done += moved) {
      ASSERT_EQ(pipe->TakeFromFile(file.Get(), offset + done, length - done, moved), 0U);
      ASSERT_NE(moved, 0U);
    }
    EXPECT_EQ(pipe->Held(), length);
    EXPECT_EQ(ContentOf(*pipe), bytes_t(content.begin() + offset, content.begin() + offset + length));
    EXPECT_EQ(pipe->Held(), 0U);
  }
  EXPECT_EQ(pipe->TakeFromFile(file.Get(), 100000, 10, moved), 0U);
  EXPECT_EQ(moved, 0U) << "the end";
  EXPECT_EQ(pipe->TakeFromFile(file.Get(), 99999, 10, moved), 0U);
  EXPECT_EQ(moved, 1U);
  ContentOf(*pipe);
}

TEST(KernelPipe, HoldsTheLargestThatIsEverPutInWhateverItsOffset) {
  const descriptor_t file = FileOf(Pattern(2 * kernel_pipe_t::Largest));
  const auto pipe = kernel_pipe_t::Acquire();
  ASSERT_TRUE(pipe);
  while (pipe->Held() < kernel_pipe_t::Largest) {
    std::size_t moved = 0;
    ASSERT_EQ(pipe->TakeFromFile(file.Get(), 4095 + pipe->Held(), kernel_pipe_t::Largest - pipe->Held(), moved), 0U);
  }
  ContentOf(*pipe);
}

TEST(KernelPipe, TellsWhatItCannotTake) {
  const auto pipe = kernel_pipe_t::Acquire();
  ASSERT_TRUE(pipe);
  std::size_t moved = 0;
  const descriptor_t event(::eventfd(1, EFD_CLOEXEC));
  EXPECT_EQ(pipe->TakeFromFile(event.Get(), 0, 8, moved), error::CallNotImplemented);
  EXPECT_EQ(pipe->TakeFromSocket(event.Get(), 8, moved), error::CallNotImplemented);
  EXPECT_EQ(pipe->TakeFromFile(-1, 0, 8, moved), error::InvalidHandle);
  const descriptor_t file = FileOf(Pattern(4096));
  platform::error_t result = 0;
  std::size_t pieces = 0;
  for (; result == 0; ++pieces)
    result = pipe->TakeFromFile(file.Get(), pieces % 4096, 1, moved);
  EXPECT_EQ(result, error::PipeBusy) << "each piece has a place of its own";
  EXPECT_EQ(pipe->Held(), pieces - 1);
  ContentOf(*pipe);
}

TEST(KernelPipe, GivesToASocketInTheOrderOfTaking) {
  const bytes_t content = Pattern(65536);
  const descriptor_t file = FileOf(content);
  const auto pipe = kernel_pipe_t::Acquire();
  ASSERT_TRUE(pipe);
  std::size_t moved = 0;
  ASSERT_EQ(pipe->TakeFromFile(file.Get(), 0, content.size(), moved), 0U);
  const auto ends = SocketPair();
  bytes_t received;
  while (received.size() < moved) {
    if (pipe->Held() > 0) {
      ASSERT_GT(pipe->GiveToSocket(ends[0].Get(), pipe->Held(), false), 0);
    }
    bytes_t piece(content.size());
    const ssize_t count = ::recv(ends[1].Get(), piece.data(), piece.size(), 0);
    ASSERT_GT(count, 0);
    received.insert(received.end(), piece.begin(), piece.begin() + count);
  }
  EXPECT_EQ(received, bytes_t(content.begin(), content.begin() + static_cast<std::ptrdiff_t>(moved)));
  EXPECT_EQ(pipe->Held(), 0U);
}

TEST(KernelPipe, ThereAreOnlySoManyAndTheyComeBack) {
  std::vector<boost::shared_ptr<kernel_pipe_t>> pipes;
  while (const auto pipe = kernel_pipe_t::Acquire())
    pipes.push_back(pipe);
  EXPECT_EQ(pipes.size(), 64U);
  const descriptor_t file = FileOf(Pattern(10));
  std::size_t moved = 0;
  ASSERT_EQ(pipes[0]->TakeFromFile(file.Get(), 0, 10, moved), 0U);
  pipes.clear();
  std::set<kernel_pipe_t*> others;
  while (const auto pipe = kernel_pipe_t::Acquire()) {
    EXPECT_EQ(pipe->Held(), 0U) << "what one reply has left is not in the next";
    others.insert(pipe.get());
    pipes.push_back(pipe);
  }
  EXPECT_EQ(others.size(), 64U);
}

/// A peer of a pipe that carries messages.
class MessagesIntoKernelPipes : public testing::Test {
 protected:
  MessagesIntoKernelPipes() {
    auto ends = SocketPair();
    peer_ = std::move(ends[0]);
    messages_.emplace(std::move(ends[1]));
  }

  /// Answers the request with bytes in pieces of the given size. The message's length is in front of them.
  platform::error_t Transact(const bytes_t& answer, std::size_t piece, const platform::pipe_wait_t& wait = {}) {
    std::thread agent([&] {
      std::array<std::uint8_t, 5> request{};
      for (std::size_t have = 0; have < request.size();) {
        const ssize_t count = ::recv(peer_.Get(), request.data() + have, request.size() - have, 0);
        have += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
      }
      for (std::size_t sent = 0; sent < answer.size();) {
        const ssize_t count =
            ::send(peer_.Get(), answer.data() + sent, std::min(piece, answer.size() - sent), MSG_NOSIGNAL);
        if (count > 0)
          sent += static_cast<std::size_t>(count);
      }
      if (hangUp_)
        ::shutdown(peer_.Get(), SHUT_RDWR);
    });
    const platform::error_t result = messages_->Transact(bytes_t{1}, room_, *pipe_, count_, wait);
    agent.join();
    return result;
  }
  static bytes_t Message(const bytes_t& content) {
    bytes_t message;
    for (int shift = 0; shift < 32; shift += 8)
      message.push_back(static_cast<std::uint8_t>(content.size() >> shift));
    message.insert(message.end(), content.begin(), content.end());
    return message;
  }
  /// What came, from wherever it is.
  bytes_t Came() {
    if (pipe_->Held() == 0)
      return {room_.begin(), room_.begin() + static_cast<std::ptrdiff_t>(count_)};
    EXPECT_EQ(pipe_->Held(), count_);
    return ContentOf(*pipe_);
  }

  descriptor_t peer_{-1};
  std::optional<message_pipe_t> messages_;
  bytes_t room_ = bytes_t(65568);
  const boost::shared_ptr<kernel_pipe_t> pipe_ = kernel_pipe_t::Acquire();
  std::size_t count_ = 0;
  bool hangUp_ = false;
};

TEST_F(MessagesIntoKernelPipes, LargeOnesThatFitStayInTheKernel) {
  for (const std::size_t size : {std::size_t{16384}, std::size_t{65536}, std::size_t{65568}}) {
    const bytes_t content = Pattern(size);
    EXPECT_EQ(Transact(Message(content), 30000), 0U);
    EXPECT_EQ(pipe_->Held(), size);
    EXPECT_EQ(Came(), content);
  }
}

TEST_F(MessagesIntoKernelPipes, SmallOnesAndLongOnesAreRead) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{16383}}) {
    EXPECT_EQ(Transact(Message(Pattern(size)), 30000), 0U);
    EXPECT_EQ(pipe_->Held(), 0U);
    EXPECT_EQ(Came(), Pattern(size));
  }
  const bytes_t content = Pattern(65569);
  EXPECT_EQ(Transact(Message(content), 30000), error::MoreData);
  EXPECT_EQ(pipe_->Held(), 0U);
  EXPECT_EQ(Came(), bytes_t(content.begin(), content.begin() + 65568));
  EXPECT_EQ(messages_->Read(room_, count_), 0U);
  EXPECT_EQ(Came(), bytes_t{content.back()});
}

TEST_F(MessagesIntoKernelPipes, APeerThatSendsInCrumbsIsReadAllTheSame) {
  const bytes_t content = Pattern(20000);
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{100}}) {
    EXPECT_EQ(Transact(Message(content), piece), 0U);
    EXPECT_EQ(Came(), content);
  }
}

TEST_F(MessagesIntoKernelPipes, WaitsNoLongerThanItMay) {
  bytes_t cut = Message(Pattern(65536));
  cut.resize(40000);
  EXPECT_EQ(Transact(cut, 40000, {deadline_t::After(20), {}}), error::WaitTimeout);
}

TEST_F(MessagesIntoKernelPipes, WaitsNoLongerThanItMayBehindManyPieces) {
  bytes_t cut = Message(Pattern(65536));
  cut.resize(40000);
  EXPECT_EQ(Transact(cut, 500, {deadline_t::After(50), {}}), error::WaitTimeout);
}

TEST_F(MessagesIntoKernelPipes, APeerThatGoesInTheMiddleBreaksThePipe) {
  bytes_t cut = Message(Pattern(65536));
  cut.resize(40000);
  hangUp_ = true;
  EXPECT_EQ(Transact(cut, 40000), error::BrokenPipe);
}

TEST_F(MessagesIntoKernelPipes, WhatComesBehindTheAnswerIsNoAnswerToTheNext) {
  bytes_t two = Message(Pattern(20000));
  const bytes_t second = Message(bytes_t{9});
  two.insert(two.end(), second.begin(), second.end());
  EXPECT_EQ(Transact(two, 50000), 0U);
  EXPECT_EQ(Came(), Pattern(20000));
  EXPECT_EQ(messages_->Transact(bytes_t{1}, room_, *pipe_, count_, {}), error::PipeBusy);
}

}  // namespace
