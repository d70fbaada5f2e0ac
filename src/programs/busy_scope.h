// How busy the threads are that run procedures.
#pragma once

#include "foundation/perf_logger.h"

/// Counts the time of its life as busy time of the calling thread while the performance log runs. About once a second
/// a thread that works tells its share there (perf::event::ThreadBusy). On the stack.
class CBusyScope {
 public:
  CBusyScope() noexcept : isOn_(perf::IsOn()) {
    if (isOn_) [[unlikely]]
      Begin();
  }
  CBusyScope(const CBusyScope&) = delete;
  CBusyScope& operator=(const CBusyScope&) = delete;
  ~CBusyScope() {
    if (isOn_) [[unlikely]]
      End();
  }

 private:
  static void Begin() noexcept;
  static void End() noexcept;

  const bool isOn_;
};
