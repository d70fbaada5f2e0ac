// The folder in which the sockets of named events lie.
#pragma once

#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/location.h"
#include "platform/socket_folder.h"

namespace platform {

/// Gives an event's file name: what is behind the prefix "Global\". 3 when that is no plain file name.
error_t EventFileName(std::string_view event, std::string& name);

/// `RuntimeFolder()/event`, held open. One thread at a time.
class event_folder_t : public socket_folder_t {
 public:
  /// With `create`, a folder that is missing is made, readable by all. Otherwise 2.
  error_t Open(bool create) { return socket_folder_t::Open("event", 0755, create); }

  /// What a look at a name finds.
  enum class found_t { Nothing, Leftover, Event };
  /// Asks whoever listens under the name for the event's eventfd. 6 when something else is there or comes, 121 when no
  /// answer does.
  error_t Find(const std::string& name, found_t& found, descriptor_t& event) const;
};

/// Hands the byte and the event to a peer, without waiting for it.
void SendEvent(int socket, int event) noexcept;

}  // namespace platform
