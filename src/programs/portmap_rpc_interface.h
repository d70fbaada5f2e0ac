// The portmapper program, version 2 (RFC 1833, section 3).
#pragma once

#include "rpc/rpc_message.h"

/// Serves the process's CEpMapperTable.
class CPortmapRpcInterface : public IXdrRpcInterface {
 public:
  static constexpr std::uint32_t Program = 100000;
  static constexpr std::uint32_t Version = 2;

  void ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                   CVirtualFs& fs) override;
};

/// The same as a plain function, for request queues.
void DispatchPortmapCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                         CVirtualFs& fs);
