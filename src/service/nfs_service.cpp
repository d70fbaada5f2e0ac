#include "service/nfs_service.h"

#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "config/common_options.h"
#include "config/reg_config_ports.h"
#include "config/reg_options.h"
#include "foundation/log.h"
#include "hostfs/host_fs_file_cache.h"
#include "management/dcerpc/gss_provider.h"
#include "management/invoker_interface.h"
#include "management/rpc_server.h"
#include "platform/process.h"
#include "programs/ep_mapper_table.h"
#include "programs/mount_rpc_interface.h"
#include "programs/nfs_rpc_interface.h"
#include "programs/portmap_rpc_interface.h"
#include "rpc/service_ports.h"
#include "service/connection_event.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"
#include "service/crash_setup.h"
#include "service/crash_sinks.h"
#include "service/perf_log_control.h"
#include "service/start_advice.h"
#include "transports/async/async_server.h"
#include "transports/sync/client_threads.h"
#include "transports/sync/protocol_server_thread.h"

namespace {

constexpr std::chrono::milliseconds DebugSleep{10000};
/// How long connections of the synchronous server may take to end when the process does.
constexpr std::uint32_t ConnectionsLimitMs = 60000;

rpc_handler_t WithFs(void (*dispatch)(bool, const sockaddr_in&, CXDRReader&, CXDRWriter&, CVirtualFs&),
                     const boost::shared_ptr<CVirtualFs>& fs) {
  return [dispatch, fs](bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer) {
    dispatch(isClientAllowed, peer, reader, writer, *fs);
  };
}

/// For the user in front of the terminal: a failed start ends the process with 0, so that it must be said.
void TellFailedStart(const std::exception& failure) {
  std::fprintf(stderr, "Failed to start NFS service.\n%s\n", failure.what());
  if (const auto advice = AdviceForFailedStart(failure)) {
    g_log.Error(*advice);
    std::fprintf(stderr, "%s\n", advice->c_str());
  }
}

}  // namespace

CNfsService::CNfsService() = default;

CNfsService::~CNfsService() = default;

bool CNfsService::Start() noexcept {
  try {
    RunStartSequence();
    return true;
  } catch (const std::exception& failure) {
    g_log.Error("Failed to start NFS service.", failure);
    TellFailedStart(failure);
    return false;
  }
}

void CNfsService::RunStartSequence() {
  mainThreadId_ = platform::ThreadId();
  CCommonOptions::Instance().LoadOptions();
  ApplyCrashOptions();
  HostFsFileCache::Init();
  const auto context = boost::make_shared<CSvcContext>();
  CSvcContextHolder::Set(context);
  StartManagement(context);
  StartPerfLog(*context->GetOptions());
  if (!context->GetOptions()->IsAsyncTcp()) {
    g_log.Info("Starting server in synchronous mode.");
    protocolServer_ = boost::make_shared<CProtocolServerThread>(ProtocolServerParams(*context));
  } else {
    g_log.Info("Starting server in asynchronous mode.");
    StartAsyncServer(*context, boost::make_shared<CNFSCrashSink>(mainThreadId_));
  }
  g_log.Info("NFS server is ready to process incoming calls.");
  g_log.Info("");
}

void CNfsService::StartManagement(const boost::shared_ptr<CSvcContext>& context) {
  // The context lives as long as a call may need it, and no holder tells of it any more by then.
  const boost::shared_ptr<dcerpc::IRpcInterface> invoker(new CInvokerInterface,
                                                         [context](CInvokerInterface* object) { delete object; });
  const auto accounts = std::make_shared<const dcerpc::CAccountMap>(dcerpc::MakeSystemAccounts());
  InitRpcServer(rpcServerSettings_, invoker, boost::make_shared<dcerpc::CGssProvider>(accounts));
}

