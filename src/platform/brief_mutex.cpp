#include "platform/brief_mutex.h"

#ifdef KELVO_CHECK_LOCKS

#include <cstdio>
#include <cstdlib>

namespace platform {
namespace {

thread_local constinit unsigned held = 0;

}  // namespace

void brief_lock::NoteLocked() noexcept {
  ++held;
}

void brief_lock::NoteUnlocked() noexcept {
  --held;
}

void CheckNoBriefLock(const char* operation) noexcept {
  if (held == 0)
    return;
  std::fprintf(stderr, "A lock that is for moments is held over an operation that may take its time: %s.\n", operation);
  std::abort();
}

}  // namespace platform

#endif
