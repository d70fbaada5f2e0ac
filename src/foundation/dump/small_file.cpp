#include "foundation/dump/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace crash {

std::size_t ReadSmallFile(const char* path, char* place, std::size_t size) noexcept {
  const int file = ::open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0)
    return 0;
  std::size_t length = 0;
  while (length < size) {
    const ssize_t got = ::read(file, place + length, size - length);
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0)
      break;
    length += static_cast<std::size_t>(got);
  }
  ::close(file);
  return length;
}

}  // namespace crash
