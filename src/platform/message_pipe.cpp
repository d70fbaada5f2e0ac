#include "platform/message_pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <climits>

#include "platform/meanwhile.h"
#include "platform/pipe_wait.h"
#include "platform/socket_folder.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr std::string_view Prefix = R"(\\.\pipe\)";
constexpr std::size_t FirstGrowth = 4096;
constexpr std::size_t LargestGrowth = std::size_t{1} << 20;

/// A peer that closed with something unread tells of it by a reset.
error_t TransferError() noexcept {
  return errno == ECONNRESET || errno == EPIPE ? error::BrokenPipe : LastError();
}

bool WouldBlock() noexcept {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

/// Leaves out what has been sent.
void Advance(std::span<iovec>& parts, std::size_t sent) noexcept {
  while (!parts.empty() && sent >= parts.front().iov_len) {
    sent -= parts.front().iov_len;
    parts = parts.subspan(1);
  }
  if (!parts.empty()) {
    parts.front().iov_base = static_cast<std::uint8_t*>(parts.front().iov_base) + sent;
    parts.front().iov_len -= sent;
  }
}

iovec Part(std::span<const std::uint8_t> bytes) noexcept {
  // sendmsg takes what it only reads without const.
  return {const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
}

/// Sends so many bytes by calls of send(length) that pass on some of them. 1117 where these end before.
template <typename Send>
error_t SendFrom(int socket, std::size_t length, const pipe_wait_t& wait, const Send& send) {
  while (length > 0) {
    const ssize_t count = send(length);
    if (count > 0) {
      length -= static_cast<std::size_t>(count);
    } else if (count == 0) {
      return error::IoDevice;
    } else if (WouldBlock()) {
      const error_t waited = WaitForReadiness(socket, POLLOUT, wait);
      if (waited != error::Success)
        return waited;
    } else if (errno != EINTR) {
      return TransferError();
    }
  }
  return error::Success;
}

/// Sends all parts. `sent`: whether any byte has left.
error_t SendAll(int socket, std::span<iovec> parts, int flags, const pipe_wait_t& wait, bool& sent) {
  std::size_t length = 0;
  for (const iovec& part : parts)
    length += part.iov_len;
  return SendFrom(socket, length, wait, [&](std::size_t) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    const ssize_t count = ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL | flags);
    if (count > 0) {
      sent = true;
      Advance(parts, static_cast<std::size_t>(count));
    }
    return count;
  });
}

/// Looks of who has asked, before the sleep: the answer of a peer is mostly on its way. Who waits for requests sleeps
/// at once: a processor that both ends spend on looking is one less for all others. More while that pays, fewer while
/// it does not, or while others want this processor; none on a machine where the peer could not run meanwhile.
class looks_t {
 public:
  explicit looks_t(bool hasAsked) noexcept : hasAsked_(hasAsked) {}

  /// False when it is time to sleep.
  bool Another() noexcept {
    if (!hasAsked_ || AvailableProcessors() < 2 || done_ >= next_)
      return false;
    if (done_++ == 0)
      begin_ = NowNs();
    for (int i = 0; i < PausesOfLook; ++i)
      SpinPause();
    return true;
  }
  /// Ends the looks for one thing; the next ones are for another.
  void Tell(bool found) noexcept {
    if (done_ == 0)
      return;
    const bool wasInterrupted = NowNs() - begin_ > done_ * LongLookNs;
    next_ = found && !wasInterrupted ? std::min(next_ * 2, Most) : std::max(next_ / 2, Least);
    done_ = 0;
  }

 private:
  static constexpr std::uint32_t Least = 4;
  static constexpr std::uint32_t Most = 64;
  static constexpr int PausesOfLook = 8;
  /// Several times what a look takes; looks that take longer were interrupted by another thread's turn.
  static constexpr std::uint64_t LongLookNs = 5000;

  static std::uint64_t NowNs() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
  }

  static thread_local constinit std::uint32_t next_;
  const bool hasAsked_;
  std::uint32_t done_ = 0;
  std::uint64_t begin_ = 0;
};

thread_local constinit std::uint32_t looks_t::next_ = looks_t::Most / 2;

bool HasHungUp(int socket) noexcept {
  pollfd entry{socket, POLLIN, 0};
  return ::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

}  // namespace

