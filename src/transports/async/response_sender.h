// The way back to a client, whatever its request came in through.
#pragma once

#include <netinet/in.h>

#include <utility>

#include "rpc/xdr_writer.h"
#include "transports/async/counted.h"

namespace impl {

/// Released when the call is over for which it was given.
using completion_ptr = boost::intrusive_ptr<CCounted>;

/// Made by a transport for one request; used by the worker of the request's queue alone, and destroyed when the request
/// is over and its reply on its way.
class CResponseSender : public CCounted {
 public:
  /// Sends the reply in the writer, which is empty afterwards; completion is released when the call is over. Throws
  /// runtime_exc_t for a reply whose size is no multiple of four and win_sys_exc_t when sending cannot start.
  virtual void Send(CXDRWriter& writer, completion_ptr completion) = 0;
  virtual const sockaddr_in& GetPeerAddress() const = 0;
  virtual bool IsFsAccessAllowed() const = 0;
  /// Marks the connection to be closed after the replies that are queued already.
  virtual void Close() = 0;
  /// As Send, but the reply may wait a moment: for SendHeld, or to leave together with the client's next one. One of
  /// the two follows soon.
  virtual void Hold(CXDRWriter& writer, completion_ptr completion) { Send(writer, std::move(completion)); }
  /// Sends all that is held for the client. Throws win_sys_exc_t when sending cannot start.
  virtual void SendHeld() {}
  /// False while the client leaves so many replies untaken that its requests have to wait: its transport calls
  /// CRequestQueue::ContinueParked once that is over.
  virtual bool MayAnswer() { return true; }
  /// Whether replies may hold data that is still in the kernel.
  virtual bool TakesPipes() const { return false; }
  /// Told after a request: the bytes of one like it need not come into memory from this offset of its record on. 0:
  /// they do.
  virtual void DataMayStay(std::uint32_t /*offset*/) noexcept {}
  /// The same for all requests of one client, whose order is kept.
  virtual const void* Client() const { return this; }
};

}  // namespace impl
