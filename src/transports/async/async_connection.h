// One client's TCP connection: records in, replies out.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/byte_buffer.h"
#include "rpc/record_buffer.h"
#include "rpc/xdr_writer.h"
#include "transports/async/request_queue.h"
#include "transports/async/tcp_stream.h"

class IAddressChecker;

namespace impl {

/// Receives on the completion thread, one receive at a time; replies are sent by whichever thread queued the first of
/// them, and by the completion thread when the peer is slow. Ends with its last reference: nothing pending, no request
/// under way. A client that has too much under way, or does not take its replies, is not read from until that is less.
class CAsyncConnection : public win::CTcpStream {
 public:
  /// Bounds of what one client has under way before it is read from no more. Reading goes on at half of them.
  static constexpr std::size_t MaxRequests = 128;
  static constexpr std::size_t MaxRequestBytes = 8U << 20;
  static constexpr std::size_t MaxUnsentBytes = 4U << 20;
  /// What each piece of a reply counts for among the unsent bytes, besides what its buffer has room for.
  static constexpr std::size_t PieceWeight = 256;
  /// How long a reply waits at most for the next one, whatever the worker is busy with.
  static constexpr std::chrono::milliseconds MaxHold{1};

  CAsyncConnection();
  ~CAsyncConnection() override;

  /// Takes over the descriptor that an accept brought.
  void AdoptAccepted(int handle) noexcept;
  /// The accept logic, on the completion thread, after the connection has joined the port; then records are received.
  /// Throws when receiving cannot start. addressChecker may be null.
  void Start(const sockaddr* peer, socklen_t peerLength, boost::shared_ptr<CRequestQueue> queue,
             IAddressChecker* addressChecker);

  /// After Start.
  bool IsFsAccessAllowed() const { return fsAccessAllowed_; }
  const sockaddr_in& PeerAddress() const { return peerAddress_; }
  const std::string& ClientName() const { return clientName_; }

  /// Worker thread: takes the reply out of the writer and sends it after those before it; or holds it, for MaxHold at
  /// most, until the next one is sent or SendHeld called. Dropped when the connection is to be closed.
  void SendReply(CXDRWriter& writer, bool hold);
  /// Worker thread: sends what is held.
  void SendHeld();
  /// Worker thread: false while replies that wait for the peer keep MaxUnsentBytes or more. ContinueParked of the queue
  /// follows then.
  bool MayAnswer();
  /// Whether the next reply may hold its data in a pipe: not while replies wait for the peer and pipes are scarce. Any
  /// thread.
  bool TakesPipes() const noexcept;
  /// Takes no more replies; the connection ends when those that are queued are out.
  void Close();
  /// Worker thread: of large records like the last one the bytes from this offset on may stay in the kernel; 0: none.
  void LeaveDataFrom(std::uint32_t offset) noexcept { leaveFrom_.store(offset, std::memory_order_relaxed); }
  /// Called by the senders: one more request under way, one less.
  void RequestBegun(std::size_t recordSize);
  void RequestOver(std::size_t recordSize) noexcept;

 private:
  class CReceiveCall;
  class CResumeCall;
  class CSendCall;
  class CSendHeldCall;

  /// Room for bytes that came behind what was asked for.
  static constexpr std::size_t StagingSize = 8U << 10;

  // Receiving; completion thread.
  void StartReceive(bool tryFirst);
  win::io_attempt_t AttemptReceive(int handle, win::SIoResult& result);
  win::io_attempt_t AttemptReceiveRest(int handle, win::SIoResult& result);
  void OnReceived(platform::error_t error, std::uint32_t bytes);
  void PlaceReceived(std::size_t bytes);
  /// Works through what has arrived; false when nothing is to be received any more, or not for now.
  bool TakeArrived();
  std::size_t TakeStaged(std::uint8_t* target, std::size_t room);
  /// False for a mark that ends the connection.
  bool BeginBody();
  /// False for a record that is too large beside the others.
  bool GrowBody();
  /// Brings what came into the pipe into memory, where the rest of the record is received then.
  platform::error_t EndRest();
  void PostRecord();
  bool PauseIfOverloaded();
  void OnResumed();

