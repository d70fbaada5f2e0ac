// A server with programs that do as they are told.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/exc.h"
#include "platform/meanwhile.h"
#include "rpc/service_ports.h"
#include "support/captured_log.h"
#include "support/kernel_pipe_of.h"
#include "transports/async/async_server.h"
#include "transports/async/request_queue.h"
#include "unit/transports/client.h"

namespace test {

/// Whether a thread of this process neither runs nor wants to.
inline bool Sleeps(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string text;
  std::getline(file, text);
  // Its state follows its name.
  const std::size_t end = text.rfind(") ");
  return end != std::string::npos && text.compare(end + 2, 1, "S") == 0;
}

/// What the fake program is told to do by the first word of a request.
enum class order_t : std::uint32_t {
  Echo = 0,   ///< Replies with the record.
  Throw = 1,  ///< Fails with "boom".
  Blow = 2,   ///< Replies with its number and as many zero bytes as the third word says.
  Wait = 3,   ///< As Echo, after the gate was opened whose number is the third word.
  /// The third word is the length of the rest, which need not come into memory. Replies with how much of it did not,
  /// and the record.
  Leave = 4,
  Ask = 5,     ///< As Wait, after it has asked another process and done what there is to do meanwhile.
  Dawdle = 6,  ///< As Echo, after the time for which many replies may be held.
  /// Replies with its number and one byte of a buffer that has room for as many as the third word says.
  Hoard = 7,
  /// Replies with its number, whether the data is in a pipe, and as many bytes as the third word says (PipeData).
  Pipe = 8
};

inline bytes_t Request(order_t order, std::uint32_t number, std::uint32_t parameter = 0) {
  bytes_t record;
  AppendWord(record, static_cast<std::uint32_t>(order));
  AppendWord(record, number);
  AppendWord(record, parameter);
  return record;
}

/// The fake program. Any thread.
class Program {
 public:
  rpc_handler_t Handler() {
    return [this](bool allowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer) {
      Handle(allowed, peer, reader, writer);
    };
  }
  /// Opens the gate and those of lower numbers; without a number all.
  void OpenGate(std::uint32_t number = std::numeric_limits<std::uint32_t>::max() - 1) {
    {
      const std::lock_guard guard(lock_);
      openGates_ = number + 1;
    }
    opened_.notify_all();
  }

  /// What each Ask does in the place of waiting for the other process; before the first request.
  std::function<void()> asked;

  std::atomic<int> begun{0};
  std::atomic<int> handled{0};
  std::atomic<bool> lastAllowed{false};
  std::atomic<std::uint16_t> lastPeerPort{0};
  std::atomic<std::thread::id> lastThread{};
  std::atomic<pid_t> lastTask{0};  ///< The same as the system numbers it.

 private:
  void Handle(bool allowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer) {
    lastThread = std::this_thread::get_id();
    lastTask = ::gettid();
    ++begun;
    lastAllowed = allowed;
    lastPeerPort = ntohs(peer.sin_port);
    const auto order = static_cast<order_t>(reader.UInt());
    if (order == order_t::Leave) {
      reader.UInt();
      reader.LastVarLenView();
      reader.WantRest();
      writer.UInt(reader.Rest() == nullptr ? 0 : static_cast<std::uint32_t>(reader.Rest()->Held()));
    }
    if (order == order_t::Dawdle) {
      std::this_thread::sleep_for(impl::CRequestQueue::MaxHeldTime);
    }
    reader.Gather();
    const auto record = reader.Record();
    switch (order) {
      case order_t::Throw:
        throw exc::runtime_exc_t(std::string("boom"));
      case order_t::Blow: {
        const std::uint32_t number = reader.UInt();
        const bytes_t zeros(reader.UInt());
        writer.UInt(number);
        writer.Data(zeros.data(), zeros.size());
        break;
      }
      case order_t::Hoard: {
        writer.UInt(reader.UInt());
        const auto buffer = boost::make_shared<io::byte_buffer_t>();
        buffer->reserve(reader.UInt());
        buffer->assign(1, 0);
        writer.SharedVarLenData(buffer, 1);
        break;
      }
      case order_t::Pipe: {
        const std::uint32_t number = reader.UInt();
        const bytes_t data = PipeData(number, reader.UInt());
        writer.UInt(number);
        auto pipe = writer.TakesPipes() ? PipeIfFree(data) : nullptr;
        writer.UInt(pipe != nullptr ? 1 : 0);
        if (pipe != nullptr) {
          writer.PipedVarLenData(std::move(pipe));
        } else {
          writer.VarLenData(data.data(), data.size());
        }
        break;
      }
      case order_t::Ask:
        platform::meanwhile_t::Work();
        if (asked) {
          asked();
        }
        [[fallthrough]];
      case order_t::Wait: {
        reader.UInt();
        const std::uint32_t gate = reader.UInt();
        std::unique_lock guard(lock_);
        opened_.wait(guard, [&] { return gate < openGates_; });
        [[fallthrough]];
      }
      case order_t::Dawdle:
      case order_t::Leave:
      case order_t::Echo:
        writer.Data(record.data(), record.size());
        break;
    }
    ++handled;
  }

  std::mutex lock_;
  std::condition_variable opened_;
  std::uint32_t openGates_ = 0;
};

/// The server with the fake program as NFS; ports of the system's choice.
class Server {
 public:
  explicit Server(boost::shared_ptr<IAddressChecker> checker = nullptr) {
    SAsyncServerParams params = Params(program);
    params.addressChecker = std::move(checker);
    server.emplace(std::move(params));
    port = ServicePorts().nfs;
    mountPort = ServicePorts().mount;
  }
  ~Server() { program.OpenGate(); }

  static SAsyncServerParams Params(Program& program) {
    SAsyncServerParams params;
    params.mountProgram = params.nfsProgram = params.portmapProgram = program.Handler();
    params.portmapPort = 0;
    return params;
  }

  Program program;
  std::optional<CAsyncServer> server;
  /// Returns when everything that clients have sent so far stands in the queues: the thread that puts it there serves
  /// other ports too, and their data comes later.
  void AwaitReceived() const {
    Client other(mountPort);
    other.Call(Request(order_t::Echo, 0));
    other.Reply();
  }

  std::uint16_t port = 0;
  std::uint16_t mountPort = 0;
};

}  // namespace test
