#include "foundation/dump/arena.h"

#include <sys/mman.h>

namespace crash {

arena_t::arena_t(std::size_t size) noexcept {
  void* const place = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (place == MAP_FAILED)
    return;
  place_ = static_cast<char*>(place);
  size_ = size;
}

arena_t::~arena_t() {
  if (place_ != nullptr)
    ::munmap(place_, size_);
}

void* arena_t::TakeBytes(std::size_t size) noexcept {
  constexpr std::size_t Alignment = 16;
  if (size > Left())
    return nullptr;
  char* const taken = place_ + used_;
  const std::size_t rounded = (size + Alignment - 1) / Alignment * Alignment;
  used_ = rounded > Left() ? size_ : used_ + rounded;
  return taken;
}

}  // namespace crash
