// Locks that may be held for moments only.
#pragma once

// What builds for debugging have and others have not; the release build keeps its plain assertions.
#ifdef _GLIBCXX_ASSERTIONS
#define KELVO_CHECK_LOCKS
#endif

namespace platform {

#ifdef KELVO_CHECK_LOCKS

/// A mutex that must not be held over an operation that may take its time: a call of the host's file system, or one
/// that waits for a mount agent. Debug builds count how many of them a thread holds, and CheckNoBriefLock looks; in
/// other builds it is the mutex itself, and the check is nothing.
template <typename Mutex>
class brief_mutex_t {
 public:
  void lock();
  bool try_lock();
  void unlock();

 private:
  Mutex mutex_;
};

namespace brief_lock {

void NoteLocked() noexcept;
void NoteUnlocked() noexcept;

}  // namespace brief_lock

template <typename Mutex>
void brief_mutex_t<Mutex>::lock() {
  mutex_.lock();
  brief_lock::NoteLocked();
}

template <typename Mutex>
bool brief_mutex_t<Mutex>::try_lock() {
  const bool isLocked = mutex_.try_lock();
  if (isLocked)
    brief_lock::NoteLocked();
  return isLocked;
}

template <typename Mutex>
void brief_mutex_t<Mutex>::unlock() {
  brief_lock::NoteUnlocked();
  mutex_.unlock();
}

/// Ends the process, with a line on standard error that names the operation, when the calling thread holds one.
void CheckNoBriefLock(const char* operation) noexcept;

#else

template <typename Mutex>
using brief_mutex_t = Mutex;

inline void CheckNoBriefLock(const char* /*operation*/) noexcept {}

#endif

}  // namespace platform
