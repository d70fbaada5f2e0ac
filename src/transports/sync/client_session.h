// One TCP connection of the synchronous server.
#pragma once

#include <netinet/in.h>

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <exception>

#include "rpc/rpc_message.h"
#include "rpc/xdr_completion_queue.h"
#include "transports/sockets/socket_ip.h"
#include "transports/sync/xdr_backlog.h"
#include "transports/sync/xdr_session_reader.h"
#include "transports/sync/xdr_session_stop_ctx.h"
#include "transports/sync/xdr_session_writer.h"

class IAddressChecker;

/// What a client thread works with. The socket is connected.
struct ClientThreadArgs {
  boost::shared_ptr<CSocketIP> socket;
  boost::shared_ptr<IXdrRpcInterface> program;
  boost::shared_ptr<CVirtualFs> fs;
  boost::shared_ptr<IAddressChecker> addressChecker;  ///< Null admits everyone.
};

/// Calls come from the receive thread and are given to the program; replies that are due go to the send thread. A
/// client that has too much under way, or does not take its replies, is not read from until that is less.
///
/// What was called before the peer ended its side, or before a call that cannot be read or answered, is still answered;
/// then the connection ends. Run and the destructor are for one thread, End is for any.
class CClientSession {
 public:
  /// Bounds of what one client has under way: records that were not given to the program yet, what calls and replies
  /// keep until the replies are due, and replies that are not sent.
  static constexpr std::size_t MaxCalls = 128;
  static constexpr std::size_t MaxCallBytes = 8U << 20;
  static constexpr std::size_t MaxPendingBytes = 8U << 20;
  static constexpr std::size_t MaxReplies = 1024;
  static constexpr std::size_t MaxReplyBytes = 8U << 20;

  explicit CClientSession(ClientThreadArgs args);
  CClientSession(const CClientSession&) = delete;
  CClientSession& operator=(const CClientSession&) = delete;

  /// Serves until the connection ends. 0 after a normal end, which a close by the peer is; 1 after a failure, which is
  /// logged.
  int Run() noexcept;
  /// Ends the session now; calls that are under way go on without it.
  void End() noexcept;

 private:
  void PrepareSocket();
  void ReadPeer();
  void Serve();
  void WaitForWork();
  void TakeCalls();
  bool MayDispatch() const noexcept;
  void DispatchCalls(const CXdrSessionWriter& writer);
  void TakeNoMoreCalls(std::exception_ptr failure) noexcept;
  void PassReplies(const CXdrSessionWriter& writer);
  void EmptyQueuedPipes();
  void EndWhenAnswered();

  const ClientThreadArgs args_;
  const boost::shared_ptr<CXdrSessionStopCtx> stopCtx_;
  const boost::shared_ptr<xdr_reader_queue_t> readerQueue_;
  const boost::shared_ptr<CXDRCompletionQueue> completionQueue_;
  const boost::shared_ptr<xdr_writer_queue_t> writerQueue_;
  const boost::shared_ptr<CXdrBacklog> calls_;    ///< Received and not given to the program.
  const boost::shared_ptr<CXdrBacklog> replies_;  ///< Due and not sent.

  // The client thread's own.
  sockaddr_in peer_{};
  bool isAllowed_ = false;
  xdr_calls_t taken_;           ///< Out of the reader queue, not given to the program yet.
  bool noMoreCalls_ = false;    ///< The peer ended its side, or a call failed.
  bool lastReplyDue_ = false;   ///< The send thread knows that nothing follows.
  std::exception_ptr failure_;  ///< Of the call that failed, or has no reply.
};
