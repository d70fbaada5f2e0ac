// The NFS program, version 3 (RFC 1813).
#pragma once

#include "rpc/rpc_message.h"

/// Decodes, calls one operation of the virtual file system, encodes. A failed operation is a status in the result.
class CNfsRpcInterface : public IXdrRpcInterface {
 public:
  static constexpr std::uint32_t Program = 100003;
  static constexpr std::uint32_t Version = 3;

  void ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                   CVirtualFs& fs) override;
  /// READ and WRITE return when their transfer is queued; all other calls are at their end.
  void ProcessAsyncCall(bool isClientAllowed, const sockaddr_in& peer, const boost::shared_ptr<CXDRReader>& reader,
                        const boost::shared_ptr<CXDRCompletionQueue>& completionQueue, CVirtualFs& fs) override;
};

/// The same as a plain function, for request queues.
void DispatchNfsCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                     CVirtualFs& fs);
