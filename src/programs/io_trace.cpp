#include "programs/io_trace.h"

namespace io_trace::impl {
namespace {

/// What stands for a handle too short to hold a FID.
constexpr std::uint64_t NoFid = UINT64_MAX;

std::uint64_t FidOf(const nfs_fh3& file) noexcept {
  return file.size < sizeof(std::uint64_t) ? NoFid : FidFromHandle(file);
}

}  // namespace

void WriteBegin(std::uint32_t eventType, const nfs_fh3& file, std::uint64_t offset, std::uint32_t count) noexcept {
  perf::WriteRecord(eventType, perf::io_begin_t{FidOf(file), offset, count});
}

void WriteEnd(std::uint32_t eventType, const nfs_fh3& file, std::uint64_t offset, bool success) noexcept {
  perf::WriteRecord(eventType, perf::io_end_t{FidOf(file), offset, static_cast<std::uint8_t>(success ? 1 : 0)});
}

}  // namespace io_trace::impl
