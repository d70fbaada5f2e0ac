#include "transports/sync/protocol_server.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <thread>
#include <utility>

#include "config/reg_config_ports.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/win_thread.h"
#include "platform/error.h"
#include "rpc/service_ports.h"
#include "transports/sync/client_threads.h"
#include "transports/sync/listening.h"

namespace {

/// Between the look at port 111 and what follows from it.
constexpr std::chrono::milliseconds ProbePause{1000};
constexpr std::uint32_t RegistrationLimitMs = 1000;
/// How long accepting rests when the process is out of descriptors or memory.
constexpr std::chrono::milliseconds AcceptRest{100};
constexpr std::chrono::milliseconds MemoryRest{10};
/// Replies to datagrams go without it.
constexpr std::size_t MarkSize = 4;

int StopDescriptor(synch::term_mediator_t& terminate) {
  try {
    return terminate.StopEvent().PollDescriptor();
  } catch (const exc::win_sys_exc_t& failure) {
    throw exc::win_sys_exc_t("Cannot create stop event.", failure.Code());
  }
}

void SavePorts(const CRegConfigPorts& ports) {
  try {
    g_nfs_log.Info("The Mount or NFS ports have been changed. Trying to perform new values.");
    ports.Save();
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Cannot save new NFS parameters.", failure);
  }
}

}  // namespace

CProtocolServer::CProtocolServer(const SProtocolServerParams& params,
                                 boost::shared_ptr<synch::term_mediator_t> terminate)
    : params_(params), terminate_(std::move(terminate)) {
  for (pollfd& handle : handles_)
    handle = {-1, POLLIN, 0};
  handles_[Stop].fd = StopDescriptor(*terminate_);
}

CProtocolServer::~CProtocolServer() {
  JoinRegistration();
}

void CProtocolServer::Run() {
  if (params_.prepareRegistration)
    params_.prepareRegistration();
  ChoosePorts();
  BindPorts();
  BindPortmapper();
  g_nfs_log.Info("Listening...");
  StartRegistration();
  Dispatch();
  g_nfs_log.Info("Terminating by stop event.");
  JoinRegistration();
  if (foreignPortmapper_ && params_.unregister)
    params_.unregister();
  g_nfs_log.Info("Exit.");
}

void CProtocolServer::ChoosePorts() {
  CRegConfigPorts ports(true);
  g_nfs_log.Info("Try load default mount port from Registry.");
  mountPort_ = FindFreePort(ports.GetMountPort(), IsPortFree, params_.pause);
  g_nfs_log.Info("Try load default NFS port from Registry.");
  nfsPort_ = FindFreePort(ports.GetNfsPort(), IsPortFree, params_.pause);
  ServicePorts().mount = mountPort_;
  ServicePorts().nfs = nfsPort_;
  if (mountPort_ == ports.GetMountPort() && nfsPort_ == ports.GetNfsPort())
    return;
  ports.SetMountPort(mountPort_);
  ports.SetNfsPort(nfsPort_);
  SavePorts(ports);
}

void CProtocolServer::BindPorts() {
  BindProgram(MountTcp, mountPort_, *params_.mountProgram);
  BindProgram(NfsTcp, nfsPort_, *params_.nfsProgram);
}

/// The datagram socket stands behind the listener.
void CProtocolServer::BindProgram(place_t tcp, std::uint16_t port, IXdrRpcInterface& program) {
  for (std::size_t place = tcp; place < tcp + PlacesOfProgram; ++place) {
    CSocketIP& socket = endpoints_[place].socket.emplace(place == tcp);
    (place == tcp ? CreateEventAndListen : CreateEventAndBind)(socket, port);
    endpoints_[place].program = &program;
    handles_[place].fd = socket.Socket();
  }
}

void CProtocolServer::BindPortmapper() {
  foreignPortmapper_ = !TryPort(params_.portmapPort);
  params_.pause(ProbePause);
  if (foreignPortmapper_) {
    g_nfs_log.Info("Foreign portmapper found.");
    return;
  }
  g_nfs_log.Info("Creating own portmapper.");
  BindProgram(PortmapTcp, params_.portmapPort, *params_.portmapProgram);
  handleCount_ = PlaceCount;
}

void CProtocolServer::StartRegistration() {
  if (!params_.registrationProc)
    return;
  try {
    registration_ = std::make_unique<win::win_thread_t>("RegisterOnPortmapProc", params_.registrationProc);
    registration_->Start();
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Cannot create RegisterOnPortmapProc thread.", failure);
  }
}

