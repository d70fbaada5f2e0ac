#include "platform/socket_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/clock.h"
#include "platform/environment.h"

namespace platform {
namespace {

constexpr mode_t RuntimeMode = 0755;
constexpr std::uint64_t LockMilliseconds = 2000;
constexpr std::uint32_t RetryMilliseconds = 5;

/// The process's umask must not decide who may look a socket up.
error_t CreateFolder(const std::string& path, mode_t mode) {
  if (::mkdir(path.c_str(), mode) == 0)
    return ::chmod(path.c_str(), mode) == 0 ? error::Success : LastError();
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

int ConnectTo(int socket, const sockaddr_un& address) {
  return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

}  // namespace

error_t socket_folder_t::Open(std::string_view name, mode_t mode, bool create) {
  const std::string runtime = RuntimeFolder();
  path_ = runtime + '/';
  path_ += name;
  if (create) {
    error_t created = CreateFolder(runtime, RuntimeMode);
    if (created == error::Success)
      created = CreateFolder(path_, mode);
    if (created != error::Success)
      return created;
  }
  folder_ = descriptor_t(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder_.IsOpen() ? error::Success : LastError();
}

descriptor_t socket_folder_t::Lock() const {
  // A description of its own, for that is what a lock belongs to.
  descriptor_t lock(::openat(folder_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const deadline_t deadline = deadline_t::After(LockMilliseconds);
  while (lock.IsOpen() && ::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0 && !deadline.IsOver())
    SystemClock().Sleep(RetryMilliseconds);
  return lock;
}

error_t socket_folder_t::Look(const std::string& name) const {
  struct stat info {};
  if (::fstatat(folder_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
    return LastError();
  return S_ISSOCK(info.st_mode) ? error::Success : error::InvalidHandle;
}

error_t socket_folder_t::FindAddress(const std::string& name, sockaddr_un& address) const {
  const error_t looked = Look(name);
  return looked != error::Success ? looked : MakeAddress(path_, folder_.Get(), name, address);
}

error_t socket_folder_t::Connect(int socket, const std::string& name, const deadline_t& deadline) const {
  sockaddr_un address{};
  const error_t found = FindAddress(name, address);
  if (found != error::Success)
    return found;
  while (ConnectTo(socket, address) != 0) {
    if (errno == EPROTOTYPE)
      return error::InvalidHandle;
    // A full queue is no place in it.
    if (errno != EAGAIN && errno != EINTR)
      return LastError();
    if (deadline.IsOver())
      return error::SemaphoreTimeout;
    SystemClock().Sleep(RetryMilliseconds);
  }
  return error::Success;
}

error_t socket_folder_t::Probe(const std::string& name) const {
  sockaddr_un address{};
  const error_t found = FindAddress(name, address);
  if (found != error::Success)
    return found;
  // A socket of another type never gets through to the owner; it learns that there is one.
  const descriptor_t socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.IsOpen())
    return LastError();
  if (ConnectTo(socket.Get(), address) == 0 || errno == EPROTOTYPE)
    return error::Success;
  return LastError();
}

error_t socket_folder_t::Listen(const std::string& name, mode_t mode, int waiting, descriptor_t& listener,
                                file_id_t& file) const {
  sockaddr_un address{};
  const error_t made = MakeAddress(path_, folder_.Get(), name, address);
  if (made != error::Success)
    return made;
  descriptor_t socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.IsOpen() || ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    return errno == EADDRINUSE ? error::AlreadyExists : LastError();
  struct stat info {};
  // Who else may write to the folder could put a link in the place of the socket meanwhile.
  const bool listening = ::fstatat(folder_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                         ::fchmodat(folder_.Get(), name.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0 &&
                         ::listen(socket.Get(), waiting) == 0;
  if (!listening) {
    const error_t failure = LastError();
    ::unlinkat(folder_.Get(), name.c_str(), 0);
    return failure;
  }
  file = {info.st_dev, info.st_ino};
  listener = std::move(socket);
  return error::Success;
}

void socket_folder_t::Remove(const std::string& name, const file_id_t& file) const {
  struct stat info {};
  if (::fstatat(folder_.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
      file == file_id_t{info.st_dev, info.st_ino})
    ::unlinkat(folder_.Get(), name.c_str(), 0);
}

error_t socket_folder_t::RemoveLeftover(const std::string& name) const {
  return ::unlinkat(folder_.Get(), name.c_str(), 0) == 0 || errno == ENOENT ? error::Success : LastError();
}

}  // namespace platform
