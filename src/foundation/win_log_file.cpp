#include "foundation/win_log_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "foundation/exc.h"
#include "foundation/write_all.h"
#include "foundation/zip_writer.h"
#include "platform/futex.h"

namespace win {

namespace {

constexpr std::size_t CompressStep = 1048576;
constexpr std::int64_t NsPerMillisecond = 1000000;

[[noreturn]] void ThrowLastError(const char* text, const std::string& path) {
  const platform::error_t error = platform::LastError();
  throw exc::win_sys_exc_t(exc::FormatText(text, path), error);
}

}  // namespace

win_log_file_t::win_log_file_t(std::string path, bool flush, std::uint32_t lookAgainMs)
    : path_(std::move(path)), flush_(flush), lookAgainNs_(std::int64_t{lookAgainMs} * NsPerMillisecond) {
  Open();
  nextLookNs_ = platform::MonotonicNanoseconds() + lookAgainNs_;
}

// What is open already stays open when the new file cannot be had.
void win_log_file_t::Open() {
  constexpr char Failed[] = "Failed to create or open file [%1].";
  const int descriptor = ::open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0600);
  if (descriptor < 0)
    ThrowLastError(Failed, path_);
  struct stat status {};
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0 || ::fstat(descriptor, &status) != 0) {
    const int failure = errno;
    ::close(descriptor);
    if (failure == EWOULDBLOCK)
      throw exc::file_locked_exc_t(path_);
    throw exc::win_sys_exc_t(exc::FormatText(Failed, path_), platform::ErrorFromErrno(failure));
  }
  if (descriptor_ >= 0)
    ::close(descriptor_);
  descriptor_ = descriptor;
  device_ = status.st_dev;
  inode_ = status.st_ino;
  torn_ = false;
}

void win_log_file_t::FollowName() noexcept {
  const std::int64_t now = platform::MonotonicNanoseconds();
  if (now < nextLookNs_)
    return;
  nextLookNs_ = now + lookAgainNs_;
  struct stat named {};
  if (::stat(path_.c_str(), &named) == 0 ? named.st_dev == device_ && named.st_ino == inode_ : errno != ENOENT)
    return;
  try {
    Open();
  } catch (const std::exception&) {
    // The folder has gone too, or another process was faster: tried again later.
  }
}

win_log_file_t::~win_log_file_t() {
  ::close(descriptor_);
}

std::string win_log_file_t::GetName() const {
  return path_.substr(path_.find_last_of('/') + 1);
}

void win_log_file_t::Write(std::string_view line) {
  FollowName();
  if (torn_ && io::WriteAll(descriptor_, "\n") == platform::error::Success)
    torn_ = false;
  const platform::error_t error = io::WriteAll(descriptor_, line);
  if (error != platform::error::Success) {
    torn_ = true;
    throw exc::win_sys_exc_t(exc::FormatText("Cannot write to file [%1].", path_), error);
  }
  if (flush_)
    ::fdatasync(descriptor_);
}

std::uint64_t win_log_file_t::GetSize() const {
  struct stat status {};
  if (::fstat(descriptor_, &status) != 0)
    ThrowLastError("Cannot get size of file [%1].", path_);
  return static_cast<std::uint64_t>(status.st_size);
}

void win_log_file_t::Compress(util::zip_writer_t& writer, const std::function<void()>& completion) {
  std::vector<char> block(CompressStep);
  for (off_t offset = 0;;) {
    const ssize_t count = ::pread(descriptor_, block.data(), block.size(), offset);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      ThrowLastError("Cannot read file [%1].", path_);
    if (count == 0)
      break;
    writer.Add(block.data(), static_cast<std::size_t>(count));
    offset += count;
  }
  completion();
  if (::ftruncate(descriptor_, 0) != 0 || ::lseek(descriptor_, 0, SEEK_SET) != 0) {
    ThrowLastError("Cannot empty file [%1].", path_);
  }
  torn_ = false;
}

}  // namespace win
