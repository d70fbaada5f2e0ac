#include "vfs/nfs3/nfs_handle.h"

#include <algorithm>

#include "foundation/exc.h"

namespace {

constexpr std::size_t FidSize = 8;

}  // namespace

bool nfs_fh3::operator==(const nfs_fh3& other) const {
  return std::ranges::equal(Bytes(), other.Bytes());
}

void nfs_fh3::Decode(CXDRReader& reader) {
  const std::span<const std::uint8_t> bytes = reader.VarLenView();
  size = static_cast<std::uint32_t>(std::min(bytes.size(), MaxSize));
  std::copy_n(bytes.begin(), size, data.begin());
}

void nfs_fh3::Encode(CXDRWriter& writer) const {
  writer.VarLenData(data.data(), size);
}

nfs_fh3 HandleFromFid(std::uint64_t fid) noexcept {
  nfs_fh3 handle;
  handle.size = nfs_fh3::OwnSize;
  for (std::size_t i = 0; i < FidSize; ++i)
    handle.data[i] = static_cast<std::uint8_t>(fid >> (8 * i));
  return handle;
}

std::uint64_t FidFromHandle(const nfs_fh3& handle) {
  if (handle.size < FidSize)
    throw exc::runtime_exc_t("Cannot generate FID from file handle.");
  std::uint64_t fid = 0;
  for (std::size_t i = 0; i < FidSize; ++i)
    fid |= static_cast<std::uint64_t>(handle.data[i]) << (8 * i);
  return fid;
}
