#include "kelvo-mount-agent/overlay_map.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "foundation/exc.h"
#include "kelvo-mount-agent/host_io.h"
#include "kelvo-mount-agent/little_endian.h"

namespace mount_agent {
namespace {

namespace error = platform::error;

constexpr std::uint32_t PageMagic = 0x50414D4B;  // "KMAP"
constexpr std::size_t CrcAt = 4;
constexpr std::size_t GroupAt = 8;
constexpr std::uint64_t BytesOfGroup = (COverlayMap::BlocksOfGroup + 1) * BlockSize;

std::uint64_t PlaceOfPage(std::uint64_t group) {
  return BlockSize + group * BytesOfGroup;
}

std::uint8_t MaskOf(std::uint64_t bit) {
  return static_cast<std::uint8_t>(1U << (bit % 8));
}

}  // namespace

std::uint64_t COverlayMap::PlaceOf(std::uint64_t block) {
  return PlaceOfPage(block / BlocksOfGroup) + (1 + block % BlocksOfGroup) * BlockSize;
}

void COverlayMap::Load(int file, std::uint64_t fileSize) {
  pages_.clear();
  if (fileSize > PlaceOf(MaxOverlaidSize / BlockSize) + BlockSize)
    throw exc::runtime_exc_t("It is longer than an overlay can be.");
  for (std::uint64_t group = 0; PlaceOfPage(group) < fileSize; ++group) {
    auto page = std::make_unique<page_t>();
    std::size_t got = 0;
    const platform::error_t failure = ReadFully(file, PlaceOfPage(group), page->data(), page->size(), got);
    if (failure != error::Success)
      throw exc::win_sys_exc_t("Its map cannot be read.", failure);
    pages_.emplace_back();
    if (std::all_of(page->begin(), page->end(), [](std::uint8_t byte) { return byte == 0; }))
      continue;
    if (got != page->size())
      throw exc::runtime_exc_t("It ends in the middle of its map.");
    const std::uint32_t crc = GetAt<std::uint32_t>(page->data() + CrcAt);
    PutAt<std::uint32_t>(page->data() + CrcAt, 0);
    if (GetAt<std::uint32_t>(page->data()) != PageMagic || GetAt<std::uint64_t>(page->data() + GroupAt) != group ||
        crc != ::crc32(0, page->data(), static_cast<uInt>(page->size())))
      throw exc::runtime_exc_t("Part %1 of its map is damaged.", group + 1);
    pages_.back() = std::move(page);
    std::uint64_t last = (group + 1) * BlocksOfGroup;
    while (last > group * BlocksOfGroup && !Has(last - 1))
      --last;
    if (last > group * BlocksOfGroup && PlaceOf(last - 1) + BlockSize > fileSize)
      throw exc::runtime_exc_t("It ends before the last block that its map tells of.");
  }
}

bool COverlayMap::Has(std::uint64_t block) const {
  const std::uint64_t group = block / BlocksOfGroup;
  if (group >= pages_.size() || !pages_[group])
    return false;
  const std::uint64_t bit = block % BlocksOfGroup;
  return ((*pages_[group])[PageHeader + bit / 8] & MaskOf(bit)) != 0;
}

std::uint64_t COverlayMap::RunLength(std::uint64_t block, std::uint64_t most) const {
  const bool has = Has(block);
  std::uint64_t length = 1;
  while (length < most && Has(block + length) == has)
    ++length;
  return length;
}

platform::error_t COverlayMap::Add(int file, std::uint64_t block, std::uint64_t count) {
  while (count > 0) {
    const std::uint64_t group = block / BlocksOfGroup;
    const std::uint64_t here = std::min(count, BlocksInARow(block));
    if (Has(block) && RunLength(block, here) == here) {
      block += here;
      count -= here;
      continue;
    }
    auto page = CopyOf(group);
    for (std::uint64_t i = 0; i < here; ++i) {
      const std::uint64_t bit = (block + i) % BlocksOfGroup;
      (*page)[PageHeader + bit / 8] |= MaskOf(bit);
    }
    if (const platform::error_t failure = Store(file, group, *page); failure != error::Success)
      return failure;
    if (group >= pages_.size())
      pages_.resize(group + 1);
    pages_[group] = std::move(page);
    block += here;
    count -= here;
  }
  return error::Success;
}

platform::error_t COverlayMap::RemoveFrom(int file, std::uint64_t block) {
  for (std::uint64_t group = block / BlocksOfGroup; group < pages_.size(); ++group) {
    if (!pages_[group])
      continue;
    auto page = CopyOf(group);
    const std::uint64_t begin = group * BlocksOfGroup;
    for (std::uint64_t bit = block > begin ? block - begin : 0; bit < BlocksOfGroup; ++bit)
      (*page)[PageHeader + bit / 8] &= static_cast<std::uint8_t>(~MaskOf(bit));
    if (*page == *pages_[group])
      continue;
    if (const platform::error_t failure = Store(file, group, *page); failure != error::Success)
      return failure;
    pages_[group] = std::move(page);
  }
  return error::Success;
}

platform::error_t COverlayMap::Store(int file, std::uint64_t group, page_t& page) {
  PutAt<std::uint32_t>(page.data() + CrcAt,
                       static_cast<std::uint32_t>(::crc32(0, page.data(), static_cast<uInt>(page.size()))));
  const platform::error_t failure = WriteFully(file, PlaceOfPage(group), page.data(), page.size());
  PutAt<std::uint32_t>(page.data() + CrcAt, 0);
  return failure;
}

std::unique_ptr<COverlayMap::page_t> COverlayMap::CopyOf(std::uint64_t group) const {
  if (group < pages_.size() && pages_[group])
    return std::make_unique<page_t>(*pages_[group]);
  auto page = std::make_unique<page_t>();
  PutAt<std::uint32_t>(page->data(), PageMagic);
  PutAt<std::uint64_t>(page->data() + GroupAt, group);
  return page;
}

}  // namespace mount_agent
