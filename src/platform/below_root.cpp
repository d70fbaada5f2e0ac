#include "platform/below_root.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace platform {
namespace {

// A rename anywhere on the machine can spoil a resolution that passes ".."; the kernel asks to try again.
constexpr int MaxResolutions = 128;

constexpr mode_t AnyWriteBit = S_IWUSR | S_IWGRP | S_IWOTH;

timespec TimeOf(const statx_timestamp& time) {
  timespec own{};
  own.tv_sec = time.tv_sec;
  own.tv_nsec = static_cast<long>(time.tv_nsec);
  return own;
}

error_t Describe(int folder, const char* name, int flags, host_status_t& status) {
  struct statx found {};
  if (::statx(folder, name, flags | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &found) != 0) {
    return LastError();
  }
  status.mode = found.stx_mode;
  status.id.device = makedev(found.stx_dev_major, found.stx_dev_minor);
  status.id.inode = found.stx_ino;
  WIN32_FILE_ATTRIBUTE_DATA& attributes = status.attributes;
  const bool isFolder = S_ISDIR(found.stx_mode);
  attributes.attributes =
      (isFolder ? FileAttributeDirectory : 0U) | ((found.stx_mode & AnyWriteBit) == 0 ? FileAttributeReadOnly : 0U);
  if (attributes.attributes == 0) {
    attributes.attributes = FileAttributeNormal;
  }
  const timespec written = TimeOf(found.stx_mtime);
  const bool hasBirth = (found.stx_mask & STATX_BTIME) != 0;
  attributes.creationTime = FiletimeFromTimespec(hasBirth ? TimeOf(found.stx_btime) : written);
  attributes.lastAccessTime = FiletimeFromTimespec(TimeOf(found.stx_atime));
  attributes.lastWriteTime = FiletimeFromTimespec(written);
  attributes.SetSize(isFolder ? 0 : found.stx_size);
  return error::Success;
}

}  // namespace

error_t OpenBelow(int folder, std::string_view relative, int flags, mode_t mode, descriptor_t& opened, links_t links) {
  const std::string path = relative.empty() ? std::string(".") : std::string(relative);
  open_how how{};
  how.flags = static_cast<std::uint64_t>(static_cast<unsigned>(flags | O_CLOEXEC));
  how.mode = mode;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS | (links == links_t::Refused ? RESOLVE_NO_SYMLINKS : 0U);
  int failure = EAGAIN;
  for (int attempt = 0; attempt < MaxResolutions && (failure == EAGAIN || failure == EINTR); ++attempt) {
    const long file = ::syscall(SYS_openat2, folder, path.c_str(), &how, sizeof(how));
    if (file >= 0) {
      opened = descriptor_t(static_cast<int>(file));
      return error::Success;
    }
    failure = errno;
  }
  return failure == EXDEV ? error::AccessDenied : ErrorFromErrno(failure);
}

error_t parent_t::Open(const location_t& where) {
  if (where.IsRoot()) {
    return error::AccessDenied;
  }
  if (const error_t failure = where.Root().Acquire(root_); failure != error::Success) {
    return failure;
  }
  name_ = where.Name();
  std::string_view around = where.Relative();
  around.remove_suffix(name_.size());
  const std::string_view linked = around.substr(0, where.LinkedLength());
  error_t failure = error::Success;
  if (!linked.empty()) {
    failure = OpenBelow(root_->Get(), linked, O_PATH | O_DIRECTORY, 0, folder_);
  }
  if (failure == error::Success && linked.size() < around.size()) {
    descriptor_t below(-1);
    failure = OpenBelow(Folder(), around.substr(linked.size()), O_PATH | O_DIRECTORY, 0, below, links_t::Refused);
    folder_ = std::move(below);
  }
  return failure;
}

error_t ReadStatus(int file, host_status_t& status) {
  return Describe(file, "", AT_EMPTY_PATH, status);
}

error_t ReadPathStatus(const std::string& path, host_status_t& status) {
  return Describe(AT_FDCWD, path.c_str(), 0, status);
}

error_t ReadEntryStatus(int folder, const std::string& name, host_status_t& status) {
  return Describe(folder, name.c_str(), AT_SYMLINK_NOFOLLOW, status);
}

}  // namespace platform
