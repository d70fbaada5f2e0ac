// NFS status codes and the exception that carries one (RFC 1813, 2.6).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/exc.h"

/// An nfsstat3, or any other number that a failure puts in its place on the wire.
using nfsstat3 = std::uint32_t;

inline constexpr nfsstat3 NFS3_OK = 0;
inline constexpr nfsstat3 NFS3ERR_NOENT = 2;
inline constexpr nfsstat3 NFS3ERR_ACCES = 13;
inline constexpr nfsstat3 NFS3ERR_EXIST = 17;
inline constexpr nfsstat3 NFS3ERR_NOTDIR = 20;
inline constexpr nfsstat3 NFS3ERR_INVAL = 22;
inline constexpr nfsstat3 NFS3ERR_STALE = 70;
inline constexpr nfsstat3 NFS3ERR_NOT_SYNC = 10002;
inline constexpr nfsstat3 NFS3ERR_NOTSUPP = 10004;
inline constexpr nfsstat3 NFS3ERR_SERVERFAULT = 10006;

/// The status's name, or its decimal number when it has none.
std::string NfsStatusName(nfsstat3 status);

/// A failure with an NFS status. Without a message its text is "NFS error:NAME Code: N".
class CVirtualFsExc : public exc::exc_of_t<CVirtualFsExc, exc::exc_base_t> {
 public:
  explicit CVirtualFsExc(nfsstat3 status);
  CVirtualFsExc(std::string_view message, nfsstat3 status);
  CVirtualFsExc(std::string_view pattern, const std::string& argument, nfsstat3 status);
  CVirtualFsExc(std::string_view pattern, const std::string& first, const std::string& second, nfsstat3 status);

  nfsstat3 Status() const { return status_; }
  std::string GetKind() const override;

 private:
  nfsstat3 status_;
};

/// What a client is told of a failure: the status of a CVirtualFsExc, the number of a win_sys_exc_t as it stands,
/// NFS3ERR_SERVERFAULT for all else.
nfsstat3 StatusFromException(const std::exception& exception);
