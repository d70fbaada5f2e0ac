// The replies of one session in the order of its calls, whatever order the calls end in.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <list>
#include <mutex>

#include "foundation/events.h"
#include "rpc/xdr_writer.h"

/// One reply in the order of the calls. Guarded by the lock of its queue, but for the writer's content, which belongs
/// to whoever makes the reply until it is ready.
struct CXDRCallCompletionRecInternal {
  boost::shared_ptr<CXDRWriter> writer;
  bool ready = false;
  std::size_t weight = 0;  ///< Bytes that place and reply are expected to keep; about those once it is ready.
};

using xdr_replies_t = std::list<boost::shared_ptr<CXDRWriter>>;

/// What the queue shares with the calls that are under way: it lives as long as the last of them. Any thread.
class CXDRCompletionQueueInternal {
 public:
  /// What a place in the order keeps besides the reply's bytes, about.
  static constexpr std::size_t PlaceWeight = 512;

  CXDRCompletionQueueInternal();

  boost::shared_ptr<CXDRCallCompletionRecInternal> Append(const boost::shared_ptr<CXDRWriter>& writer, bool ready,
                                                          std::size_t weight);
  void Complete(CXDRCallCompletionRecInternal& record) noexcept;
  void Abandon(CXDRCallCompletionRecInternal& record) noexcept;
  void TakeFinished(xdr_replies_t& out);
  void Close() noexcept;
  std::size_t Weight() const noexcept;
  bool IsEmpty() const noexcept;
  bool HasLostReply() const noexcept;
  const boost::shared_ptr<synch::manual_event_t>& Event() const noexcept { return event_; }

 private:
  using items_t = std::list<boost::shared_ptr<CXDRCallCompletionRecInternal>>;

  void UpdateEventLocked() noexcept;
  void SetWeightLocked(CXDRCallCompletionRecInternal& record, std::size_t weight) noexcept;

  /// Set exactly while the first reply in the order is ready.
  const boost::shared_ptr<synch::manual_event_t> event_;
  mutable std::mutex lock_;  // Guards all below.
  items_t items_;
  std::size_t weight_ = 0;
  bool closed_ = false;
  bool hasLostReply_ = false;
};

/// What a call that ends later keeps of its place in the order. Copies stand for the same place. It may outlive the
/// session: what is told to it then goes nowhere. Any thread.
class CXDRCallCompletionRec {
 public:
  CXDRCallCompletionRec(boost::shared_ptr<CXDRCompletionQueueInternal> queue,
                        boost::shared_ptr<CXDRCallCompletionRecInternal> record)
      : queue_(std::move(queue)), record_(std::move(record)) {}

  /// The reply, to be made by one thread before Complete and not touched afterwards.
  CXDRWriter& Writer() const noexcept { return *writer_; }
  /// The reply is whole.
  void Complete() const noexcept { queue_->Complete(*record_); }
  /// There will be no reply: those behind it do not wait for it any more.
  void Abandon() const noexcept { queue_->Abandon(*record_); }

 private:
  boost::shared_ptr<CXDRCompletionQueueInternal> queue_;
  boost::shared_ptr<CXDRCallCompletionRecInternal> record_;
  /// Of its own, since the queue lets go of the record's when the session ends.
  boost::shared_ptr<CXDRWriter> writer_ = record_->writer;
};

/// The end of the session that takes the replies. Posting and reserving is for the thread that calls the program, in
/// the order of the calls; taking is for one thread. Dropped with all replies that were not taken.
class CXDRCompletionQueue {
 public:
  CXDRCompletionQueue();
  CXDRCompletionQueue(const CXDRCompletionQueue&) = delete;
  CXDRCompletionQueue& operator=(const CXDRCompletionQueue&) = delete;
  ~CXDRCompletionQueue();

  /// Appends a reply that is whole.
  void PostFinished(const boost::shared_ptr<CXDRWriter>& writer);
  /// Takes a place in the order for a reply that is made later. weight: bytes that the call and its reply may keep
  /// until then.
  CXDRCallCompletionRec Reserve(const boost::shared_ptr<CXDRWriter>& writer, std::size_t weight = 0);
  /// Appends to the list the replies up to the first that is not ready.
  void TakeFinished(xdr_replies_t& out) { internal_->TakeFinished(out); }

  /// By the thread that posts, before a call: whether its reply may hold data that is still in the kernel, as whoever
  /// takes it sends segments.
  void TakePipes(bool takes) noexcept { takesPipes_ = takes; }
  bool TakesPipes() const noexcept { return takesPipes_; }

  /// Set exactly while there is something to take.
  synch::manual_event_t& Event() const noexcept { return *internal_->Event(); }
  /// Bytes that the calls in the queue may keep, and about those that its replies send. A reply may keep a buffer that
  /// is larger than what is sent of it.
  std::size_t Weight() const noexcept { return internal_->Weight(); }
  /// True when no call is unanswered and no reply untaken.
  bool IsEmpty() const noexcept { return internal_->IsEmpty(); }
  /// True from when a call was abandoned: its client would wait, and learns it by the end of the connection alone.
  bool HasLostReply() const noexcept { return internal_->HasLostReply(); }

 private:
  const boost::shared_ptr<CXDRCompletionQueueInternal> internal_;
  bool takesPipes_ = false;
};
