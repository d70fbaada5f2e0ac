#include "transports/sockets/socket_events.h"

#include <exception>

#include "foundation/perf_logger.h"
#include "platform/futex.h"
#include "transports/sockets/socket_ip.h"

CSocketTransferEvent::CSocketTransferEvent(std::uint32_t eventType, std::uint64_t bytes, bool isWanted) noexcept
    : eventType_(eventType), isOn_(isWanted && perf::IsOn()), bytes_(bytes) {
  if (isOn_) [[unlikely]]
    start_ = platform::MonotonicNanoseconds();
}

CSocketTransferEvent::~CSocketTransferEvent() {
  if (!isOn_) [[likely]]
    return;
  const auto duration = static_cast<std::uint64_t>(platform::MonotonicNanoseconds() - start_);
  perf::WriteRecord(eventType_, perf::socket_transfer_t{bytes_, duration, static_cast<std::uint8_t>(isDone_ ? 1 : 0)});
}

void WriteConnectionEvent(std::uint32_t eventType, const sockaddr_in& peer) noexcept {
  try {
    const perf::CPerfEventArg remote("remote: " + SocketAddressText(peer));
    perf::WriteEvent(eventType, {&remote});
  } catch (const std::exception&) {
    // An event is not worth failing a connection.
  }
}
