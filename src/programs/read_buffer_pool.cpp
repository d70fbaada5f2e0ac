#include "programs/read_buffer_pool.h"

#include <utility>

CReadBufferPool& CReadBufferPool::Instance() {
  static auto* const pool = new CReadBufferPool;
  return *pool;
}

boost::shared_ptr<SFsReadBuffer> CReadBufferPool::Acquire() {
  std::unique_ptr<SFsReadBuffer> buffer;
  {
    const std::lock_guard guard(lock_);
    free_.reserve(MaxFree);
    if (!free_.empty()) {
      buffer = std::move(free_.back());
      free_.pop_back();
    }
  }
  if (buffer == nullptr)
    buffer = std::make_unique<SFsReadBuffer>();
  return {buffer.release(), [this](SFsReadBuffer* used) { Release(std::unique_ptr<SFsReadBuffer>(used)); }};
}

void CReadBufferPool::Release(std::unique_ptr<SFsReadBuffer> buffer) noexcept {
  if (buffer->data.capacity() > MaxBufferSize)
    return;
  buffer->data.clear();
  buffer->length = 0;
  buffer->eof = false;
  buffer->pipe.reset();
  buffer->isInPipe = false;
  const std::lock_guard guard(lock_);
  if (free_.size() < MaxFree)
    free_.push_back(std::move(buffer));
}

std::size_t CReadBufferPool::FreeCount() const {
  const std::lock_guard guard(lock_);
  return free_.size();
}
