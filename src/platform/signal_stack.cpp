#include "platform/signal_stack.h"

#include <sys/mman.h>

#include <cstddef>

namespace platform {

namespace {

/// A crash handler keeps texts and paths on it and calls a debugging library.
constexpr std::size_t Size = std::size_t{256} << 10;
/// What runs over the end faults, instead of writing over what lies below.
constexpr std::size_t GuardSize = 4096;

}  // namespace

signal_stack_t::signal_stack_t() noexcept {
  void* const place = ::mmap(nullptr, GuardSize + Size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (place == MAP_FAILED)
    return;
  stack_t stack{};
  stack.ss_sp = static_cast<char*>(place) + GuardSize;
  stack.ss_size = Size;
  if (::mprotect(stack.ss_sp, Size, PROT_READ | PROT_WRITE) == 0 && ::sigaltstack(&stack, &old_) == 0) {
    place_ = place;
  } else {
    ::munmap(place, GuardSize + Size);
  }
}

signal_stack_t::~signal_stack_t() {
  if (place_ == nullptr)
    return;
  // A handler that still runs on it keeps it.
  if (::sigaltstack(&old_, nullptr) == 0)
    ::munmap(place_, GuardSize + Size);
}

}  // namespace platform
