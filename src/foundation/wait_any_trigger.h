// One wait on a fixed set of numbered triggers.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "foundation/events.h"

namespace synch {

/// What an event source signals.
class trigger_sink_t {
 public:
  virtual ~trigger_sink_t() = default;
  /// id: the source's own number. Any thread.
  virtual void Trigger(std::size_t id) = 0;
};

/// Triggers 0 … count - 1, each raised or not. Any thread.
class wait_any_trigger_t {
 public:
  explicit wait_any_trigger_t(std::size_t count);

  /// Both throw runtime_exc_t for an id at or above the count.
  void Raise(std::size_t id);
  void Reset(std::size_t id);
  /// The lowest raised trigger, which is cleared by this; none when the limit (milliseconds) passed.
  std::optional<std::size_t> Wait(std::uint32_t limitMs = NoLimit);

 private:
  void CheckId(std::size_t id) const;
  std::optional<std::size_t> TakeLowest();

  std::mutex lock_;
  auto_event_t event_;
  /// Guarded by lock_.
  std::vector<bool> raised_;
};

/// Raises one trigger of a wait whenever its source signals, whatever number the source gives.
class wait_any_signaler_t : public trigger_sink_t {
 public:
  wait_any_signaler_t(boost::shared_ptr<wait_any_trigger_t> wait, std::size_t id) : wait_(std::move(wait)), id_(id) {}
  void Trigger(std::size_t) override { wait_->Raise(id_); }

 private:
  const boost::shared_ptr<wait_any_trigger_t> wait_;
  const std::size_t id_;
};

}  // namespace synch
