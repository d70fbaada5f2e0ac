#include "platform/system_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <utility>

#include "platform/system_file.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr mode_t NewFileMode = 0666;  // Less the process's umask.
constexpr mode_t NewFolderMode = 0777;
constexpr mode_t AnyWriteBit = S_IWUSR | S_IWGRP | S_IWOTH;
constexpr int MaxCreateAttempts = 16;

bool IsAbsent(error_t failure) {
  return failure == error::FileNotFound;
}

}  // namespace

error_t system_files_t::OpenFound(const location_t& where, int flags, descriptor_t& opened, std::string* spelling) {
  boost::shared_ptr<const descriptor_t> root;
  if (const error_t failure = where.Root().Acquire(root); failure != error::Success) {
    return failure;
  }
  if (spelling != nullptr) {
    *spelling = where.Name();
  }
  const error_t exact = OpenBelow(root->Get(), where.Relative(), flags, 0, opened);
  if (!IsAbsent(exact) || where.IsRoot()) {
    return exact;
  }
  const std::string_view name = where.Name();
  const std::string_view around = where.Relative().substr(0, where.Relative().size() - name.size());
  descriptor_t folder(-1);
  std::string found;
  if (OpenBelow(root->Get(), around, O_PATH | O_DIRECTORY, 0, folder) != error::Success ||
      names_.Find(folder.Get(), name, found) != error::Success || found.empty()) {
    return exact;
  }
  if (spelling != nullptr) {
    *spelling = found;
  }
  return OpenBelow(root->Get(), std::string(around) + found, flags, 0, opened);
}

error_t system_files_t::GetInfo(const location_t& where, file_info_t& info) {
  descriptor_t file(-1);
  error_t failure = OpenFound(where, O_PATH, file, &info.name);
  host_status_t status;
  if (failure == error::Success) {
    failure = ReadStatus(file.Get(), status);
  }
  if (failure == error::Success) {
    info.attributes = status.attributes;
    info.id = status.id;
    info.isLink = false;
  }
  return failure;
}

error_t system_files_t::FindEntryIn(const parent_t& parent, host_status_t& status, std::string& spelling) {
  spelling = parent.name;
  const error_t exact = ReadEntryStatus(parent.folder.Get(), parent.name, status);
  std::string found;
  if (!IsAbsent(exact) || names_.Find(parent.folder.Get(), parent.name, found) != error::Success || found.empty()) {
    return exact;
  }
  spelling = found;
  return ReadEntryStatus(parent.folder.Get(), found, status);
}

error_t system_files_t::FindEntry(const location_t& where, file_info_t& info) {
  if (where.IsRoot()) {
    return GetInfo(where, info);
  }
  parent_t parent;
  error_t failure = OpenParent(where, parent);
  host_status_t status;
  if (failure == error::Success) {
    failure = FindEntryIn(parent, status, info.name);
  }
  if (failure == error::Success) {
    info.attributes = status.attributes;
    info.id = status.id;
    info.isLink = S_ISLNK(status.mode);
  }
  return failure;
}

