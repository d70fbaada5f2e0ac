// What guests have written to one file of the backup.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <shared_mutex>
#include <string>
#include <vector>

#include "kelvo-mount-agent/overlay_map.h"
#include "platform/error.h"
#include "platform/location.h"
#include "platform/message_pipe.h"

namespace mount_agent {

/// What an overlay belongs to. A file of another size, or that was changed since, is another file: the blocks that the
/// overlay does not have would no longer fit those that it has.
struct SSourceIdentity {
  std::string name;
  std::uint64_t size = 0;
  timespec changed{};
};

enum class overlay_use_t {
  ReadOnly,   ///< Nothing in the overlay changes.
  Write,      ///< What was written outlives the agent.
  WriteSync,  ///< And the loss of power.
};

/// A file as the guest sees it: the blocks of the overlay, and those of the source where the overlay has none.
///
/// The overlay file's first block is the header: "KELVOOVL", the version 1 (32 bits), the CRC-32 of the block with this
/// field zero, the source's size (64 bits), the time of its last change (seconds, 64 bits, and nanoseconds, 32 bits),
/// the length of its name (32 bits), the size that the guest sees (64 bits), the name. Groups of blocks follow, see
/// overlay_map.h.
///
/// A write puts the data where it belongs, then tells of its blocks in the map, then, when the file grew, of the new
/// size in the header, and is answered after that. Each step is one call that leaves a whole block or none, so whatever
/// moment the process is killed at, the file is as before the write or has some of its bytes, as on a disk; and all of
/// them once the write was answered. What lies beyond the size is zeroed before it can become part of the file.
///
/// That is for the death of the process, when the kernel keeps all that it took. When the machine loses power, what was
/// written in the last half minute or so may be lost, in any order, and the map may then tell of blocks that read as
/// zeros or as they were before. With WriteSync each step is on the disk before the next begins, and an answered write
/// survives that too.
///
/// Any thread; reads at once, writes one by one.
class COverlayFile {
 public:
  /// The name of the overlay of a file.
  static std::string FileNameOf(const std::string& sourceName);

  /// Opens the overlay of a source, if there is one.
  /// Throws runtime_exc_t "The overlay [%1] cannot be used." over the reason for one that is damaged, belongs to
  /// something else, or is used by another agent; nothing of it is changed then. Empty when there is none.
  static boost::shared_ptr<COverlayFile> OpenExisting(const std::string& folder, const SSourceIdentity& source,
                                                      overlay_use_t use);
  /// The same, and makes one if there is none.
  static boost::shared_ptr<COverlayFile> OpenOrCreate(const std::string& folder, const SSourceIdentity& source,
                                                      overlay_use_t use);

  COverlayFile(const COverlayFile&) = delete;
  COverlayFile& operator=(const COverlayFile&) = delete;

  std::uint64_t Size() const;
  /// `source` is the open file of the backup.
  platform::error_t Read(int source, std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) const;
  /// Appends where the bytes lie; false, and nothing appended, when some lie in no file: a guest sees zeros there.
  bool Locate(int source, std::uint64_t offset, std::size_t length, std::vector<platform::file_part_t>& parts) const;
  platform::error_t Write(int source, std::uint64_t offset, const void* data, std::size_t length);
  platform::error_t Flush();

 private:
  COverlayFile(platform::descriptor_t file, const SSourceIdentity& source, overlay_use_t use);

  void Load();
  platform::error_t StoreHeader(std::uint64_t size);
  /// Of what lies beyond the size, nothing stays.
  platform::error_t Trim();

  /// How many of the bytes lie in the same place as the first, either in the overlay or in the source.
  std::size_t RunLength(std::uint64_t offset, std::size_t length) const;
  platform::error_t ReadRun(int source, std::uint64_t offset, std::uint8_t* data, std::size_t length) const;
  platform::error_t ReadSource(int source, std::uint64_t offset, std::uint8_t* data, std::size_t length) const;
  platform::error_t WriteGroup(int source, std::uint64_t offset, const std::uint8_t* data, std::size_t length);
  /// Writes part of one block that is not in the overlay yet.
  platform::error_t WritePart(int source, std::uint64_t offset, const std::uint8_t* data, std::size_t length);

  const platform::descriptor_t file_;
  const SSourceIdentity source_;
  const overlay_use_t use_;

  mutable std::shared_mutex mutex_;  // Guards the rest, and what the file holds.
  COverlayMap map_;
  std::uint64_t size_ = 0;
  bool mustTrim_ = false;  ///< A write failed and may have left something beyond the size.
};

}  // namespace mount_agent
