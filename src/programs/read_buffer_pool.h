// Buffers for reads that end on another thread than the one that sends them.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "vfs/items/fs_item.h"

/// Keeps some buffers between their uses. The allocator would give the memory of a buffer that is freed by another
/// thread back to the system, and take it from there, page by page, for the next. Any thread.
class CReadBufferPool {
 public:
  static constexpr std::size_t MaxFree = 64;
  /// Larger ones are not kept.
  static constexpr std::size_t MaxBufferSize = 256U << 10;

  /// The process's pool. Never destroyed.
  static CReadBufferPool& Instance();

  CReadBufferPool() = default;
  CReadBufferPool(const CReadBufferPool&) = delete;
  CReadBufferPool& operator=(const CReadBufferPool&) = delete;

  /// An empty buffer, which comes back with its last share; the pool must outlive it.
  boost::shared_ptr<SFsReadBuffer> Acquire();
  std::size_t FreeCount() const;

 private:
  void Release(std::unique_ptr<SFsReadBuffer> buffer) noexcept;

  mutable std::mutex lock_;
  /// Guarded by lock_. The last one in is the first one out: its memory is the warmest.
  std::vector<std::unique_ptr<SFsReadBuffer>> free_;
};
