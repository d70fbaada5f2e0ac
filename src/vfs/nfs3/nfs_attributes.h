// The attribute records of NFS version 3 and how they are filled (RFC 1813, 2.5 and 2.6).
#pragma once

#include <cstdint>
#include <optional>

#include "platform/file_attributes.h"
#include "rpc/xdr_reader.h"
#include "rpc/xdr_writer.h"
#include "vfs/nfs3/nfs_handle.h"

struct nfstime3 {
  std::uint32_t seconds = 0;
  std::uint32_t nseconds = 0;

  bool operator==(const nfstime3&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// ftype3.
inline constexpr std::uint32_t NF3REG = 1;
inline constexpr std::uint32_t NF3DIR = 2;

struct specdata3 {
  std::uint32_t specdata1 = 0;
  std::uint32_t specdata2 = 0;

  bool operator==(const specdata3&) const = default;
};

struct fattr3 {
  std::uint32_t type = 0;
  std::uint32_t mode = 0;
  std::uint32_t nlink = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::uint64_t size = 0;
  std::uint64_t used = 0;
  specdata3 rdev;
  std::uint64_t fsid = 0;
  std::uint64_t fileid = 0;
  nfstime3 atime;
  nfstime3 mtime;
  nfstime3 ctime;

  bool operator==(const fattr3&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct wcc_attr {
  std::uint64_t size = 0;
  nfstime3 mtime;
  nfstime3 ctime;

  bool operator==(const wcc_attr&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// On the wire a bool and, when it is true, the record.
using pre_op_attr = std::optional<wcc_attr>;
using post_op_attr = std::optional<fattr3>;
using post_op_fh3 = std::optional<nfs_fh3>;

struct wcc_data {
  pre_op_attr before;
  post_op_attr after;

  bool operator==(const wcc_data&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// time_how. Another number is kept as it came; no time follows it.
inline constexpr std::uint32_t DONT_CHANGE = 0;
inline constexpr std::uint32_t SET_TO_SERVER_TIME = 1;
inline constexpr std::uint32_t SET_TO_CLIENT_TIME = 2;

/// What a client asks to be set. A value without its flag (a time without SET_TO_CLIENT_TIME) is not on the wire.
struct sattr3 {
  bool setMode = false;
  std::uint32_t mode = 0;
  bool setUid = false;
  std::uint32_t uid = 0;
  bool setGid = false;
  std::uint32_t gid = 0;
  bool setSize = false;
  std::uint64_t size = 0;
  std::uint32_t atimeHow = DONT_CHANGE;
  nfstime3 atime;
  std::uint32_t mtimeHow = DONT_CHANGE;
  nfstime3 mtime;

  bool operator==(const sattr3&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// The attributes that clients are told of an item: mode 0777, owner 1, one link, on file system 1.
fattr3 FattrFromAttributes(std::uint64_t fid, const WIN32_FILE_ATTRIBUTE_DATA& attributes) noexcept;
wcc_attr WccAttrFromAttributes(const WIN32_FILE_ATTRIBUTE_DATA& attributes) noexcept;

/// Seconds since 1970 in 32 bits, which wrap for times outside them.
nfstime3 NfsTimeFromFiletime(FILETIME time) noexcept;

/// The FILETIME that a client's time is stored as. The epoch's seconds are added unscaled, so the stored time lies some
/// 369 years early and does not come back as it was sent; times already stored rely on it.
FILETIME FiletimeFromNfsTime(const nfstime3& time) noexcept;
