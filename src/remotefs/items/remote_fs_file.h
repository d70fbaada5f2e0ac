// A file of a backup, as a mount agent serves it.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <mutex>
#include <string>

#include "remotefs/items/remote_fs_item.h"
#include "vfs/items/fs_item.h"

/// A file as the agent knows it, and on which connect it said so.
struct SRemoteHandle {
  static constexpr std::int32_t None = -1;

  std::int32_t handle = None;
  std::uint64_t connection = 0;
};

/// Answers for its attributes also while the agent is away: with the size that was known last. Reads and writes fail
/// then. Any thread; each operation takes a client of the connector for its length.
///
/// A handle is never used on another connection than its own, where it could be that of another file: the first
/// operation after a reconnection opens the file anew.
class CRemoteFsFile : public CRemoteFsItem<IFsFile> {
 public:
  /// sizeHint: bytes. Without a handle the file waits for the agent; with one, its size is asked at once, and a failure
  /// is thrown as "Failed to open file [%1] using pipe [%2]." with its cause.
  CRemoteFsFile(boost::shared_ptr<CRemoteFsConnector> connector, std::string path, const GUID& mountUid,
                const SRemoteHandle& handle, std::uint64_t sizeHint);

  void GetItemSpec(SFsItemSpec& spec) override;
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) override;
  void Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) override;
  void Write(std::uint64_t offset, std::uint32_t count, const void* data) override {
    WriteFrom(offset, count, data, nullptr);
  }
  bool TakesPipes() const noexcept override { return true; }
  void WritePipe(std::uint64_t offset, std::uint32_t count, const void* data, platform::kernel_pipe_t& rest) override {
    WriteFrom(offset, count, data, &rest);
  }
  void Resize(std::uint64_t newSize) override;

  /// Asks the agent for a handle. notFound: the agent has no such file any more, and nothing has changed here.
  void Reopen(bool& notFound);

 private:
  void WriteFrom(std::uint64_t offset, std::uint32_t count, const void* data, platform::kernel_pipe_t* rest);
  SRemoteHandle Handle() const;
  /// The file's handle on the client's connection.
  std::int32_t HandleOn(const CRemoteVfsClientHolder& client);
  bool OpenOn(const CRemoteVfsClientHolder& client, std::int32_t& handle);
  void RefreshAttributes();

  mutable std::mutex lock_;  // Guards all below.
  SRemoteHandle handle_;
  WIN32_FILE_ATTRIBUTE_DATA attributes_;
};
