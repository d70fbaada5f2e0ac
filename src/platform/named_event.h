// Manual-reset events that several processes share by name.
#pragma once

#include <sys/types.h>

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string_view>

#include "platform/error.h"

namespace platform {

/// For Wait: no limit.
inline constexpr std::uint32_t Infinite = 0xFFFFFFFF;

/// A handle to a named event: the owner's, who created it, or another's, who found it. The event lives as long as its
/// owner's handle: it is created not signalled, and can be found until the owner's handle goes. Other handles stay
/// usable after that, yet nobody new comes to them.
///
/// The owner listens on `RuntimeFolder()/event/NAME` and hands every peer one byte and, as SCM_RIGHTS, an eventfd:
/// readable means signalled. A thread of the owner's handle does that; nothing is kept for a peer.
///
/// All operations may be called by any thread, and none throws.
class named_event_t {
 public:
  virtual ~named_event_t() = default;

  /// Creates the event. The name may carry the prefix "Global\"; what is behind it must be a plain file name.
  /// 0: `event` is the owner's handle; its socket file has the given mode. 183: it exists, and `event` is a handle
  /// to it, as for Open. 6: something else has the name. 3: not a name. Otherwise the system's failure. `event` is
  /// empty unless 0 or 183 is returned.
  static error_t Create(std::string_view name, mode_t socketMode, boost::shared_ptr<named_event_t>& event);

  /// Finds an event. 2 when there is none, 121 when its owner does not answer.
  static error_t Open(std::string_view name, boost::shared_ptr<named_event_t>& event);

  virtual error_t Set() = 0;
  virtual error_t Reset() = 0;
  virtual bool IsSet() const = 0;
  /// 0 once it is signalled, 258 when it is not within the time.
  virtual error_t Wait(std::uint32_t milliseconds) const = 0;
  /// The eventfd, for waiting on several things: readable means signalled. Owned by the handle; not to be read or
  /// written directly, and whether it blocks is not ours to say, for other processes hold it too.
  virtual int Descriptor() const noexcept = 0;
};

}  // namespace platform
