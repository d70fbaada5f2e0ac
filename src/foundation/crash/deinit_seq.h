// What is still to be put in order when the process crashes.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <list>

#include "foundation/dump/text.h"

namespace crash {

/// One step. After a crash it runs on the crashed thread, in a signal handler, under a limit of time; a fault inside
/// ends the step alone. Best without the heap and without locks, which the crashed thread may hold.
class deinit_step_t {
 public:
  virtual void Run() = 0;
  virtual ~deinit_step_t() = default;
};

/// The ordered list of steps. Any thread.
class deinit_seq_t {
 public:
  using steps_t = std::list<boost::shared_ptr<deinit_step_t>>;

  /// Keeps a step in the sequence, which must live longer.
  class registration_t {
   public:
    registration_t() = default;
    registration_t(deinit_seq_t& sequence, steps_t::iterator place) : sequence_(&sequence), place_(place) {}
    registration_t(registration_t&& other) noexcept;
    registration_t& operator=(registration_t&& other) noexcept;
    ~registration_t() { Reset(); }
    void Reset() noexcept;

   private:
    deinit_seq_t* sequence_ = nullptr;
    steps_t::iterator place_;
  };

  [[nodiscard]] registration_t Add(boost::shared_ptr<deinit_step_t> step);

  /// After a crash: runs all steps in their order, each for itself. False when one of them failed; the texts tell
  /// which way. A list that the crashed thread was changing is not waited for.
  bool Run(failure_t& failure) noexcept;

 private:
  void Lock() noexcept;
  bool LockForAWhile() noexcept;
  void Unlock() noexcept { locked_.store(false, std::memory_order_release); }

  /// Guards the list. No mutex: whoever holds it may be the thread that has crashed.
  std::atomic<bool> locked_{false};
  steps_t steps_;
};

}  // namespace crash
