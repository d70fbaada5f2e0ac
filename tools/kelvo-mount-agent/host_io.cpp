#include "kelvo-mount-agent/host_io.h"

#include <unistd.h>

#include <cerrno>
#include <limits>

namespace mount_agent {
namespace {

namespace error = platform::error;

bool IsInFile(std::uint64_t offset, std::size_t length) {
  constexpr auto Last = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  return offset <= Last && length <= Last - offset;
}

}  // namespace

platform::error_t ReadFully(int file, std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) {
  outRead = 0;
  if (!IsInFile(offset, length))
    return error::FileTooLarge;
  while (outRead < length) {
    const ssize_t got =
        ::pread(file, static_cast<char*>(data) + outRead, length - outRead, static_cast<off_t>(offset + outRead));
    if (got == 0)
      break;
    if (got > 0)
      outRead += static_cast<std::size_t>(got);
    else if (errno != EINTR)
      return platform::LastError();
  }
  return error::Success;
}

platform::error_t WriteFully(int file, std::uint64_t offset, const void* data, std::size_t length) {
  if (!IsInFile(offset, length))
    return error::FileTooLarge;
  std::size_t done = 0;
  while (done < length) {
    const ssize_t put =
        ::pwrite(file, static_cast<const char*>(data) + done, length - done, static_cast<off_t>(offset + done));
    if (put > 0)
      done += static_cast<std::size_t>(put);
    else if (put == 0)
      return error::DiskFull;
    else if (errno != EINTR)
      return platform::LastError();
  }
  return error::Success;
}

}  // namespace mount_agent
