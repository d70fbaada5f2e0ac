#include "foundation/wait_any_trigger.h"

#include <algorithm>

#include "foundation/exc.h"
#include "platform/futex.h"

namespace synch {

wait_any_trigger_t::wait_any_trigger_t(std::size_t count) : raised_(count, false) {}

void wait_any_trigger_t::CheckId(std::size_t id) const {
  if (id >= raised_.size()) {
    throw exc::runtime_exc_t(
        "Atomic trigger ID exceeds number of registered triggers. ID: [%1]. Number of registered triggers: [%2].", id,
        raised_.size());
  }
}

void wait_any_trigger_t::Raise(std::size_t id) {
  CheckId(id);
  {
    const std::lock_guard<std::mutex> guard(lock_);
    raised_[id] = true;
  }
  event_.Set();
}

void wait_any_trigger_t::Reset(std::size_t id) {
  CheckId(id);
  const std::lock_guard<std::mutex> guard(lock_);
  raised_[id] = false;
}

std::optional<std::size_t> wait_any_trigger_t::TakeLowest() {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto lowest = std::find(raised_.begin(), raised_.end(), true);
  if (lowest == raised_.end())
    return std::nullopt;
  *lowest = false;
  // The event tells one waiter alone; another one may wait for what is left.
  if (std::find(lowest, raised_.end(), true) != raised_.end())
    event_.Set();
  return static_cast<std::size_t>(lowest - raised_.begin());
}

std::optional<std::size_t> wait_any_trigger_t::Wait(std::uint32_t limitMs) {
  const platform::deadline_t deadline =
      limitMs == NoLimit ? platform::deadline_t::Never() : platform::deadline_t::After(limitMs);
  for (;;) {
    if (const auto taken = TakeLowest())
      return taken;
    // The event may be left over from a trigger that was taken or reset meanwhile.
    if (!event_.Wait(deadline.RemainingMs()))
      return TakeLowest();
  }
}

}  // namespace synch
