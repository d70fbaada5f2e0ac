#include "platform/system_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <utility>

#include "platform/brief_mutex.h"
#include "platform/lookup_scope.h"
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

error_t ReadState(int folder, folder_state_t& state) {
  struct stat status {};
  if (::fstat(folder, &status) != 0) {
    return LastError();
  }
  // The change time, which nobody can set, and not the modification time, which who copies folders does.
  state = folder_state_t{{status.st_dev, status.st_ino}, status.st_ctim};
  return error::Success;
}

/// What to tell of a name that is not there as it is spelled, and was not found in another case. A folder that may not
/// be read has no other spellings; one that could not be read says nothing about what is there.
error_t WithoutVariant(error_t exact, error_t search) {
  const bool isAnswer = search == error::Success || search == error::AccessDenied || IsAbsent(search);
  return isAnswer ? exact : search;
}

}  // namespace

error_t system_files_t::OpenFound(const location_t& where, int flags, descriptor_t& opened) {
  if (where.LinkedLength() < where.Relative().size()) {
    parent_t parent;
    const error_t failure = parent.Open(where);
    return failure != error::Success ? failure
                                     : OpenBelow(parent.Folder(), parent.Name(), flags, 0, opened, links_t::Refused);
  }
  boost::shared_ptr<const descriptor_t> root;
  if (const error_t failure = where.Root().Acquire(root); failure != error::Success) {
    return failure;
  }
  const error_t exact = OpenBelow(root->Get(), where.Relative(), flags, 0, opened);
  if (!IsAbsent(exact) || where.IsRoot()) {
    return exact;
  }
  const std::string_view name = where.Name();
  const std::string_view around = where.Relative().substr(0, where.Relative().size() - name.size());
  descriptor_t folder(-1);
  std::string found;
  error_t failure = OpenBelow(root->Get(), around, O_PATH | O_DIRECTORY, 0, folder);
  if (failure == error::Success) {
    failure = names_.Find(folder.Get(), name, found);
  }
  if (failure != error::Success || found.empty()) {
    return WithoutVariant(exact, failure);
  }
  return OpenBelow(root->Get(), std::string(around) + found, flags, 0, opened);
}

error_t system_files_t::ReadFound(const location_t& where, host_status_t& status) {
  descriptor_t file(-1);
  const error_t failure = OpenFound(where, O_PATH, file);
  return failure != error::Success ? failure : ReadStatus(file.Get(), status);
}

error_t system_files_t::Look(const location_t& where, host_status_t& status, std::string& spelling) {
  if (where.IsRoot()) {
    spelling.clear();
    const error_t failure = ReadPathStatus(where.Path(), status);
    return failure == error::Success && !S_ISDIR(status.mode) ? error::PathNotFound : failure;
  }
  if (lookup_scope_t::IsOpen() && where.LinkedLength() == where.Relative().size()) {
    if (const auto folder = lookup_scope_t::Find(where.Root(), where.Relative())) {
      spelling = where.Name();
      return ReadStatus(folder->Get(), status);
    }
  }
  parent_t parent;
  error_t failure = parent.Open(where);
  if (failure == error::Success) {
    failure = FindEntryIn(parent, status, spelling);
  }
  // What is no link leads nowhere: there is nothing to resolve and so nothing to open.
  return failure == error::Success && S_ISLNK(status.mode) ? ReadFound(where, status) : failure;
}

error_t system_files_t::GetInfo(const location_t& where, file_info_t& info) {
  CheckNoBriefLock("GetInfo");
  host_status_t status;
  const error_t failure = Look(where, status, info.name);
  if (failure == error::Success) {
    info.attributes = status.attributes;
    info.id = status.id;
    info.isLink = false;
  }
  return failure;
}

error_t system_files_t::FindEntryIn(const parent_t& parent, host_status_t& status, std::string& spelling) {
  spelling = parent.Name();
  const error_t exact = ReadEntryStatus(parent.Folder(), parent.Name(), status);
  if (!IsAbsent(exact)) {
    return exact;
  }
  std::string found;
  if (const error_t failure = names_.Find(parent.Folder(), parent.Name(), found);
      failure != error::Success || found.empty()) {
    return WithoutVariant(exact, failure);
  }
  spelling = found;
  return ReadEntryStatus(parent.Folder(), found, status);
}

