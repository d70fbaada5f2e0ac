#include "platform/below_root.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/lookup_scope.h"

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
  name_ = where.Name();
  std::string_view around = where.Relative();
  around.remove_suffix(name_.size());
  const bool mayPassLinks = where.LinkedLength() >= around.size();
  return mayPassLinks && lookup_scope_t::IsOpen() ? OpenInScope(where, around) : OpenAnew(where, around);
}

error_t parent_t::OpenAnew(const location_t& where, std::string_view around) {
  if (const error_t failure = where.Root().Acquire(shared_); failure != error::Success) {
    return failure;
  }
  const std::string_view linked = around.substr(0, where.LinkedLength());
  error_t failure = error::Success;
  if (!linked.empty()) {
    failure = OpenBelow(shared_->Get(), linked, O_PATH | O_DIRECTORY, 0, folder_);
  }
  if (failure == error::Success && linked.size() < around.size()) {
    descriptor_t below(-1);
    failure = OpenBelow(Folder(), around.substr(linked.size()), O_PATH | O_DIRECTORY, 0, below, links_t::Refused);
    folder_ = std::move(below);
  }
  return failure;
}

error_t parent_t::OpenInScope(const location_t& where, std::string_view around) {
  const root_folder_t& root = where.Root();
  const std::string_view relative = around.substr(0, around.empty() ? 0 : around.size() - 1);
  shared_ = lookup_scope_t::Find(root, relative);
  if (shared_) {
    return error::Success;
  }
  shared_ = lookup_scope_t::Find(root, {});
  if (!shared_) {
    if (const error_t failure = where.Root().Acquire(shared_); failure != error::Success) {
      return failure;
    }
    lookup_scope_t::Remember(where.SharedRoot(), {}, shared_);
  }
  if (relative.empty()) {
    return error::Success;
  }
  descriptor_t opened(-1);
  const error_t failure = OpenBelow(shared_->Get(), around, O_PATH | O_DIRECTORY, 0, opened);
  if (failure == error::Success) {
    shared_ = boost::make_shared<const descriptor_t>(std::move(opened));
    lookup_scope_t::Remember(where.SharedRoot(), relative, shared_);
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
