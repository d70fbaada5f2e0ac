// The arguments of the NFS version 3 procedures (RFC 1813, 3.3). Decode fills a new record and throws when the call is
// cut short; Encode is what a client sends.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "vfs/nfs3/nfs_attributes.h"
#include "vfs/nfs3/nfs_handle.h"

/// cookieverf3, writeverf3, createverf3.
using nfs_verifier_t = std::array<std::uint8_t, 8>;

/// A name in a folder. The name is as it came: it may be empty, hold any byte and have any length.
struct diropargs3 {
  nfs_fh3 dir;
  std::string name;

  bool operator==(const diropargs3&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct GETATTR3args {
  nfs_fh3 object;

  bool operator==(const GETATTR3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct SETATTR3args {
  nfs_fh3 object;
  sattr3 newAttributes;
  std::optional<nfstime3> guard;  ///< The ctime that the object must have.

  bool operator==(const SETATTR3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct LOOKUP3args {
  diropargs3 what;

  bool operator==(const LOOKUP3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct ACCESS3args {
  nfs_fh3 object;
  std::uint32_t access = 0;

  bool operator==(const ACCESS3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct READ3args {
  nfs_fh3 file;
  std::uint64_t offset = 0;
  std::uint32_t count = 0;

  bool operator==(const READ3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// stable_how.
inline constexpr std::uint32_t UNSTABLE = 0;
inline constexpr std::uint32_t DATA_SYNC = 1;
inline constexpr std::uint32_t FILE_SYNC = 2;

struct WRITE3args {
  nfs_fh3 file;
  std::uint64_t offset = 0;
  std::uint32_t count = 0;
  std::uint32_t stable = UNSTABLE;
  /// Lies in the decoded record and lives as long as that; its length is independent of count.
  std::span<const std::uint8_t> data;
  /// The reader that has what follows the data in the kernel, or could have it there; lives as long as the record. Null
  /// of arguments that were not decoded.
  CXDRReader* reader = nullptr;

  /// What follows the data in the kernel; null when nothing does.
  platform::kernel_pipe_t* Rest() const { return reader == nullptr ? nullptr : reader->Rest(); }
  /// With what is in the kernel.
  std::size_t DataSize() const { return data.size() + (Rest() == nullptr ? 0 : Rest()->Held()); }
  /// All of the data, which is brought into memory for that.
  std::span<const std::uint8_t> GatherData() const;

  bool operator==(const WRITE3args& other) const;
  void Decode(CXDRReader& from);
  void Encode(CXDRWriter& writer) const;
};

/// createmode3.
inline constexpr std::uint32_t UNCHECKED = 0;
inline constexpr std::uint32_t GUARDED = 1;
inline constexpr std::uint32_t EXCLUSIVE = 2;

struct CREATE3args {
  diropargs3 where;
  std::uint32_t how = UNCHECKED;
  sattr3 attributes;          ///< On the wire with UNCHECKED and GUARDED.
  nfs_verifier_t verifier{};  ///< On the wire with EXCLUSIVE.

  bool operator==(const CREATE3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct MKDIR3args {
  diropargs3 where;
  sattr3 attributes;

  bool operator==(const MKDIR3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct REMOVE3args {
  diropargs3 object;

  bool operator==(const REMOVE3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct RMDIR3args {
  diropargs3 object;

  bool operator==(const RMDIR3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct RENAME3args {
  diropargs3 from;
  diropargs3 to;

  bool operator==(const RENAME3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct READDIRPLUS3args {
  nfs_fh3 dir;
  std::uint64_t cookie = 0;
  nfs_verifier_t cookieVerifier{};
  std::uint32_t dirCount = 0;
  std::uint32_t maxCount = 0;

  bool operator==(const READDIRPLUS3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct FSSTAT3args {
  nfs_fh3 fsRoot;

  bool operator==(const FSSTAT3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct FSINFO3args {
  nfs_fh3 fsRoot;

  bool operator==(const FSINFO3args&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};
