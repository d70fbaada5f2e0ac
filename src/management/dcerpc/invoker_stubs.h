// The three operations of the management interface, as they stand in stubs. Requests are decoded by the server,
// responses by the client; what is decoded comes from a peer, and the decoders throw fault_exc_t with BadStubData for a
// stub that is not shaped so. Bytes after the last parameter are left alone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "management/dcerpc/ndr.h"
#include "management/dcerpc/rpc_interface.h"

namespace dcerpc {

/// d1c2c07a-d989-48cc-a423-b73ecd518d40, version 1.0.
const SSyntaxId& InvokerInterfaceId();

/// The operation numbers.
enum class invoker_op_t : std::uint16_t { DoRpc = 0, DoRpcWithBinary = 1, InvokerTestConnection = 2 };

/// The structure that every operation returns. The message is there for a failure alone.
struct SRpcResult {
  bool success = true;
  std::optional<std::string> message;

  bool operator==(const SRpcResult&) const = default;
};

/// In: [ref, string] name, [ref, string] arguments; and for DoRpcWithBinary a 32-bit length and that many bytes. The
/// texts stay as the wire had them: one that is no UTF-16 fails the call and is no fault, so the call converts it, with
/// NarrowText.
struct SInvokeRequest {
  std::u16string name;
  std::u16string arguments;
  bytes_t data;

  bool operator==(const SInvokeRequest&) const = default;
};

/// Out: [unique, string] output; for DoRpcWithBinary a 32-bit length and [unique] that many bytes; then the result.
struct SInvokeResponse {
  std::optional<std::string> output;
  std::optional<bytes_t> data;
  SRpcResult result;

  bool operator==(const SInvokeResponse&) const = default;
};

SInvokeRequest DecodeDoRpcRequest(bytes_view_t stub, byte_order_t order);
bytes_t EncodeDoRpcRequest(const SInvokeRequest& request);
SInvokeRequest DecodeDoRpcWithBinaryRequest(bytes_view_t stub, byte_order_t order);
bytes_t EncodeDoRpcWithBinaryRequest(const SInvokeRequest& request);
/// In: [ref, string] a text that nobody reads.
std::u16string DecodeTestConnectionRequest(bytes_view_t stub, byte_order_t order);
bytes_t EncodeTestConnectionRequest(std::u16string_view text);

/// The encoders throw exc::win_sys_exc_t for an output that is not UTF-8; in a message, U+FFFD stands for what is not.
/// The decoders throw it for texts that are no UTF-16.
SInvokeResponse DecodeDoRpcResponse(bytes_view_t stub, byte_order_t order);
bytes_t EncodeDoRpcResponse(const SInvokeResponse& response);
SInvokeResponse DecodeDoRpcWithBinaryResponse(bytes_view_t stub, byte_order_t order);
bytes_t EncodeDoRpcWithBinaryResponse(const SInvokeResponse& response);
SRpcResult DecodeTestConnectionResponse(bytes_view_t stub, byte_order_t order);
bytes_t EncodeTestConnectionResponse(const SRpcResult& result);

}  // namespace dcerpc
