// The requests of one program and the worker that carries them out.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/byte_buffer.h"
#include "rpc/rpc_message.h"
#include "transports/async/completion_port.h"
#include "transports/async/crowd_gauge.h"
#include "transports/async/look_gauge.h"
#include "transports/async/response_sender.h"

namespace synch {
class thread_t;
}

namespace impl {

/// One worker: the requests of a program run strictly one after another, in order of arrival across all connections,
/// so that replies follow in the order of their requests. Any thread may post; the owner stops and destroys.
/// A client that takes no replies holds up nobody and costs no more memory: its requests are parked until it does.
///
/// Where requests follow closely, one at a time, both threads look for the next one before they sleep: waking a thread
/// costs more than most requests, and a processor that sleeps more than that. Where several that move large pieces of
/// data are under way at a time, the completion thread is lent for those that came together while the worker sleeps:
/// same order, same exclusion, no change of threads. Should they take their time, the worker hands out completions
/// meanwhile.
class CRequestQueue : private synch::ILentWork {
 public:
  /// Bounds of what is held to leave in one send: replies, their bytes, and, from FewHeld replies on, the time from the
  /// first one. Where each takes its time, a send for every second one would be a good part of it. A reply for
  /// which another process was asked is held whatever its size while another request waits: if that asks, too, there is
  /// time for the sending until the answer comes.
  static constexpr std::size_t MaxHeld = 16;
  static constexpr std::size_t FewHeld = 6;
  static constexpr std::size_t MaxHeldBytes = 64U << 10;
  static constexpr std::chrono::microseconds MaxHeldTime{400};
  /// The completion thread is lent for so many requests at a time.
  static constexpr std::size_t MostLent = 16;
  /// Foresight is told of so many requests at a time, unless there are fewer than it is worth its while.
  static constexpr std::size_t MostForeseen = 32;
  static constexpr std::size_t FewestForeseen = 4;
  /// How often the worker looks whether a request that the completion thread was lent for goes on; after one look
  /// without any change it stands in.
  static constexpr std::chrono::milliseconds LookPeriod{1};

  /// handler and foresight have what they work on bound and keep it alive; there need be no foresight. port lends its
  /// thread; null: none does. Throws when the worker cannot be started.
  CRequestQueue(std::string name, rpc_handler_t handler, boost::shared_ptr<synch::completion_port_t> port = nullptr,
                rpc_foresight_t foresight = nullptr);
  CRequestQueue(const CRequestQueue&) = delete;
  CRequestQueue& operator=(const CRequestQueue&) = delete;
  /// Stops. Senders may share the queue through their connections, so its owner stops it first: the last reference
  /// must not go on the worker itself.
  ~CRequestQueue() override;

  const std::string& Name() const { return name_; }

  /// Hands a record over, of which the rest may be in the kernel. extra is released
  /// when its reply was given to the sender. Dropped after Stop.
  void Post(boost::intrusive_ptr<CResponseSender> sender, boost::shared_ptr<io::byte_buffer_t> record,
            completion_ptr extra = nullptr, boost::shared_ptr<platform::kernel_pipe_t> rest = nullptr);
  /// Looks again at the parked requests: a client takes its replies, or is gone.
  void ContinueParked() noexcept;
  /// Takes no more requests, runs out those that are in, and joins the worker. The second call does nothing. Requests
  /// that are still parked are carried out without a reply, which their clients would not take.
  void Stop();

 private:
  struct SItem {
    boost::intrusive_ptr<CResponseSender> sender;
    boost::shared_ptr<io::byte_buffer_t> record;
    completion_ptr extra;
    boost::shared_ptr<platform::kernel_pipe_t> rest;
  };

  /// HoldIfAsked: where the request had to ask another process, and another request waits.
  enum class reply_t { Send, HoldIfAsked, Hold, Drop };
  using clock_t = std::chrono::steady_clock;

  void Work() noexcept;
  /// The next requests, in order; false when the worker is to end.
  bool Take(std::vector<SItem>& batch);
  void CountPostLocked() noexcept;
  bool MayLendLocked() noexcept;
  /// The next requests are for the completion thread, if it can be lent. Of who carries out requests, and of posters
  /// under lock_ while nobody does.
  bool LeavesNext() const noexcept;
  void RunBatch(std::vector<SItem>& batch) noexcept;
  void Foresee(const std::vector<SItem>& batch, std::size_t from) const noexcept;
  bool ShallLook() const noexcept;
  void RunLent() noexcept override;
  void Decline() noexcept override;
  /// Until something has changed, or for LookPeriod.
  void Wait(std::unique_lock<std::mutex>& guard);
  void LookForWork() noexcept;
  void Process(SItem& item, reply_t reply) noexcept;
  bool Park(SItem& item);
  void Answer(SItem& item, reply_t reply) noexcept;
  void Reply(SItem& item, CXDRWriter& writer, reply_t reply);
  bool AnotherWaits() const noexcept;
  /// Counts one more; false when that is too much.
  bool AddToHeld(std::size_t size) noexcept;
  void SendHeld() noexcept;
  void RunParked() noexcept;
  void RunOutParked() noexcept;

  const std::string name_;
  const rpc_handler_t handler_;
  const rpc_foresight_t foresight_;
  const boost::shared_ptr<synch::completion_port_t> port_;

  std::mutex lock_;
  std::condition_variable notEmpty_;
  /// Guarded by lock_; the count may be read without it.
  std::vector<SItem> items_;
  std::atomic<std::size_t> itemsCount_{0};
  bool sleeping_ = false;
  synch::crowd_gauge_t crowd_;          ///< Told under lock_; its flag alone is read without it.
  std::atomic<bool> isWorking_{false};  ///< The worker, neither looking for a request nor asleep.
  std::atomic<bool> stopping_{false};
  /// Guarded by lock_. The completion thread has the place of the worker.
  bool lent_ = false;
  bool offered_ = false;  ///< To the port, for the end of its turn.
  std::uint64_t lentRequests_ = 0;
  bool looks_ = false;  ///< The worker, every LookPeriod.
  unsigned looksInVain_ = 0;

  /// Set under lock_.
  std::atomic<bool> continueParked_{false};

  // Of who carries out requests: the worker, or the thread that is lent its place.
  std::unordered_map<const void*, std::deque<SItem>> parked_;  ///< By client, in order.
  std::size_t leftInBatch_ = 0;
  boost::intrusive_ptr<CResponseSender> heldBy_;  ///< What is held is of its client.
  std::size_t held_ = 0;
  std::size_t heldBytes_ = 0;
  clock_t::time_point heldSince_{};
  std::size_t lastReply_ = 0;      ///< Bytes.
  synch::look_gauge_t lookGauge_;  ///< Of the worker alone.
  bool hasAsked_ = false;          ///< Another process, with the request at hand.

  std::unique_ptr<synch::thread_t> thread_;
};

}  // namespace impl
