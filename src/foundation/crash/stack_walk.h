// The frames of a thread that has crashed.
#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>

#include "foundation/dump/text.h"

namespace crash {

struct frame_t {
  std::uint64_t instruction = 0;
  /// The stack pointer of the caller when it called.
  std::uint64_t address = 0;
  std::uint64_t returnAddress = 0;
  /// The instruction is not behind a call: the crashed frame itself, and one that a signal interrupted.
  bool isExact = false;
};

/// Fills in up to so many frames, the innermost first, and returns their number. Walks in place and without the heap;
/// a damaged stack ends the walk, which is added to the failure.
std::size_t WalkStack(const ucontext_t& context, frame_t* frames, std::size_t capacity, failure_t& failure) noexcept;

}  // namespace crash
