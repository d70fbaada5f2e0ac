// Accepts connections to the management endpoint and gives each a thread.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <list>
#include <thread>

#include "management/dcerpc/connection.h"
#include "management/dcerpc/endpoint_socket.h"

namespace dcerpc {

/// What the connections of a listener have in common. Constant once the listener was started.
struct SListenerSettings {
  /// More than so many wait in the queue of the socket until one of them has ended.
  static constexpr std::size_t DefaultConnections = 2000;

  SAssociationSettings association;
  SConnectionLimits limits;
  std::size_t maxConnections = DefaultConnections;
};

/// Serves one listening socket. Its owner's thread calls the operations. Shortage of descriptors, threads or memory
/// makes peers wait or costs the one connection; nothing but the stop ends accepting.
class CListener {
 public:
  CListener(SListeningSocket socket, SListenerSettings settings);
  CListener(const CListener&) = delete;
  CListener& operator=(const CListener&) = delete;
  /// Stops.
  ~CListener();

  /// Starts to accept. Throws win_sys_exc_t or what the system throws when there is no descriptor or thread for it.
  void Start();
  /// Tells the threads to end, and does not wait for them. Calls that run go on to their end and are answered.
  void SignalStop() noexcept;
  /// SignalStop, and waits.
  void Stop() noexcept;

  const SListeningSocket& Socket() const { return socket_; }
  /// Connections that have a thread; some of them may have ended just now.
  std::size_t ConnectionCount() const { return connectionCount_; }

 private:
  struct worker_t {
    std::thread thread;
    std::atomic<bool> done{false};
  };

  void AcceptLoop() noexcept;
  void AcceptOne() noexcept;
  void Admit(platform::descriptor_t peer) noexcept;
  void ServeConnection(platform::descriptor_t peer) noexcept;
  void Reap();
  void PauseForShortage();

  SListeningSocket socket_;
  const SListenerSettings settings_;
  /// Both are eventfds.
  platform::descriptor_t stop_{-1};
  platform::descriptor_t finished_{-1};
  std::thread acceptor_;
  std::atomic<std::size_t> connectionCount_{0};
  /// Of the accepting thread alone.
  std::list<worker_t> workers_;
  bool isShort_ = false;
};

}  // namespace dcerpc
