#include "kelvo-mount-agent/overlay_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "foundation/exc.h"
#include "kelvo-mount-agent/host_io.h"
#include "kelvo-mount-agent/little_endian.h"

namespace mount_agent {
namespace {

namespace error = platform::error;
using header_t = std::array<std::uint8_t, BlockSize>;

constexpr std::string_view Magic = "KELVOOVL";
constexpr std::uint32_t Version = 1;
constexpr std::size_t VersionAt = 8;
constexpr std::size_t CrcAt = 12;
constexpr std::size_t SourceSizeAt = 16;
constexpr std::size_t SecondsAt = 24;
constexpr std::size_t NanosecondsAt = 32;
constexpr std::size_t NameLengthAt = 36;
constexpr std::size_t SizeAt = 40;
constexpr std::size_t NameAt = 48;
constexpr std::size_t MaxName = 1024;

/// All but the check sum.
header_t MakeHeader(const SSourceIdentity& source, std::uint64_t size) {
  header_t header{};
  std::copy(Magic.begin(), Magic.end(), header.begin());
  PutAt<std::uint32_t>(&header[VersionAt], Version);
  PutAt<std::uint64_t>(&header[SourceSizeAt], source.size);
  PutAt<std::uint64_t>(&header[SecondsAt], static_cast<std::uint64_t>(source.changed.tv_sec));
  PutAt<std::uint32_t>(&header[NanosecondsAt], static_cast<std::uint32_t>(source.changed.tv_nsec));
  PutAt<std::uint32_t>(&header[NameLengthAt], static_cast<std::uint32_t>(source.name.size()));
  PutAt<std::uint64_t>(&header[SizeAt], size);
  std::copy(source.name.begin(), source.name.end(), header.begin() + NameAt);
  return header;
}

std::uint32_t CrcOf(const header_t& header) {
  return static_cast<std::uint32_t>(::crc32(0, header.data(), static_cast<uInt>(header.size())));
}

/// Returns the size that the guest sees.
std::uint64_t CheckHeader(header_t& header, const SSourceIdentity& source) {
  if (!std::equal(Magic.begin(), Magic.end(), header.begin()))
    throw exc::runtime_exc_t("It is no overlay, or its beginning is damaged.");
  if (GetAt<std::uint32_t>(&header[VersionAt]) != Version)
    throw exc::runtime_exc_t("It was made by another version of the agent.");
  const std::uint32_t crc = GetAt<std::uint32_t>(&header[CrcAt]);
  PutAt<std::uint32_t>(&header[CrcAt], 0);
  if (crc != CrcOf(header))
    throw exc::runtime_exc_t("Its header is damaged.");
  const std::size_t nameLength = std::min<std::size_t>(GetAt<std::uint32_t>(&header[NameLengthAt]), MaxName);
  const std::string name(reinterpret_cast<const char*>(&header[NameAt]), nameLength);
  if (name != source.name)
    throw exc::runtime_exc_t("It belongs to the file [%1], not to [%2].", name, source.name);
  const std::uint64_t sourceSize = GetAt<std::uint64_t>(&header[SourceSizeAt]);
  if (sourceSize != source.size)
    throw exc::runtime_exc_t("It belongs to a file of %1 bytes, and [%2] has %3.", sourceSize, name, source.size);
  const std::uint64_t size = GetAt<std::uint64_t>(&header[SizeAt]);
  if (header != MakeHeader(source, size))
    throw exc::runtime_exc_t("The file [%1] was changed after it was made.", name);
  if (size < source.size || (size > source.size && size > MaxOverlaidSize))
    throw exc::runtime_exc_t("Its header is damaged.");
  return size;
}

/// A descriptor for the overlay, locked. Not open when there is none and none is to be made.
platform::descriptor_t OpenLocked(const std::string& path, overlay_use_t use, bool create) {
  int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (use == overlay_use_t::ReadOnly ? O_RDONLY : O_RDWR);
  if (use == overlay_use_t::WriteSync)
    flags |= O_DSYNC;
  platform::descriptor_t file(::open(path.c_str(), create ? flags | O_CREAT : flags, 0600));
  if (!file.IsOpen()) {
    if (errno == ENOENT && !create)
      return file;
    throw exc::win_sys_exc_t("It cannot be opened.", platform::LastError());
  }
  struct stat found {};
  if (::fstat(file.Get(), &found) != 0 || !S_ISREG(found.st_mode))
    throw exc::runtime_exc_t("It is no regular file.");
  if (::flock(file.Get(), (use == overlay_use_t::ReadOnly ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0)
    throw exc::runtime_exc_t("Another agent uses it.");
  return file;
}

}  // namespace

std::string COverlayFile::FileNameOf(const std::string& sourceName) {
  static constexpr std::string_view Suffix = ".overlay";
  static constexpr std::size_t LongestName = 255;
  if (sourceName.size() + Suffix.size() <= LongestName)
    return sourceName + std::string(Suffix);
  // The header has the whole name; two that begin alike do not get each other's blocks.
  const auto crc = ::crc32(0, reinterpret_cast<const Bytef*>(sourceName.data()), static_cast<uInt>(sourceName.size()));
  return sourceName.substr(0, 220) + '~' + std::to_string(crc) + std::string(Suffix);
}

boost::shared_ptr<COverlayFile> COverlayFile::OpenExisting(const std::string& folder, const SSourceIdentity& source,
                                                           overlay_use_t use) {
  const std::string path = folder + '/' + FileNameOf(source.name);
  try {
    platform::descriptor_t file = OpenLocked(path, use, false);
    if (!file.IsOpen())
      return {};
    boost::shared_ptr<COverlayFile> overlay(new COverlayFile(std::move(file), source, use));
    overlay->Load();
    return overlay;
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("The overlay [%1] cannot be used.", failure, path);
  }
}

boost::shared_ptr<COverlayFile> COverlayFile::OpenOrCreate(const std::string& folder, const SSourceIdentity& source,
                                                           overlay_use_t use) {
  const std::string path = folder + '/' + FileNameOf(source.name);
  try {
    boost::shared_ptr<COverlayFile> overlay(new COverlayFile(OpenLocked(path, use, true), source, use));
    overlay->Load();
    return overlay;
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("The overlay [%1] cannot be used.", failure, path);
  }
}

COverlayFile::COverlayFile(platform::descriptor_t file, const SSourceIdentity& source, overlay_use_t use)
    : file_(std::move(file)), source_(source), use_(use) {}

void COverlayFile::Load() {
  if (source_.name.size() > MaxName)
    throw exc::runtime_exc_t("The name of the file is too long.");
  struct stat found {};
  if (::fstat(file_.Get(), &found) != 0)
    throw exc::win_sys_exc_t("It cannot be read.", platform::LastError());
  size_ = source_.size;
  // Killed between making the file and writing its header, or only looking at what another agent is about to make.
  if (found.st_size == 0) {
    if (use_ != overlay_use_t::ReadOnly) {
      if (const platform::error_t failure = StoreHeader(size_); failure != error::Success)
        throw exc::win_sys_exc_t("Its header cannot be written.", failure);
    }
    return;
  }
  header_t header{};
  std::size_t got = 0;
  if (const platform::error_t failure = ReadFully(file_.Get(), 0, header.data(), header.size(), got);
      failure != error::Success)
    throw exc::win_sys_exc_t("It cannot be read.", failure);
  if (got != header.size())
    throw exc::runtime_exc_t("It is shorter than its header.");
  size_ = CheckHeader(header, source_);
  map_.Load(file_.Get(), static_cast<std::uint64_t>(found.st_size));
  if (use_ == overlay_use_t::ReadOnly)
    return;
  if (const platform::error_t failure = Trim(); failure != error::Success)
    throw exc::win_sys_exc_t("It cannot be written.", failure);
}

std::uint64_t COverlayFile::Size() const {
  const std::shared_lock lock(mutex_);
  return size_;
}

platform::error_t COverlayFile::Read(int source, std::uint64_t offset, void* data, std::size_t length,
                                     std::size_t& outRead) const {
  const std::shared_lock lock(mutex_);
  outRead = 0;
  if (offset >= size_)
    return error::Success;
  length = static_cast<std::size_t>(std::min<std::uint64_t>(length, size_ - offset));
  auto* bytes = static_cast<std::uint8_t*>(data);
  while (outRead < length) {
    const std::uint64_t at = offset + outRead;
    const std::size_t run = RunLength(at, length - outRead);
    if (const platform::error_t failure = ReadRun(source, at, bytes + outRead, run); failure != error::Success)
      return failure;
    outRead += run;
  }
  return error::Success;
}

std::size_t COverlayFile::RunLength(std::uint64_t offset, std::size_t length) const {
  const std::uint64_t block = offset / BlockSize;
  const std::uint64_t lastBlock = (offset + length - 1) / BlockSize;
  const std::uint64_t inRow = std::min(lastBlock - block + 1, COverlayMap::BlocksInARow(block));
  const std::uint64_t end = (block + map_.RunLength(block, inRow)) * BlockSize;
  return static_cast<std::size_t>(std::min<std::uint64_t>(end - offset, length));
}

bool COverlayFile::Locate(int source, std::uint64_t offset, std::size_t length,
                          std::vector<platform::file_part_t>& parts) const {
  const std::shared_lock lock(mutex_);
  if (offset > size_ || length > size_ - offset)
    return false;
  const std::size_t before = parts.size();
  while (length > 0) {
    const std::size_t run = RunLength(offset, length);
    const std::uint64_t block = offset / BlockSize;
    const bool isOverlaid = map_.Has(block);
    if (!isOverlaid && (offset > source_.size || run > source_.size - offset)) {
      parts.resize(before);
      return false;
    }
    parts.push_back({isOverlaid ? file_.Get() : source,
                     isOverlaid ? COverlayMap::PlaceOf(block) + offset % BlockSize : offset, run});
    offset += run;
    length -= run;
  }
  return true;
}

platform::error_t COverlayFile::ReadRun(int source, std::uint64_t offset, std::uint8_t* data,
                                        std::size_t length) const {
  const std::uint64_t block = offset / BlockSize;
  if (!map_.Has(block))
    return ReadSource(source, offset, data, length);
  std::size_t got = 0;
  const platform::error_t failure =
      ReadFully(file_.Get(), COverlayMap::PlaceOf(block) + offset % BlockSize, data, length, got);
  // The overlay holds whole blocks; one that does not was cut while it was in use.
  return failure == error::Success && got != length ? error::IoDevice : failure;
}

platform::error_t COverlayFile::ReadSource(int source, std::uint64_t offset, std::uint8_t* data,
                                           std::size_t length) const {
  const std::uint64_t left = offset < source_.size ? source_.size - offset : 0;
  const std::size_t there = static_cast<std::size_t>(std::min<std::uint64_t>(left, length));
  std::size_t got = 0;
  if (there > 0) {
    if (const platform::error_t failure = ReadFully(source, offset, data, there, got); failure != error::Success)
      return failure;
    if (got != there)
      return error::IoDevice;
  }
  std::memset(data + got, 0, length - got);
  return error::Success;
}

platform::error_t COverlayFile::Write(int source, std::uint64_t offset, const void* data, std::size_t length) {
  const std::unique_lock lock(mutex_);
  if (use_ == overlay_use_t::ReadOnly)
    return error::AccessDenied;
  if (length == 0)
    return error::Success;
  if (offset > MaxOverlaidSize || length > MaxOverlaidSize - offset)
    return error::FileTooLarge;
  const std::uint64_t newSize = std::max<std::uint64_t>(size_, offset + length);
  if (newSize > size_ && mustTrim_) {
    if (const platform::error_t failure = Trim(); failure != error::Success)
      return failure;
  }
  mustTrim_ = mustTrim_ || newSize > size_;
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::size_t done = 0;
  while (done < length) {
    const std::uint64_t at = offset + done;
    const std::uint64_t block = at / BlockSize;
    const std::uint64_t end = (block + COverlayMap::BlocksInARow(block)) * BlockSize;
    const std::size_t part = static_cast<std::size_t>(std::min<std::uint64_t>(end - at, length - done));
    if (const platform::error_t failure = WriteGroup(source, at, bytes + done, part); failure != error::Success)
      return failure;
    done += part;
  }
  if (newSize == size_)
    return error::Success;
  if (const platform::error_t failure = StoreHeader(newSize); failure != error::Success)
    return failure;
  size_ = newSize;
  mustTrim_ = false;
  return error::Success;
}

platform::error_t COverlayFile::WriteGroup(int source, std::uint64_t offset, const std::uint8_t* data,
                                           std::size_t length) {
  const std::uint64_t first = offset / BlockSize;
  const std::uint64_t end = (offset + length + BlockSize - 1) / BlockSize;
  const std::size_t head =
      map_.Has(first) || offset % BlockSize == 0
          ? 0
          : static_cast<std::size_t>(std::min<std::uint64_t>(length, BlockSize - offset % BlockSize));
  const std::uint64_t tailLength = (offset + length) % BlockSize;
  const bool partialTail = head < length && tailLength != 0 && !map_.Has(end - 1);
  const std::size_t tail =
      partialTail ? static_cast<std::size_t>(std::min<std::uint64_t>(tailLength, length - head)) : 0;
  const std::size_t middle = length - head - tail;
  platform::error_t failure = error::Success;
  if (head > 0)
    failure = WritePart(source, offset, data, head);
  if (failure == error::Success && middle > 0) {
    const std::uint64_t at = offset + head;
    failure = WriteFully(file_.Get(), COverlayMap::PlaceOf(at / BlockSize) + at % BlockSize, data + head, middle);
  }
  if (failure == error::Success && tail > 0)
    failure = WritePart(source, offset + head + middle, data + head + middle, tail);
  // The map comes last: a block that it tells of is whole.
  return failure == error::Success ? map_.Add(file_.Get(), first, end - first) : failure;
}

platform::error_t COverlayFile::WritePart(int source, std::uint64_t offset, const std::uint8_t* data,
                                          std::size_t length) {
  std::array<std::uint8_t, BlockSize> whole;
  const std::uint64_t block = offset / BlockSize;
  if (const platform::error_t failure = ReadSource(source, block * BlockSize, whole.data(), whole.size());
      failure != error::Success)
    return failure;
  std::memcpy(whole.data() + offset % BlockSize, data, length);
  return WriteFully(file_.Get(), COverlayMap::PlaceOf(block), whole.data(), whole.size());
}

platform::error_t COverlayFile::StoreHeader(std::uint64_t size) {
  header_t header = MakeHeader(source_, size);
  PutAt<std::uint32_t>(&header[CrcAt], CrcOf(header));
  return WriteFully(file_.Get(), 0, header.data(), header.size());
}

platform::error_t COverlayFile::Trim() {
  const std::uint64_t blocks = (size_ + BlockSize - 1) / BlockSize;
  platform::error_t failure = map_.RemoveFrom(file_.Get(), blocks);
  const std::uint64_t kept = size_ % BlockSize;
  if (failure == error::Success && kept != 0 && map_.Has(blocks - 1)) {
    static constexpr std::array<std::uint8_t, BlockSize> Zeros{};
    failure = WriteFully(file_.Get(), COverlayMap::PlaceOf(blocks - 1) + kept, Zeros.data(), BlockSize - kept);
  }
  mustTrim_ = failure != error::Success;
  return failure;
}

platform::error_t COverlayFile::Flush() {
  if (use_ == overlay_use_t::ReadOnly || ::fdatasync(file_.Get()) == 0)
    return error::Success;
  return platform::LastError();
}

}  // namespace mount_agent