error_t PipeFileName(std::string_view pipe, std::string& name) {
  if (EqualIgnoringCase(pipe.substr(0, Prefix.size()), Prefix))
    pipe.remove_prefix(Prefix.size());
  if (!IsPlainName(pipe))
    return error::PathNotFound;
  name = pipe;
  return error::Success;
}

message_pipe_t::message_pipe_t(descriptor_t socket) noexcept : socket_(std::move(socket)) {}

error_t message_pipe_t::Wait(std::string_view pipe, std::uint32_t milliseconds, pipe_place_t& place) {
  place = pipe_place_t();
  std::string name;
  const error_t named = PipeFileName(pipe, name);
  if (named != error::Success)
    return named;
  socket_folder_t folder;
  place.failure_ = folder.Open(PipeFolder, PipeFolderMode, false);
  if (place.failure_ == error::FileNotFound)
    return error::FileNotFound;
  if (place.failure_ != error::Success)
    return error::Success;
  place.socket_ = descriptor_t(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!place.socket_.IsOpen()) {
    place.failure_ = LastError();
    return error::Success;
  }
  place.failure_ = folder.Connect(place.socket_.Get(), name, deadline_t::After(milliseconds));
  // A file that was left behind is no pipe any more.
  if (place.failure_ == error::FileNotFound || place.failure_ == error::ConnectionRefused)
    return error::FileNotFound;
  return place.failure_ == error::SemaphoreTimeout ? error::SemaphoreTimeout : error::Success;
}

error_t message_pipe_t::Open(pipe_place_t place, boost::shared_ptr<message_pipe_t>& pipe) {
  pipe.reset();
  if (place.failure_ != error::Success)
    return place.failure_;
  if (HasHungUp(place.socket_.Get()))
    return error::FileNotFound;
  pipe = boost::make_shared<message_pipe_t>(std::move(place.socket_));
  return error::Success;
}

error_t message_pipe_t::Open(std::string_view name, boost::shared_ptr<message_pipe_t>& pipe) {
  pipe.reset();
  pipe_place_t place;
  const error_t waited = Wait(name, 0, place);
  if (waited != error::Success)
    return waited == error::SemaphoreTimeout ? error::PipeBusy : waited;
  return Open(std::move(place), pipe);
}

error_t message_pipe_t::Write(std::span<const std::uint8_t> message, const pipe_wait_t& wait) {
  return Write(message, {}, wait);
}

error_t message_pipe_t::Write(std::span<const std::uint8_t> head, std::span<const std::uint8_t> rest,
                              const pipe_wait_t& wait, kernel_pipe_t* tail) {
  const std::size_t held = tail == nullptr ? 0 : tail->Held();
  if (head.size() > MaxPipeMessage || rest.size() > MaxPipeMessage - head.size() ||
      held > MaxPipeMessage - head.size() - rest.size())
    return error::InvalidParameter;
  if (writeBroken_)
    return error::BrokenPipe;
  const header_t header = HeaderOf(head.size() + rest.size() + held);
  std::array<iovec, 3> parts{Part(header), Part(head), Part(rest)};
  bool sent = false;
  error_t result = SendAll(socket_.Get(), parts, held == 0 ? 0 : MSG_MORE, wait, sent);
  if (result == error::Success && held != 0)
    result = SendHeld(*tail, wait);
  writeBroken_ = result == error::BrokenPipe || (result != error::Success && sent);
  return result;
}

message_pipe_t::header_t message_pipe_t::HeaderOf(std::size_t length) noexcept {
  header_t header{};
  for (std::size_t i = 0; i < HeaderSize; ++i)
    header[i] = static_cast<std::uint8_t>(length >> (8 * i));
  return header;
}

error_t message_pipe_t::WriteFiles(std::span<const file_part_t> parts, const pipe_wait_t& wait) {
  std::size_t length = 0;
  for (const file_part_t& part : parts) {
    if (part.length > MaxPipeMessage - length)
      return error::InvalidParameter;
    length += part.length;
  }
  if (writeBroken_)
    return error::BrokenPipe;
  bool sent = false;
  const header_t header = HeaderOf(length);
  iovec headerPart = Part(header);
  error_t result = SendAll(socket_.Get(), {&headerPart, 1}, length == 0 ? 0 : MSG_MORE, wait, sent);
  for (const file_part_t& part : parts) {
    if (result == error::Success)
      result = SendFile(part, wait);
  }
  writeBroken_ = result == error::BrokenPipe || (result != error::Success && sent);
  return result;
}

