#include "platform/kernel_pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace platform {
namespace {

/// A page of the pipe for each page of the bytes, and one more where they do not begin with a page; twice that, for
/// senders who cut theirs smaller.
constexpr int PipeSize = 512 << 10;

template <typename Move>
ssize_t Uninterrupted(Move move) noexcept {
  ssize_t moved = 0;
  do {
    moved = move();
  } while (moved < 0 && errno == EINTR);
  return moved;
}

/// What errno says of a move that took nothing. Some kinds of files cannot be spliced from, and some walls around a
/// process leave it no splice at all.
error_t WhyNothing() noexcept {
  switch (errno) {
    case EAGAIN:
      return error::PipeBusy;
    case EINVAL:
    case ENOSYS:
    case EOPNOTSUPP:
    case EPERM:
      return error::CallNotImplemented;
    case ECONNRESET:
    case EPIPE:
      return error::BrokenPipe;
    default:
      return LastError();
  }
}

}  // namespace

/// The pipes that are not in use, and how many there are at all.
class kernel_pipe_t::store_t {
 public:
  /// Never destroyed: replies may come back late.
  static store_t& Instance() {
    static auto* const store = new store_t;
    return *store;
  }

  std::unique_ptr<kernel_pipe_t> Take(std::size_t leave) {
    {
      const std::lock_guard guard(lock_);
      // Each that is in use keeps pages in memory, of files until they are sent.
      if (alive_ - free_.size() + leave >= Most)
        return {};
      if (!free_.empty()) {
        std::unique_ptr<kernel_pipe_t> pipe = std::move(free_.back());
        free_.pop_back();
        return pipe;
      }
      ++alive_;
    }
    std::unique_ptr<kernel_pipe_t> pipe = Make();
    if (pipe == nullptr)
      Forget();
    return pipe;
  }

  std::size_t InUse() noexcept {
    const std::lock_guard guard(lock_);
    return alive_ - free_.size();
  }

  /// One that is not empty is not used again.
  void Return(std::unique_ptr<kernel_pipe_t> pipe) noexcept {
    if (pipe->Held() != 0) {
      pipe.reset();
      Forget();
      return;
    }
    const std::lock_guard guard(lock_);
    free_.push_back(std::move(pipe));
  }

 private:
  store_t() { free_.reserve(Most); }

  static std::unique_ptr<kernel_pipe_t> Make() noexcept {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
      return {};
    descriptor_t readEnd(ends[0]);
    descriptor_t writeEnd(ends[1]);
    if (::fcntl(writeEnd.Get(), F_SETPIPE_SZ, PipeSize) < PipeSize)
      return {};
    return std::unique_ptr<kernel_pipe_t>(new (std::nothrow) kernel_pipe_t(std::move(readEnd), std::move(writeEnd)));
  }

  void Forget() noexcept {
    const std::lock_guard guard(lock_);
    --alive_;
  }

  std::mutex lock_;
  /// Guarded by lock_. The last one in is the first one out.
  std::vector<std::unique_ptr<kernel_pipe_t>> free_;
  std::size_t alive_ = 0;
};

boost::shared_ptr<kernel_pipe_t> kernel_pipe_t::Acquire(std::size_t leave) noexcept {
  try {
    std::unique_ptr<kernel_pipe_t> pipe = store_t::Instance().Take(leave);
    if (pipe == nullptr)
      return {};
    return {pipe.release(),
            [](kernel_pipe_t* used) { store_t::Instance().Return(std::unique_ptr<kernel_pipe_t>(used)); }};
  } catch (const std::bad_alloc&) {
    return {};
  }
}

bool kernel_pipe_t::AreScarce() noexcept {
  return store_t::Instance().InUse() >= Most / 2;
}

error_t kernel_pipe_t::TakeFromFile(int file, std::uint64_t offset, std::size_t length,
                                    std::size_t& outMoved) noexcept {
  outMoved = 0;
  auto position = static_cast<loff_t>(offset);
  const ssize_t moved =
      Uninterrupted([&] { return ::splice(file, &position, writeEnd_.Get(), nullptr, length, SPLICE_F_NONBLOCK); });
  if (moved < 0)
    return WhyNothing();
  outMoved = static_cast<std::size_t>(moved);
  held_ += outMoved;
  return error::Success;
}

error_t kernel_pipe_t::TakeFromSocket(int socket, std::size_t length, std::size_t& outMoved) noexcept {
  outMoved = 0;
  const ssize_t moved =
      Uninterrupted([&] { return ::splice(socket, nullptr, writeEnd_.Get(), nullptr, length, SPLICE_F_NONBLOCK); });
  if (moved < 0)
    return WhyNothing();
  if (moved == 0)
    return error::BrokenPipe;
  outMoved = static_cast<std::size_t>(moved);
  held_ += outMoved;
  return error::Success;
}

ssize_t kernel_pipe_t::GiveToSocket(int socket, std::size_t length, bool more) noexcept {
  const ssize_t moved = ::splice(readEnd_.Get(), nullptr, socket, nullptr, length, more ? SPLICE_F_MORE : 0);
  if (moved > 0)
    held_ -= static_cast<std::size_t>(moved);
  return moved;
}

error_t kernel_pipe_t::Read(std::span<std::uint8_t> room, std::size_t& outRead) noexcept {
  outRead = 0;
  while (held_ > 0 && outRead < room.size()) {
    const ssize_t got =
        Uninterrupted([&] { return ::read(readEnd_.Get(), room.data() + outRead, room.size() - outRead); });
    if (got <= 0)
      return got == 0 ? error::IoDevice : LastError();
    outRead += static_cast<std::size_t>(got);
    held_ -= static_cast<std::size_t>(got);
  }
  return error::Success;
}

}  // namespace platform
