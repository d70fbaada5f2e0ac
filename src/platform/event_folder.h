// The folder in which the sockets of named events lie.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/location.h"

namespace platform {

/// Gives an event's file name: what is behind the prefix "Global\". 3 when that is no plain file name.
error_t EventFileName(std::string_view event, std::string& name);

/// `RuntimeFolder()/event`, held open. One thread at a time.
class event_folder_t {
 public:
  /// With `create`, a folder that is missing is made, readable by all. Otherwise 2.
  error_t Open(bool create);

  /// Keeps other creators out while it lives. Any account can open the folder and could keep the lock for ever: who
  /// does not get it in two seconds goes on without, and all that is lost is the order of two creators.
  descriptor_t Lock() const;

  /// What a look at a name finds.
  enum class found_t { Nothing, Leftover, Event };
  /// Asks whoever listens under the name for the event's eventfd. 6 when something else is there or comes, 121 when no
  /// answer does.
  error_t Connect(const std::string& name, found_t& found, descriptor_t& event) const;

  /// Listens under a name that is free, and tells which file that made.
  error_t Listen(const std::string& name, mode_t mode, descriptor_t& listener, file_id_t& file) const;
  /// Removes the socket file if it is the given one, or whichever it is.
  void Remove(const std::string& name, const file_id_t& file) const;
  error_t RemoveLeftover(const std::string& name) const;

 private:
  error_t StartConnect(int socket, const std::string& name) const;

  std::string path_;
  descriptor_t folder_{-1};
};

/// Hands the byte and the event to a peer, without waiting for it.
void SendEvent(int socket, int event) noexcept;

}  // namespace platform
