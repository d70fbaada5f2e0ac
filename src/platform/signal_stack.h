// A stack for the handlers of signals.
#pragma once

#include <signal.h>

namespace platform {

/// Gives the calling thread a second stack that signal handlers run on, so that a thread whose own stack has overflowed
/// or is damaged can still tell of it. On the thread's own stack, outermost; one a thread. Without address space for it
/// the thread goes on as it is, and in the end it has the one back that it had before. Its pages cost memory only once
/// a handler touches them.
class signal_stack_t {
 public:
  signal_stack_t() noexcept;
  signal_stack_t(const signal_stack_t&) = delete;
  signal_stack_t& operator=(const signal_stack_t&) = delete;
  ~signal_stack_t();

 private:
  void* place_ = nullptr;
  ::stack_t old_{};
};

}  // namespace platform
