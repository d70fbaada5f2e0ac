#include "platform/system_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "platform/brief_mutex.h"

namespace platform {
namespace {

constexpr std::uint64_t MaxOffset = std::numeric_limits<off_t>::max();

bool IsOffset(std::uint64_t offset) {
  return offset <= MaxOffset;
}

timespec TimeOrOmit(const FILETIME* time) {
  if (time != nullptr) {
    return TimespecFromFiletime(*time);
  }
  timespec omitted{};
  omitted.tv_nsec = UTIME_OMIT;
  return omitted;
}

}  // namespace

system_file_t::system_file_t(descriptor_t file, const file_id_t& id, file_access_t access)
    : file_(std::move(file)), id_(id), access_(access) {}

error_t system_file_t::Reserve(file_share_t share) {
  return open_files_t::Instance().Reserve(id_, access_, share, reservation_);
}

error_t system_file_t::ReadAt(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) {
  CheckNoBriefLock("ReadAt");
  outRead = 0;
  if (!IsOffset(offset)) {
    return error::InvalidParameter;
  }
  // The kernel refuses a range that ends past the last offset; there is nothing to read there.
  const std::size_t within = std::min<std::uint64_t>(length, MaxOffset - offset);
  for (;;) {
    const ssize_t done = ::pread(file_.Get(), data, within, static_cast<off_t>(offset));
    if (done >= 0) {
      outRead = static_cast<std::size_t>(done);
      return error::Success;
    }
    if (errno != EINTR) {
      return LastError();
    }
  }
}

error_t system_file_t::ReadIntoPipe(std::uint64_t offset, std::size_t length, kernel_pipe_t& pipe,
                                    std::size_t& outRead) {
  CheckNoBriefLock("ReadIntoPipe");
  outRead = 0;
  if (!IsOffset(offset)) {
    return error::InvalidParameter;
  }
  return pipe.TakeFromFile(file_.Get(), offset, std::min<std::uint64_t>(length, MaxOffset - offset), outRead);
}

error_t system_file_t::WriteAt(std::uint64_t offset, const void* data, std::size_t length, std::size_t& outWritten) {
  CheckNoBriefLock("WriteAt");
  outWritten = 0;
  if (access_ != file_access_t::ReadWrite) {
    return error::AccessDenied;
  }
  if (!IsOffset(offset)) {
    return error::InvalidParameter;
  }
  for (;;) {
    const ssize_t done = ::pwrite(file_.Get(), data, length, static_cast<off_t>(offset));
    if (done >= 0) {
      outWritten = static_cast<std::size_t>(done);
      return error::Success;
    }
    if (errno != EINTR) {
      return LastError();
    }
  }
}

error_t system_file_t::GetSize(std::uint64_t& size) {
  CheckNoBriefLock("GetSize");
  struct stat status {};
  if (::fstat(file_.Get(), &status) != 0) {
    return LastError();
  }
  size = static_cast<std::uint64_t>(status.st_size);
  return error::Success;
}

error_t system_file_t::SetSize(std::uint64_t size) {
  CheckNoBriefLock("SetSize");
  if (access_ != file_access_t::ReadWrite) {
    return error::AccessDenied;
  }
  if (!IsOffset(size)) {
    return error::InvalidParameter;
  }
  int result = 0;
  do {
    result = ::ftruncate(file_.Get(), static_cast<off_t>(size));
  } while (result != 0 && errno == EINTR);
  return result == 0 ? error::Success : LastError();
}

error_t system_file_t::SetTimes(const FILETIME* /*creation*/, const FILETIME* lastAccess, const FILETIME* lastWrite) {
  CheckNoBriefLock("SetTimes");
  const timespec times[2] = {TimeOrOmit(lastAccess), TimeOrOmit(lastWrite)};
  return ::utimensat(file_.Get(), "", times, AT_EMPTY_PATH) == 0 ? error::Success : LastError();
}

}  // namespace platform
