#include "foundation/waitable.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "platform/futex.h"

namespace synch {

namespace {

constexpr std::uint32_t MinSpins = 16;
constexpr std::uint32_t MaxSpins = 512;

/// Looks before the next sleep: grows while spinning pays, shrinks while it does not.
thread_local constinit std::uint32_t spins = 128;

constexpr std::size_t MaxThings = 64;

}  // namespace

/// One thread asleep; on its stack.
struct waitable_t::sleeper_t {
  /// 1: look again.
  std::atomic<std::uint32_t> word{0};
};

/// The sleeper in the list of one of the things that it waits for.
struct waitable_t::place_t {
  sleeper_t* sleeper = nullptr;
  place_t* previous = nullptr;
  place_t* next = nullptr;
  /// Told to look, and has not begun to: the next signal is for another sleeper.
  std::atomic<bool> told{false};
  /// The thing's count of releases when the sleeper came.
  std::uint32_t releaseCount = 0;
};

void waitable_t::WakeWatchers(std::size_t count) noexcept {
  std::array<const std::atomic<std::uint32_t>*, 16> wake;
  std::size_t wakes = 0;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    SignalChangedLocked();
    for (place_t* place = firstPlace_; place != nullptr && count > 0; place = place->next) {
      if (place->told.load(std::memory_order_seq_cst))
        continue;
      --count;
      place->told.store(true, std::memory_order_seq_cst);
      if (place->sleeper->word.exchange(1, std::memory_order_seq_cst) != 0)
        continue;
      if (wakes == wake.size()) {
        platform::FutexWake(wake.front(), 1);
        wake.front() = wake[--wakes];
      }
      wake[wakes++] = &place->sleeper->word;
    }
  }
  // Without the lock, so that who wakes up does not run into it. The sleeper may have left meanwhile: only the address
  // is used, and a wake too many does no harm.
  for (std::size_t i = 0; i < wakes; ++i)
    platform::FutexWake(wake[i], 1);
}

void waitable_t::Enlist(place_t& place) noexcept {
  const std::lock_guard<std::mutex> guard(lock_);
  place.previous = lastPlace_;
  (lastPlace_ != nullptr ? lastPlace_->next : firstPlace_) = &place;
  lastPlace_ = &place;
  watchers_.fetch_add(1, std::memory_order_seq_cst);
  place.releaseCount = ReleaseCount();
}

void waitable_t::Delist(place_t& place) noexcept {
  bool others = false;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    (place.previous != nullptr ? place.previous->next : firstPlace_) = place.next;
    (place.next != nullptr ? place.next->previous : lastPlace_) = place.previous;
    watchers_.fetch_sub(1, std::memory_order_seq_cst);
    others = firstPlace_ != nullptr;
  }
  // What this thread was told of and did not take is for the next one.
  if (others && IsAvailable())
    WakeWatchers(1);
}

std::optional<std::size_t> waitable_t::FirstTaken(std::span<waitable_t* const> things) noexcept {
  for (std::size_t i = 0; i < things.size(); ++i) {
    if (things[i]->TryTake())
      return i;
  }
  return std::nullopt;
}

std::optional<std::size_t> waitable_t::Spin(std::span<waitable_t* const> things) noexcept {
  if (platform::AvailableProcessors() < 2)
    return std::nullopt;
  for (std::uint32_t i = 0; i < spins; ++i) {
    platform::SpinPause();
    if (const auto taken = FirstTaken(things)) {
      spins = std::min(spins * 2, MaxSpins);
      return taken;
    }
  }
  spins = std::max(spins / 2, MinSpins);
  return std::nullopt;
}

std::optional<std::size_t> waitable_t::Sleep(std::span<waitable_t* const> things,
                                             const platform::deadline_t& deadline) noexcept {
  sleeper_t sleeper;
  std::array<place_t, MaxThings> places;
  for (std::size_t i = 0; i < things.size(); ++i) {
    places[i].sleeper = &sleeper;
    things[i]->Enlist(places[i]);
  }
  std::optional<std::size_t> taken;
  for (bool timeLeft = true;;) {
    // From here on a signal tells this thread again; one that came before is seen below.
    sleeper.word.store(0, std::memory_order_seq_cst);
    for (std::size_t i = 0; i < things.size(); ++i)
      places[i].told.store(false, std::memory_order_seq_cst);
    for (std::size_t i = 0; i < things.size() && !taken; ++i) {
      if (things[i]->TryTake() || things[i]->ReleaseCount() != places[i].releaseCount)
        taken = i;
    }
    if (taken || !timeLeft)
      break;
    timeLeft = platform::FutexWait(sleeper.word, 0, deadline);
  }
  for (std::size_t i = 0; i < things.size(); ++i)
    things[i]->Delist(places[i]);
  return taken;
}

std::optional<std::size_t> waitable_t::WaitAny(std::span<waitable_t* const> things, std::uint32_t limitMs) noexcept {
  assert(things.size() <= MaxThings);
  if (const auto taken = FirstTaken(things); taken || limitMs == 0)
    return taken;
  const platform::deadline_t deadline =
      limitMs == NoLimit ? platform::deadline_t::Never() : platform::deadline_t::After(limitMs);
  if (const auto taken = Spin(things))
    return taken;
  return Sleep(things, deadline);
}

bool waitable_t::Wait(std::uint32_t limitMs) noexcept {
  waitable_t* const thing = this;
  return WaitAny(std::span<waitable_t* const>(&thing, 1), limitMs).has_value();
}

}  // namespace synch
