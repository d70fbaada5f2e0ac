// A program that does as it is told, for sessions and the server.
#pragma once

#include <atomic>
#include <boost/make_shared.hpp>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "foundation/exc.h"
#include "rpc/rpc_message.h"
#include "rpc/xdr_completion_queue.h"
#include "support/captured_log.h"
#include "support/kernel_pipe_of.h"
#include "transports/sync/client_session.h"
#include "unit/transports/client.h"

namespace test {

/// What the first word of a call tells the program.
enum class order_t : std::uint32_t {
  Echo = 0,   ///< Replies with the record.
  Throw = 1,  ///< Fails with "boom".
  Blow = 2,   ///< Replies with the number and as many zero bytes as the third word says.
  Hold = 3,   ///< Replies with the number when the test ends the call.
  Block = 4,  ///< As Echo, after the gate was opened.
  /// Replies with the number, whether the data is in a pipe, and as many bytes as the third word says (PipeData).
  Pipe = 5
};

inline bytes_t Request(order_t order, std::uint32_t number, std::uint32_t parameter = 0) {
  bytes_t record;
  AppendWord(record, static_cast<std::uint32_t>(order));
  AppendWord(record, number);
  AppendWord(record, parameter);
  return record;
}

/// Any thread.
class CProgram : public IXdrRpcInterface {
 public:
  void ProcessAsyncCall(bool isClientAllowed, const sockaddr_in& peer, const boost::shared_ptr<CXDRReader>& reader,
                        const boost::shared_ptr<CXDRCompletionQueue>& completionQueue, CVirtualFs& fs) override {
    const auto record = reader->Record();
    if (record.size() == 12 && record[3] == static_cast<std::uint8_t>(order_t::Pipe)) {
      PostPiped(*reader, *completionQueue);
      return;
    }
    if (record.size() < 8 || record[3] != static_cast<std::uint8_t>(order_t::Hold)) {
      IXdrRpcInterface::ProcessAsyncCall(isClientAllowed, peer, reader, completionQueue, fs);
      return;
    }
    reader->UInt();
    const std::uint32_t number = reader->UInt();
    const auto writer = boost::make_shared<CXDRWriter>();
    writer->UInt(number);
    const CXDRCallCompletionRec place = completionQueue->Reserve(writer, reader->UInt());
    const std::lock_guard guard(lock_);
    held_.emplace(number, place);
    heldChanged_.notify_all();
  }
  void ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                   CVirtualFs&) override {
    ++begun;
    lastAllowed = isClientAllowed;
    lastPeerPort = ntohs(peer.sin_port);
    const auto record = reader.Record();
    const auto order = static_cast<order_t>(reader.UInt());
    if (order == order_t::Throw)
      throw exc::runtime_exc_t(std::string("boom"));
    if (order == order_t::Blow) {
      writer.UInt(reader.UInt());
      const bytes_t zeros(reader.UInt());
      writer.Data(zeros.data(), zeros.size());
      return;
    }
    if (order == order_t::Block) {
      std::unique_lock guard(lock_);
      opened_.wait(guard, [this] { return isOpen_; });
    }
    writer.Data(record.data(), record.size());
  }

  std::size_t Held() {
    const std::lock_guard guard(lock_);
    return held_.size();
  }
  /// Of a call that is held, or on its way here.
  void End(std::uint32_t number) { TakeHeld(number).Complete(); }
  /// The same, without a reply.
  void Abandon(std::uint32_t number) { TakeHeld(number).Abandon(); }
  void OpenGate() {
    const std::lock_guard guard(lock_);
    isOpen_ = true;
    opened_.notify_all();
  }

  std::atomic<int> begun{0};
  std::atomic<bool> lastAllowed{false};
  std::atomic<std::uint16_t> lastPeerPort{0};

 private:
  void PostPiped(CXDRReader& reader, CXDRCompletionQueue& completionQueue) {
    ++begun;
    reader.UInt();
    const std::uint32_t number = reader.UInt();
    const bytes_t data = PipeData(number, reader.UInt());
    const auto writer = boost::make_shared<CXDRWriter>();
    auto pipe = completionQueue.TakesPipes() ? PipeIfFree(data) : nullptr;
    writer->UInt(number);
    writer->UInt(pipe != nullptr ? 1 : 0);
    if (pipe != nullptr) {
      writer->TakePipes();
      writer->PipedVarLenData(std::move(pipe));
    } else {
      writer->VarLenData(data.data(), data.size());
    }
    completionQueue.PostFinished(writer);
  }
  CXDRCallCompletionRec TakeHeld(std::uint32_t number) {
    std::unique_lock guard(lock_);
    heldChanged_.wait(guard, [&] { return held_.contains(number); });
    return held_.extract(held_.find(number)).mapped();
  }

  std::mutex lock_;
  std::condition_variable opened_;
  std::condition_variable heldChanged_;
  std::multimap<std::uint32_t, CXDRCallCompletionRec> held_;
  bool isOpen_ = false;
};

/// Stands for the file system, which these programs do not look at.
inline boost::shared_ptr<CVirtualFs> NoFs() {
  static char place[64];
  return boost::shared_ptr<CVirtualFs>(boost::shared_ptr<char>(), reinterpret_cast<CVirtualFs*>(place));
}

inline bytes_t NumberReply(std::uint32_t number) {
  bytes_t reply;
  AppendWord(reply, number);
  return reply;
}

}  // namespace test
