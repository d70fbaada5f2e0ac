#include "platform/named_event.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <string>
#include <thread>

#include "platform/event_folder.h"
#include "platform/process.h"
#include "platform/signal_stack.h"

namespace platform {
namespace {

constexpr int ShortageMilliseconds = 100;

bool IsReadable(int descriptor, int milliseconds) noexcept {
  pollfd entry{descriptor, POLLIN, 0};
  return ::poll(&entry, 1, milliseconds) > 0 && (entry.revents & POLLIN) != 0;
}

/// A handle to an event, whoever owns it. The eventfd is shared with any process that asked for it, and each of them
/// may fill it, empty it, or make it block: so no call here relies on it not to.
class event_handle_t : public named_event_t {
 public:
  explicit event_handle_t(descriptor_t event) : event_(std::move(event)) {}

  error_t Set() override {
    if (IsSet())
      return error::Success;
    ::fcntl(event_.Get(), F_SETFL, O_RDWR | O_NONBLOCK);
    const std::uint64_t one = 1;
    const ssize_t written = ::write(event_.Get(), &one, sizeof(one));
    // Full is signalled.
    return written == sizeof(one) || errno == EAGAIN ? error::Success : LastError();
  }

  error_t Reset() override {
    if (!IsSet())
      return error::Success;
    std::uint64_t count = 0;
    iovec data{&count, sizeof(count)};
    ssize_t got = ::preadv2(event_.Get(), &data, 1, -1, RWF_NOWAIT);
    if (got < 0 && errno == EOPNOTSUPP)
      got = ::read(event_.Get(), &count, sizeof(count));
    // Empty is what was wanted.
    return got == sizeof(count) || errno == EAGAIN ? error::Success : LastError();
  }

  bool IsSet() const override { return IsReadable(event_.Get(), 0); }

  error_t Wait(std::uint32_t milliseconds) const override {
    if (milliseconds == Infinite) {
      while (!IsReadable(event_.Get(), -1)) {
      }
      return error::Success;
    }
    // A signal ends a poll early.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
      if (IsReadable(event_.Get(), static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX))))
        return error::Success;
      if (left <= 0)
        return error::WaitTimeout;
    }
  }

  int Descriptor() const noexcept override { return event_.Get(); }

 private:
  const descriptor_t event_;
};

/// The owner's handle, with the thread that answers peers.
class event_owner_t final : public event_handle_t {
 public:
  event_owner_t(event_folder_t folder, std::string name, descriptor_t event, descriptor_t stop)
      : event_handle_t(std::move(event)), folder_(std::move(folder)), name_(std::move(name)), stop_(std::move(stop)) {}
  event_owner_t(const event_owner_t&) = delete;
  event_owner_t& operator=(const event_owner_t&) = delete;

  /// The folder's lock is held by the caller.
  error_t Start(mode_t mode) {
    const error_t listening = folder_.Listen(name_, mode, SOMAXCONN, listener_, file_);
    if (listening != error::Success)
      return listening;
    try {
      StartThread();
    } catch (const std::exception&) {
      folder_.Remove(name_, file_);
      listener_ = descriptor_t(-1);
      return error::NotEnoughMemory;
    }
    return error::Success;
  }

  ~event_owner_t() override {
    if (!thread_.joinable())
      return;
    {
      // Peers are answered until the name is free, so a creator who has the lock sees an owner or none.
      const descriptor_t lock = folder_.Lock();
      folder_.Remove(name_, file_);
    }
    ::eventfd_write(stop_.Get(), 1);
    thread_.join();
  }

 private:
  void StartThread() {
    // The thread inherits the mask: signals to the process are for others, failures of its own are not.
    sigset_t blocked;
    sigset_t old;
    ::sigfillset(&blocked);
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
      ::sigdelset(&blocked, number);
    ::pthread_sigmask(SIG_SETMASK, &blocked, &old);
    try {
      thread_ = std::thread([this] { Answer(); });
    } catch (...) {
      ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
      throw;
    }
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
  }

  void Answer() noexcept {
    const signal_stack_t signalStack;
    SetThreadName("named event");
    for (;;) {
      std::array<pollfd, 2> entries{{{stop_.Get(), POLLIN, 0}, {listener_.Get(), POLLIN, 0}}};
      if (::poll(entries.data(), entries.size(), -1) < 0)
        continue;
      if (entries[0].revents != 0)
        return;
      const descriptor_t peer(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (peer.IsOpen()) {
        SendEvent(peer.Get(), Descriptor());
      } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
        // No descriptor is free: the peer waits in the queue until one is.
        IsReadable(stop_.Get(), ShortageMilliseconds);
      }
    }
  }

  const event_folder_t folder_;
  const std::string name_;
  const descriptor_t stop_;
  descriptor_t listener_{-1};
  file_id_t file_;
  std::thread thread_;
};

error_t CreateOrFind(std::string_view event, mode_t mode, boost::shared_ptr<named_event_t>& handle) {
  std::string name;
  event_folder_t folder;
  error_t result = EventFileName(event, name);
  if (result == error::Success)
    result = folder.Open(true);
  if (result != error::Success)
    return result;
  const descriptor_t lock = folder.Lock();
  event_folder_t::found_t found{};
  descriptor_t other(-1);
  result = folder.Find(name, found, other);
  if (result != error::Success)
    return result;
  if (found == event_folder_t::found_t::Event) {
    handle.reset(new event_handle_t(std::move(other)));
    return error::AlreadyExists;
  }
  if (found == event_folder_t::found_t::Leftover)
    result = folder.RemoveLeftover(name);
  if (result != error::Success)
    return result;
  descriptor_t own(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  descriptor_t stop(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!own.IsOpen() || !stop.IsOpen())
    return LastError();
  boost::shared_ptr<event_owner_t> owner(new event_owner_t(std::move(folder), name, std::move(own), std::move(stop)));
  result = owner->Start(mode);
  if (result == error::Success)
    handle = owner;
  return result;
}

error_t Find(std::string_view event, boost::shared_ptr<named_event_t>& handle) {
  std::string name;
  event_folder_t folder;
  error_t result = EventFileName(event, name);
  if (result == error::Success)
    result = folder.Open(false);
  if (result != error::Success)
    return result;
  event_folder_t::found_t found{};
  descriptor_t other(-1);
  result = folder.Find(name, found, other);
  if (result != error::Success)
    return result;
  if (found != event_folder_t::found_t::Event)
    return error::FileNotFound;
  handle.reset(new event_handle_t(std::move(other)));
  return error::Success;
}

}  // namespace

error_t named_event_t::Create(std::string_view name, mode_t socketMode, boost::shared_ptr<named_event_t>& event) {
  event.reset();
  try {
    return CreateOrFind(name, socketMode, event);
  } catch (const std::exception&) {
    return error::NotEnoughMemory;
  }
}

error_t named_event_t::Open(std::string_view name, boost::shared_ptr<named_event_t>& event) {
  event.reset();
  try {
    return Find(name, event);
  } catch (const std::exception&) {
    return error::NotEnoughMemory;
  }
}

}  // namespace platform
