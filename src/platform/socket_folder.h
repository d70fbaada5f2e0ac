// A folder below the runtime folder in which sockets lie that are found by name.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/futex.h"
#include "platform/location.h"

struct sockaddr_un;

namespace platform {

/// One such folder, held open. A socket file that nobody listens on is left over from an owner who died; who creates a
/// socket replaces it, with the folder's lock held. One thread at a time.
class socket_folder_t {
 public:
  /// With `create`, `RuntimeFolder()/name` is made with the given mode, whatever the umask, when it is missing.
  /// Otherwise 2.
  error_t Open(std::string_view name, mode_t mode, bool create);

  /// Keeps other creators out while it lives. Any account that can open the folder could keep the lock for ever: who
  /// does not get it in two seconds goes on without, and all that is lost is the order of two creators.
  descriptor_t Lock() const;

  /// Connects a stream socket. While the owner's queue is full it tries again until the deadline, then 121. 1225 when
  /// nobody listens, 2 when there is nothing, 6 when what is there is no such socket.
  error_t Connect(int socket, const std::string& name, const deadline_t& deadline) const;
  /// Tells whether the socket file has an owner, without becoming a peer of it: 0 when it has, 1225 when it is left
  /// over, 2 when there is nothing, 6 when what is there is no socket.
  error_t Probe(const std::string& name) const;

  /// Listens under a name that is free, and tells which file that made. `waiting`: the length of the queue.
  error_t Listen(const std::string& name, mode_t mode, int waiting, descriptor_t& listener, file_id_t& file) const;
  /// Removes the socket file if it is the given one, or whichever it is.
  void Remove(const std::string& name, const file_id_t& file) const;
  error_t RemoveLeftover(const std::string& name) const;

 protected:
  /// 2 when nothing has the name, 6 when something else than a socket has it.
  error_t Look(const std::string& name) const;

 private:
  error_t FindAddress(const std::string& name, sockaddr_un& address) const;

  std::string path_;
  descriptor_t folder_{-1};
};

}  // namespace platform
