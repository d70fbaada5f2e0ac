#include "remotefs/remotevfs/pipe_handler.h"

#include <algorithm>
#include <array>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/brief_mutex.h"

namespace remotevfs {
namespace {

namespace error = platform::error;
using platform::deadline_t;
using platform::message_pipe_t;

constexpr std::size_t LeastReplyCapacity = 1024;
constexpr std::size_t ChunkSize = 1024;
/// The time for a whole remainder, in times for a piece of it: an agent that sends a little again and again would keep
/// its callers for days.
constexpr std::uint64_t RemainderTimes = 8;
constexpr const char* TransferFailure = "Failed to exchange messages with the restore agent.";

}  // namespace

boost::shared_ptr<message_pipe_t> OpenPipe(const std::string& name, std::uint32_t connectTimeoutMs) {
  platform::pipe_place_t place;
  if (message_pipe_t::Wait(name, connectTimeoutMs, place) != error::Success)
    throw exc::runtime_exc_t("Pipe [%1] is not available.", name);
  g_nfs_log.Info("Opening VFS pipe \"%1\".", name);
  boost::shared_ptr<message_pipe_t> pipe;
  const platform::error_t opened = message_pipe_t::Open(std::move(place), pipe);
  if (opened != error::Success)
    throw exc::win_sys_exc_t("Failed to open pipe handle", opened);
  g_nfs_log.Info("Pipe was opened.");
  return pipe;
}

PipeHandler::PipeHandler(boost::shared_ptr<message_pipe_t> pipe, boost::shared_ptr<synch::manual_event_t> stopEvent,
                         boost::shared_ptr<synch::manual_event_t> abandonEvent, std::size_t maxReplySize)
    : pipe_(std::move(pipe)),
      stopEvent_(std::move(stopEvent)),
      abandonEvent_(std::move(abandonEvent)),
      maxReplySize_(maxReplySize) {}

bool PipeHandler::Transact(const SExchange& exchange, std::uint32_t timeoutMs) {
  const std::lock_guard<std::mutex> guard(lock_);
  Buffer& reply = exchange.reply;
  if (reply.Capacity() == 0)
    reply.Reserve(LeastReplyCapacity);
  bool moreData = false;
  if (!ReceiveFirst(exchange, timeoutMs, moreData))
    return false;
  if (!moreData)
    return true;
  Buffer rest;
  if (!Read(rest, maxReplySize_ - std::min(maxReplySize_, reply.ActualSize()), timeoutMs))
    return false;
  reply.Append(rest.Bytes());
  return true;
}

bool PipeHandler::ReceiveFirst(const SExchange& exchange, std::uint32_t timeoutMs, bool& moreData) {
  platform::CheckNoBriefLock("a request to a mount agent");
  const deadline_t deadline = deadline_t::After(timeoutMs);
  const std::array<int, 2> cancels{stopEvent_->PollDescriptor(), abandonEvent_->PollDescriptor()};
  std::size_t count = 0;
  const platform::pipe_wait_t wait{deadline, cancels};
  const std::span<std::uint8_t> room = exchange.reply.Room();
  const platform::error_t result =
      exchange.pipe != nullptr ? pipe_->Transact(exchange.request, room, *exchange.pipe, count, wait)
                               : pipe_->Transact(exchange.request, exchange.data, room, count, wait, exchange.tail);
  switch (result) {
    case error::Success:
    case error::MoreData:
      exchange.reply.SetActualSize(count);
      moreData = result == error::MoreData;
      return true;
    case error::WaitTimeout:
    case error::OperationAborted:
      return false;
    case error::BrokenPipe:
    case error::PipeBusy:
      // Whoever calls again and again is slowed down by an agent that has gone as by one that is silent.
      synch::waitable_t::WaitAny({stopEvent_.get(), abandonEvent_.get()}, deadline.RemainingMs());
      return false;
    default:
      throw exc::win_sys_exc_t(TransferFailure, result);
  }
}

/// Fills the chunk or comes to the message's end. A message goes on at any time with what is there; only for what is
/// not there yet is there a time: an agent that stops in the middle of a message is silent, too.
platform::error_t PipeHandler::ReadChunk(std::span<std::uint8_t> chunk, std::size_t& count,
                                         const platform::deadline_t& deadline) {
  platform::error_t result = pipe_->Read(chunk, count, {deadline_t::After(0), {}});
  if (result == error::BrokenPipe) {
    g_nfs_log.Info("NFS input pipe is broken ( probably NFS server was restarted or closed).");
    return result;
  }
  if (result != error::WaitTimeout)
    return result;
  const std::array<int, 2> cancels{stopEvent_->PollDescriptor(), abandonEvent_->PollDescriptor()};
  std::size_t later = 0;
  result = pipe_->Read(chunk.subspan(count), later, {deadline, cancels});
  count += later;
  if (result == error::BrokenPipe)
    g_nfs_log.Info("NFS input pipe is broken (probably NFS server was restarted or closed).");
  return result;
}

/// Reads the remainder of a message.
bool PipeHandler::Read(Buffer& out, std::size_t limit, std::uint32_t timeoutMs) {
  constexpr const char* Function = "PipeHandler::Read()";
  logging::log_scope_t scope(g_nfs_log, Function);
  out.Clear();
  Buffer chunk(ChunkSize);
  const deadline_t whole = deadline_t::After(RemainderTimes * timeoutMs);
  for (;;) {
    std::size_t count = 0;
    const deadline_t piece = deadline_t::After(timeoutMs);
    const platform::error_t result =
        ReadChunk(chunk.Room(), count, piece.monotonicNs < whole.monotonicNs ? piece : whole);
    if (result != error::Success && result != error::MoreData) {
      if (result != error::BrokenPipe && result != error::WaitTimeout && result != error::OperationAborted)
        throw exc::win_sys_exc_t(TransferFailure, result);
      scope.Success(Function);
      return false;
    }
    chunk.SetActualSize(count);
    if (count > limit - out.ActualSize()) {
      g_nfs_log.Warning("The reply of the restore agent is longer than [%1] bytes.", maxReplySize_);
      scope.Success(Function);
      return false;
    }
    out.Append(chunk.Bytes());
    if (result == error::Success) {
      scope.Success(Function);
      return true;
    }
  }
}

}  // namespace remotevfs
