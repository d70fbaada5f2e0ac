// One pipe to a mount agent: moves bytes and watches for failure.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

#include "foundation/events.h"
#include "platform/message_pipe.h"
#include "remotefs/remotevfs/buffer.h"

namespace remotevfs {

/// The longest reply that is taken. No listing of an honest agent comes near it, and the memory of a wrong one's comes
/// out of what all mounts share.
inline constexpr std::size_t MaxReplySize = std::size_t{256} << 20;

/// Waits for the pipe and opens it, with a line of the log each. Throws "Pipe [%1] is not available." when its owner
/// has no room within the time, win_sys_exc_t "Failed to open pipe handle".
boost::shared_ptr<platform::message_pipe_t> OpenPipe(const std::string& name, std::uint32_t connectTimeoutMs);

/// Any thread; transactions wait for one another.
class PipeHandler {
 public:
  /// Either event ends a transaction as a failure.
  PipeHandler(boost::shared_ptr<platform::message_pipe_t> pipe, boost::shared_ptr<synch::manual_event_t> stopEvent,
              boost::shared_ptr<synch::manual_event_t> abandonEvent, std::size_t maxReplySize = MaxReplySize);
  PipeHandler(const PipeHandler&) = delete;
  PipeHandler& operator=(const PipeHandler&) = delete;

  struct SExchange {
    std::span<const std::uint8_t> request;
    std::span<const std::uint8_t> data;  ///< What the request goes on with, from where it lies.
    Buffer& reply;
    /// May get the bytes of the reply in the place of its buffer, whose actual size tells how many they are. Or null.
    platform::kernel_pipe_t* pipe = nullptr;
    /// Holds what the request ends with, behind the data. Or null; a request with either has no room for its reply in
    /// the kernel.
    platform::kernel_pipe_t* tail = nullptr;
  };
  /// Sends the request and receives its reply whole, however long: the reply's buffer grows beyond its capacity, which
  /// is made 1,024 bytes when it is 0. False when the reply did not come within the time: for want of an answer, for an
  /// event, or because the agent has gone, of which a caller learns no sooner than of an agent that is silent. What
  /// does not fit the buffer has some more time, as long as it keeps coming. A reply beyond the largest size, and
  /// something unasked that lies in the pipe, are no answer either. win_sys_exc_t for every other failure.
  bool Transact(const SExchange& exchange, std::uint32_t timeoutMs);
  bool Transact(const Buffer& request, Buffer& reply, std::uint32_t timeoutMs) {
    return Transact({request.Bytes(), {}, reply}, timeoutMs);
  }

 private:
  bool ReceiveFirst(const SExchange& exchange, std::uint32_t timeoutMs, bool& moreData);
  bool Read(Buffer& out, std::size_t limit, std::uint32_t timeoutMs);
  platform::error_t ReadChunk(std::span<std::uint8_t> chunk, std::size_t& count, const platform::deadline_t& deadline);

  std::mutex lock_;  // Held for the length of a transaction.
  const boost::shared_ptr<platform::message_pipe_t> pipe_;
  const boost::shared_ptr<synch::manual_event_t> stopEvent_;
  const boost::shared_ptr<synch::manual_event_t> abandonEvent_;
  const std::size_t maxReplySize_;
};

}  // namespace remotevfs
