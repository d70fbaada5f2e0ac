// What has operations in flight, and what waits for one of them.
#pragma once

#include <atomic>
#include <boost/container/flat_map.hpp>
#include <boost/shared_ptr.hpp>
#include <chrono>
#include <cstdint>
#include <mutex>

#include "platform/error.h"
#include "transports/async/counted.h"

namespace synch {
class completion_port_t;
}

namespace win {

class CIoObject;

/// The side of a descriptor that an operation waits for. At most one operation a side is pending.
enum class io_direction_t : std::uint8_t { Read = 0, Write = 1 };

/// How an operation ended.
struct SIoResult {
  platform::error_t error = 0;
  std::uint32_t bytes = 0;
};

enum class io_attempt_t {
  Done,        ///< Over, well or not; the completion follows.
  WouldBlock,  ///< To be tried again when the descriptor is ready.
  Refused,     ///< Cannot be carried out at all; no completion follows.
  Exhausted    ///< The process or the system has run out of something; to be tried again in a while.
};

/// One pending operation. Keeps its owner alive; its address is the operation's token.
class CIoEventHandler : public CCounted {
 public:
  CIoEventHandler(boost::intrusive_ptr<CIoObject> owner, io_direction_t direction);
  ~CIoEventHandler() override;

  const void* Token() const noexcept { return this; }
  io_direction_t Direction() const noexcept { return direction_; }

  /// Tries the operation without waiting. One thread at a time.
  virtual io_attempt_t Attempt(int handle, SIoResult& result) = 0;
  /// The operation is over. On the completion thread.
  virtual void OnComplete(CIoObject& object, platform::error_t error, std::uint32_t bytes) = 0;

 private:
  const boost::intrusive_ptr<CIoObject> owner_;
  const io_direction_t direction_;
};

/// Base of everything that has overlapped operations: the handlers in flight, and the readiness of its descriptor,
/// which is registered with a port once and for all. Operations may be started by any thread.
class CIoObject : public CCounted {
 public:
  CIoObject() = default;
  /// No operation is pending any more, since each one keeps its object.
  ~CIoObject() override;

  virtual int GetHandle() const noexcept = 0;

  void RegisterEvent(const boost::intrusive_ptr<CIoEventHandler>& handler);
  void UnregisterEvent(const CIoEventHandler& handler);
  /// Takes the handler of a completion out; null when there is none.
  boost::intrusive_ptr<CIoEventHandler> TakeEvent(const void* token);

  /// Registers the handler and starts its operation. 0: the completion follows. Otherwise the operation could not be
  /// started and the handler is out again. Without tryFirst it is known that the descriptor was not ready a moment ago.
  platform::error_t StartIo(const boost::intrusive_ptr<CIoEventHandler>& handler, bool tryFirst = true);
  /// Posts a completion for the handler without any operation.
  void CompleteLater(const boost::intrusive_ptr<CIoEventHandler>& handler, SIoResult result);
  /// The same after a delay.
  void CompleteIn(std::chrono::milliseconds delay, const boost::intrusive_ptr<CIoEventHandler>& handler);
  /// Aborts the pending operation of that side, and each one that is started later: they end with 995, or without a
  /// completion when there is no memory for it.
  void CancelIo(io_direction_t direction);
  /// Drops all that is in flight, without completions. Only while nobody runs the port.
  void AbandonIo();

 protected:
  /// The first thing that a destructor does which closes the descriptor.
  void LeavePort() noexcept;
  const boost::shared_ptr<synch::completion_port_t>& Port() const { return port_; }

 private:
  friend class synch::completion_port_t;

  struct SSide {
    boost::intrusive_ptr<CIoEventHandler> pending;
    bool ready = false;                  ///< Became ready while nothing was pending.
    bool hungUp = false;                 ///< The peer ended this side: there will be no further notice.
    std::atomic<bool> cancelled{false};  ///< Nothing is started any more; set under the lock.
  };

  /// The end of a wait, on the completion thread. A handler that cannot be tried again is completed with error 8.
  void TryAgain(const boost::intrusive_ptr<CIoEventHandler>& handler) noexcept;
  platform::error_t TryUntilPending(boost::intrusive_ptr<CIoEventHandler> handler, bool tryFirst, bool isRetry);
  /// The port's notice about the descriptor, on the completion thread.
  void OnReady(io_direction_t direction, bool hungUp);
  SSide& Side(io_direction_t direction) { return sides_[static_cast<std::size_t>(direction)]; }

  /// Set once by the port, before the first operation.
  boost::shared_ptr<synch::completion_port_t> port_;
  std::uint64_t portKey_ = 0;

  /// Guards the events. Never held while a handler runs.
  std::mutex eventsLock_;
  boost::container::flat_map<const void*, boost::intrusive_ptr<CIoEventHandler>> events_;

  /// Guards the sides. A leaf.
  std::mutex sidesLock_;
  SSide sides_[2];
};

}  // namespace win