  // Sending; by whoever holds sending_.
  /// Takes sending_; false when another has it, or there is nothing to send.
  bool BeginSendingHeld();
  void PumpReplies();
  void StartHoldLimit();
  void OnHoldLimit();
  void StartSend(bool tryFirst);
  win::io_attempt_t AttemptSend(int handle, win::SIoResult& result);
  std::size_t GatherLocked(iovec* pieces, std::size_t room);
  /// Brings what waits in pipes into memory, so that whoever does not take replies keeps no pipe from the others.
  platform::error_t EmptyPipes() noexcept;
  platform::error_t EmptyPipe(SXdrSegment& segment, bool isFirst) noexcept;
  void OnSent(platform::error_t error, std::uint32_t bytes);
  /// True when there is more to send.
  bool AccountSent(platform::error_t error, std::uint32_t bytes);
  void DropSentLocked(std::size_t bytes);
  static std::size_t KeptBeside(const SXdrSegment& segment) noexcept;
  [[noreturn]] void FailSend(platform::error_t error);
  bool IsOverloadedLocked(std::size_t divisor) const;
  bool ShallResumeLocked();
  void Resume();
  bool ShallContinueParkedLocked();

  // Constant after Start.
  bool fsAccessAllowed_ = true;
  sockaddr_in peerAddress_{};
  std::string clientName_;
  boost::shared_ptr<CRequestQueue> queue_;

  /// Where the data of a large record begins that nobody needs in memory, as far as is known; 0 when all is needed.
  std::atomic<std::uint32_t> leaveFrom_{0};

  // Completion thread only.
  std::array<std::uint8_t, 4> headerBuffer_{};
  std::size_t headerBytes_ = 0;
  boost::shared_ptr<CRecordBuffer> body_;
  std::size_t bodySize_ = 0;   ///< As announced; the buffer may be shorter yet.
  std::size_t bodyBytes_ = 0;  ///< Received, those in the pipe included.
  bool leaveRest_ = false;     ///< What follows the bytes that the buffer has room for goes into a pipe,
  /// this one, as soon as there is any of it.
  boost::shared_ptr<platform::kernel_pipe_t> rest_;
  bool expectLarge_ = false;  ///< The last record was large: little more than the next mark is read ahead.
  std::size_t receiveRoom_ = 0;
  /// Bytes that came behind what was asked for: small records arrive many at a time.
  std::unique_ptr<std::uint8_t[]> staging_;
  std::size_t stagingBegin_ = 0;
  std::size_t stagingEnd_ = 0;

  /// Guards all below. Not held across a send.
  std::mutex sendLock_;
  std::deque<SXdrSegment> sendQueue_;
  std::size_t sendOffset_ = 0;   ///< Bytes of the first segment that are out.
  std::size_t pipesQueued_ = 0;  ///< Segments of the queue that are in pipes.
  /// Memory that the queue keeps, less what is out of its first segment. Changed under the lock; only the worker adds.
  std::atomic<std::size_t> unsentBytes_{0};
  bool sending_ = false;              ///< Someone sends, or a send is pending: new replies only queue up.
  std::atomic<bool> stalled_{false};  ///< The socket took no more, and not all has left since.
  bool holdLimited_ = false;          ///< A hold limit is pending.
  bool parked_ = false;               ///< The worker was told that requests have to wait.
  bool broken_ = false;               ///< A send failed: nothing will go out any more.
  std::atomic<bool> closing_{false};  ///< Set under the lock.
  std::size_t requests_ = 0;
  std::size_t requestBytes_ = 0;
  bool paused_ = false;
};

}  // namespace impl
