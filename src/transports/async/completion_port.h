// The completion port: one loop that tells each finished operation to the object that waits for it.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>
#include <vector>

#include "transports/async/io_object.h"
#include "transports/async/look_gauge.h"

struct epoll_event;

namespace synch {

/// Work that a thread of its own would do, and that the completion thread may be lent for when it has nothing else to
/// do: calls are then answered without a change of threads.
class ILentWork {
 public:
  virtual ~ILentWork() = default;
  /// On the completion thread, at the end of the turn in which the work was offered.
  virtual void RunLent() noexcept = 0;
  /// On the completion thread, instead: it has something else to do.
  virtual void Decline() noexcept = 0;
};

/// Readiness turned into completions. A descriptor is registered once, edge-triggered; operations are tried at once and
/// wait here only when they would block. Room to write is watched only while a write waits for it: a peer that takes
/// large replies makes room all the time. Run is called by one thread; the rest by any. The completion thread is that
/// one, but while it is lent and another one stands in for it.
class completion_port_t : public boost::enable_shared_from_this<completion_port_t> {
 public:
  /// Lending does not pay where work takes its time, or where more becomes ready than a turn hands out: so many offers
  /// are refused after that.
  static constexpr unsigned OffersRefused = 256;
  /// How long the completion thread looks for more before it sleeps, where that is expected. A call and its answer take
  /// less, but where they wait for a disk.
  static constexpr std::chrono::microseconds LookTime{100};
  /// How long an operation rests that found the process out of descriptors or memory.
  static constexpr std::chrono::milliseconds ExhaustedRest{100};
  /// How long the completion thread rests when there is no memory for what must be started.
  static constexpr std::chrono::milliseconds MemoryPause{50};

  /// Throws win_sys_exc_t. The owner is a boost::shared_ptr.
  completion_port_t();
  completion_port_t(const completion_port_t&) = delete;
  completion_port_t& operator=(const completion_port_t&) = delete;
  ~completion_port_t();

  /// Hands out completions until Stop. One operation's failure never ends it.
  void Run();
  void Stop();
  /// Joins an object with its descriptor to the port, once. The caller holds a reference. Throws win_sys_exc_t.
  void Associate(win::CIoObject& object);

  /// Offers work for the end of the turn, where it is run or declined; it must live until then. False when it is not to
  /// be: on any other thread than that of Run, while other work is offered, and after lending that did not pay.
  bool OfferWork(ILentWork& work) noexcept;
  /// Refuses the next offers. Of the completion thread.
  void RefuseOffers() noexcept { refused_ = OffersRefused; }
  /// More is expected at once: before it sleeps the completion thread looks for that, once, for LookTime. Of that
  /// thread; asked by another one it does nothing.
  void LookForMore() noexcept;
  /// For the owner of lent work that takes its time: hands out completions until that is over, or until Stop. Returns
  /// at once when the thread is not lent for it any more.
  void StandIn(const ILentWork& work);

  /// Queues a completion; a null object with a null token merely wakes the loop. Dropped after Abandon.
  void Post(boost::intrusive_ptr<win::CIoObject> object, const void* token, win::SIoResult result);
  /// Queues a completion that is due after the delay. Dropped after Abandon.
  void PostIn(std::chrono::milliseconds delay, boost::intrusive_ptr<win::CIoObject> object, const void* token);
  /// Waits on the completion thread, and declines what is offered; ends early at Stop, and is true then.
  bool Pause(std::chrono::milliseconds duration);
  /// Starts what nobody would ever start again, trying until there is memory for it. Completion thread. Throws what the
  /// start throws, but bad_alloc only when the port stops.
  template <typename Start>
  void StartDespiteShortage(const Start& start) {
    for (;;) {
      try {
        start();
        return;
      } catch (const std::bad_alloc&) {
        if (Pause(MemoryPause)) {
          throw;
        }
      }
    }
  }
  /// After Run has returned and nothing starts operations any more: drops all pending ones and with them the objects
  /// that nobody else holds. The second call finds nothing to do.
  void Abandon();

 private:
  friend class win::CIoObject;

  struct SCompletion {
    boost::intrusive_ptr<win::CIoObject> object;
    const void* token = nullptr;
    win::SIoResult result;
  };
  struct SResting {
    boost::intrusive_ptr<win::CIoObject> object;
    boost::intrusive_ptr<win::CIoEventHandler> handler;
  };
  using clock_t = std::chrono::steady_clock;
  void Turn();
  void DeclineOffered() noexcept;
  void RunOffered(std::unique_lock<std::mutex>& turn);
  void Rest(boost::intrusive_ptr<win::CIoObject> object, boost::intrusive_ptr<win::CIoEventHandler> handler,
            platform::error_t error);
  void Forget(win::CIoObject& object) noexcept;
  boost::intrusive_ptr<win::CIoObject> Find(std::uint64_t key);
  void Wake() noexcept;
  int WaitMilliseconds();
  int WaitForEvents(epoll_event* events, int room);
  void TakeReadiness();
  void TellReady(std::uint64_t key, std::uint32_t events) noexcept;
  void TakePosted();
  void TakeDelayedLocked();
  void SetTimerLocked() noexcept;
  /// Whether to tell when the descriptor can be written to. Told at once when it can be already.
  void WatchForRoom(const win::CIoObject& object, bool on) noexcept;
  bool Watch(int handle, std::uint64_t key) const noexcept;
  void CloseHandles() const noexcept;
  void RetryResting();
  void HandOut();
  static void Dispatch(SCompletion& completion) noexcept;

  const int epoll_;
  const int wakeEvent_;
  const int timer_;
  std::atomic<bool> stop_{false};
  /// The completion thread; none while that of Run is lent and nobody stands in.
  std::atomic<std::thread::id> loopThread_{};
  std::atomic<ILentWork*> lent_{nullptr};  ///< What the thread of Run is lent for.
  std::atomic<int> standIns_{0};           ///< Threads in StandIn, of which one may have the turn.

  /// Held by the completion thread but while it is lent. Guards the five below.
  std::mutex turnLock_;
  std::deque<SCompletion> ready_;
  ILentWork* offered_ = nullptr;
  unsigned refused_ = 0;  ///< Offers to be refused.
  bool looks_ = false;    ///< For more, before it sleeps.
  look_gauge_t lookGauge_;

  /// Guards all below. Taken under no other lock.
  std::mutex lock_;
  std::condition_variable stopped_;
  std::unordered_map<std::uint64_t, win::CIoObject*> objects_;
  std::uint64_t lastKey_ = 0;
  std::vector<SCompletion> posted_;
  bool wakePending_ = false;
  std::multimap<clock_t::time_point, SCompletion> delayed_;  ///< By when they are due; the timer is set to the first.
  std::vector<SResting> resting_;
  clock_t::time_point restUntil_{};
  bool restWarned_ = false;
  bool abandoned_ = false;
};

}  // namespace synch
