#include "platform/event_folder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/clock.h"
#include "platform/environment.h"

namespace platform {
namespace {

constexpr std::string_view Prefix = "Global\\";
constexpr std::uint64_t AnswerMilliseconds = 2000;
constexpr std::uint64_t LockMilliseconds = 2000;
constexpr std::uint32_t RetryMilliseconds = 5;

/// Time that runs out.
class deadline_t {
 public:
  explicit deadline_t(std::uint64_t milliseconds) : end_(SystemClock().MonotonicMilliseconds() + milliseconds) {}
  int Left() const {
    const std::uint64_t now = SystemClock().MonotonicMilliseconds();
    return now >= end_ ? 0 : static_cast<int>(end_ - now);
  }

 private:
  const std::uint64_t end_;
};

/// The process's umask must not decide who may look the event up.
error_t CreateOpenFolder(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) == 0)
    return ::chmod(path.c_str(), 0755) == 0 ? error::Success : LastError();
  return errno == EEXIST ? error::Success : LastError();
}

/// The address of a name in the folder. One that is too long for the socket's address is reached through the folder's
/// descriptor.
error_t MakeAddress(const std::string& path, int folder, const std::string& name, sockaddr_un& address) {
  std::string text = path + '/' + name;
  if (text.size() >= sizeof(address.sun_path))
    text = "/proc/self/fd/" + std::to_string(folder) + '/' + name;
  if (text.size() >= sizeof(address.sun_path))
    return error::FilenameExceedsRange;
  address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, text.c_str(), text.size());
  return error::Success;
}

bool IsEventfd(int descriptor) {
  constexpr std::string_view Kind = "anon_inode:[eventfd]";
  std::array<char, 64> text{};
  const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), text.data(), text.size());
  return length > 0 && std::string_view(text.data(), static_cast<std::size_t>(length)) == Kind;
}

/// Takes the first descriptor of a message and closes all others that came with it.
descriptor_t TakeDescriptor(msghdr& message) {
  descriptor_t taken(-1);
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS)
      continue;
    const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof(int));
      descriptor_t owned(descriptor);
      if (!taken.IsOpen())
        taken = std::move(owned);
    }
  }
  return taken;
}

/// Room for the descriptors of one message, which the kernel cuts to it.
union control_t {
  cmsghdr header;
  std::array<char, CMSG_SPACE(sizeof(int))> bytes;
};

error_t ReceiveEvent(int socket, const deadline_t& deadline, event_folder_t::found_t& found, descriptor_t& event) {
  for (;;) {
    char byte = 0;
    iovec data{&byte, 1};
    control_t control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = &control;
    message.msg_controllen = sizeof(control);
    const ssize_t received = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (received > 0) {
      event = TakeDescriptor(message);
      if (!event.IsOpen() || !IsEventfd(event.Get()))
        return error::InvalidHandle;
      found = event_folder_t::found_t::Event;
      return error::Success;
    }
    if (received == 0 || errno == ECONNRESET)
      return error::Success;  // The owner has just gone: nothing is found.
    if (errno != EAGAIN && errno != EINTR)
      return LastError();
    pollfd readable{socket, POLLIN, 0};
    const int left = deadline.Left();
    if (left == 0)
      return error::SemaphoreTimeout;
    ::poll(&readable, 1, left);
  }
}

}  // namespace

error_t EventFileName(std::string_view event, std::string& name) {
  if (event.starts_with(Prefix))
    event.remove_prefix(Prefix.size());
  if (!IsPlainName(event))
    return error::PathNotFound;
  name = event;
  return error::Success;
}

error_t event_folder_t::Open(bool create) {
  const std::string runtime = RuntimeFolder();
  path_ = runtime + "/event";
  if (create) {
    error_t created = CreateOpenFolder(runtime);
    if (created == error::Success)
      created = CreateOpenFolder(path_);
    if (created != error::Success)
      return created;
  }
  folder_ = descriptor_t(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder_.IsOpen() ? error::Success : LastError();
}

descriptor_t event_folder_t::Lock() const {
  // A description of its own, for that is what a lock belongs to.
  descriptor_t lock(::openat(folder_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const deadline_t deadline(LockMilliseconds);
  while (lock.IsOpen() && ::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0 && deadline.Left() > 0)
    SystemClock().Sleep(RetryMilliseconds);
  return lock;
}

error_t event_folder_t::StartConnect(int socket, const std::string& name) const {
  sockaddr_un address{};
  const error_t made = MakeAddress(path_, folder_.Get(), name, address);
  if (made != error::Success)
    return made;
  const deadline_t deadline(AnswerMilliseconds);
  while (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    // A full queue is no place in it.
    if (errno != EAGAIN && errno != EINTR)
      return ErrorFromErrno(errno);
    if (deadline.Left() == 0)
      return error::SemaphoreTimeout;
    SystemClock().Sleep(RetryMilliseconds);
  }
  return error::Success;
}

error_t event_folder_t::Connect(const std::string& name, found_t& found, descriptor_t& event) const {
  found = found_t::Nothing;
  struct stat info {};
  if (::fstatat(folder_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? error::Success : LastError();
  if (!S_ISSOCK(info.st_mode))
    return error::InvalidHandle;
  const descriptor_t socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.IsOpen())
    return LastError();
  const error_t connected = StartConnect(socket.Get(), name);
  if (connected == error::FileNotFound)
    return error::Success;
  if (connected == error::ConnectionRefused) {
    found = found_t::Leftover;
    return error::Success;
  }
  if (connected != error::Success)
    return connected;
  return ReceiveEvent(socket.Get(), deadline_t(AnswerMilliseconds), found, event);
}

error_t event_folder_t::Listen(const std::string& name, mode_t mode, descriptor_t& listener, file_id_t& file) const {
  sockaddr_un address{};
  const error_t made = MakeAddress(path_, folder_.Get(), name, address);
  if (made != error::Success)
    return made;
  descriptor_t socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.IsOpen() || ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    return errno == EADDRINUSE ? error::AlreadyExists : LastError();
  struct stat info {};
  const bool listening = ::fstatat(folder_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                         ::fchmodat(folder_.Get(), name.c_str(), mode, 0) == 0 &&
                         ::listen(socket.Get(), SOMAXCONN) == 0;
  if (!listening) {
    const error_t failure = LastError();
    ::unlinkat(folder_.Get(), name.c_str(), 0);
    return failure;
  }
  file = {info.st_dev, info.st_ino};
  listener = std::move(socket);
  return error::Success;
}

void event_folder_t::Remove(const std::string& name, const file_id_t& file) const {
  struct stat info {};
  if (::fstatat(folder_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
      file == file_id_t{info.st_dev, info.st_ino})
    ::unlinkat(folder_.Get(), name.c_str(), 0);
}

error_t event_folder_t::RemoveLeftover(const std::string& name) const {
  return ::unlinkat(folder_.Get(), name.c_str(), 0) == 0 || errno == ENOENT ? error::Success : LastError();
}

void SendEvent(int socket, int event) noexcept {
  char byte = 0;
  iovec data{&byte, 1};
  control_t control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = &control;
  message.msg_controllen = sizeof(control);
  control.header.cmsg_level = SOL_SOCKET;
  control.header.cmsg_type = SCM_RIGHTS;
  control.header.cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(&control.header), &event, sizeof(int));
  ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace platform
