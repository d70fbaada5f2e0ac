#include "foundation/write_all.h"

#include <unistd.h>

#include <cerrno>

namespace io {

platform::error_t WriteAll(int descriptor, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == 0 || errno != EINTR) {
      return written == 0 ? platform::error::DiskFull : platform::LastError();
    }
  }
  return platform::error::Success;
}

}  // namespace io