/// A portmapper that says nothing has had its time by now.
void CProtocolServer::JoinRegistration() noexcept {
  const auto registration = std::exchange(registration_, nullptr);
  if (registration == nullptr)
    return;
  try {
    registration->Join(RegistrationLimitMs);
  } catch (const std::exception&) {
    if (params_.abortRegistration)
      params_.abortRegistration();
  }
}

void CProtocolServer::Dispatch() {
  while (!IsStopSet()) {
    WaitForEvent();
    for (std::size_t place = MountTcp; place < handleCount_ && !IsStopSet(); ++place) {
      if (handles_[place].revents == 0)
        continue;
      if (place % PlacesOfProgram == MountTcp % PlacesOfProgram) {
        Accept(static_cast<place_t>(place));
      } else {
        AcceptUdpPacket(*endpoints_[place].socket, *endpoints_[place].program);
      }
    }
  }
}

void CProtocolServer::WaitForEvent() {
  int limitMs = -1;
  if (restUntil_) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*restUntil_ - std::chrono::steady_clock::now());
    limitMs = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
  }
  const int ready = ::poll(handles_.data(), handleCount_, limitMs);
  if (ready < 0) {
    if (errno == ENOMEM) {
      // The system is short of it for now.
      std::this_thread::sleep_for(MemoryRest);
    } else if (errno != EINTR) {
      throw exc::win_sys_exc_t("Wait error.", platform::LastError());
    }
    for (pollfd& handle : handles_)
      handle.revents = 0;
  }
  if (restUntil_ && std::chrono::steady_clock::now() >= *restUntil_) {
    restUntil_.reset();
    for (const place_t place : {MountTcp, NfsTcp, PortmapTcp})
      handles_[place].events = POLLIN;
  }
}

void CProtocolServer::Accept(place_t place) {
  try {
    const auto socket = boost::make_shared<CSocketIP>(endpoints_[place].socket->Accept(), true);
    restTold_ = false;
    const auto& program = place == MountTcp ? params_.mountProgram
                          : place == NfsTcp ? params_.nfsProgram
                                            : params_.portmapProgram;
    params_.clientThreads->Start({socket, program, params_.fs, params_.addressChecker});
  } catch (const exc::win_sys_exc_t& failure) {
    if (failure.Code() == platform::error::WsaWouldBlock)
      return;
    if (failure.Code() == platform::error::WsaConnectionAborted) {
      g_nfs_log.Warning("Incoming connection was lost.", failure);
      return;
    }
    RestListeners(failure);
  } catch (const std::exception& failure) {
    RestListeners(failure);
  }
}

/// What could not be accepted stays in the listener's queue, where it would be found again at once. A connection that
/// was accepted and for which there is no memory is closed.
void CProtocolServer::RestListeners(const std::exception& failure) {
  if (!std::exchange(restTold_, true)) {
    g_nfs_log.Warning("Short of descriptors or memory. Accepting is tried again until it succeeds.", failure);
  }
  restUntil_ = std::chrono::steady_clock::now() + AcceptRest;
  for (const place_t place : {MountTcp, NfsTcp, PortmapTcp}) {
    handles_[place].events = 0;
    handles_[place].revents = 0;
  }
}

void CProtocolServer::AcceptUdpPacket(CSocketIP& socket, IXdrRpcInterface& program) {
  try {
    AnswerDatagram(socket, program);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Cannot process UDP packet.", failure);
  }
}

void CProtocolServer::AnswerDatagram(CSocketIP& socket, IXdrRpcInterface& program) {
  int size = 0;
  if (::ioctl(socket.Socket(), FIONREAD, &size) != 0)
    throw exc::win_sys_exc_t("ioctlsocket failed in AcceptUDPPacket()", platform::SocketErrorFromErrno(errno));
  if (size <= 0) {
    // An empty datagram looks like none, and would stand before the others for ever.
    char nothing = 0;
    [[maybe_unused]] const ssize_t dropped = ::recv(socket.Socket(), &nothing, 0, MSG_DONTWAIT);
    return;
  }
  CXDRReader reader(static_cast<std::size_t>(size));
  sockaddr_in peer = {};
  socket.ReceiveFrom(reader.Record().data(), reader.Record().size(), peer);
  CXDRWriter writer;
  program.ProcessCall(true, peer, reader, writer, *params_.fs);
  io::byte_buffer_t reply;
  writer.Finish(reply, true);
  socket.SendTo(reply.data() + MarkSize, reply.size() - MarkSize, peer);
}
