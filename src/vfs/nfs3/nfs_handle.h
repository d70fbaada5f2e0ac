// NFS file handles and the FIDs that they hold (RFC 1813, 2.3.3).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "rpc/xdr_reader.h"
#include "rpc/xdr_writer.h"

/// A file handle by value. Ours are 23 bytes: the FID, least significant byte first, then zeros. Of a client's
/// longer one no more than MaxSize bytes are kept, since nothing past the FID is ever looked at.
struct nfs_fh3 {
  static constexpr std::size_t MaxSize = 64;
  static constexpr std::size_t OwnSize = 23;

  std::uint32_t size = 0;  ///< Bytes of data in use, at most MaxSize.
  std::array<std::uint8_t, MaxSize> data{};

  std::span<const std::uint8_t> Bytes() const { return {data.data(), size}; }
  bool operator==(const nfs_fh3& other) const;

  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// The 23-byte handle of an item. It stays the same over a restart of the service.
nfs_fh3 HandleFromFid(std::uint64_t fid) noexcept;

/// The first eight bytes. Throws runtime_exc_t for a handle that is shorter; the rest is not looked at.
std::uint64_t FidFromHandle(const nfs_fh3& handle);
