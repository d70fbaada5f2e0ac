// A lock behind an interface, for code that is given its lock.
#pragma once

#include <mutex>

namespace synch {

/// A lock that its holder may take again. Works with std::lock_guard.
class CAbstractLock {
 public:
  virtual ~CAbstractLock() = default;
  virtual void Lock() = 0;
  virtual void Unlock() noexcept = 0;

  void lock() { Lock(); }
  void unlock() noexcept { Unlock(); }
};

class CCriticalSection final : public CAbstractLock {
 public:
  void Lock() override { mutex_.lock(); }
  void Unlock() noexcept override { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

}  // namespace synch
