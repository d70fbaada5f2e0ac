#include "foundation/crash/deinit_seq.h"

#include <sched.h>

#include <ctime>
#include <exception>
#include <utility>

#include "foundation/crash/guard.h"

namespace crash {

namespace {

constexpr std::uint32_t StepLimitMs = 10000;
constexpr int LockTries = 1000;
constexpr std::timespec BetweenTries{0, 1000000};

}  // namespace

deinit_seq_t::registration_t::registration_t(registration_t&& other) noexcept
    : sequence_(std::exchange(other.sequence_, nullptr)), place_(other.place_) {}

deinit_seq_t::registration_t& deinit_seq_t::registration_t::operator=(registration_t&& other) noexcept {
  Reset();
  sequence_ = std::exchange(other.sequence_, nullptr);
  place_ = other.place_;
  return *this;
}

void deinit_seq_t::registration_t::Reset() noexcept {
  if (sequence_ == nullptr)
    return;
  steps_t taken;
  sequence_->Lock();
  taken.splice(taken.begin(), sequence_->steps_, place_);
  sequence_->Unlock();
  sequence_ = nullptr;
}

deinit_seq_t::registration_t deinit_seq_t::Add(boost::shared_ptr<deinit_step_t> step) {
  steps_t added{std::move(step)};
  const auto place = added.begin();
  Lock();
  steps_.splice(steps_.end(), added);
  Unlock();
  return {*this, place};
}

bool deinit_seq_t::Run(failure_t& failure) noexcept {
  bool isGood = true;
  const bool isLocked = LockForAWhile();
  for (const boost::shared_ptr<deinit_step_t>& step : steps_) {
    auto run = [&] {
      try {
        step->Run();
      } catch (const std::exception& exception) {
        failure.Add(exception.what());
        isGood = false;
      }
    };
    isGood = Guarded(StepLimitMs, run, failure) && isGood;
  }
  if (isLocked)
    Unlock();
  return isGood;
}

/// Only to link or unlink an element: never held for long.
void deinit_seq_t::Lock() noexcept {
  while (locked_.exchange(true, std::memory_order_acquire))
    ::sched_yield();
}

bool deinit_seq_t::LockForAWhile() noexcept {
  for (int tries = 0; locked_.exchange(true, std::memory_order_acquire); ++tries) {
    if (tries == LockTries)
      return false;
    ::nanosleep(&BetweenTries, nullptr);
  }
  return true;
}

}  // namespace crash
