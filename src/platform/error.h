// Win32 error numbers: the one currency of failure inside the service.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

/// A Win32 or WSA error number; 0 is success. Never an errno.
using error_t = std::uint32_t;

namespace error {
inline constexpr error_t Success = 0;
inline constexpr error_t FileNotFound = 2;
inline constexpr error_t PathNotFound = 3;
inline constexpr error_t TooManyOpenFiles = 4;
inline constexpr error_t AccessDenied = 5;
inline constexpr error_t InvalidHandle = 6;
inline constexpr error_t NotEnoughMemory = 8;
inline constexpr error_t NotSameDevice = 17;
inline constexpr error_t NoMoreFiles = 18;
inline constexpr error_t SharingViolation = 32;
inline constexpr error_t LockViolation = 33;
inline constexpr error_t NetnameDeleted = 64;
inline constexpr error_t InvalidParameter = 87;
inline constexpr error_t BrokenPipe = 109;
inline constexpr error_t DiskFull = 112;
inline constexpr error_t CallNotImplemented = 120;
inline constexpr error_t SemaphoreTimeout = 121;
inline constexpr error_t DirNotEmpty = 145;
inline constexpr error_t Busy = 170;
inline constexpr error_t AlreadyExists = 183;
inline constexpr error_t FilenameExceedsRange = 206;
inline constexpr error_t FileTooLarge = 223;
inline constexpr error_t PipeBusy = 231;
inline constexpr error_t MoreData = 234;
inline constexpr error_t WaitTimeout = 258;
inline constexpr error_t OperationAborted = 995;
inline constexpr error_t IoPending = 997;
inline constexpr error_t BadDatabase = 1009;
inline constexpr error_t NoUnicodeTranslation = 1113;
inline constexpr error_t IoDevice = 1117;
inline constexpr error_t ConnectionRefused = 1225;
inline constexpr error_t RevisionMismatch = 1306;
inline constexpr error_t InvalidFunctionHandle = 1627;
inline constexpr error_t InvalidUserBuffer = 1784;
inline constexpr error_t TooManyLinks = 1921;
inline constexpr error_t BeingDeleted = 10008;  // Ours. As a status it is NFS3ERR_JUKEBOX: the client asks again.
inline constexpr error_t WsaWouldBlock = 10035;
inline constexpr error_t WsaAddressFamilyNotSupported = 10047;
inline constexpr error_t WsaAddressInUse = 10048;
inline constexpr error_t WsaConnectionAborted = 10053;
inline constexpr error_t WsaConnectionReset = 10054;
}  // namespace error

/// The Win32 number that the same failure of a file or system call has there; 0 for 0.
/// Total: an errno without a counterpart of its own maps to 31 (general failure).
error_t ErrorFromErrno(int errnoValue) noexcept;

/// ErrorFromErrno of the calling thread's errno.
error_t LastError() noexcept;

/// The WSA number of a socket call's errno; what is no socket failure goes through ErrorFromErrno.
error_t SocketErrorFromErrno(int errnoValue) noexcept;

/// The system's sentence for a number, without a line end; a number outside the table gets
/// strerror's text for the errno behind it, or "Unknown error N".
std::string ErrorText(error_t number);

/// The same without the heap, for code that runs after a crash; null for an unknown number.
const char* ErrorSentence(error_t number) noexcept;

}  // namespace platform
