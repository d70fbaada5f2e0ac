// The MOUNT program, version 3 (RFC 1813, appendix I).
#pragma once

#include "rpc/rpc_message.h"
#include "vfs/nfs3/nfs_handle.h"

/// mountstat3, as far as it is used.
inline constexpr std::uint32_t MNT3_OK = 0;
inline constexpr std::uint32_t MNT3ERR_NOENT = 2;

/// The result of MNT: with status 0 the handle and an empty list of authentication flavours, else the status alone.
struct CMountResult {
  std::uint32_t status = MNT3_OK;
  nfs_fh3 handle;

  bool operator==(const CMountResult&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// Turns a path into the handle from which a client walks. Keeps no list of mounts.
class CMountRpcInterface : public IXdrRpcInterface {
 public:
  static constexpr std::uint32_t Program = 100005;
  static constexpr std::uint32_t Version = 3;

  void ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                   CVirtualFs& fs) override;
};

/// The same as a plain function, for request queues.
void DispatchMountCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                       CVirtualFs& fs);