void CNfsService::StartAsyncServer(const CSvcContext& context, boost::shared_ptr<INFSCrashSink> sink) {
  const boost::shared_ptr<CVirtualFs> fs = context.GetFs();
  SAsyncServerParams params;
  params.mountProgram = WithFs(DispatchMountCall, fs);
  params.nfsProgram = WithFs(DispatchNfsCall, fs);
  params.portmapProgram = WithFs(DispatchPortmapCall, fs);
  params.nfsForesight = [fs](std::span<io::byte_buffer_t* const> records) { ForeseeNfsCalls(records, *fs); };
  params.mountPort = context.GetPorts()->GetMountPort();
  params.nfsPort = context.GetPorts()->GetNfsPort();
  params.addressChecker = context.GetAddressChecker();
  params.crashSink = std::move(sink);
  params.prepareRegistration = [] { CEpMapperTable::Instance().Seed(); };
  params.registrationProc = [this] { Register(); };
  params.abortRegistration = [this] { portmapConnector_.Abort(); };
  asyncServer_ = boost::make_shared<CAsyncServer>(std::move(params));
}

SProtocolServerParams CNfsService::ProtocolServerParams(const CSvcContext& context) {
  fsOfConnections_ = context.GetFs();
  clientThreads_ = boost::make_shared<CClientThreads>();
  SProtocolServerParams params;
  params.fs = fsOfConnections_;
  params.addressChecker = context.GetAddressChecker();
  params.mountProgram = boost::make_shared<CMountRpcInterface>();
  params.nfsProgram = boost::make_shared<CNfsRpcInterface>();
  params.portmapProgram = boost::make_shared<CPortmapRpcInterface>();
  params.clientThreads = clientThreads_;
  params.prepareRegistration = [] { CEpMapperTable::Instance().Seed(); };
  params.registrationProc = [this] { Register(); };
  params.abortRegistration = [this] { portmapConnector_.Abort(); };
  params.unregister = [this] {
    // Not the connector of the registration, which may have been told to give up.
    CPortmapConnector connector;
    UnregisterOnPortmap(registration_, [&connector] { return connector.Connect(); });
  };
  return params;
}

void CNfsService::Register() noexcept {
  registration_.mountPort = ServicePorts().mount;
  registration_.nfsPort = ServicePorts().nfs;
  RegisterOnPortmapProc(
      registration_, [this] { return portmapConnector_.Connect(); }, SignalConnectionEvent);
}

/// They outlive their server, and are not to outlive what they use.
void CNfsService::EndConnections() {
  if (clientThreads_ != nullptr && !clientThreads_->End(ConnectionsLimitMs)) {
    g_log.Error("Connections did not end within %1 milliseconds.", ConnectionsLimitMs);
    // Its destructor would wait for them without a limit, so that it gets none.
    static auto* const leftRunning = new std::vector<boost::shared_ptr<CClientThreads>>;
    leftRunning->push_back(clientThreads_);
  }
  clientThreads_.reset();
  fsOfConnections_.reset();
}

void CNfsService::Stop() noexcept {
  try {
    CSvcContextHolder::Set(nullptr);
    ShutdownRpcServer();
    protocolServer_.reset();
    // Before the asynchronous server: what that still does is not waited for.
    StopPerfLog();
    // Last reference: the server stops before its memory goes.
    asyncServer_.reset();
    EndConnections();
    HostFsFileCache::Deinit();
  } catch (const std::exception& failure) {
    g_log.Error("Failed to stop NFS service.", failure);
  }
  g_log.Info("NFS server is stopped.");
}

void CNfsService::RunDebug(const CCommandLine& commandLine) {
  try {
    ServeDebug(commandLine.Has("-sync"));
  } catch (const std::exception&) {
    // Nothing of it is to run when the process ends.
    ShutdownRpcServer();
    EndConnections();
    throw;
  }
}

void CNfsService::ServeDebug(bool synchronous) {
  {
    const auto context = boost::make_shared<CSvcContext>();
    StartManagement(context);
    if (synchronous) {
      g_log.Info("Launched with standard protocol server.");
      // Nobody sets its stop event.
      const SProtocolServerParams params = ProtocolServerParams(*context);
      CProtocolServer(params, boost::make_shared<synch::term_mediator_t>()).Run();
    } else {
      g_log.Info("Launched with async protocol server.");
      StartAsyncServer(*context, boost::make_shared<CSilentNFSCrashSink>());
    }
  }
  for (;;)
    std::this_thread::sleep_for(DebugSleep);
}
