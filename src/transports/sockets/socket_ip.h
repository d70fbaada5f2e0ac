// A blocking IPv4 socket with exact lengths.
#pragma once

#include <netinet/in.h>
#include <sys/uio.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "foundation/io_dev.h"
#include "platform/kernel_pipe.h"
#include "platform/location.h"

/// Calls of NonBlockingRead and NonBlockingWrite in the whole process, and the bytes that they moved.
struct SSocketStatistics {
  std::atomic<std::uint64_t> calls{0};
  std::atomic<std::uint64_t> bytes{0};
};

/// One TCP or UDP socket, closed with the object. One thread may read while another one writes; all else is for one
/// thread at a time. Failures are win_sys_exc_t with the WSA number, the peer's end of the stream is
/// CCloseTCPConnection, and a receive that timed out is socket_timeout_exc_t. Never raises SIGPIPE.
class CSocketIP : public io::INonBlockingIoDev {
 public:
  /// A new socket that is not connected. Throws "Cannot create socket".
  explicit CSocketIP(bool tcp);
  /// Takes over a descriptor.
  CSocketIP(platform::descriptor_t socket, bool connected);
  CSocketIP(const CSocketIP&) = delete;
  CSocketIP& operator=(const CSocketIP&) = delete;
  ~CSocketIP() override;

  /// Moves all bytes. Each wait for the peer is limited to TimeoutSec() seconds; a send that timed out is
  /// a runtime_exc_t.
  std::uint64_t Read(void* data, std::uint64_t length) override;
  std::uint64_t Write(const void* data, std::uint64_t length) override;
  bool NonBlockingRead(void* data, std::uint64_t length, std::uint64_t& outCount) override;
  bool NonBlockingWrite(const void* data, std::uint64_t length, std::uint64_t& outCount) override;

  /// address: dotted.
  void Connect(const std::string& address, std::uint16_t port);
  /// To all interfaces. Throws "Cannot bind socket".
  void Bind(std::uint16_t port);
  /// To a source port below 1024, which tells the peer that this process is privileged. False when it is not, or when
  /// all are taken: the socket then works without.
  bool BindReservedPort() noexcept;
  /// A new connection's descriptor. It does not block: what a pipe holds could not be sent without a wait otherwise.
  platform::descriptor_t Accept();
  /// True lets the system collect small sends.
  void SetDelay(bool delay);

  /// All bytes, through the second device when one is set. timeoutSec: seconds, 0 for no limit.
  void Send(const void* data, std::uint64_t length, std::uint32_t timeoutSec = 0);
  /// The same for bytes that lie in several places, with one call to the system as long as that takes all. At most
  /// IOV_MAX pieces, without a limit of time. More may follow at once.
  void SendPieces(std::span<const iovec> pieces, bool more = false);
  /// The same for all that a pipe holds. While pipes are scarce, one whose bytes have to wait for the peer is let go.
  void SendPipe(boost::shared_ptr<platform::kernel_pipe_t> pipe, bool more);
  /// Called by whoever sends, each time before it waits for the peer; what it throws ends the sending. To be set while
  /// nobody sends; empty for nothing.
  void SetBeforeSendWait(std::function<void()> told) { beforeSendWait_ = std::move(told); }
  void Recv(void* data, std::uint64_t length);
  void Recv(void* data, std::uint64_t length, std::uint32_t timeoutSec);
  /// At least one byte, and as many as have arrived; without a limit of time, and past the devices.
  std::uint64_t RecvSome(void* data, std::uint64_t length);

  /// One datagram, without a limit of time: its length, and who sent it. An empty one is CCloseTCPConnection.
  std::uint64_t ReceiveFrom(void* data, std::uint64_t length, sockaddr_in& address);
  /// One datagram; the bytes that were sent.
  std::uint64_t SendTo(const void* data, std::uint64_t length, const sockaddr_in& address);

  /// Any number of times.
  void Close() noexcept;
  /// Ends both directions at once: whoever waits to connect or for the peer fails. Any thread, as long as none closes.
  void Abort() const noexcept;

  /// Devices in place of the socket. Send and Recv use the second, when it is set.
  void SetDevices(boost::shared_ptr<io::io_dev_t> first, boost::shared_ptr<io::io_dev_t> second);
  /// "n/a" until connected.
  const std::string& RemoteName() const noexcept { return remoteName_; }
  std::uint32_t TimeoutSec() const noexcept { return timeoutSec_.load(std::memory_order_relaxed); }
  void SetTimeoutSec(std::uint32_t seconds) noexcept { timeoutSec_.store(seconds, std::memory_order_relaxed); }
  /// -1 when closed.
  int Socket() const noexcept { return socket_.Get(); }
  bool IsConnected() const noexcept { return connected_; }
  /// True, the default, ends the stream for the peer at Close.
  void SetCloseGracefully(bool gracefully) noexcept { closeGracefully_ = gracefully; }

  /// True, the default: each call of this socket is an event of the performance log while one runs; calls that never
  /// wait are counted instead.
  void SetPerfEvents(bool wanted) noexcept { perfEvents_ = wanted; }

  static SSocketStatistics& Statistics() noexcept;
  /// Adds what Statistics() holds to the performance log.
  static void WriteStatisticsEvent() noexcept;

 private:
  std::uint64_t ReadOnce(void* data, std::uint64_t length, const char* function);
  void WritePieces(std::span<iovec> pieces, const char* function, int moreFlags = 0);
  void WaitToRead();
  void WaitToWrite();

  boost::shared_ptr<io::io_dev_t> firstDevice_;
  boost::shared_ptr<io::io_dev_t> secondDevice_;
  std::function<void()> beforeSendWait_;
  std::string remoteName_ = "n/a";
  /// Written by reader and writer.
  std::atomic<std::uint32_t> timeoutSec_{0};
  platform::descriptor_t socket_;
  bool connected_ = false;
  bool closeGracefully_ = true;
  bool perfEvents_ = true;
};

/// "a.b.c.d:port".
std::string SocketAddressText(const sockaddr_in& address);
