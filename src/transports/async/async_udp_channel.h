// The portmapper's UDP side.
#pragma once

#include <array>
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>

#include "foundation/byte_buffer.h"
#include "transports/async/completion_port.h"
#include "transports/async/request_queue.h"
#include "transports/async/response_sender.h"
#include "transports/async/udp_socket.h"

namespace impl {

/// One receive is pending at all times and one send at most, so that replies leave in the order in which they were
/// given. Datagrams that come while very many wait for the worker are dropped, as UDP may.
class CAsyncUdpChannel : public win::CUdpSocket, public win::IUdpEventsHandler {
 public:
  static constexpr std::size_t BufferSize = 65536;
  /// Bounds of what may be under way.
  static constexpr std::size_t MaxRequests = 1024;
  static constexpr std::size_t MaxRequestBytes = 4U << 20;

  /// Binds. Throws win_sys_exc_t.
  CAsyncUdpChannel(const win::SPortBinding& binding, boost::shared_ptr<CRequestQueue> queue);

  /// After the channel has joined the port: starts to receive. Throws win_sys_exc_t.
  void Start();
  /// Worker thread: queues one reply, whose first four bytes do not go out. Throws win_sys_exc_t.
  void SendReply(const win::SDatagramAddress& target, boost::shared_ptr<io::byte_buffer_t> reply);

  void OnDatagramReceived(const win::SDatagramAddress& source, std::size_t size) override;
  void OnDatagramSent() override;

 private:
  friend class CAsyncUdpSender;

  struct SDatagram {
    boost::shared_ptr<io::byte_buffer_t> data;
    win::SDatagramAddress target;
  };

  void SendFromHead();
  bool DropHead();

  const boost::shared_ptr<CRequestQueue> queue_;
  std::atomic<std::size_t> requests_{0};
  std::atomic<std::size_t> requestBytes_{0};

  /// Guards the list; whoever finds it empty sends, and nobody else until it is empty again.
  std::mutex sendLock_;
  std::list<SDatagram> sendQueue_;

  /// Completion thread only.
  std::array<std::uint8_t, BufferSize> receiveBuffer_;
};

/// The way back to the source of a datagram.
class CAsyncUdpSender : public CResponseSender {
 public:
  CAsyncUdpSender(boost::intrusive_ptr<CAsyncUdpChannel> channel, const win::SDatagramAddress& source,
                  std::size_t requestSize);
  ~CAsyncUdpSender() override;

  void Send(CXDRWriter& writer, completion_ptr completion) override;
  const sockaddr_in& GetPeerAddress() const override { return peer_; }
  /// Only the portmapper is served over UDP, and that is open to all.
  bool IsFsAccessAllowed() const override { return true; }
  void Close() override {}

 private:
  const boost::intrusive_ptr<CAsyncUdpChannel> channel_;
  const win::SDatagramAddress source_;
  sockaddr_in peer_{};
  const std::size_t requestSize_;
};

}  // namespace impl
