#include "platform/error.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace platform {
namespace {

constexpr error_t GeneralFailure = 31;

struct mapping_t {
  int errnoValue;
  error_t number;
};

constexpr mapping_t SystemErrors[] = {
    {EPERM, error::AccessDenied},
    {ENOENT, error::FileNotFound},
    {EINTR, error::OperationAborted},
    {EIO, error::IoDevice},
    {ENXIO, 55},
    {E2BIG, 10},
    {EBADF, error::InvalidHandle},
    {EAGAIN, 170},
    {ENOMEM, error::NotEnoughMemory},
    {EACCES, error::AccessDenied},
    {EFAULT, 487},
    {EBUSY, error::SharingViolation},
    {EEXIST, error::AlreadyExists},
    {EXDEV, error::NotSameDevice},
    {ENODEV, 20},
    {ENOTDIR, error::PathNotFound},
    {EISDIR, error::AccessDenied},
    {EINVAL, error::InvalidParameter},
    {ENFILE, error::TooManyOpenFiles},
    {EMFILE, error::TooManyOpenFiles},
    {ETXTBSY, error::AccessDenied},
    {EFBIG, error::FileTooLarge},
    {ENOSPC, error::DiskFull},
    {ESPIPE, 132},
    {EROFS, error::AccessDenied},
    {EMLINK, 1142},
    {EPIPE, 109},
    {EDEADLK, 1131},
    {ENAMETOOLONG, error::FilenameExceedsRange},
    {ENOLCK, 36},
    {ENOSYS, error::CallNotImplemented},
    {ENOTEMPTY, error::DirNotEmpty},
    {ELOOP, 1921},
    {ETIME, 121},
    {EILSEQ, error::NoUnicodeTranslation},
    {EOPNOTSUPP, 50},
    {ETIMEDOUT, 121},
    {ESTALE, error::InvalidFunctionHandle},
    {EDQUOT, error::DiskFull},
    {ECANCELED, error::OperationAborted},
    {ECONNREFUSED, error::ConnectionRefused},
    {ECONNRESET, error::NetnameDeleted},
    {ENOTCONN, 2250},
    {ECONNABORTED, 1236},
    {EOVERFLOW, 534},
};

constexpr mapping_t SocketErrors[] = {
    {EINTR, 10004},
    {EBADF, 10009},
    {EACCES, 10013},
    {EPERM, 10013},
    {EFAULT, 10014},
    {EINVAL, 10022},
    {EMFILE, 10024},
    {ENFILE, 10024},
    {EAGAIN, error::WsaWouldBlock},
    {EINPROGRESS, 10036},
    {EALREADY, 10037},
    {ENOTSOCK, 10038},
    {EDESTADDRREQ, 10039},
    {EMSGSIZE, 10040},
    {EPROTOTYPE, 10041},
    {ENOPROTOOPT, 10042},
    {EPROTONOSUPPORT, 10043},
    {ESOCKTNOSUPPORT, 10044},
    {EOPNOTSUPP, 10045},
    {EPFNOSUPPORT, 10046},
    {EAFNOSUPPORT, error::WsaAddressFamilyNotSupported},
    {EADDRINUSE, error::WsaAddressInUse},
    {EADDRNOTAVAIL, 10049},
    {ENETDOWN, 10050},
    {ENETUNREACH, 10051},
    {ENETRESET, 10052},
    {ECONNABORTED, error::WsaConnectionAborted},
    {ECONNRESET, error::WsaConnectionReset},
    {EPIPE, error::WsaConnectionReset},
    {ENOBUFS, 10055},
    {ENOMEM, 10055},
    {EISCONN, 10056},
    {ENOTCONN, 10057},
    {ESHUTDOWN, 10058},
    {ETIMEDOUT, 10060},
    {ECONNREFUSED, 10061},
    {ELOOP, 10062},
    {ENAMETOOLONG, 10063},
    {EHOSTDOWN, 10064},
    {EHOSTUNREACH, 10065},
    {ENOTEMPTY, 10066},
    {EUSERS, 10068},
    {EDQUOT, 10069},
    {ESTALE, 10070},
    {EREMOTE, 10071},
};

struct text_t {
  error_t number;
  const char* text;
};

constexpr text_t Texts[] = {
    {0, "The operation completed successfully."},
    {2, "The file does not exist."},
    {3, "The path does not exist."},
    {4, "Too many files are open."},
    {5, "Access is denied."},
    {6, "The handle is not valid."},
    {8, "There is not enough memory."},
    {10, "The argument list is too long."},
    {17, "The file cannot be moved to a different disk."},
    {18, "There are no more files."},
    {20, "There is no such device."},
    {31, "The system reported a failure without a number of its own."},
    {32, "The file is in use by another process."},
    {33, "Another process has locked a part of the file."},
    {36, "No more locks are available."},
    {50, "The operation is not supported."},
    {55, "The device is not available."},
    {64, "The network connection has gone."},
    {87, "A parameter is not valid."},
    {109, "The pipe has been closed."},
    {112, "There is not enough space on the disk."},
    {120, "The function is not implemented."},
    {121, "The time limit has passed."},
    {132, "The file pointer cannot be moved."},
    {145, "The folder is not empty."},
    {170, "The resource is in use."},
    {183, "The file exists already."},
    {206, "The file name is too long."},
    {223, "The file is too large."},
    {231, "All instances of the pipe are in use."},
    {234, "More data is available."},
    {258, "The wait has timed out."},
    {487, "The address is not valid."},
    {534, "The value does not fit its type."},
    {995, "The operation was cancelled."},
    {997, "The operation is under way."},
    {1009, "The registry file is damaged or is not a registry."},
    {1113, "The text cannot be converted between its encodings."},
    {1117, "The device reported an I/O error."},
    {1131, "Waiting would be a deadlock."},
    {1142, "The file has too many links."},
    {1225, "The connection was refused by the other side."},
    {1236, "The connection was aborted by this machine."},
    {1306, "The registry file was written by a newer version."},
    {1627, "The handle does not refer to a file any more."},
    {1705, "The text is not a UUID."},
    {1706, "The format of the endpoint is not valid."},
    {1712, "The RPC interface is registered already."},
    {1713, "The RPC server listens already."},
    {1715, "The RPC server does not listen."},
    {1718, "There are no RPC bindings."},
    {1740, "The endpoint is in use already."},
    {1784, "The buffer is not valid for the operation."},
    {1921, "The name contains too many symbolic links."},
    {2250, "The connection does not exist."},
    {10004, "The socket call was interrupted."},
    {10008, "The file is just being deleted."},
    {10009, "The socket is not valid."},
    {10013, "The socket may not be used in this way."},
    {10014, "The address of a socket call is not valid."},
    {10022, "An argument of a socket call is not valid."},
    {10024, "Too many sockets are open."},
    {10035, "The socket operation would have to wait."},
    {10036, "A socket operation is under way."},
    {10037, "The socket operation has been started already."},
    {10038, "The handle is not a socket."},
    {10039, "A destination address is required."},
    {10040, "The datagram is too long."},
    {10041, "The protocol does not fit the socket."},
    {10042, "The socket option is not known."},
    {10043, "The protocol is not supported."},
    {10044, "The socket type is not supported."},
    {10045, "The operation is not supported by the socket."},
    {10046, "The protocol family is not supported."},
    {10047, "The address family is not supported."},
    {10048, "The address is in use already."},
    {10049, "The address is not one of this machine."},
    {10050, "The network is down."},
    {10051, "The network cannot be reached."},
    {10052, "The network dropped the connection."},
    {10053, "The connection was aborted on this machine."},
    {10054, "The connection was reset by the peer."},
    {10055, "There is no buffer space left for the socket."},
    {10056, "The socket is connected already."},
    {10057, "The socket is not connected."},
    {10058, "The socket has been shut down."},
    {10060, "The connection timed out."},
    {10061, "The connection was refused."},
    {10062, "The name cannot be resolved."},
    {10063, "The name is too long."},
    {10064, "The host is down."},
    {10065, "The host cannot be reached."},
    {10066, "The folder is not empty."},
    {10068, "Too many users."},
    {10069, "The quota is used up."},
    {10070, "The file handle is stale."},
    {10071, "The object is remote."},
};

template <std::size_t Size>
const mapping_t* Find(const mapping_t (&table)[Size], int errnoValue) noexcept {
  const auto* found = std::find_if(std::begin(table), std::end(table),
                                   [errnoValue](const mapping_t& row) { return row.errnoValue == errnoValue; });
  return found == std::end(table) ? nullptr : found;
}

}  // namespace

