// A listener that keeps one accept outstanding.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "transports/async/completion_port.h"
#include "transports/async/port_binding.h"
#include "transports/async/tcp_stream.h"

namespace win {

/// One accept without waiting; handle and peer are set when it brought a connection.
io_attempt_t TryAccept(int listener, int& handle, sockaddr_storage& peer, socklen_t& peerLength, SIoResult& result);

/// TryAccept, or what a test puts in its place.
using accept_t = std::function<io_attempt_t(int, int&, sockaddr_storage&, socklen_t&, SIoResult&)>;

/// Listens from construction on, and accepts from StartAccept on, until the port ends. TConnection is made before its
/// socket, and Adopt gives it one.
template <typename TConnection>
class CTcpAcceptor : public CTcpStream {
 public:
  using connection_ptr = boost::intrusive_ptr<TConnection>;
  /// Told of each connection that was accepted, on the completion thread.
  using on_connection_t = std::function<void(const sockaddr* peer, socklen_t peerLength, const connection_ptr&)>;

  /// How long accepting rests after a connection that ended before it was accepted.
  static constexpr std::chrono::milliseconds ResetPause{10000};

  /// Throws win_sys_exc_t. An empty pause waits on the port.
  CTcpAcceptor(boost::shared_ptr<synch::completion_port_t> port, const SPortBinding& binding,
               on_connection_t onConnection, pause_t resetPause = {}, accept_t accept = TryAccept)
      : completionPort_(std::move(port)),
        name_(binding.label),
        onConnection_(std::move(onConnection)),
        resetPause_(std::move(resetPause)),
        accept_(std::move(accept)),
        boundPort_(BindTcpPort(GetHandle(), binding)) {}

  /// Host order.
  std::uint16_t BoundPort() const { return boundPort_; }

  /// Starts the next accept, once there is memory for it. The first one joins the listener to the port. Throws
  /// win_sys_exc_t.
  void StartAccept() {
    completionPort_->StartDespiteShortage([this] { TryStartAccept(); });
  }

 private:
  void TryStartAccept() {
    logging::quiet_log_scope_t scope(g_nfs_log, "Accepting incoming TCP connection.");
    if (!associated_) {
      completionPort_->Associate(*this);
      associated_ = true;
    }
    const connection_ptr connection(new TConnection());
    const boost::intrusive_ptr<CAcceptEvent> event(new CAcceptEvent(this, connection));
    for (;;) {
      const platform::error_t error = StartIo(event);
      if (error == platform::error::Success) {
        break;
      }
      if (error != platform::error::WsaConnectionReset) {
        throw exc::win_sys_exc_t("Failed to accept incoming connection.", error);
      }
      g_nfs_log.Warning("Incoming connection was indicated, but was subsequently terminated by the remote peer.");
      if (resetPause_) {
        resetPause_(ResetPause);
      } else {
        completionPort_->Pause(ResetPause);
      }
    }
    scope.Success();
  }

  /// The pending accept; owns the connection to be.
  class CAcceptEvent : public CIoEventHandler {
   public:
    CAcceptEvent(boost::intrusive_ptr<CTcpAcceptor> acceptor, connection_ptr connection)
        : CIoEventHandler(acceptor, io_direction_t::Read), acceptor_(*acceptor), connection_(std::move(connection)) {}

    io_attempt_t Attempt(int handle, SIoResult& result) override {
      int accepted = -1;
      const io_attempt_t attempt = acceptor_.accept_(handle, accepted, peer_, peerLength_, result);
      if (accepted >= 0) {
        connection_->AdoptAccepted(accepted);
      }
      return attempt;
    }
    void OnComplete(CIoObject&, platform::error_t error, std::uint32_t) override {
      acceptor_.OnAccepted(error, reinterpret_cast<const sockaddr*>(&peer_), peerLength_, connection_);
    }

   private:
    CTcpAcceptor& acceptor_;
    connection_ptr connection_;
    sockaddr_storage peer_{};
    socklen_t peerLength_ = 0;
  };

  void OnAccepted(platform::error_t error, const sockaddr* peer, socklen_t peerLength,
                  const connection_ptr& connection) {
    logging::quiet_log_scope_t scope(g_nfs_log, "On TCP connection accepted.");
    Welcome(error, peer, peerLength, connection);
    StartAccept();
    scope.Success();
  }

  /// The failure of one connection is its own, and so is one of telling of it.
  void Welcome(platform::error_t error, const sockaddr* peer, socklen_t peerLength,
               const connection_ptr& connection) noexcept {
    try {
      if (error != platform::error::Success) {
        g_nfs_log.Error("Failed to accept connection.", exc::win_sys_exc_t(name_, error));
        return;
      }
      completionPort_->Associate(*connection);
      onConnection_(peer, peerLength, connection);
    } catch (const std::exception& failure) {
      g_nfs_log.Error("Exception while handling I/O event.", failure);
    }
  }

  const boost::shared_ptr<synch::completion_port_t> completionPort_;
  const std::string name_;
  const on_connection_t onConnection_;
  const pause_t resetPause_;
  const accept_t accept_;
  const std::uint16_t boundPort_;
  bool associated_ = false;
};

}  // namespace win