void message_pipe_t::WaitInSocket() noexcept {
  const int flags = ::fcntl(socket_.Get(), F_GETFL);
  waitsInSocket_ = flags >= 0 && ::fcntl(socket_.Get(), F_SETFL, flags & ~O_NONBLOCK) == 0;
}

void message_pipe_t::End() noexcept {
  ::shutdown(socket_.Get(), SHUT_RDWR);
}

error_t message_pipe_t::SendFile(file_part_t part, const pipe_wait_t& wait) {
  auto offset = static_cast<off_t>(part.offset);
  return SendFrom(socket_.Get(), part.length, wait,
                  [&](std::size_t length) { return ::sendfile(socket_.Get(), part.file, &offset, length); });
}

error_t message_pipe_t::SendHeld(kernel_pipe_t& pipe, const pipe_wait_t& wait) {
  return SendFrom(socket_.Get(), pipe.Held(), wait,
                  [&](std::size_t length) { return pipe.GiveToSocket(socket_.Get(), length, false); });
}

std::size_t message_pipe_t::TakeAhead(std::span<std::uint8_t> buffer) {
  const std::size_t size = std::min(buffer.size(), ahead_.size() - aheadBegin_);
  std::copy_n(ahead_.begin() + static_cast<std::ptrdiff_t>(aheadBegin_), size, buffer.begin());
  aheadBegin_ += size;
  if (aheadBegin_ == ahead_.size()) {
    ahead_.clear();
    aheadBegin_ = 0;
  }
  return size;
}

/// Receives what is there, at least one byte, into two places.
error_t message_pipe_t::ReceiveOnce(std::span<std::uint8_t> first, std::span<std::uint8_t> rest, std::size_t& count,
                                    const pipe_wait_t& wait) {
  count = 0;
  std::array<iovec, 2> parts{Part(first), Part(rest)};
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  looks_t looks(hasAsked_);
  const int flags = waitsInSocket_ && wait.IsEndless() ? 0 : MSG_DONTWAIT;
  for (;;) {
    const ssize_t received = ::recvmsg(socket_.Get(), &message, flags);
    if (received > 0) {
      looks.Tell(true);
      count = static_cast<std::size_t>(received);
      return error::Success;
    }
    if (received == 0)
      return error::BrokenPipe;
    if (WouldBlock()) {
      if (looks.Another())
        continue;
      looks.Tell(false);
      const error_t waited = WaitForReadiness(socket_.Get(), POLLIN, wait);
      if (waited != error::Success)
        return waited;
    } else if (errno != EINTR) {
      return TransferError();
    }
  }
}

/// Fills the buffer; `count` tells how far that came.
error_t message_pipe_t::Receive(std::span<std::uint8_t> buffer, std::size_t& count, const pipe_wait_t& wait) {
  count = TakeAhead(buffer);
  while (count < buffer.size()) {
    std::size_t received = 0;
    const error_t result = ReceiveOnce(buffer.subspan(count), {}, received, wait);
    if (result != error::Success)
      return result;
    count += received;
  }
  return error::Success;
}

/// Begins the next message unless one is at hand. What comes with its header goes into the room.
error_t message_pipe_t::ReadHeader(std::span<std::uint8_t> room, std::size_t& count, const pipe_wait_t& wait) {
  count = 0;
  while (headerSize_ < HeaderSize) {
    const auto missing = std::span(header_).subspan(headerSize_);
    std::size_t received = TakeAhead(missing);
    if (received == 0) {
      const error_t result = ReceiveOnce(missing, room, received, wait);
      if (result != error::Success)
        return result;
    }
    count = received - std::min(received, missing.size());
    headerSize_ += received - count;
    if (headerSize_ < HeaderSize)
      continue;
    left_ = 0;
    for (std::size_t i = 0; i < HeaderSize; ++i)
      left_ |= static_cast<std::size_t>(header_[i]) << (8 * i);
  }
  if (count > left_) {
    const auto behind = room.first(count).subspan(left_);
    ahead_.assign(behind.begin(), behind.end());
    count = left_;
  }
  left_ -= count;
  return error::Success;
}

