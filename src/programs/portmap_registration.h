// Telling the portmapper on port 111, a foreign one or our own, where MOUNT and NFS listen.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "rpc/rpc_client_stream.h"

/// What is to be registered and what was; who starts the thread fills in the ports from ServicePorts(). Written by the
/// registration thread; others read it after that has ended.
struct PortRegistration {
  std::uint16_t mountPort = 0;
  std::uint8_t mountRegistered = 0;
  std::uint16_t nfsPort = 0;
  std::uint8_t nfsRegistered = 0;
};

/// Gives a stream that is connected to port 111 of this machine, or throws.
using portmap_connector_t = std::function<std::unique_ptr<IRpcClientStream>()>;

/// The body of the registration thread: admits "127.0.0.1" at the service's address checker, registers the TCP ports of
/// MOUNT and NFS, and then calls signalConnected, which tells other processes. A failure is logged, and the service
/// goes on unregistered; there is no second try.
void RegisterOnPortmapProc(PortRegistration& registration, const portmap_connector_t& connect,
                           const std::function<void()>& signalConnected) noexcept;

/// Takes back what was registered. Called at stop, after the registration thread has ended. Throws when the portmapper
/// cannot be reached.
void UnregisterOnPortmap(PortRegistration& registration, const portmap_connector_t& connect);
