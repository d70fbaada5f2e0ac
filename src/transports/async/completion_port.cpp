#include "transports/async/completion_port.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <new>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/futex.h"

namespace synch {
namespace {

/// Key of the wake-up event; objects count from 1.
constexpr std::uint64_t WakeKey = 0;
constexpr std::uint64_t TimerKey = std::numeric_limits<std::uint64_t>::max();
/// Completions handed out between two looks at the descriptors: none waits long behind one that is always ready.
constexpr std::size_t TurnBudget = 64;
constexpr std::size_t EventsPerWait = 64;
constexpr std::uint32_t ReadEvents = EPOLLIN | EPOLLRDHUP | EPOLLET;

std::string InHexadecimal(const void* token) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%p", token);
  return text.data();
}

/// Makes an event or a timer that is due wait for its next time.
void Clear(int handle) noexcept {
  std::uint64_t times = 0;
  [[maybe_unused]] const auto taken = ::read(handle, &times, sizeof(times));
}

}  // namespace

completion_port_t::completion_port_t()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wakeEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (epoll_ < 0 || wakeEvent_ < 0 || timer_ < 0 || !Watch(wakeEvent_, WakeKey) || !Watch(timer_, TimerKey)) {
    const platform::error_t error = platform::LastError();
    CloseHandles();
    throw exc::win_sys_exc_t("Create I/O Completion port for NFS Server.", error);
  }
}

completion_port_t::~completion_port_t() {
  CloseHandles();
}

bool completion_port_t::Watch(int handle, std::uint64_t key) const noexcept {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = key;
  return ::epoll_ctl(epoll_, EPOLL_CTL_ADD, handle, &event) == 0;
}

void completion_port_t::CloseHandles() const noexcept {
  for (const int handle : {timer_, wakeEvent_, epoll_}) {
    if (handle >= 0) {
      ::close(handle);
    }
  }
}

void completion_port_t::Run() {
  logging::log_scope_t scope(g_nfs_log, "IO dispatch loop is started.");
  std::unique_lock turn(turnLock_);
  loopThread_ = std::this_thread::get_id();
  while (!stop_) {
    Turn();
    if (offered_ != nullptr) {
      RunOffered(turn);
    }
  }
  loopThread_ = std::thread::id();
  scope.Success("IO dispatch queue is finished.");
}

void completion_port_t::Turn() {
  TakeReadiness();
  TakePosted();
  RetryResting();
  HandOut();
}

bool completion_port_t::OfferWork(ILentWork& work) noexcept {
  if (loopThread_.load(std::memory_order_relaxed) != std::this_thread::get_id() || standIns_ != 0 ||
      offered_ != nullptr) {
    return false;
  }
  if (refused_ != 0) {
    --refused_;
    return false;
  }
  offered_ = &work;
  return true;
}

void completion_port_t::LookForMore() noexcept {
  if (loopThread_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
    looks_ = true;
  }
}

void completion_port_t::DeclineOffered() noexcept {
  RefuseOffers();
  std::exchange(offered_, nullptr)->Decline();
}

void completion_port_t::RunOffered(std::unique_lock<std::mutex>& turn) {
  if (!ready_.empty() || stop_) {
    DeclineOffered();
    return;
  }
  ILentWork& work = *std::exchange(offered_, nullptr);
  loopThread_ = std::thread::id();
  lent_ = &work;
  turn.unlock();
  work.RunLent();
  lent_ = nullptr;
  if (standIns_ != 0) {
    Wake();
  }
  turn.lock();
  loopThread_ = std::this_thread::get_id();
  // Who has just got an answer may be back at once.
  looks_ = true;
}

void completion_port_t::StandIn(const ILentWork& work) {
  // Told before the look at lent_, as the lent thread tells that before its look at this.
  ++standIns_;
  const auto isLent = [&] { return !stop_ && lent_ == &work; };
  if (std::unique_lock turn(turnLock_, std::try_to_lock); turn.owns_lock() && isLent()) {
    loopThread_ = std::this_thread::get_id();
    RefuseOffers();
    do {
      Turn();
    } while (isLent());
    loopThread_ = std::thread::id();
  }
  --standIns_;
}

void completion_port_t::Stop() {
  {
    const std::lock_guard guard(lock_);
    stop_ = true;
  }
  stopped_.notify_all();
  // Not by a completion, which needs memory.
  Wake();
}