error_t message_pipe_t::Read(std::span<std::uint8_t> buffer, std::size_t& count, const pipe_wait_t& wait) {
  error_t result = ReadHeader(buffer, count, wait);
  if (result != error::Success)
    return result;
  std::size_t more = 0;
  buffer = buffer.subspan(count);
  result = Receive(buffer.first(std::min(buffer.size(), left_)), more, wait);
  count += more;
  left_ -= more;
  if (result != error::Success)
    return result;
  if (left_ != 0)
    return error::MoreData;
  headerSize_ = 0;
  return error::Success;
}

error_t message_pipe_t::ReadMessage(std::vector<std::uint8_t>& message, std::size_t limit, const pipe_wait_t& wait) {
  std::size_t have = 0;
  message.resize(std::min(std::max(message.size(), FirstGrowth), limit));
  for (;;) {
    std::size_t count = 0;
    const error_t result = Read(std::span(message).subspan(have), count, wait);
    have += count;
    if (result != error::MoreData || have == limit) {
      message.resize(have);
      return result;
    }
    message.resize(have + std::min(std::clamp(have, FirstGrowth, LargestGrowth), limit - have));
  }
}

error_t message_pipe_t::LookForUnread() const {
  if (headerSize_ != 0 || !ahead_.empty())
    return error::PipeBusy;
  for (;;) {
    std::uint8_t byte = 0;
    const ssize_t received = ::recv(socket_.Get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    if (received > 0)
      return error::PipeBusy;
    if (received == 0)
      return error::BrokenPipe;
    if (WouldBlock())
      return error::Success;
    if (errno != EINTR)
      return TransferError();
  }
}

error_t message_pipe_t::Transact(std::span<const std::uint8_t> head, std::span<const std::uint8_t> rest,
                                 std::span<std::uint8_t> reply, std::size_t& count, const pipe_wait_t& wait,
                                 kernel_pipe_t* tail) {
  count = 0;
  hasAsked_ = true;
  error_t result = LookForUnread();
  if (result == error::Success)
    result = Write(head, rest, wait, tail);
  if (result != error::Success)
    return result;
  meanwhile_t::Work();
  return Read(reply, count, wait);
}

error_t message_pipe_t::Transact(std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                                 kernel_pipe_t& pipe, std::size_t& count, const pipe_wait_t& wait) {
  count = 0;
  hasAsked_ = true;
  error_t result = LookForUnread();
  if (result == error::Success)
    result = Write(request, wait);
  if (result != error::Success)
    return result;
  meanwhile_t::Work();
  // Alone, so that what follows is still at the socket.
  result = ReadHeader({}, count, wait);
  if (result != error::Success)
    return result;
  const bool fits = left_ >= kernel_pipe_t::Least && left_ <= std::min(reply.size(), kernel_pipe_t::Largest);
  if (!fits || !ahead_.empty())
    return Read(reply, count, wait);
  result = ReceiveIntoPipe(reply, pipe, count, wait);
  if (result == error::Success)
    headerSize_ = 0;
  return result;
}

/// Takes the rest of the message at hand, which is not longer than the buffer. A peer that sends it in small pieces
/// fills the pipe with these: then the buffer takes all.
error_t message_pipe_t::ReceiveIntoPipe(std::span<std::uint8_t> buffer, kernel_pipe_t& pipe, std::size_t& count,
                                        const pipe_wait_t& wait) {
  bool mustHaveSome = false;
  looks_t looks(hasAsked_);
  while (left_ > 0) {
    std::size_t moved = 0;
    error_t result = pipe.TakeFromSocket(socket_.Get(), left_, moved);
    if ((result == error::PipeBusy && mustHaveSome) || result == error::CallNotImplemented) {
      result = pipe.Read(buffer.first(count), moved);
      if (result != error::Success)
        return result;
      result = Receive(buffer.subspan(count, left_), moved, wait);
      count += moved;
      left_ -= moved;
      return result;
    }
    if (result == error::PipeBusy) {
      if (looks.Another())
        continue;
      looks.Tell(false);
      result = WaitForReadiness(socket_.Get(), POLLIN, wait);
      mustHaveSome = true;
    } else if (result == error::Success) {
      looks.Tell(true);
      mustHaveSome = false;
    }
    if (result != error::Success)
      return result;
    count += moved;
    left_ -= moved;
  }
  return error::Success;
}

}  // namespace platform
