// The results of the NFS version 3 procedures (RFC 1813, 3.3). The status chooses the form on the wire: with 0 the
// whole record, else the attributes alone that a failure carries. A new record with only its status set is the failed
// form that this server sends. Decode fills a new record.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/byte_buffer.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_attributes.h"
#include "vfs/nfs3/nfs_handle.h"

/// Turns a result, whatever it holds by now, into the failed form with this status.
template <typename Result>
void SetFailedResult(Result& result, nfsstat3 status) {
  result = Result{};
  result.status = status;
}

struct GETATTR3res {
  nfsstat3 status = NFS3_OK;
  fattr3 attributes;

  bool operator==(const GETATTR3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct SETATTR3res {
  nfsstat3 status = NFS3_OK;
  wcc_data wcc;

  bool operator==(const SETATTR3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct LOOKUP3res {
  nfsstat3 status = NFS3_OK;
  nfs_fh3 object;
  post_op_attr attributes;
  post_op_attr dirAttributes;

  bool operator==(const LOOKUP3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct ACCESS3res {
  nfsstat3 status = NFS3_OK;
  post_op_attr attributes;
  std::uint32_t access = 0;

  bool operator==(const ACCESS3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct READ3res {
  nfsstat3 status = NFS3_OK;
  post_op_attr attributes;
  std::uint32_t count = 0;  ///< Bytes of data that are sent.
  bool eof = false;
  /// Holds at least count bytes. Goes out uncopied, so it does not change once encoded; may be empty when count is 0.
  boost::shared_ptr<const io::byte_buffer_t> data;
  /// Holds exactly count bytes in the place of data.
  boost::shared_ptr<platform::kernel_pipe_t> pipe{};

  /// Of what is in memory.
  bool operator==(const READ3res& other) const;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct WRITE3res {
  nfsstat3 status = NFS3_OK;
  wcc_data wcc;
  std::uint32_t count = 0;
  std::uint32_t committed = UNSTABLE;
  nfs_verifier_t verifier{};

  bool operator==(const WRITE3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct CREATE3res {
  nfsstat3 status = NFS3_OK;
  post_op_fh3 object;
  post_op_attr attributes;
  wcc_data dirWcc;

  bool operator==(const CREATE3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct MKDIR3res {
  nfsstat3 status = NFS3_OK;
  post_op_fh3 object;
  post_op_attr attributes;
  wcc_data dirWcc;

  bool operator==(const MKDIR3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct REMOVE3res {
  nfsstat3 status = NFS3_OK;
  wcc_data dirWcc;

  bool operator==(const REMOVE3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct RMDIR3res {
  nfsstat3 status = NFS3_OK;
  wcc_data dirWcc;

  bool operator==(const RMDIR3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct RENAME3res {
  nfsstat3 status = NFS3_OK;
  wcc_data fromDirWcc;
  wcc_data toDirWcc;

  bool operator==(const RENAME3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct entryplus3 {
  std::uint64_t fileid = 0;
  std::string name;
  std::uint64_t cookie = 0;
  post_op_attr nameAttributes;
  post_op_fh3 nameHandle;

  bool operator==(const entryplus3&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct READDIRPLUS3res {
  nfsstat3 status = NFS3_OK;
  post_op_attr dirAttributes;
  nfs_verifier_t cookieVerifier{};
  std::vector<entryplus3> entries;
  bool eof = false;

  bool operator==(const READDIRPLUS3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

struct FSSTAT3res {
  nfsstat3 status = NFS3_OK;
  post_op_attr attributes;
  std::uint64_t tbytes = 0;
  std::uint64_t fbytes = 0;
  std::uint64_t abytes = 0;
  std::uint64_t tfiles = 0;
  std::uint64_t ffiles = 0;
  std::uint64_t afiles = 0;
  std::uint32_t invarsec = 0;

  bool operator==(const FSSTAT3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// The property that an FSINFO reply of ours sets: times can be set.
inline constexpr std::uint32_t FSF3_CANSETTIME = 16;

struct FSINFO3res {
  nfsstat3 status = NFS3_OK;
  post_op_attr attributes;
  std::uint32_t rtmax = 0;
  std::uint32_t rtpref = 0;
  std::uint32_t rtmult = 0;
  std::uint32_t wtmax = 0;
  std::uint32_t wtpref = 0;
  std::uint32_t wtmult = 0;
  std::uint32_t dtpref = 0;
  std::uint64_t maxfilesize = 0;
  nfstime3 timeDelta;
  std::uint32_t properties = 0;

  bool operator==(const FSINFO3res&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};