void completion_port_t::Associate(win::CIoObject& object) {
  object.port_ = shared_from_this();
  {
    const std::lock_guard guard(lock_);
    object.portKey_ = ++lastKey_;
    objects_.emplace(object.portKey_, &object);
  }
  epoll_event event{};
  event.events = ReadEvents;
  event.data.u64 = object.portKey_;
  if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, object.GetHandle(), &event) != 0) {
    throw exc::win_sys_exc_t("Socket association with completion port failed", platform::LastError());
  }
}

void completion_port_t::WatchForRoom(const win::CIoObject& object, bool on) noexcept {
  epoll_event event{};
  event.events = on ? ReadEvents | EPOLLOUT : ReadEvents;
  event.data.u64 = object.portKey_;
  // Changes an entry that is there, for which nothing is needed that could be lacking.
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, object.GetHandle(), &event);
}

void completion_port_t::Forget(win::CIoObject& object) noexcept {
  const std::lock_guard guard(lock_);
  objects_.erase(object.portKey_);
}

boost::intrusive_ptr<win::CIoObject> completion_port_t::Find(std::uint64_t key) {
  const std::lock_guard guard(lock_);
  const auto found = objects_.find(key);
  // One that is being destroyed waits for this lock before it goes.
  if (found == objects_.end() || !found->second->TryAddRef()) {
    return nullptr;
  }
  return {found->second, false};
}

void completion_port_t::Wake() noexcept {
  const std::uint64_t one = 1;
  // Can only fail with the event set already.
  [[maybe_unused]] const auto written = ::write(wakeEvent_, &one, sizeof(one));
}

void completion_port_t::Post(boost::intrusive_ptr<win::CIoObject> object, const void* token, win::SIoResult result) {
  if (loopThread_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
    ready_.push_back({std::move(object), token, result});
    return;
  }
  bool wake = false;
  {
    const std::lock_guard guard(lock_);
    if (abandoned_) {
      return;
    }
    posted_.push_back({object, token, result});
    wake = !wakePending_;
    wakePending_ = true;
  }
  if (wake) {
    Wake();
  }
}

void completion_port_t::PostIn(std::chrono::milliseconds delay, boost::intrusive_ptr<win::CIoObject> object,
                               const void* token) {
  const auto due = clock_t::now() + delay;
  const std::lock_guard guard(lock_);
  if (abandoned_) {
    return;
  }
  const auto place = delayed_.emplace(due, SCompletion{std::move(object), token, {}});
  if (place == delayed_.begin()) {
    SetTimerLocked();
  }
}

void completion_port_t::Rest(boost::intrusive_ptr<win::CIoObject> object,
                             boost::intrusive_ptr<win::CIoEventHandler> handler, platform::error_t error) {
  bool warn = false;
  bool wake = false;
  {
    const std::lock_guard guard(lock_);
    if (abandoned_) {
      return;
    }
    if (resting_.empty()) {
      restUntil_ = clock_t::now() + ExhaustedRest;
    }
    resting_.push_back({std::move(object), std::move(handler)});
    warn = !std::exchange(restWarned_, true);
    wake = loopThread_.load(std::memory_order_relaxed) != std::this_thread::get_id();
  }
  if (warn) {
    g_nfs_log.Warning("Short of descriptors or memory (error %1). What needs them is tried again until it succeeds.",
                      error);
  }
  if (wake) {
    Wake();
  }
}

bool completion_port_t::Pause(std::chrono::milliseconds duration) {
  if (loopThread_.load(std::memory_order_relaxed) == std::this_thread::get_id() && offered_ != nullptr) {
    DeclineOffered();
  }
  std::unique_lock guard(lock_);
  return stopped_.wait_for(guard, duration, [this] { return stop_.load(); });
}

int completion_port_t::WaitMilliseconds() {
  if (!ready_.empty()) {
    return 0;
  }
  const std::lock_guard guard(lock_);
  if (resting_.empty()) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(restUntil_ - clock_t::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max()));
}

int completion_port_t::WaitForEvents(epoll_event* events, int room) {
  static const bool useful = platform::AvailableProcessors() > 1;
  if (std::exchange(looks_, false) && useful && ready_.empty()) {
    // What is there already is no gain of looking.
    int count = ::epoll_wait(epoll_, events, room, 0);
    if (count != 0) {
      return count;
    }
    if (lookGauge_.Pays()) {
      for (const auto end = clock_t::now() + LookTime; count == 0 && clock_t::now() < end;) {
        std::this_thread::yield();
        count = ::epoll_wait(epoll_, events, room, 0);
      }
      lookGauge_.Tell(count > 0);
      if (count != 0) {
        return count;
      }
    }
  }
  return ::epoll_wait(epoll_, events, room, WaitMilliseconds());
}

