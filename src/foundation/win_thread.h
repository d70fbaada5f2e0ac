// A thread on a plain handle.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/thread.h"

namespace win {

/// A thread that is started apart from its construction and joined with a limit. Logged and monitored as thread_t is;
/// what its procedure throws is logged and forgotten. One owner's thread calls the operations.
class win_thread_t {
 public:
  win_thread_t(std::string name, synch::thread_exec_proc_t procedure);
  win_thread_t(const win_thread_t&) = delete;
  win_thread_t& operator=(const win_thread_t&) = delete;
  /// Waits for a started thread's end, without a limit; on the thread itself it lets it go on alone.
  ~win_thread_t();

  /// Once. Throws win_sys_exc_t "Cannot create thread.".
  void Start();
  bool IsStarted() const noexcept { return started_; }
  /// Throws runtime_exc_t "Thread failed to stop during specified time" when the limit (milliseconds) passed. Nothing
  /// to do for a thread that was not started or is joined already.
  void Join(std::uint32_t limitMs = synch::NoLimit);
  /// Lets the thread go on alone; what it uses must be its own. There is nothing to be joined any more.
  void Detach() noexcept;
  const std::string& Name() const noexcept;

 private:
  struct state_t;

  const boost::shared_ptr<state_t> state_;
  std::uint64_t handle_ = 0;
  bool started_ = false;
  bool joined_ = false;
};

}  // namespace win
