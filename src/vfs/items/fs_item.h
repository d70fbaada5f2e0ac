// The contract between the virtual file system and its backends.
#pragma once

#include <netinet/in.h>

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/byte_buffer.h"
#include "foundation/exc.h"
#include "platform/file_attributes.h"
#include "platform/guid.h"
#include "platform/kernel_pipe.h"

class IFsProcCompletionCallback;

/// An item as the catalogue stores it.
struct SFsItemSpec {
  std::string path;  ///< Host path, or the remote path of an item behind a mount agent.
  bool isFolder = false;
  bool isRfsItem = false;
  GUID mountUid;                ///< Of the backup mount; nil for a host item.
  std::uint64_t rfsSize = 0;    ///< Size hint of a remote file, bytes.
  std::string allowedHostAddr;  ///< Address list; empty for none.

  bool operator==(const SFsItemSpec&) const = default;
};

/// Tells two moments of a folder apart when its entries may differ; opaque but to the backend.
struct SFsFolderState {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;

  bool operator==(const SFsFolderState&) const = default;
};

/// What a folder's backend lists.
struct SFsEnumeration {
  bool unavailable = false;  ///< Cannot be read now: leave the children of mountUid as they are.
  std::vector<std::string> names;
  GUID mountUid;
  std::optional<SFsFolderState> state;  ///< While the folder has it, the names are the same.
};

/// Target of a read. The reader owns it; it must outlive the call.
struct SFsReadBuffer {
  io::byte_buffer_t data;    ///< At least length bytes after a read.
  std::uint32_t length = 0;  ///< Bytes delivered.
  bool eof = false;          ///< The read reached the end of the file.

  /// What a reader lends who passes the bytes on without looking at them. Empty before a read.
  boost::shared_ptr<platform::kernel_pipe_t> pipe;
  /// After a read: the pipe holds the bytes, and data none.
  bool isInPipe = false;
};

/// An item of the tree. Any thread may call any operation at any time; every failure is an exception.
class IFsItem {
 public:
  virtual ~IFsItem() = default;

  virtual void GetItemSpec(SFsItemSpec& spec) = 0;
  virtual void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) = 0;
  /// Owner read and owner write of the NFS mode.
  virtual void SetPermissions(bool read, bool write) = 0;
  /// Null leaves a time alone.
  virtual void SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) = 0;
  /// Never throws for an object that is missing.
  virtual bool Exists() = 0;
  /// True and the GUID for an object of a backup mount; false, the GUID untouched, for a host object.
  virtual bool GetMountUid(GUID& mountUid) = 0;
  virtual bool IsAddressAllowed(const sockaddr_in& address) = 0;
  virtual std::string GetAllowedHostAddr() = 0;
  /// Has the processor fetch what the next call will touch first. Asks nobody, changes nothing, takes no lock.
  virtual void Foresee() const noexcept {}
};

class IFsFile : public IFsItem {
 public:
  /// May deliver less than count (bytes), and then sets eof.
  virtual void Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) = 0;
  /// Writes all count bytes or throws. data may be null when count is 0.
  virtual void Write(std::uint64_t offset, std::uint32_t count, const void* data) = 0;
  /// Whether bytes that are still in the kernel can be written without being brought into memory.
  virtual bool TakesPipes() const noexcept { return false; }
  /// As Write, where TakesPipes: data has the first bytes, and the pipe holds all others. After a failure they may be
  /// gone.
  virtual void WritePipe(std::uint64_t /*offset*/, std::uint32_t /*count*/, const void* /*data*/,
                         platform::kernel_pipe_t& /*rest*/) {
    throw exc::runtime_exc_t("The file takes no data from a pipe.");
  }
  virtual void Resize(std::uint64_t newSize) = 0;
};

/// A file whose transfers can complete by callback. Buffer and data must live until the callback ran.
class IFsAsyncFile : public IFsFile {
 public:
  virtual void AsyncRead(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer,
                         boost::shared_ptr<IFsProcCompletionCallback> callback) = 0;
  virtual void AsyncWrite(std::uint64_t offset, std::uint32_t count, const void* data,
                          boost::shared_ptr<IFsProcCompletionCallback> callback) = 0;
};

class IFsFolder : public IFsItem {
 public:
  /// Without "." and "..".
  virtual void Enumerate(SFsEnumeration& enumeration) = 0;
  /// False while whatever is asked of it waits and fails.
  virtual bool IsAvailable() { return true; }
  /// Cheap beside Enumerate. None when the backend cannot tell.
  virtual std::optional<SFsFolderState> GetState() { return std::nullopt; }
  virtual boost::shared_ptr<IFsItem> CreateFile(const std::string& name, const std::string& allowedHostAddr) = 0;
  virtual boost::shared_ptr<IFsItem> CreateSubfolder(const std::string& name, const std::string& allowedHostAddr) = 0;
  /// Empty when there is no such child.
  virtual boost::shared_ptr<IFsItem> OpenChild(const std::string& name) = 0;
  /// The object of a catalogue entry at start; empty when it has gone.
  virtual boost::shared_ptr<IFsItem> ResumeChild(const std::string& name, const SFsItemSpec& spec) = 0;
  virtual void DeleteChild(const std::string& name) = 0;
  virtual void RenameChild(const std::string& oldName, const std::string& newName) = 0;
  virtual bool IsAddressListEmpty() = 0;
  virtual bool IsRootFolder() = 0;
};
