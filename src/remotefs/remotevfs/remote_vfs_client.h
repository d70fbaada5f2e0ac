// The client of one pipe of a mount agent.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/events.h"
#include "remotefs/remotevfs/buffer.h"
#include "remotefs/remotevfs/pipe_handler.h"
#include "remotefs/remotevfs/vfs_items_array.h"

namespace remotevfs {

/// Asks a mount agent. The paths are UTF-8, below the backup's root, with `//` between a folder and its child. Handles
/// are good for this client alone, and until it goes. Any thread; requests wait for one another.
///
/// Every request throws "Restore agent is not available." once the client is broken, "Timed out waiting for the
/// response from restore agent." when it breaks, "Invalid data stream" for a reply that is too short, after which the
/// next request is as good as any.
class RemoteVfsClient {
 public:
  /// Connects; every failure is told as "Failed to connect to FS server. Pipe: [%1]." with its cause.
  RemoteVfsClient(const std::string& pipeName, std::uint32_t connectTimeoutMs, std::uint32_t responseTimeoutMs);
  RemoteVfsClient(const RemoteVfsClient&) = delete;
  RemoteVfsClient& operator=(const RemoteVfsClient&) = delete;

  /// Whether a reply failed to come, or to be received. Never false again: a broken client is replaced.
  bool IsBroken() const noexcept { return broken_.load(std::memory_order_relaxed); }

  boost::shared_ptr<VfsItemsArray> Enumerate(std::string_view path);
  /// Lists the backup's root.
  boost::shared_ptr<VfsItemsArray> Enumerate() { return Enumerate({}); }
  /// -1: the item was not found. Failures are told as "Failed to open backup item [%1]." with their cause.
  std::int32_t Open(std::string_view path);
  /// Gives what the agent read, which may be less than the length, or, of a wrong agent, more.
  /// With a pipe, the bytes can be left in there: all of them, `out` counting them, or none.
  void Read(std::int32_t handle, std::uint64_t offset, std::uint32_t length, Buffer& out,
            platform::kernel_pipe_t* pipe = nullptr);
  /// Returns the count that the agent tells, unchecked. With a tail, which holds no more than the length, the data has
  /// the bytes before those that it holds.
  std::int32_t Write(std::int32_t handle, std::uint64_t offset, std::uint32_t length, const void* data,
                     platform::kernel_pipe_t* tail = nullptr);
  std::uint64_t GetSize(std::int32_t handle);

  /// Setting it abandons the request at hand and all later ones, which breaks the client.
  const boost::shared_ptr<synch::manual_event_t>& StopEvent() const { return stopEvent_; }

 private:
  void Ask(const Buffer& request, Buffer& reply) { Ask({request.Bytes(), {}, reply}); }
  void Ask(const PipeHandler::SExchange& exchange);

  const boost::shared_ptr<synch::manual_event_t> stopEvent_;
  const std::uint32_t responseTimeoutMs_;
  boost::shared_ptr<PipeHandler> pipeHandler_;
  std::atomic<bool> broken_{false};
};

}  // namespace remotevfs
