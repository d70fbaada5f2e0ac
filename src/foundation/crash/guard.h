// Steps after a crash that may crash or hang themselves.
#pragma once

#include <cstdint>

#include "foundation/dump/text.h"

namespace crash {

/// Runs the step on the calling thread. A fault inside (told by LeaveGuard) and the passing of the limit leave it where
/// it is: what it holds stays held, no destructor runs. False then, with the reason added. May be nested. By one thread
/// of the process at a time, which is the crashed one.
bool RunGuarded(std::uint32_t limitMs, void (*step)(void*), void* argument, failure_t& failure) noexcept;

template <typename Step>
bool Guarded(std::uint32_t limitMs, Step& step, failure_t& failure) noexcept {
  return RunGuarded(
      limitMs, [](void* argument) { (*static_cast<Step*>(argument))(); }, &step, failure);
}

/// In a handler of the signal on the thread that runs guarded steps: leaves the innermost. Returns when there is none.
void LeaveGuard(int signal) noexcept;

/// "SIGSEGV" and its like; "signal" for others.
const char* SignalName(int signal) noexcept;

}  // namespace crash
