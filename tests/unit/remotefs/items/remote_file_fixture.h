// A file behind a test's agent.
#pragma once

#include <boost/make_shared.hpp>
#include <cstdint>
#include <numeric>
#include <string>

#include "remotefs/items/remote_fs_file.h"
#include "support/captured_log.h"
#include "support/failure_text.h"
#include "support/manual_clock.h"
#include "support/remote_mount.h"
#include "vfs/items/fs_proc_invoker.h"

namespace test {

inline constexpr const char* TimedOut = "Timed out waiting for the response from restore agent.";
inline constexpr const char* Hanging = "Pipe pool is hanging. Base pipe name: [vm1].";
inline constexpr std::uint32_t OpenCommand = 1;
inline constexpr std::uint32_t ReadCommand = 2;
inline constexpr std::uint32_t WriteCommand = 3;
inline constexpr std::uint32_t GetSizeCommand = 4;

inline Bytes Counting(std::size_t size) {
  Bytes bytes(size);
  std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
  return bytes;
}

inline Bytes OpenRequest(const std::string& path) {
  return WireNumber(OpenCommand) + WireString(path);
}

inline Bytes GetSizeRequest(std::int32_t handle) {
  return WireNumber(GetSizeCommand) + WireNumber(handle);
}

class FileTest : public RemoteMountFixture {
 protected:
  FileTest() {
    mountUid.bytes[3] = 77;
    // It would tell the log of itself whenever it likes.
    connector->GetInvoker()->Stop();
  }

  /// As a folder opens it.
  boost::shared_ptr<CRemoteFsFile> OpenFile(const std::string& path, std::uint64_t sizeHint = 0) const {
    SRemoteHandle handle;
    {
      const auto client = connector->GetClient();
      handle = {client->Open(path), client.Connection()};
    }
    return boost::make_shared<CRemoteFsFile>(connector, path, mountUid, handle, sizeHint);
  }
  boost::shared_ptr<CRemoteFsFile> MakePlaceholder(const std::string& path, std::uint64_t sizeHint) const {
    return boost::make_shared<CRemoteFsFile>(connector, path, mountUid, SRemoteHandle{}, sizeHint);
  }
  static WIN32_FILE_ATTRIBUTE_DATA Attributes(CRemoteFsFile& file) {
    WIN32_FILE_ATTRIBUTE_DATA attributes;
    file.GetAttributes(attributes);
    return attributes;
  }
  static std::uint64_t Size(CRemoteFsFile& file) { return Attributes(file).Size(); }
  static Bytes Delivered(const SFsReadBuffer& buffer) {
    return {buffer.data.begin(), buffer.data.begin() + buffer.length};
  }
  FILETIME Now() const {
    constexpr std::int64_t NanosecondsPerSecond = 1000000000;
    const std::int64_t now = clock.WallNanoseconds();
    return platform::FiletimeFromTimespec({now / NanosecondsPerSecond, now % NanosecondsPerSecond});
  }

  GUID mountUid;
  ManualClock clock;
  const ScopedClock scopedClock{clock};
  boost::shared_ptr<CRemoteFsConnector> connector = Connected();
  SFsReadBuffer buffer;
};

}  // namespace test
