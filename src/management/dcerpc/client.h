// The caller's side of the protocol.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "management/dcerpc/client_stream.h"
#include "management/dcerpc/fragments.h"
#include "management/dcerpc/security_context.h"

namespace dcerpc {

/// How a client proves who it is: the initiator's side of a context, and what it is announced as. Without a context it
/// proves nothing.
struct SClientSecurity {
  std::unique_ptr<ISecurityContext> context;
  auth_type_t type = auth_type_t::None;
  auth_level_t level = auth_level_t::None;
};

/// What an operation answered.
struct SStub {
  bytes_t bytes;
  byte_order_t order = byte_order_t::Little;
};

/// One association with one interface of a server, one call at a time; used by one thread at a time. Every operation
/// throws exc::exc_base_t with sentences for people; after a failure other than fault_exc_t the client is of no use.
class CRpcClient {
 public:
  /// What a response may grow to, bytes.
  static constexpr std::size_t MaxResponse = std::size_t{256} << 20;

  /// Binds to the interface, with authentication when there is a context for it.
  CRpcClient(std::unique_ptr<IClientStream> stream, const SSyntaxId& interface, SClientSecurity security = {});

  /// Throws fault_exc_t when the server refuses the call.
  SStub Call(std::uint16_t opnum, bytes_view_t stub);

 private:
  /// A PDU with the bytes that it points into.
  struct SReceived {
    bytes_t bytes;
    SPdu pdu;
  };

  void Bind(const SSyntaxId& interface);
  void FinishHandshake(const SPdu& ack);
  void CheckAck(const SPdu& answer);
  SToken MakeToken(bytes_t value) const;
  SReceived Receive();
  SReceived ReceiveFragment();
  SProtection Protection() const;

  const std::unique_ptr<IClientStream> stream_;
  const SClientSecurity security_;
  SBind bind_;
  std::size_t maxFragment_ = MaxFragmentSize;
  bool headerSigned_ = false;
  std::uint32_t callId_ = 1;
};

}  // namespace dcerpc
