#include "foundation/dump/dump_file.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace crash {

dump_file_t::dump_file_t(int descriptor, arena_t& arena) noexcept
    : descriptor_(descriptor), buffer_(arena.Take<char>(BufferSize)) {
  if (buffer_ == nullptr)
    failure_ = ENOMEM;
}

void dump_file_t::Write(const void* data, std::size_t size) noexcept {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0 && failure_ == 0) {
    const std::size_t part = std::min(size, BufferSize - used_);
    std::memcpy(buffer_ + used_, bytes, part);
    used_ += part;
    position_ += part;
    bytes += part;
    size -= part;
    if (used_ == BufferSize)
      Flush();
  }
}

void dump_file_t::Skip(std::uint64_t size) noexcept {
  if (failure_ != 0)
    return;
  if (size < BufferSize - used_) {
    std::memset(buffer_ + used_, 0, size);
    used_ += size;
  } else {
    Flush();
  }
  position_ += size;
}

void dump_file_t::Align(std::size_t multiple) noexcept {
  Skip((multiple - position_ % multiple) % multiple);
}

void dump_file_t::WriteAt(std::uint64_t place, const void* data, std::size_t size) noexcept {
  Flush();
  Put(place, static_cast<const char*>(data), size);
}

int dump_file_t::Finish() noexcept {
  Flush();
  // The last bytes may have been skipped.
  if (failure_ == 0 && ::ftruncate(descriptor_, static_cast<off_t>(position_)) != 0)
    failure_ = errno;
  return failure_;
}

void dump_file_t::Flush() noexcept {
  Put(position_ - used_, buffer_, used_);
  used_ = 0;
}

void dump_file_t::Put(std::uint64_t place, const char* data, std::size_t size) noexcept {
  while (size > 0 && failure_ == 0) {
    const ssize_t written = ::pwrite(descriptor_, data, size, static_cast<off_t>(place));
    if (written > 0) {
      place += static_cast<std::uint64_t>(written);
      data += written;
      size -= static_cast<std::size_t>(written);
    } else if (written == 0 || errno != EINTR) {
      failure_ = written == 0 ? ENOSPC : errno;
    }
  }
}

}  // namespace crash
