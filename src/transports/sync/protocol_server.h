// The dispatcher of the synchronous server.
#pragma once

#include <poll.h>

#include <array>
#include <boost/shared_ptr.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "foundation/term_mediator.h"
#include "rpc/rpc_message.h"
#include "transports/sockets/socket_ip.h"
#include "transports/sync/port_search.h"

class CClientThreads;
class IAddressChecker;
namespace win {
class win_thread_t;
}

/// What the server serves and with whom.
struct SProtocolServerParams {
  boost::shared_ptr<CVirtualFs> fs;
  /// Asked once for each connection, and not for datagrams. Null admits everyone.
  boost::shared_ptr<IAddressChecker> addressChecker;
  boost::shared_ptr<IXdrRpcInterface> mountProgram;
  boost::shared_ptr<IXdrRpcInterface> nfsProgram;
  boost::shared_ptr<IXdrRpcInterface> portmapProgram;
  /// Outlive the server: connections run on when it stops.
  boost::shared_ptr<CClientThreads> clientThreads;
  std::uint16_t portmapPort = 111;
  /// Prepares the table of the portmapper. May be empty.
  std::function<void()> prepareRegistration;
  /// Body of the thread that registers ServicePorts() with the portmapper of this machine, whoever that is. Must not
  /// throw. Empty starts no thread.
  std::function<void()> registrationProc;
  /// Ends what that thread waits for. Must not throw. May be empty.
  std::function<void()> abortRegistration;
  /// At stop, when the portmapper is another program's: takes back what was registered. May be empty.
  std::function<void()> unregister;
  /// Pauses of the set-up. Tests replace it.
  port_pause_t pause = PauseForPort;
};

/// Takes the ports of the three programs for TCP and UDP, answers datagrams itself and gives each connection a thread.
/// Lives on the stack of one thread, which calls everything.
class CProtocolServer {
 public:
  /// Throws "Cannot create stop event.".
  CProtocolServer(const SProtocolServerParams& params, boost::shared_ptr<synch::term_mediator_t> terminate);
  CProtocolServer(const CProtocolServer&) = delete;
  CProtocolServer& operator=(const CProtocolServer&) = delete;
  ~CProtocolServer();

  /// Serves until the stop event is set. Throws what fails the set-up; a failure of one client or datagram costs that
  /// one alone.
  void Run();

 private:
  /// Places in the order in which the dispatcher looks at what is ready.
  enum place_t : std::size_t { Stop, MountTcp, MountUdp, NfsTcp, NfsUdp, PortmapTcp, PortmapUdp, PlaceCount };
  static constexpr std::size_t PlacesWithoutPortmap = PortmapTcp;
  static constexpr std::size_t PlacesOfProgram = 2;

  struct SEndpoint {
    std::optional<CSocketIP> socket;
    IXdrRpcInterface* program = nullptr;
  };

  void ChoosePorts();
  void BindPorts();
  void BindProgram(place_t tcp, std::uint16_t port, IXdrRpcInterface& program);
  void BindPortmapper();
  void StartRegistration();
  void Dispatch();
  void WaitForEvent();
  bool IsStopSet() const noexcept { return terminate_->IsTerminated(); }
  void Accept(place_t place);
  void RestListeners(const std::exception& failure);
  void AcceptUdpPacket(CSocketIP& socket, IXdrRpcInterface& program);
  void AnswerDatagram(CSocketIP& socket, IXdrRpcInterface& program);
  void JoinRegistration() noexcept;

  const SProtocolServerParams& params_;
  const boost::shared_ptr<synch::term_mediator_t> terminate_;
  std::array<pollfd, PlaceCount> handles_{};
  std::array<SEndpoint, PlaceCount> endpoints_;  ///< Nothing at Stop.
  std::size_t handleCount_ = PlacesWithoutPortmap;
  std::uint16_t mountPort_ = 0;
  std::uint16_t nfsPort_ = 0;
  bool foreignPortmapper_ = false;
  std::unique_ptr<win::win_thread_t> registration_;
  /// While accepting rests.
  std::optional<std::chrono::steady_clock::time_point> restUntil_;
  bool restTold_ = false;
};