error_t system_files_t::OpenExisting(const location_t& where, const file_request_t& request,
                                     boost::shared_ptr<file_t>& file) {
  int flags = O_PATH;
  if (request.access != file_access_t::Attributes) {
    // Not waiting for the other end of a pipe, which is refused below.
    flags = (request.access == file_access_t::ReadWrite ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_NOCTTY;
  }
  descriptor_t opened(-1);
  error_t failure = OpenFound(where, flags, opened, nullptr);
  host_status_t status;
  if (failure == error::Success) {
    failure = ReadStatus(opened.Get(), status);
  }
  if (failure != error::Success) {
    return failure;
  }
  const bool isLocked = request.access == file_access_t::ReadWrite && (status.mode & AnyWriteBit) == 0;
  if (!S_ISREG(status.mode) || isLocked) {
    return error::AccessDenied;
  }
  const auto own = boost::make_shared<system_file_t>(std::move(opened), status.id, request.access);
  failure = own->Reserve(request.share);
  if (failure == error::Success && request.disposition == file_disposition_t::CreateAlways) {
    failure = own->SetSize(0);
  }
  if (failure == error::Success) {
    file = own;
  }
  return failure;
}

error_t system_files_t::CreateNew(const location_t& where, const file_request_t& request,
                                  boost::shared_ptr<file_t>& file) {
  parent_t parent;
  if (const error_t failure = OpenParent(where, parent); failure != error::Success) {
    return failure;
  }
  const int access = request.access == file_access_t::ReadWrite ? O_RDWR : O_RDONLY;
  const folder_names_t::change_t change = names_.BeginChange(parent.folder.Get());
  descriptor_t opened(-1);
  error_t failure = OpenBelow(parent.folder.Get(), parent.name, access | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY,
                              NewFileMode, opened);
  names_.EndChange(parent.folder.Get(), change, failure == error::Success ? parent.name : std::string(), {});
  host_status_t status;
  if (failure == error::Success) {
    failure = ReadStatus(opened.Get(), status);
  }
  if (failure != error::Success) {
    return failure;
  }
  const auto own = boost::make_shared<system_file_t>(std::move(opened), status.id, request.access);
  failure = own->Reserve(request.share);
  if (failure == error::Success) {
    file = own;
  }
  return failure;
}

error_t system_files_t::Open(const location_t& where, const file_request_t& request, boost::shared_ptr<file_t>& file) {
  if (request.disposition == file_disposition_t::OpenExisting) {
    return OpenExisting(where, request, file);
  }
  for (int attempt = 0; attempt < MaxCreateAttempts; ++attempt) {
    const error_t existing = OpenExisting(where, request, file);
    if (!IsAbsent(existing)) {
      return existing;
    }
    const error_t created = CreateNew(where, request, file);
    if (created != error::AlreadyExists) {
      return created;
    }
  }
  return error::AccessDenied;  // A link that leads nowhere has the name.
}

error_t system_files_t::SetReadOnly(const location_t& where, bool readOnly) {
  descriptor_t file(-1);
  host_status_t status;
  error_t failure = OpenFound(where, O_PATH, file, nullptr);
  if (failure == error::Success) {
    failure = ReadStatus(file.Get(), status);
  }
  if (failure != error::Success) {
    return failure;
  }
  const mode_t present = status.mode & 07777;
  const bool isReadOnly = (present & AnyWriteBit) == 0;
  if (isReadOnly == readOnly) {
    return error::Success;
  }
  // A mode cannot be changed through a path descriptor, but through the name that the process has for it.
  char name[32];
  std::snprintf(name, sizeof(name), "/proc/self/fd/%d", file.Get());
  const mode_t wanted = readOnly ? present & ~AnyWriteBit : present | S_IWUSR;
  return ::chmod(name, wanted) == 0 ? error::Success : LastError();
}

error_t system_files_t::CreateFolder(const location_t& where) {
  parent_t parent;
  if (const error_t failure = OpenParent(where, parent); failure != error::Success) {
    return failure;
  }
  host_status_t status;
  std::string spelling;
  if (const error_t found = FindEntryIn(parent, status, spelling); !IsAbsent(found)) {
    return found == error::Success ? error::AlreadyExists : found;
  }
  const folder_names_t::change_t change = names_.BeginChange(parent.folder.Get());
  const error_t failure =
      ::mkdirat(parent.folder.Get(), parent.name.c_str(), NewFolderMode) == 0 ? error::Success : LastError();
  names_.EndChange(parent.folder.Get(), change, failure == error::Success ? parent.name : std::string(), {});
  return failure;
}

error_t system_files_t::Unlink(const location_t& where, int flags) {
  parent_t parent;
  if (const error_t failure = OpenParent(where, parent); failure != error::Success) {
    return failure;
  }
  const folder_names_t::change_t change = names_.BeginChange(parent.folder.Get());
  const error_t failure =
      ::unlinkat(parent.folder.Get(), parent.name.c_str(), flags) == 0 ? error::Success : LastError();
  names_.EndChange(parent.folder.Get(), change, {}, failure == error::Success ? parent.name : std::string());
  return failure;
}

error_t system_files_t::DeleteFile(const location_t& where) {
  return Unlink(where, 0);
}

error_t system_files_t::RemoveFolder(const location_t& where) {
  if (where.IsRoot()) {
    return ::rmdir(where.Path().c_str()) == 0 ? error::Success : LastError();
  }
  return Unlink(where, AT_REMOVEDIR);
}

error_t system_files_t::MoveEntry(const parent_t& from, const parent_t& to) {
  const folder_names_t::change_t source = names_.BeginChange(from.folder.Get());
  const folder_names_t::change_t target = names_.BeginChange(to.folder.Get());
  const bool isDone = ::renameat(from.folder.Get(), from.name.c_str(), to.folder.Get(), to.name.c_str()) == 0;
  const error_t failure = isDone ? error::Success : LastError();
  names_.EndChange(from.folder.Get(), source, {}, isDone ? from.name : std::string());
  names_.EndChange(to.folder.Get(), target, isDone ? to.name : std::string(), {});
  return failure;
}

error_t system_files_t::Rename(const location_t& from, const location_t& to) {
  parent_t source;
  parent_t target;
  error_t failure = OpenParent(from, source);
  if (failure == error::Success) {
    failure = OpenParent(to, target);
  }
  host_status_t moved;
  if (failure == error::Success) {
    failure = ReadEntryStatus(source.folder.Get(), source.name, moved);
  }
  if (failure != error::Success) {
    return failure;
  }
  host_status_t present;
  std::string spelling;
  const bool isTaken = FindEntryIn(target, present, spelling) == error::Success;
  const bool isRespelling = EqualIgnoringCase(source.name, target.name) && from.Parent().Path() == to.Parent().Path();
  if (!isTaken || isRespelling || (spelling == target.name && present.id != moved.id)) {
    return MoveEntry(source, target);
  }
  // The name is taken in another case, or by another name of the same file, which the system would leave. What is
  // there is replaced under its own spelling, so that at no time neither file has the name.
  std::swap(target.name, spelling);
  failure = present.id == moved.id ? Unlink(from, 0) : MoveEntry(source, target);
  if (failure == error::Success && target.name != spelling) {
    source.folder = descriptor_t(::fcntl(target.folder.Get(), F_DUPFD_CLOEXEC, 0));
    source.name = std::exchange(target.name, spelling);
    MoveEntry(source, target);  // It is found under either spelling.
  }
  return failure;
}

error_t system_files_t::List(const location_t& where, folder_listing_t& listing) {
  listing = folder_listing_t{};
  descriptor_t folder(-1);
  error_t failure = OpenFound(where, O_PATH | O_DIRECTORY, folder, nullptr);
  std::vector<std::string> names;
  if (failure == error::Success) {
    failure = ReadFolder(folder.Get(), names);
  }
  if (failure == error::Success) {
    HideCaseVariants(names, listing.hidden);
    listing.names = std::move(names);
  }
  return failure;
}

error_t system_files_t::GetDiskSpace(const location_t& where, disk_space_t& space) {
  descriptor_t folder(-1);
  if (const error_t failure = OpenFound(where, O_PATH, folder, nullptr); failure != error::Success) {
    return failure;
  }
  struct statvfs status {};
  if (::fstatvfs(folder.Get(), &status) != 0) {
    return LastError();
  }
  space.totalBytes = static_cast<std::uint64_t>(status.f_blocks) * status.f_frsize;
  space.freeBytes = static_cast<std::uint64_t>(status.f_bfree) * status.f_frsize;
  return error::Success;
}

error_t system_files_t::CreateFolderAt(const std::string& path) {
  return ::mkdir(path.c_str(), NewFolderMode) == 0 ? error::Success : LastError();
}

error_t system_files_t::GetInfoAt(const std::string& path, WIN32_FILE_ATTRIBUTE_DATA& attributes) {
  const descriptor_t file(::open(path.c_str(), O_PATH | O_CLOEXEC));
  host_status_t status;
  if (!file.IsOpen()) {
    return LastError();
  }
  const error_t failure = ReadStatus(file.Get(), status);
  attributes = status.attributes;
  return failure;
}

files_t& SystemFiles() {
  static system_files_t* const files = new system_files_t;  // Used by items that other statics may still hold.
  return *files;
}

}  // namespace platform
