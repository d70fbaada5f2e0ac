// The process's memory as the system and the processor see it.
#pragma once

#include <cstddef>

namespace platform {

/// Has the processor fetch memory that will be read soon, and does not wait for it. Null is nothing to fetch.
inline void Prefetch(const void* begin, std::size_t size) noexcept {
  if (begin == nullptr)
    return;
  constexpr std::size_t CacheLine = 64;
  const char* const first = static_cast<const char*>(begin);
  for (std::size_t at = 0; at < size; at += CacheLine)
    __builtin_prefetch(first + at);
  __builtin_prefetch(first + size - 1);
}

/// Gives memory that was freed back to the system, as far as whole pages of it are free. For after a phase that needed
/// much more than what follows; takes milliseconds for each GiB.
void ReturnFreeMemory() noexcept;

}  // namespace platform
