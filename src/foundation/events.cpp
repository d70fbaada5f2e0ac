#include "foundation/events.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "foundation/exc.h"

namespace synch {

manual_event_t::~manual_event_t() {
  if (descriptor_ >= 0)
    ::close(descriptor_);
}

// Always an exchange, also when the event is set already: what the caller wrote before must be seen by who resets the
// event after this.
void manual_event_t::Set() noexcept {
  std::uint32_t word = word_.load(std::memory_order_relaxed);
  while (!word_.compare_exchange_weak(word, (word & IsSetBit) != 0 ? word : word + 2 + IsSetBit,
                                      std::memory_order_seq_cst, std::memory_order_relaxed)) {
  }
  if ((word & IsSetBit) == 0)
    WakeSleepers(SIZE_MAX);
}

void manual_event_t::Reset() noexcept {
  if ((word_.fetch_and(~IsSetBit, std::memory_order_seq_cst) & IsSetBit) != 0)
    WakeSleepers(0);
}

int manual_event_t::PollDescriptor() {
  const std::lock_guard<std::mutex> guard(lock_);
  if (descriptor_ < 0) {
    const int made = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (made < 0)
      throw exc::win_sys_exc_t("Cannot create an event object.", platform::LastError());
    descriptor_ = made;
    // Each change comes by the lock from now on.
    watchers_.fetch_add(1, std::memory_order_seq_cst);
    SignalChangedLocked();
  }
  return descriptor_;
}

// Whoever comes last sees the newest state, in whatever order Set and Reset come here.
void manual_event_t::SignalChangedLocked() noexcept {
  if (descriptor_ < 0)
    return;
  const bool set = IsSet();
  if (set == descriptorSet_)
    return;
  std::uint64_t count = 1;
  const ssize_t moved = set ? ::write(descriptor_, &count, sizeof(count)) : ::read(descriptor_, &count, sizeof(count));
  if (moved == sizeof(count))
    descriptorSet_ = set;
}

}  // namespace synch
