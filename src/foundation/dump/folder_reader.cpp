#include "foundation/dump/folder_reader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace crash {

folder_reader_t::folder_reader_t(const char* path) noexcept
    : descriptor_(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (descriptor_ < 0)
    failure_ = errno;
}

folder_reader_t::~folder_reader_t() {
  if (descriptor_ >= 0)
    ::close(descriptor_);
}

bool folder_reader_t::Next(std::string_view& name) noexcept {
  while (failure_ == 0) {
    if (used_ == filled_) {
      const long got = ::syscall(SYS_getdents64, descriptor_, buffer_, sizeof buffer_);
      if (got < 0)
        failure_ = errno;
      if (got <= 0)
        return false;
      used_ = 0;
      filled_ = static_cast<std::size_t>(got);
    }
    const auto* const entry = reinterpret_cast<const dirent64*>(buffer_ + used_);
    used_ += entry->d_reclen;
    name = entry->d_name;
    if (name != "." && name != "..")
      return true;
  }
  return false;
}

bool ParseNumber(std::string_view text, std::uint32_t& number) noexcept {
  constexpr std::size_t MaxDigits = 9;
  if (text.empty() || text.size() > MaxDigits || (text.size() > 1 && text.front() == '0'))
    return false;
  number = 0;
  for (const char digit : text) {
    if (digit < '0' || digit > '9')
      return false;
    number = number * 10 + static_cast<std::uint32_t>(digit - '0');
  }
  return true;
}

}  // namespace crash
