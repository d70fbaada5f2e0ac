// The service: what starts and stops in which order.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>

#include "config/rpc_server_settings.h"
#include "foundation/command_line.h"
#include "programs/portmap_registration.h"
#include "service/portmap_connection.h"

class CAsyncServer;
class CSvcContext;
class INFSCrashSink;

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
  /// The debug path: serves with the asynchronous server and never returns. Throws what fails the start.
  [[noreturn]] void RunDebug(const CCommandLine& commandLine);

  /// Written in service mode from "-sync"; the registry alone chooses the server there.
  void SetAsyncRequested(bool requested) { asyncRequested_ = requested; }
  bool IsAsyncRequested() const { return asyncRequested_; }
  CRpcServerSettings& RpcServerSettings() { return rpcServerSettings_; }

 private:
  void RunStartSequence();
  void StartManagement(const boost::shared_ptr<CSvcContext>& context);
  void StartAsyncServer(const CSvcContext& context, boost::shared_ptr<INFSCrashSink> sink);

  bool asyncRequested_ = false;
  CRpcServerSettings rpcServerSettings_;
  PortRegistration registration_;
  CPortmapConnector portmapConnector_;
  boost::shared_ptr<CAsyncServer> asyncServer_;
  std::uint32_t mainThreadId_ = 0;
};