error_t system_files_t::FindEntry(const location_t& where, file_info_t& info) {
  CheckNoBriefLock("FindEntry");
  if (where.IsRoot()) {
    return GetInfo(where, info);
  }
  parent_t parent;
  error_t failure = parent.Open(where);
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
  const auto isRefused = [&request](mode_t mode) {
    const bool isLocked = request.access == file_access_t::ReadWrite && (mode & AnyWriteBit) == 0;
    return !S_ISREG(mode) || isLocked;
  };
  host_status_t status;
  int flags = O_PATH;
  if (request.access != file_access_t::Attributes) {
    std::string spelling;
    if (const error_t failure = Look(where, status, spelling); failure != error::Success) {
      return failure;
    }
    if (isRefused(status.mode)) {
      return error::AccessDenied;
    }
    // Not waiting for the other end of a pipe that has come since, which is refused below.
    flags = (request.access == file_access_t::ReadWrite ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_NOCTTY;
  }
  descriptor_t opened(-1);
  error_t failure = OpenFound(where, flags, opened);
  if (failure == error::Success) {
    failure = ReadStatus(opened.Get(), status);
  }
  if (failure != error::Success) {
    return failure;
  }
  if (isRefused(status.mode)) {
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

error_t system_files_t::CreateNew(const parent_t& parent, const file_request_t& request,
                                  boost::shared_ptr<file_t>& file) {
  const int access = request.access == file_access_t::ReadWrite ? O_RDWR : O_RDONLY;
  const folder_names_t::change_t change = names_.BeginChange(parent.Folder());
  descriptor_t opened(-1);
  error_t failure =
      OpenBelow(parent.Folder(), parent.Name(), access | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, NewFileMode, opened);
  names_.EndChange(parent.Folder(), change, failure == error::Success ? parent.Name() : std::string(), {});
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
  CheckNoBriefLock("Open");
  if (request.disposition == file_disposition_t::OpenExisting) {
    return OpenExisting(where, request, file);
  }
  for (int attempt = 0; attempt < MaxCreateAttempts; ++attempt) {
    parent_t parent;
    host_status_t status;
    std::string spelling;
    error_t failure = parent.Open(where);
    if (failure != error::Success) {
      return failure;
    }
    failure = FindEntryIn(parent, status, spelling);
    if (request.disposition == file_disposition_t::CreateNew && !IsAbsent(failure)) {
      return failure == error::Success ? error::AlreadyExists : failure;
    }
    if (IsAbsent(failure)) {
      failure = CreateNew(parent, request, file);
      if (failure != error::AlreadyExists || request.disposition == file_disposition_t::CreateNew) {
        return failure;
      }
    } else if (failure = OpenExisting(where, request, file); !IsAbsent(failure)) {
      return failure;
    }
  }
  return error::AccessDenied;  // A link that leads nowhere has the name.
}

bool system_files_t::PassesLink(const location_t& where) {
  CheckNoBriefLock("PassesLink");
  boost::shared_ptr<const descriptor_t> root;
  descriptor_t found(-1);
  return where.Root().Acquire(root) != error::Success ||
         OpenBelow(root->Get(), where.Relative(), O_PATH, 0, found, links_t::Refused) != error::Success;
}

error_t system_files_t::SetReadOnly(const location_t& where, bool readOnly) {
  CheckNoBriefLock("SetReadOnly");
  const auto isAsWanted = [readOnly](mode_t mode) { return ((mode & AnyWriteBit) == 0) == readOnly; };
  host_status_t status;
  std::string spelling;
  // Mostly there is nothing to change: a client that creates a file says what it is to be.
  error_t failure = Look(where, status, spelling);
  if (failure != error::Success || isAsWanted(status.mode)) {
    return failure;
  }
  descriptor_t file(-1);
  failure = OpenFound(where, O_PATH, file);
  if (failure == error::Success) {
    failure = ReadStatus(file.Get(), status);
  }
  if (failure != error::Success || isAsWanted(status.mode)) {
    return failure;
  }
  // A mode cannot be changed through a path descriptor, but through the name that the process has for it.
  char name[32];
  std::snprintf(name, sizeof(name), "/proc/self/fd/%d", file.Get());
  const mode_t present = status.mode & 07777;
  const mode_t wanted = readOnly ? present & ~AnyWriteBit : present | S_IWUSR;
  return ::chmod(name, wanted) == 0 ? error::Success : LastError();
}

error_t system_files_t::CreateFolder(const location_t& where) {
  CheckNoBriefLock("CreateFolder");
  parent_t parent;
  if (const error_t failure = parent.Open(where); failure != error::Success) {
    return failure;
  }
  host_status_t status;
  std::string spelling;
  if (const error_t found = FindEntryIn(parent, status, spelling); !IsAbsent(found)) {
    return found == error::Success ? error::AlreadyExists : found;
  }
  const folder_names_t::change_t change = names_.BeginChange(parent.Folder());
  const error_t failure =
      ::mkdirat(parent.Folder(), parent.Name().c_str(), NewFolderMode) == 0 ? error::Success : LastError();
  names_.EndChange(parent.Folder(), change, failure == error::Success ? parent.Name() : std::string(), {});
  return failure;
}

error_t system_files_t::Unlink(const location_t& where, int flags) {
  parent_t parent;
  if (const error_t failure = parent.Open(where); failure != error::Success) {
    return failure;
  }
  const folder_names_t::change_t change = names_.BeginChange(parent.Folder());
  const error_t failure = ::unlinkat(parent.Folder(), parent.Name().c_str(), flags) == 0 ? error::Success : LastError();
  names_.EndChange(parent.Folder(), change, {}, failure == error::Success ? parent.Name() : std::string());
  if ((flags & AT_REMOVEDIR) != 0) {
    lookup_scope_t::Forget();
  }
  return failure;
}

error_t system_files_t::DeleteFile(const location_t& where) {
  CheckNoBriefLock("DeleteFile");
  return Unlink(where, 0);
}

error_t system_files_t::RemoveFolder(const location_t& where) {
  CheckNoBriefLock("RemoveFolder");
  if (where.IsRoot()) {
    lookup_scope_t::Forget();
    return ::rmdir(where.Path().c_str()) == 0 ? error::Success : LastError();
  }
  return Unlink(where, AT_REMOVEDIR);
}

error_t system_files_t::MoveEntry(const entry_t& from, const entry_t& to) {
  const folder_names_t::change_t source = names_.BeginChange(from.folder);
  const folder_names_t::change_t target = names_.BeginChange(to.folder);
  const bool isDone = ::renameat(from.folder, from.name.c_str(), to.folder, to.name.c_str()) == 0;
  const error_t failure = isDone ? error::Success : LastError();
  names_.EndChange(from.folder, source, {}, isDone ? from.name : std::string());
  names_.EndChange(to.folder, target, isDone ? to.name : std::string(), {});
  lookup_scope_t::Forget();
  return failure;
}

error_t system_files_t::Rename(const location_t& from, const location_t& to) {
  CheckNoBriefLock("Rename");
  parent_t source;
  parent_t target;
  error_t failure = source.Open(from);
  if (failure == error::Success) {
    failure = target.Open(to);
  }
  host_status_t moved;
  if (failure == error::Success) {
    failure = ReadEntryStatus(source.Folder(), source.Name(), moved);
  }
  if (failure != error::Success) {
    return failure;
  }
  host_status_t present;
  std::string spelling;
  const bool isTaken = FindEntryIn(target, present, spelling) == error::Success;
  const bool isRespelling =
      EqualIgnoringCase(source.Name(), target.Name()) && from.Parent().Path() == to.Parent().Path();
  const entry_t oldEntry{source.Folder(), source.Name()};
  const entry_t newEntry{target.Folder(), target.Name()};
  if (!isTaken || isRespelling || (spelling == target.Name() && present.id != moved.id)) {
    return MoveEntry(oldEntry, newEntry);
  }
  // The name is taken in another case, or by another name of the same file, which the system would leave. What is
  // there is replaced under its own spelling, so that at no time neither file has the name.
  const entry_t replaced{target.Folder(), spelling};
  failure = present.id == moved.id ? Unlink(from, 0) : MoveEntry(oldEntry, replaced);
  if (failure == error::Success && spelling != target.Name()) {
    MoveEntry(replaced, newEntry);  // It is found under either spelling.
  }
  return failure;
}

error_t system_files_t::List(const location_t& where, folder_listing_t& listing) {
  CheckNoBriefLock("List");
  listing = folder_listing_t{};
  descriptor_t folder(-1);
  error_t failure = OpenFound(where, O_PATH | O_DIRECTORY, folder);
  std::vector<std::string> names;
  folder_state_t state;
  if (failure == error::Success) {
    failure = ReadState(folder.Get(), state);
  }
  timespec start{};
  ::clock_gettime(CLOCK_REALTIME, &start);
  if (failure == error::Success) {
    failure = ReadFolder(folder.Get(), names);
  }
  if (failure == error::Success) {
    HideCaseVariants(names, listing.hidden);
    listing.names = std::move(names);
    if (IsSettled(state.changed, start)) {
      listing.state = state;
    }
  }
  return failure;
}

error_t system_files_t::GetFolderState(const location_t& where, folder_state_t& state) {
  CheckNoBriefLock("GetFolderState");
  descriptor_t folder(-1);
  const error_t failure = OpenFound(where, O_PATH | O_DIRECTORY, folder);
  return failure != error::Success ? failure : ReadState(folder.Get(), state);
}

error_t system_files_t::GetDiskSpace(const location_t& where, disk_space_t& space) {
  CheckNoBriefLock("GetDiskSpace");
  descriptor_t folder(-1);
  if (const error_t failure = OpenFound(where, O_PATH, folder); failure != error::Success) {
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
  CheckNoBriefLock("CreateFolderAt");
  lookup_scope_t::Forget();
  return ::mkdir(path.c_str(), NewFolderMode) == 0 ? error::Success : LastError();
}

error_t system_files_t::GetInfoAt(const std::string& path, WIN32_FILE_ATTRIBUTE_DATA& attributes) {
  CheckNoBriefLock("GetInfoAt");
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
