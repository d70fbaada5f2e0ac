// A portmapper connection without a socket.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "foundation/exc.h"
#include "rpc/rpc_client_stream.h"

namespace test {

/// Keeps what is sent and answers from prepared bytes. Runs dry with socket_timeout_exc_t.
class CMemoryRpcStream : public IRpcClientStream {
 public:
  void Send(const void* data, std::size_t length) override {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    sent.insert(sent.end(), bytes, bytes + length);
  }
  void Recv(void* data, std::size_t length, std::uint32_t timeoutSec) override {
    timeouts.push_back(timeoutSec);
    if (largestRecv < length)
      largestRecv = length;
    if (toReceive.size() - position < length)
      throw exc::socket_timeout_exc_t("Time is out.");
    if (length != 0)
      std::memcpy(data, toReceive.data() + position, length);
    position += length;
  }

  /// Adds a record with its mark to what will be received.
  void AddReply(const std::vector<std::uint8_t>& message, bool lastFragment = true) {
    const auto length = static_cast<std::uint32_t>(message.size()) | (lastFragment ? 0x80000000U : 0U);
    for (int shift = 24; shift >= 0; shift -= 8)
      toReceive.push_back(static_cast<std::uint8_t>(length >> shift));
    toReceive.insert(toReceive.end(), message.begin(), message.end());
  }

  std::vector<std::uint8_t> sent;
  std::vector<std::uint8_t> toReceive;
  std::size_t position = 0;
  std::size_t largestRecv = 0;
  std::vector<std::uint32_t> timeouts;
};

}  // namespace test
