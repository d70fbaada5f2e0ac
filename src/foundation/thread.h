// The service's threads.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "foundation/exc.h"
#include "foundation/waitable.h"

namespace boost {
class thread;
}

namespace synch {

/// What a thread runs. term_exc_t out of it is a normal end.
using thread_exec_proc_t = std::function<void()>;

/// A running thread with a role: it is told in the log at its start and at its end, and stands in the collection of
/// thread states meanwhile. Its owner's thread calls the operations; several may wait at once.
class thread_t {
 public:
  /// Starts the thread. Throws what the system throws when it cannot.
  thread_t(std::string role, boost::shared_ptr<thread_exec_proc_t> procedure);
  thread_t(std::string role, thread_exec_proc_t procedure);
  thread_t(const thread_t&) = delete;
  thread_t& operator=(const thread_t&) = delete;
  /// Waits for the end, without a limit; on the thread itself it lets it go on alone.
  ~thread_t();

  /// Joins; false when the limit (milliseconds) passed. A failure of the wait is chained under
  /// "Failed to wait for thread [%1] to finish.".
  bool WaitFor(std::uint32_t limitMs);
  /// Lets the thread go on alone; what it uses must be its own. There is nothing to be waited for any more.
  void Detach() noexcept;
  /// As WaitFor, and throws runtime_exc_t "Thread not finished within [%1] milliseconds.".
  void WaitOrThrow(std::uint32_t limitMs);

  const std::string& Role() const noexcept;
  /// What ended the thread; empty while it runs, after a normal end and after term_exc_t.
  boost::shared_ptr<exc::exc_base_t> Exception() const;

 private:
  struct state_t;

  const boost::shared_ptr<state_t> state_;
  std::unique_ptr<boost::thread> thread_;
};

}  // namespace synch
