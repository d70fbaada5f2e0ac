// Files and folders of the host, with the meaning of the Win32 calls and their error numbers.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/file_attributes.h"
#include "platform/kernel_pipe.h"
#include "platform/location.h"

namespace platform {

/// What is asked of a file that is opened. Attributes alone takes no part in sharing.
enum class file_access_t { Attributes, Read, ReadWrite };

/// What a holder lets others do meanwhile. Two opens of one file, by whatever names, whose access and share modes
/// collide are a sharing violation (32) for the second.
enum class file_share_t { Read, ReadWrite };

enum class file_disposition_t {
  OpenExisting,
  CreateNew,     ///< 183 when the name, in whatever case, is taken.
  OpenAlways,    ///< Creates, or takes what is there.
  CreateAlways,  ///< Creates, or empties what is there.
};

struct file_request_t {
  file_access_t access = file_access_t::ReadWrite;
  file_share_t share = file_share_t::Read;
  file_disposition_t disposition = file_disposition_t::OpenExisting;
};

/// An open file. Any thread; nothing here has a position, so calls do not disturb each other.
class file_t {
 public:
  virtual ~file_t() = default;

  /// One read. Fewer bytes than asked for are not yet the end of the file; none are.
  virtual error_t ReadAt(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) = 0;
  /// One read whose bytes stay in the kernel. 231 and 120 as TakeFromFile says them: then they have to be read.
  virtual error_t ReadIntoPipe(std::uint64_t /*offset*/, std::size_t /*length*/, kernel_pipe_t& /*pipe*/,
                               std::size_t& outRead) {
    outRead = 0;
    return error::CallNotImplemented;
  }
  /// One write, which may take fewer bytes than given. A file opened for reading alone is error 5.
  virtual error_t WriteAt(std::uint64_t offset, const void* data, std::size_t length, std::size_t& outWritten) = 0;
  virtual error_t GetSize(std::uint64_t& size) = 0;
  virtual error_t SetSize(std::uint64_t size) = 0;
  /// Null leaves a time alone. There is no way to set a creation time here; it is accepted and ignored.
  virtual error_t SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) = 0;
  virtual file_id_t Id() const = 0;
  /// Gives the share mode back before the file is closed: calls under way finish, and the file can be opened anew at
  /// once. For an owner who lets go while others still hold the object.
  virtual void ReleaseShare() noexcept = 0;
};

/// An entry as found: its attributes, its identity, and its name as the folder spells it.
struct file_info_t {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  file_id_t id;
  std::string name;
  bool isLink = false;  ///< Only from FindEntry.
};

/// Changes whenever an entry of the folder is added, removed or renamed.
struct folder_state_t {
  file_id_t id;
  timespec changed{};

  bool operator==(const folder_state_t& other) const {
    return id == other.id && changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
  }
};

struct folder_listing_t {
  std::vector<std::string> names;   ///< In the folder's own order, without "." and "..".
  std::vector<std::string> hidden;  ///< Entries that differ from one in names only by case, and are not seen.
  /// As long as the folder has this state it lists the same. None while its last change is so young that the next
  /// one might bear the same time.
  std::optional<folder_state_t> state;
};

struct disk_space_t {
  std::uint64_t totalBytes = 0;
  std::uint64_t freeBytes = 0;
};

/// The host's files. Any thread.
///
/// Whatever is asked of a location is resolved below its root: a link that leads out of it, absolute or by "..", is
/// error 5. Names are found as they are spelled and, when there is no such entry, under the first entry in byte order
/// that is equal without regard to ASCII case; that holds for the last component, those before it are exact. What
/// takes an entry away (DeleteFile, RemoveFolder, the source of Rename) wants it spelled as it is.
class files_t {
 public:
  virtual ~files_t() = default;

  /// Of the file or folder, a link followed. 2 or 3 when there is none.
  virtual error_t GetInfo(const location_t& where, file_info_t& info) = 0;
  /// Of the entry itself, a link not followed.
  virtual error_t FindEntry(const location_t& where, file_info_t& info) = 0;
  /// Only regular files; anything else is 5, and is not opened to find that out: opening a device can act on it. A file
  /// without any write bit cannot be opened for writing (5), whoever the process is.
  virtual error_t Open(const location_t& where, const file_request_t& request, boost::shared_ptr<file_t>& file) = 0;
  /// Whether a link stands on the way or at the end; also true when that cannot be told.
  virtual bool PassesLink(const location_t& where) = 0;
  /// Takes every write bit away, or gives the owner's when there is none.
  virtual error_t SetReadOnly(const location_t& where, bool readOnly) = 0;
  /// 183 when the name, in whatever case, is taken.
  virtual error_t CreateFolder(const location_t& where) = 0;
  /// Removes a file or a link. What a link leads to stays.
  virtual error_t DeleteFile(const location_t& where) = 0;
  /// 145 when it is not empty.
  virtual error_t RemoveFolder(const location_t& where) = 0;
  /// Replaces what has the new name, in whatever case; the entry is spelled as the new name afterwards. A link is
  /// renamed itself.
  virtual error_t Rename(const location_t& from, const location_t& to) = 0;
  virtual error_t List(const location_t& where, folder_listing_t& listing) = 0;
  virtual error_t GetFolderState(const location_t& where, folder_state_t& state) = 0;
  virtual error_t GetDiskSpace(const location_t& where, disk_space_t& space) = 0;

  /// Of any path of the host, as the administrator writes it; not confined. A name that exists is 183.
  virtual error_t CreateFolderAt(const std::string& path) = 0;
  virtual error_t GetInfoAt(const std::string& path, WIN32_FILE_ATTRIBUTE_DATA& attributes) = 0;
};

/// The system's own. Lives as long as the process.
files_t& SystemFiles();

}  // namespace platform
