// The sockets on which the management endpoint listens, and who comes to them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "management/dcerpc/caller.h"
#include "platform/error.h"
#include "platform/location.h"

namespace dcerpc {

/// A socket that listens; nothing accepts yet, so who connects waits.
struct SListeningSocket {
  platform::descriptor_t descriptor{-1};
  /// As bind_ack tells it: the decimal port, or the path.
  std::string address;
  bool isLocal = false;

  /// "ncacn_ip_tcp:6161" or "unix:/run/kelvo/management".
  std::string Binding() const { return (isLocal ? "unix:" : "ncacn_ip_tcp:") + address; }
};

/// RPC numbers of endpoint failures.
namespace endpoint_error {
inline constexpr platform::error_t InvalidEndpointFormat = 1706;
inline constexpr platform::error_t DuplicateEndpoint = 1740;
}  // namespace endpoint_error

/// Listens on a TCP port of all IPv4 addresses; 0 stands for any that is free. DuplicateEndpoint when the port is held,
/// InvalidEndpointFormat for one above 65535, otherwise a WSA number.
platform::error_t ListenTcp(std::uint32_t port, SListeningSocket& socket);

/// The file of a listening Unix socket: removed with the object, unless another one has taken its place.
class CSocketFile {
 public:
  CSocketFile() = default;
  CSocketFile(std::string path, platform::file_id_t id) : path_(std::move(path)), id_(id) {}
  CSocketFile(const CSocketFile&) = delete;
  CSocketFile& operator=(const CSocketFile&) = delete;
  CSocketFile(CSocketFile&& other) noexcept { *this = std::move(other); }
  CSocketFile& operator=(CSocketFile&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(id_, other.id_);
    return *this;
  }
  ~CSocketFile();

 private:
  std::string path_;
  platform::file_id_t id_;
};

/// `RuntimeFolder()/management`.
std::string LocalSocketPath();
/// Listens on LocalSocketPath(), mode 0660 and of the group of administrators when there is one. The folder is made
/// when it is missing; a socket file that nobody listens on is left over and replaced. DuplicateEndpoint when somebody
/// does, 6 when something else has the name.
platform::error_t ListenLocal(SListeningSocket& socket, CSocketFile& file);

/// Who connected to a local socket: the account of the process's user, proved by the kernel. Looks into the account
/// data base.
SCaller LocalCaller(int socket);
/// Who connected over TCP: nobody known yet.
SCaller RemoteCaller(int socket);

}  // namespace dcerpc
