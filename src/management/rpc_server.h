// The management endpoint of the service: its start and its end.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "config/rpc_server_settings.h"
#include "management/dcerpc/rpc_interface.h"
#include "management/dcerpc/rpc_runtime.h"
#include "management/dcerpc/security_context.h"

/// One interface that a server serves.
struct SRpcInterfaceEntry {
  /// For messages and as annotation in an endpoint mapper.
  std::string name;
  boost::shared_ptr<dcerpc::IRpcInterface> handle;
};

/// What a server serves, and where.
struct CRpcServerConfig {
  CRpcServerSettings settings;
  std::vector<SRpcInterfaceEntry> interfaces;
  /// The first part of the service principal name.
  std::string serviceClass;
};

/// The level that the value MinimumAuthLevel (REG_DWORD, 2 to 6) of the service's key demands of authenticated callers
/// of DoRpc; Connect, which admits all of them, when there is none. Who set something else wanted protection: that is
/// Privacy, with a line in the log.
dcerpc::auth_level_t ReadMinimumAuthLevel();

/// Opens the endpoints of the configuration and the Unix socket, and begins to serve. Waits on platform::Clock() for
/// a port that is held, about four seconds in all. Throws "Failed to start RPC listening." over the cause.
void StartRpcListening(const CRpcServerConfig& config, dcerpc::IRpcRuntime& runtime);
/// Throws "Failed to stop RPC server." over the cause.
void StopRpcListening(dcerpc::IRpcRuntime& runtime);

/// Starts the management endpoint of the process, which keeps the invoker, and with it what the invoker owns, until
/// the endpoint is shut down. Without a security provider nobody can authenticate over TCP. Throws "Failed to
/// initialize 'NFS' RPC interface." over the cause and then keeps nothing. One thread at a time calls the two.
void InitRpcServer(const CRpcServerSettings& settings, boost::shared_ptr<dcerpc::IRpcInterface> invoker,
                   boost::shared_ptr<dcerpc::ISecurityProvider> security);
/// Stops serving, waits for the calls that run, and drops the invoker; nothing when nothing was started. Throws
/// "Failed to de-initialize RPC runtime." over the cause.
void ShutdownRpcServer();
