// The trace of READ and WRITE: what was asked of which file, when it began and how it ended.
#pragma once

#include <cstdint>

#include "foundation/perf_logger.h"
#include "vfs/nfs3/nfs_handle.h"

/// On while the performance log runs, of which its records are events. Any thread; a call that is traced begins and
/// ends on one thread. Switched off it costs a load and a branch at each end.
namespace io_trace {

namespace impl {
void WriteBegin(std::uint32_t eventType, const nfs_fh3& file, std::uint64_t offset, std::uint32_t count) noexcept;
void WriteEnd(std::uint32_t eventType, const nfs_fh3& file, std::uint64_t offset, bool success) noexcept;
}  // namespace impl

/// eventType: perf::event::ReadBegin or WriteBegin. count: bytes asked for.
inline void Begin(std::uint32_t eventType, const nfs_fh3& file, std::uint64_t offset, std::uint32_t count) noexcept {
  if (perf::IsOn()) [[unlikely]]
    impl::WriteBegin(eventType, file, offset, count);
}

/// eventType: perf::event::ReadEnd or WriteEnd. After the reply was made.
inline void End(std::uint32_t eventType, const nfs_fh3& file, std::uint64_t offset, bool success) noexcept {
  if (perf::IsOn()) [[unlikely]]
    impl::WriteEnd(eventType, file, offset, success);
}

}  // namespace io_trace
