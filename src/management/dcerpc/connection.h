// One connection to the management endpoint.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "management/dcerpc/association.h"
#include "platform/location.h"

namespace dcerpc {

/// How long a peer may keep a connection waiting, milliseconds. A peer that is late loses its connection and nothing
/// else.
struct SConnectionLimits {
  /// From the first byte of a PDU to its last, and between two fragments of one request.
  std::uint32_t pdu = 60000;
  /// Without a PDU, for a peer that proved no identity; who did may wait for ever.
  std::uint32_t idle = 300000;
  /// While the peer takes nothing of what is sent.
  std::uint32_t send = 60000;
  /// For the answer of a call that was running when the endpoint began to stop, and for the end of a connection that
  /// the endpoint closes.
  std::uint32_t end = 2000;
};

/// Reads PDUs, gives them to the association and sends what it answers. One thread.
class CConnection {
 public:
  /// `socket` is connected and does not block. `stop` becomes readable, and stays so, when the endpoint stops.
  CConnection(platform::descriptor_t socket, int stop, const SConnectionLimits& limits,
              const SAssociationSettings& settings, SCaller caller);
  CConnection(const CConnection&) = delete;
  CConnection& operator=(const CConnection&) = delete;

  /// Returns when the peer has gone, has broken the protocol or a limit, and soon after the stop. Throws what the
  /// system throws when memory is out.
  void Serve();

 private:
  void ServePdus();
  bool ReceivePdu(bytes_t& pdu);
  void ReceiveUpTo(bytes_t& pdu, std::size_t size, std::uint64_t deadline);
  std::size_t ReceiveSome(std::span<std::uint8_t> room, std::uint64_t deadline);
  std::uint64_t FirstByteDeadline() const;
  void Send(bytes_view_t pdu);
  void WaitForRoom();
  void Linger();

  const platform::descriptor_t socket_;
  const int stop_;
  const SConnectionLimits limits_;
  CAssociation association_;
  /// When the end of the sends is, once the stop was seen.
  std::optional<std::uint64_t> stopDeadline_;
};

}  // namespace dcerpc
