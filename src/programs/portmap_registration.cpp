#include "programs/portmap_registration.h"

#include <exception>

#include "config/address_checker.h"
#include "config/nfs_options.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "programs/ep_mapper_table.h"
#include "programs/mount_rpc_interface.h"
#include "programs/nfs_rpc_interface.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"

namespace {

constexpr std::uint32_t SetProcedure = 1;
constexpr std::uint32_t UnsetProcedure = 2;

PortmapRecord MountRecord(const PortRegistration& registration) {
  return {CMountRpcInterface::Program, CMountRpcInterface::Version, PortmapProtocolTcp, registration.mountPort};
}

PortmapRecord NfsRecord(const PortRegistration& registration) {
  return {CNfsRpcInterface::Program, CNfsRpcInterface::Version, PortmapProtocolTcp, registration.nfsPort};
}

/// The portmapper's answer to SET or UNSET.
bool Ask(IRpcClientStream& stream, std::uint32_t procedure, const PortmapRecord& record) {
  CXDRWriter request;
  request.PortmapCall(procedure);
  record.Encode(request);
  CXDRReader reply;
  CallForeignPortmap(stream, request, reply, NfsOptions().recvTimeoutSec);
  return reply.Bool();
}

/// The two are not treated alike: a refused MOUNT registration passes, so that a row left by an earlier run does not
/// keep NFS from being registered, and only a port that was never bound fails there.
void RegisterPorts(IRpcClientStream& stream, PortRegistration& registration) {
  if (registration.mountRegistered == 0) {
    registration.mountRegistered = Ask(stream, SetProcedure, MountRecord(registration)) ? 1 : 0;
    if (registration.mountPort == 0)
      throw exc::runtime_exc_t("Failed to register MOUNT server on protocol TCP.");
  }
  if (registration.nfsRegistered == 0) {
    registration.nfsRegistered = Ask(stream, SetProcedure, NfsRecord(registration)) ? 1 : 0;
    if (registration.nfsRegistered == 0)
      throw exc::runtime_exc_t("Failed to register NFS server on protocol TCP.");
  }
}

}  // namespace

void RegisterOnPortmapProc(PortRegistration& registration, const portmap_connector_t& connect,
                           const std::function<void()>& signalConnected) noexcept {
  try {
    g_nfs_log.Info("Try to register on portmapper.");
    CSvcContextHolder::Get()->GetAddressChecker()->AddAddresses("127.0.0.1");
    {
      const std::unique_ptr<IRpcClientStream> stream = connect();
      RegisterPorts(*stream, registration);
    }
    signalConnected();
  } catch (const std::exception& exception) {
    g_nfs_log.Error("Cannot register on portmapper.", exception);
  }
}

void UnregisterOnPortmap(PortRegistration& registration, const portmap_connector_t& connect) {
  g_nfs_log.Info("Unregistring on foreign portmapper.");
  const std::unique_ptr<IRpcClientStream> stream = connect();
  if (registration.mountRegistered != 0) {
    Ask(*stream, UnsetProcedure, MountRecord(registration));
    registration.mountRegistered = 0;
  }
  if (registration.nfsRegistered != 0) {
    Ask(*stream, UnsetProcedure, NfsRecord(registration));
    registration.nfsRegistered = 0;
  }
}
