#include "foundation/crash/stack_walk.h"

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <cstring>

#include "foundation/crash/guard.h"

namespace crash {

namespace {

constexpr std::uint32_t LimitMs = 10000;

void Walk(const ucontext_t& context, frame_t* frames, std::size_t capacity, volatile std::size_t& count) {
  ucontext_t copy;
  std::memcpy(&copy, &context, sizeof copy);
  unw_cursor_t cursor;
  if (unw_init_local2(&cursor, &copy, UNW_INIT_SIGNAL_FRAME) != 0)
    return;
  while (count < capacity) {
    unw_word_t instruction = 0;
    if (unw_get_reg(&cursor, UNW_REG_IP, &instruction) != 0 || instruction == 0)
      return;
    frame_t& frame = frames[count];
    frame.instruction = instruction;
    frame.isExact = count == 0 || unw_is_signal_frame(&cursor) > 0;
    count = count + 1;
    const bool isMore = unw_step(&cursor) > 0;
    unw_word_t word = 0;
    if (unw_get_reg(&cursor, UNW_REG_SP, &word) == 0)
      frame.address = word;
    if (!isMore)
      return;
    if (unw_get_reg(&cursor, UNW_REG_IP, &word) == 0)
      frame.returnAddress = word;
  }
}

}  // namespace

std::size_t WalkStack(const ucontext_t& context, frame_t* frames, std::size_t capacity, failure_t& failure) noexcept {
  volatile std::size_t count = 0;
  auto walk = [&] { Walk(context, frames, capacity, count); };
  // What was found until a fault is still good.
  Guarded(LimitMs, walk, failure);
  return count;
}

}  // namespace crash
