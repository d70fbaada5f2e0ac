// Which blocks of a file lie in its overlay.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/error.h"

namespace mount_agent {

/// Bytes of a block: what the overlay takes as a whole.
inline constexpr std::uint64_t BlockSize = 4096;

/// The largest file that an overlay is made for; a write past it fails (223). With its map it fits a file of 16 TiB,
/// which is as long as files can be on ext4.
inline constexpr std::uint64_t MaxOverlaidSize = 15ULL << 40U;

/// Which blocks are in the overlay, in memory and in the overlay file.
///
/// The file is a header of one block (told in overlay_file.h) and groups; a group is one block of map and the blocks
/// that it tells of, at the places that they have: a block that was never written is a hole. A block of map is "KMAP",
/// the CRC-32 of the block with this field zero, the group's number (64 bits), and a bit for each block, the lowest
/// first. One that holds zeros alone tells of no blocks. All integers are little-endian.
///
/// Not thread-safe; its owner has the lock.
class COverlayMap {
 public:
  static constexpr std::size_t PageHeader = 16;
  static constexpr std::uint64_t BlocksOfGroup = (BlockSize - PageHeader) * 8;

  /// Where a block lies in the overlay file.
  static std::uint64_t PlaceOf(std::uint64_t block);
  /// The blocks from this one on that lie behind each other in the overlay file.
  static std::uint64_t BlocksInARow(std::uint64_t block) { return BlocksOfGroup - block % BlocksOfGroup; }

  /// Reads the map of an overlay file of the given length. Throws runtime_exc_t when it is damaged.
  void Load(int file, std::uint64_t fileSize);

  bool Has(std::uint64_t block) const;
  /// How many blocks from this one on, at most `most`, are as this one.
  std::uint64_t RunLength(std::uint64_t block, std::uint64_t most) const;
  /// The blocks are in the overlay from now on: first in the file, then here.
  platform::error_t Add(int file, std::uint64_t block, std::uint64_t count);
  /// No block from this one on is in the overlay any more. Does nothing to the file when there was none.
  platform::error_t RemoveFrom(int file, std::uint64_t block);

 private:
  using page_t = std::array<std::uint8_t, BlockSize>;

  platform::error_t Store(int file, std::uint64_t group, page_t& page);
  /// The group's page, or a new one.
  std::unique_ptr<page_t> CopyOf(std::uint64_t group) const;

  std::vector<std::unique_ptr<page_t>> pages_;  ///< One a group; none for a group without a block.
};

}  // namespace mount_agent