void completion_port_t::TakeReadiness() {
  std::array<epoll_event, EventsPerWait> events;
  const int count = WaitForEvents(events.data(), static_cast<int>(events.size()));
  if (count < 0) {
    if (errno != EINTR) {
      g_nfs_log.Error("IOCP: event dequeueing failed %1", platform::LastError());
    }
    return;
  }
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    if (event.data.u64 == WakeKey) {
      Clear(wakeEvent_);
    } else if (event.data.u64 == TimerKey) {
      Clear(timer_);
    } else {
      TellReady(event.data.u64, event.events);
    }
  }
}

void completion_port_t::TellReady(std::uint64_t key, std::uint32_t events) noexcept {
  const auto object = Find(key);
  if (!object) {
    return;
  }
  try {
    constexpr std::uint32_t Broken = EPOLLHUP | EPOLLERR;
    if ((events & (EPOLLIN | EPOLLRDHUP | Broken)) != 0) {
      object->OnReady(win::io_direction_t::Read, (events & (EPOLLRDHUP | EPOLLHUP)) != 0);
    }
    if ((events & (EPOLLOUT | Broken)) != 0) {
      object->OnReady(win::io_direction_t::Write, (events & EPOLLHUP) != 0);
    }
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Exception while handling I/O event.", failure);
  }
}

void completion_port_t::TakePosted() {
  const std::lock_guard guard(lock_);
  wakePending_ = false;
  std::size_t taken = 0;
  try {
    for (; taken < posted_.size(); ++taken) {
      ready_.push_back(std::move(posted_[taken]));
    }
    posted_.clear();
    taken = 0;
    if (!delayed_.empty()) {
      TakeDelayedLocked();
    }
  } catch (const std::bad_alloc&) {
    // What there is no room for stays where it is, until the next turn, which comes at once.
    posted_.erase(posted_.begin(), posted_.begin() + static_cast<std::ptrdiff_t>(taken));
    wakePending_ = true;
    Wake();
  }
}

void completion_port_t::TakeDelayedLocked() {
  const auto now = clock_t::now();
  bool taken = false;
  for (auto first = delayed_.begin(); first != delayed_.end() && first->first <= now; first = delayed_.begin()) {
    ready_.push_back(std::move(first->second));
    delayed_.erase(first);
    taken = true;
  }
  if (taken && !delayed_.empty()) {
    SetTimerLocked();
  }
}

void completion_port_t::SetTimerLocked() noexcept {
  // The steady clock counts as CLOCK_MONOTONIC does.
  const auto due = delayed_.begin()->first.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(due);
  itimerspec time{};
  time.it_value.tv_sec = seconds.count();
  time.it_value.tv_nsec = std::chrono::nanoseconds(due - seconds).count();
  ::timerfd_settime(timer_, TFD_TIMER_ABSTIME, &time, nullptr);
}

void completion_port_t::RetryResting() {
  std::vector<SResting> due;
  {
    const std::lock_guard guard(lock_);
    if (resting_.empty() || clock_t::now() < restUntil_) {
      return;
    }
    due.swap(resting_);
  }
  for (SResting& resting : due) {
    resting.object->TryAgain(resting.handler);
  }
  const std::lock_guard guard(lock_);
  restWarned_ = !resting_.empty();
}

void completion_port_t::HandOut() {
  for (std::size_t i = 0; i < TurnBudget && !ready_.empty() && !stop_; ++i) {
    SCompletion completion = std::move(ready_.front());
    ready_.pop_front();
    if (completion.token != nullptr) {
      Dispatch(completion);
    }
  }
}

void completion_port_t::Dispatch(SCompletion& completion) noexcept {
  try {
    const auto handler = completion.object->TakeEvent(completion.token);
    if (!handler) {
      g_nfs_log.Error("There is no IO completion handler for the OVERLAPPED object [%1].",
                      InHexadecimal(completion.token));
      return;
    }
    handler->OnComplete(*completion.object, completion.result.error, completion.result.bytes);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Exception while handling I/O event.", failure);
  }
}

void completion_port_t::Abandon() {
  std::vector<boost::intrusive_ptr<win::CIoObject>> objects;
  std::vector<SCompletion> posted;
  std::vector<SResting> resting;
  decltype(delayed_) delayed;
  {
    const std::lock_guard guard(lock_);
    abandoned_ = true;
    posted.swap(posted_);
    delayed.swap(delayed_);
    resting.swap(resting_);
    for (const auto& [key, object] : objects_) {
      if (object->TryAddRef()) {
        objects.emplace_back(object, false);
      }
    }
  }
  ready_.clear();
  for (const auto& object : objects) {
    object->AbandonIo();
  }
}

}  // namespace synch
