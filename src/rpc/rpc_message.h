// The ONC RPC message layer under the three programs (RFC 5531).
#pragma once

#include <netinet/in.h>

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <span>

#include "rpc/rpc_client_stream.h"
#include "rpc/xdr_reader.h"
#include "rpc/xdr_writer.h"

class CVirtualFs;
class CXDRCompletionQueue;

/// Calls as they were received, in their order.
using xdr_calls_t = std::list<boost::shared_ptr<CXDRReader>>;

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
  /// Processes one call and leaves its reply to the completion queue, in its place in the order of the calls; it may be
  /// made after the return, and by another thread. Throws as ProcessCall does, and the call stays unanswered then. A
  /// program whose calls all end before the return need not have its own.
  virtual void ProcessAsyncCall(bool isClientAllowed, const sockaddr_in& peer,
                                const boost::shared_ptr<CXDRReader>& reader,
                                const boost::shared_ptr<CXDRCompletionQueue>& completionQueue, CVirtualFs& fs);
  /// Processes one call and leaves the whole reply in writer. A record that cannot be decoded throws, and nothing of
  /// writer may be sent then. peer passed the address check when isClientAllowed.
  virtual void ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                           CVirtualFs& fs) = 0;
  /// ProcessAsyncCall for each reader. A call that throws ends it: those behind are not looked at.
  virtual void ProcessAsyncCalls(bool isClientAllowed, const sockaddr_in& peer, const xdr_calls_t& readers,
                                 const boost::shared_ptr<CXDRCompletionQueue>& completionQueue, CVirtualFs& fs);
  virtual ~IXdrRpcInterface() = default;
};

/// What a transport is given of a program: DispatchPortmapCall, DispatchMountCall or DispatchNfsCall with its file
/// system bound. Same contract as IXdrRpcInterface::ProcessCall.
using rpc_handler_t =
    std::function<void(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer)>;

/// What a transport is given of a program that gains by knowing which calls come next: records that wait, in their
/// order, to be looked at only. No call is carried out by it, and none need be told to it.
using rpc_foresight_t = std::function<void(std::span<io::byte_buffer_t* const> records)>;

/// The six words of a call and its credential and verifier, which are skipped.
void ReadCallHeader(CXDRReader& reader, RpcCallHeader& header);

/// False, and one warning, for the first of program, program version and RPC version that does not fit.
bool CheckCallHeader(const RpcCallHeader& header, std::uint32_t program, std::uint32_t version);

/// One exchange with a portmapper over a connected stream. reader stands at the result afterwards. Throws
/// runtime_exc_t for every reply but an accepted success.
void CallForeignPortmap(IRpcClientStream& stream, const CXDRWriter& request, CXDRReader& reader,
                        std::uint32_t receiveTimeoutSec);
