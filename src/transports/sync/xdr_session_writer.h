// The thread of a session that sends its replies.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>
#include <vector>

#include "foundation/thread.h"
#include "rpc/xdr_writer.h"
#include "transports/sockets/fast_socket_io_dev.h"
#include "transports/sockets/socket_ip.h"
#include "transports/sockets/socket_ip_dev.h"
#include "transports/sync/xdr_backlog.h"
#include "transports/sync/xdr_reply_batch.h"
#include "transports/sync/xdr_rw_queue.h"
#include "transports/sync/xdr_session_stop_ctx.h"

using xdr_writer_queue_t = CXDRRwQueue<CXDRWriter>;

/// What the sender waits for, and what keeps that alive meanwhile: replies first, then the end of the session.
class CXdrSendWaitSet {
 public:
  CXdrSendWaitSet(boost::shared_ptr<synch::manual_event_t> queueEvent, boost::shared_ptr<synch::manual_event_t> stop);
  /// False when the limit (milliseconds) passed.
  bool Wait(std::uint32_t limitMs) const noexcept;

 private:
  const boost::shared_ptr<synch::manual_event_t> queueEvent_;
  const boost::shared_ptr<synch::manual_event_t> stopEvent_;
  const std::vector<synch::waitable_t*> handles_;
};

/// Sends what is queued, in its order: a reply that is alone goes out at once, several are put together. Each leaves
/// the backlog when it is out, or in the batch that goes out next. Behind a null writer nothing more is sent: the
/// session reports itself as closed. Made and destroyed by one thread.
class CXdrSessionWriter {
 public:
  /// Starts the thread "TCP XDR Writer". Throws, and logs, when it cannot.
  CXdrSessionWriter(boost::shared_ptr<CSocketIP> socket, boost::shared_ptr<xdr_writer_queue_t> queue,
                    boost::shared_ptr<CXdrBacklog> backlog, boost::shared_ptr<CXdrSessionStopCtx> stopCtx);
  CXdrSessionWriter(const CXdrSessionWriter&) = delete;
  CXdrSessionWriter& operator=(const CXdrSessionWriter&) = delete;
  /// Ends the session and its connection if they still are, and joins the thread.
  ~CXdrSessionWriter();

  /// Whether replies may hold their data in pipes: not while they wait for the peer and pipes are scarce. Any thread.
  bool TakesPipes() const noexcept;

 private:
  using replies_t = xdr_writer_queue_t::items_t;

  void XdrSendThread() noexcept;
  void SendReplies();
  void WaitForReplies();
  /// True when the last one is out.
  bool SendAll();
  void SendAlone(const CXDRWriter& reply);
  /// The peer does not take what is sent: where pipes are scarce, what is due to it keeps none from the others.
  void OnSendWait();

  const boost::shared_ptr<CSocketIP> socket_;
  const boost::shared_ptr<xdr_writer_queue_t> queue_;
  const boost::shared_ptr<CXdrBacklog> backlog_;
  const boost::shared_ptr<CXdrSessionStopCtx> stopCtx_;
  boost::shared_ptr<synch::thread_t> thread_;
  const boost::shared_ptr<CSocketIPDev> device_;
  CXdrReplyBatch batch_;  ///< The send thread's own,
  replies_t replies_;     ///< and this: out of the queue and not sent.
  std::atomic<bool> isStalled_{false};
  const CXdrSendWaitSet waitSet_;
};
