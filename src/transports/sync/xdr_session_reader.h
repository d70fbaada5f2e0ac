// The thread of a session that cuts what arrives into records.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>

#include "foundation/byte_buffer.h"
#include "foundation/thread.h"
#include "rpc/xdr_reader.h"
#include "transports/sockets/socket_ip.h"
#include "transports/sync/xdr_backlog.h"
#include "transports/sync/xdr_rw_queue.h"
#include "transports/sync/xdr_session_stop_ctx.h"

using xdr_reader_queue_t = CXDRRwQueue<CXDRReader>;

/// Receives for as long as the session runs, one record after the other, each into its final buffer. While the backlog
/// is full nothing is received. The end of the stream is a null reader behind the last record: what was called before
/// is still answered. Made and destroyed by one thread.
class CXdrSessionReader {
 public:
  /// What is read ahead of the next record.
  static constexpr std::size_t StagingSize = 8U << 10;

  /// Starts the thread "TCP XDR Reader". Throws, and logs, when it cannot.
  CXdrSessionReader(boost::shared_ptr<CSocketIP> socket, boost::shared_ptr<xdr_reader_queue_t> queue,
                    boost::shared_ptr<CXdrBacklog> backlog, boost::shared_ptr<CXdrSessionStopCtx> stopCtx);
  CXdrSessionReader(const CXdrSessionReader&) = delete;
  CXdrSessionReader& operator=(const CXdrSessionReader&) = delete;
  /// Ends the session and its connection if they still are, and joins the thread.
  ~CXdrSessionReader();

 private:
  void XdrReceiveThread() noexcept;
  void ReceiveRecords();
  bool WaitForRoom();
  boost::shared_ptr<CXDRReader> ReceiveRecord();
  void Receive(std::uint8_t* target, std::size_t length);

  const boost::shared_ptr<CSocketIP> socket_;
  const boost::shared_ptr<xdr_reader_queue_t> queue_;
  const boost::shared_ptr<CXdrBacklog> backlog_;
  const boost::shared_ptr<CXdrSessionStopCtx> stopCtx_;

  // The receive thread's own.
  io::byte_buffer_t staging_;
  std::size_t stagingBegin_ = 0;
  std::size_t stagingEnd_ = 0;
  bool readAhead_ = true;

  boost::shared_ptr<synch::thread_t> thread_;
};
