// The ONC RPC message layer under the three programs (RFC 5531).
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>

#include "rpc/rpc_client_stream.h"
#include "rpc/xdr_reader.h"
#include "rpc/xdr_writer.h"

class CVirtualFs;

struct RpcCallHeader {
  std::uint32_t xid = 0;
  std::uint32_t messageType = 0;
  std::uint32_t rpcVersion = 0;
  std::uint32_t program = 0;
  std::uint32_t programVersion = 0;
  std::uint32_t procedure = 0;
};

/// A program over both servers. Stateless: any thread may call it at any time.
class IXdrRpcInterface {
 public:
  virtual ~IXdrRpcInterface() = default;
  /// Processes one call and leaves the whole reply in writer. A record that cannot be decoded throws, and nothing of
  /// writer may be sent then. peer passed the address check when isClientAllowed.
  virtual void ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                           CVirtualFs& fs) = 0;
};

/// What a transport is given of a program: DispatchPortmapCall, DispatchMountCall or DispatchNfsCall with its file
/// system bound. Same contract as IXdrRpcInterface::ProcessCall.
using rpc_handler_t =
    std::function<void(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer)>;

/// The six words of a call and its credential and verifier, which are skipped.
void ReadCallHeader(CXDRReader& reader, RpcCallHeader& header);

/// False, and one warning, for the first of program, program version and RPC version that does not fit.
bool CheckCallHeader(const RpcCallHeader& header, std::uint32_t program, std::uint32_t version);

/// One exchange with a portmapper over a connected stream. reader stands at the result afterwards. Throws
/// runtime_exc_t for every reply but an accepted success.
void CallForeignPortmap(IRpcClientStream& stream, const CXDRWriter& request, CXDRReader& reader,
                        std::uint32_t receiveTimeoutSec);
