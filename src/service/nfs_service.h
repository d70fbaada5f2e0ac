// The service: what starts and stops in which order.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>

#include "config/rpc_server_settings.h"
#include "foundation/command_line.h"
#include "programs/portmap_registration.h"
#include "service/portmap_connection.h"

class CAsyncServer;
class CClientThreads;
class CProtocolServerThread;
class CSvcContext;
class CVirtualFs;
class INFSCrashSink;
struct SProtocolServerParams;

/// One for the process. Start and Stop are called by one thread, one after the other.
class CNfsService {
 public:
  CNfsService();
  CNfsService(const CNfsService&) = delete;
  CNfsService& operator=(const CNfsService&) = delete;
  ~CNfsService();

  /// The start sequence. False, and logged, when a step failed; the steps before it stay for Stop.
  bool Start() noexcept;
  /// The stop sequence, after any start: what never started is passed over.
  void Stop() noexcept;
  /// The debug path: serves, with "-sync" by the synchronous server on this thread, and never returns. Throws what
  /// fails the start.
  [[noreturn]] void RunDebug(const CCommandLine& commandLine);

  /// Written in service mode from "-sync"; the registry alone chooses the server there.
  void SetAsyncRequested(bool requested) { asyncRequested_ = requested; }
  bool IsAsyncRequested() const { return asyncRequested_; }
  CRpcServerSettings& RpcServerSettings() { return rpcServerSettings_; }

 private:
  void RunStartSequence();
  [[noreturn]] void ServeDebug(bool synchronous);
  void StartManagement(const boost::shared_ptr<CSvcContext>& context);
  void StartAsyncServer(const CSvcContext& context, boost::shared_ptr<INFSCrashSink> sink);
  SProtocolServerParams ProtocolServerParams(const CSvcContext& context);
  void Register() noexcept;
  void EndConnections();

  bool asyncRequested_ = false;
  CRpcServerSettings rpcServerSettings_;
  PortRegistration registration_;
  CPortmapConnector portmapConnector_;
  /// One of the two servers.
  boost::shared_ptr<CProtocolServerThread> protocolServer_;
  boost::shared_ptr<CAsyncServer> asyncServer_;
  /// Of the synchronous server's connections, and what they serve: it is not to go on a thread of theirs.
  boost::shared_ptr<CClientThreads> clientThreads_;
  boost::shared_ptr<CVirtualFs> fsOfConnections_;
  std::uint32_t mainThreadId_ = 0;
};
