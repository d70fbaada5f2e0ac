// Bytes that go from one descriptor to another without passing through this process's memory.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/error.h"
#include "platform/location.h"

namespace platform {

/// A pipe of the kernel's that holds references to pages of files and sockets (splice(2)). What a file holds is
/// therefore sent as it is when it leaves: as of any moment between the read and the end of the sending.
///
/// One thread at a time. Nothing throws, nothing waits for room in the pipe.
class kernel_pipe_t {
 public:
  /// The most that is ever put into one.
  static constexpr std::size_t Largest = std::size_t{192} << 10;
  /// Less is copied at less cost.
  static constexpr std::size_t Least = std::size_t{16} << 10;

  /// How many there are at most.
  static constexpr std::size_t Most = 64;

  /// A pipe that comes back to the process's store with its last share. Null when as many are in use as may be, or
  /// would be left fewer than so many for others, or the system has none: then bytes have to be copied. Any thread.
  static boost::shared_ptr<kernel_pipe_t> Acquire(std::size_t leave = 0) noexcept;
  /// Half of them or more are in use: whoever has to wait for a peer is to keep none. Any thread.
  static bool AreScarce() noexcept;

  kernel_pipe_t(const kernel_pipe_t&) = delete;
  kernel_pipe_t& operator=(const kernel_pipe_t&) = delete;

  std::size_t Held() const noexcept { return held_; }

  /// Takes up to so many bytes of a file, in one move; none are the end of the file. 231 when the pipe has no room for
  /// so many pieces, 120 when this file's bytes cannot be had in this way.
  error_t TakeFromFile(int file, std::uint64_t offset, std::size_t length, std::size_t& outMoved) noexcept;
  /// Takes up to so many bytes of those that have arrived at a socket. 109 when the peer has gone; 231 when there are
  /// none, or no room; 120 as above.
  error_t TakeFromSocket(int socket, std::size_t length, std::size_t& outMoved) noexcept;
  /// Gives up to so many of the bytes to a socket that does not block; more will follow them. The result and errno are
  /// those of splice(2). SIGPIPE is ignored or blocked.
  ssize_t GiveToSocket(int socket, std::size_t length, bool more) noexcept;
  /// Brings bytes into memory, as many as the room takes of those that are held.
  error_t Read(std::span<std::uint8_t> room, std::size_t& outRead) noexcept;

 private:
  class store_t;

  kernel_pipe_t(descriptor_t readEnd, descriptor_t writeEnd) noexcept
      : readEnd_(std::move(readEnd)), writeEnd_(std::move(writeEnd)) {}

  const descriptor_t readEnd_;
  const descriptor_t writeEnd_;
  std::size_t held_ = 0;
};

}  // namespace platform
