// What a socket tells the performance log.
#pragma once

#include <netinet/in.h>

#include <cstdint>

/// Times one transfer from its construction, and adds its event in the end. On the stack; costs nothing while isWanted
/// is false or no log runs.
class CSocketTransferEvent {
 public:
  /// bytes: that are to go over. isWanted: the socket's switch.
  CSocketTransferEvent(std::uint32_t eventType, std::uint64_t bytes, bool isWanted) noexcept;
  CSocketTransferEvent(const CSocketTransferEvent&) = delete;
  CSocketTransferEvent& operator=(const CSocketTransferEvent&) = delete;
  ~CSocketTransferEvent();

  /// The call succeeds, having moved these bytes; without it, the event tells a failure.
  void SetDone(std::uint64_t bytes) noexcept {
    bytes_ = bytes;
    isDone_ = true;
  }

 private:
  const std::uint32_t eventType_;
  const bool isOn_;
  bool isDone_ = false;
  std::uint64_t bytes_;
  std::int64_t start_ = 0;
};

/// Adds the event of a connection, with the peer's address; nothing when memory runs out.
void WriteConnectionEvent(std::uint32_t eventType, const sockaddr_in& peer) noexcept;
