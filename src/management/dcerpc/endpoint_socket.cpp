#include "management/dcerpc/endpoint_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace dcerpc {
namespace {

using platform::descriptor_t;
using platform::error_t;

constexpr const char* SocketName = "management";
constexpr const char* AdministratorsGroup = "kelvo-admins";
constexpr mode_t SocketMode = 0660;
constexpr mode_t FolderMode = 0755;
constexpr std::size_t FirstEntrySize = 1024;
constexpr std::size_t LastEntrySize = std::size_t{1} << 20;

error_t SocketError() {
  return errno == EADDRINUSE ? endpoint_error::DuplicateEndpoint : platform::SocketErrorFromErrno(errno);
}

/// Calls one of the reentrant look-ups with a buffer that grows until it holds the entry.
template <typename Entry, typename Key>
std::optional<Entry> LookUp(int (*find)(Key, Entry*, char*, std::size_t, Entry**), Key key, std::vector<char>& buffer) {
  for (std::size_t size = FirstEntrySize; size <= LastEntrySize; size *= 2) {
    buffer.resize(size);
    Entry entry{};
    Entry* found = nullptr;
    const int failure = find(key, &entry, buffer.data(), buffer.size(), &found);
    if (failure == ERANGE)
      continue;
    return found == nullptr ? std::nullopt : std::optional(entry);
  }
  return {};
}

/// The folder in which the socket lies, open. The process's umask must not decide who gets to the socket.
error_t OpenFolder(descriptor_t& folder) {
  const std::string path = platform::RuntimeFolder();
  const bool isNew = ::mkdir(path.c_str(), FolderMode) == 0;
  if (isNew ? ::chmod(path.c_str(), FolderMode) != 0 : errno != EEXIST)
    return platform::LastError();
  folder = descriptor_t(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.IsOpen() ? platform::error::Success : platform::LastError();
}

/// Keeps another instance that starts now out. Who does not get it soon goes on without: the order of two starts is
/// all that it is for.
void Lock(const descriptor_t& folder) {
  constexpr std::uint64_t LimitMs = 2000;
  constexpr std::uint32_t RetryMs = 5;
  const std::uint64_t end = platform::SystemClock().MonotonicMilliseconds() + LimitMs;
  while (::flock(folder.Get(), LOCK_EX | LOCK_NB) != 0 && platform::SystemClock().MonotonicMilliseconds() < end)
    platform::SystemClock().Sleep(RetryMs);
}

/// The address of the socket in the folder; one that is too long is reached through the folder's descriptor.
error_t MakeAddress(const descriptor_t& folder, sockaddr_un& address) {
  std::string path = LocalSocketPath();
  if (path.size() >= sizeof(address.sun_path))
    path = "/proc/self/fd/" + std::to_string(folder.Get()) + '/' + SocketName;
  if (path.size() >= sizeof(address.sun_path))
    return platform::error::FilenameExceedsRange;
  address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return platform::error::Success;
}

/// Makes the name free, unless it is in use.
error_t RemoveLeftover(const descriptor_t& folder, const sockaddr_un& address) {
  struct stat info {};
  if (::fstatat(folder.Get(), SocketName, &info, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? platform::error::Success : platform::LastError();
  if (!S_ISSOCK(info.st_mode))
    return platform::error::InvalidHandle;
  const descriptor_t probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe.IsOpen())
    return platform::LastError();
  // A queue that is full is that of somebody who listens.
  if (::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 || errno == EAGAIN)
    return endpoint_error::DuplicateEndpoint;
  if (errno != ECONNREFUSED)
    return platform::LastError();
  return ::unlinkat(folder.Get(), SocketName, 0) == 0 || errno == ENOENT ? platform::error::Success
                                                                         : platform::LastError();
}

void GiveToAdministrators(const descriptor_t& folder) {
  std::vector<char> buffer;
  const std::optional<group> administrators = LookUp(&::getgrnam_r, AdministratorsGroup, buffer);
  if (!administrators)
    return;
  constexpr auto KeepUser = static_cast<uid_t>(-1);
  if (::fchownat(folder.Get(), SocketName, KeepUser, administrators->gr_gid, AT_SYMLINK_NOFOLLOW) != 0)
    g_rpc_log.Warning("The local management socket stays closed to the group [%1]: %2", AdministratorsGroup,
                      platform::ErrorText(platform::LastError()));
}

/// Nobody connects before the file is whose it should be: only then is it listened on.
error_t Open(const descriptor_t& folder, const descriptor_t& socket, const sockaddr_un& address, CSocketFile& file) {
  if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    return SocketError();
  struct stat info {};
  if (::fstatat(folder.Get(), SocketName, &info, AT_SYMLINK_NOFOLLOW) != 0)
    return platform::LastError();
  file = CSocketFile(LocalSocketPath(), {info.st_dev, info.st_ino});
  GiveToAdministrators(folder);
  if (::fchmodat(folder.Get(), SocketName, SocketMode, AT_SYMLINK_NOFOLLOW) != 0 ||
      ::listen(socket.Get(), SOMAXCONN) != 0)
    return platform::LastError();
  return platform::error::Success;
}

}  // namespace

error_t ListenTcp(std::uint32_t port, SListeningSocket& socket) {
  if (port > std::numeric_limits<std::uint16_t>::max())
    return endpoint_error::InvalidEndpointFormat;
  descriptor_t descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!descriptor.IsOpen())
    return SocketError();
  // Connections of an instance that has just ended do not hold the port.
  const int on = 1;
  ::setsockopt(descriptor.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  socklen_t length = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(descriptor.Get(), generic, length) != 0 || ::listen(descriptor.Get(), SOMAXCONN) != 0 ||
      ::getsockname(descriptor.Get(), generic, &length) != 0)
    return SocketError();
  socket.descriptor = std::move(descriptor);
  socket.address = std::to_string(ntohs(address.sin_port));
  socket.isLocal = false;
  return platform::error::Success;
}

CSocketFile::~CSocketFile() {
  struct stat info {};
  if (!path_.empty() && ::lstat(path_.c_str(), &info) == 0 && id_ == platform::file_id_t{info.st_dev, info.st_ino})
    ::unlink(path_.c_str());
}

std::string LocalSocketPath() {
  return platform::RuntimeFolder() + '/' + SocketName;
}

error_t ListenLocal(SListeningSocket& socket, CSocketFile& file) {
  descriptor_t folder(-1);
  error_t failure = OpenFolder(folder);
  if (failure != platform::error::Success)
    return failure;
  Lock(folder);
  sockaddr_un address{};
  failure = MakeAddress(folder, address);
  if (failure == platform::error::Success)
    failure = RemoveLeftover(folder, address);
  if (failure != platform::error::Success)
    return failure;
  descriptor_t descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!descriptor.IsOpen())
    return SocketError();
  CSocketFile made;
  failure = Open(folder, descriptor, address, made);
  if (failure != platform::error::Success)
    return failure;
  file = std::move(made);
  socket.descriptor = std::move(descriptor);
  socket.address = LocalSocketPath();
  socket.isLocal = true;
  return platform::error::Success;
}

SCaller LocalCaller(int socket) {
  SCaller caller;
  ucred peer{};
  socklen_t length = sizeof(peer);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
    caller.origin = "unix";
    return caller;
  }
  caller.origin = exc::FormatText("unix:%1", peer.pid);
  caller.level = auth_level_t::Privacy;
  caller.authenticated = true;
  caller.principal = exc::FormatText("uid %1", peer.uid);
  std::vector<char> buffer;
  const std::optional<passwd> account = LookUp(&::getpwuid_r, peer.uid, buffer);
  const char* const withoutAccount = peer.uid == 0 ? "root" : "";
  caller.account = account ? account->pw_name : withoutAccount;
  return caller;
}

SCaller RemoteCaller(int socket) {
  SCaller caller;
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  std::array<char, INET_ADDRSTRLEN> text{};
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0 && address.sin_family == AF_INET &&
      ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) != nullptr)
    caller.origin = exc::FormatText("%1:%2", text.data(), ntohs(address.sin_port));
  return caller;
}

}  // namespace dcerpc
