// The event that tells other processes that the server is registered with the portmapper.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>

namespace platform {
class named_event_t;
}

/// Owns the event for the life of the process; reset and closed with the object. Any account may open it.
class CConnectionEvent {
 public:
  /// Creates it unsignalled. Without a complaint when it cannot: nobody will be told then.
  CConnectionEvent();
  CConnectionEvent(const CConnectionEvent&) = delete;
  CConnectionEvent& operator=(const CConnectionEvent&) = delete;
  ~CConnectionEvent();

 private:
  boost::shared_ptr<platform::named_event_t> event_;
};

/// Signals the event, by its name, as any process could. Any thread.
void SignalConnectionEvent() noexcept;

/// The limit of a verification.
inline constexpr std::uint32_t ConnectionWaitMilliseconds = 300000;

/// The exit code of "-verifycn": 0 once the event is signalled; -1 at once when there is none, and after the limit.
int VerifyConnection(std::uint32_t limitMilliseconds = ConnectionWaitMilliseconds) noexcept;
