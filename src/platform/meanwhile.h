// What a thread has left to do while it would only wait.
#pragma once

#include <functional>

namespace platform {

/// While one lives, its thread does the work each time that it has asked another process for something and is about to
/// wait for the answer: what can be put off until then costs no time. The work neither throws nor waits nor asks, and
/// may have nothing to do. One a thread, of the thread that made it.
class meanwhile_t {
 public:
  explicit meanwhile_t(std::function<void()> work);
  meanwhile_t(const meanwhile_t&) = delete;
  meanwhile_t& operator=(const meanwhile_t&) = delete;
  ~meanwhile_t();

  /// For who is about to wait: does the calling thread's work, if it has any.
  static void Work() noexcept;

 private:
  const std::function<void()> work_;
};

}  // namespace platform