error_t ErrorFromErrno(int errnoValue) noexcept {
  if (errnoValue == 0)
    return error::Success;
  const mapping_t* row = Find(SystemErrors, errnoValue);
  return row == nullptr ? GeneralFailure : row->number;
}

error_t LastError() noexcept {
  return ErrorFromErrno(errno);
}

error_t SocketErrorFromErrno(int errnoValue) noexcept {
  const mapping_t* row = Find(SocketErrors, errnoValue);
  return row == nullptr ? ErrorFromErrno(errnoValue) : row->number;
}

namespace {

/// An HRESULT that wraps a number of this kind means the same.
error_t Unwrapped(error_t number) noexcept {
  constexpr error_t WrappedMask = 0xFFFF0000;
  constexpr error_t Wrapped = 0x80070000;
  return (number & WrappedMask) == Wrapped ? number & ~WrappedMask : number;
}

}  // namespace

const char* ErrorSentence(error_t number) noexcept {
  number = Unwrapped(number);
  const auto* found =
      std::find_if(std::begin(Texts), std::end(Texts), [number](const text_t& row) { return row.number == number; });
  if (found != std::end(Texts))
    return found->text;
  for (const mapping_t& row : SystemErrors) {
    if (row.number == number)
      return strerrordesc_np(row.errnoValue);
  }
  return nullptr;
}

std::string ErrorText(error_t number) {
  const char* const sentence = ErrorSentence(number);
  return sentence != nullptr ? std::string(sentence) : "Unknown error " + std::to_string(Unwrapped(number));
}

}  // namespace platform
