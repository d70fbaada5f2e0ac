#include "management/rpc_server.h"

#include <boost/make_shared.hpp>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "config/reg_keys.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "management/level_guard.h"
#include "platform/clock.h"
#include "platform/registry.h"

namespace {

using dcerpc::auth_level_t;
using dcerpc::auth_type_t;
using dcerpc::IRpcRuntime;
using platform::error_t;

constexpr std::string_view InvokerName = "Kelvo Invoker";
constexpr std::string_view ServiceClass = "KelvoNfsSvc";

void ThrowOnFailure(error_t result, const std::string& text) {
  if (result != platform::error::Success)
    throw exc::win_sys_exc_t(text, result);
}

/// Opens an endpoint; one that another process holds may be released soon.
template <typename Use>
error_t UseWithRetries(const Use& use) {
  constexpr int Attempts = 5;
  constexpr std::uint32_t PauseMs = 1000;
  for (int attempt = 1;; ++attempt) {
    const error_t result = use();
    if (result != dcerpc::endpoint_error::DuplicateEndpoint || attempt == Attempts)
      return result;
    if (attempt == 1)
      g_rpc_log.Info("Waiting for endpoint to be released");
    platform::Clock().Sleep(PauseMs);
  }
}

void RegisterPort(IRpcRuntime& runtime, std::uint32_t port) {
  g_rpc_log.Info("Specified port for listening: [%1].", port);
  ThrowOnFailure(UseWithRetries([&] { return runtime.UsePort(port); }),
                 exc::FormatText("Failed to register TCP/IP RPC endpoint. Port: [%1].", port));
}

void RegisterEndpoints(const CRpcServerSettings& settings, IRpcRuntime& runtime) {
  if (settings.UseStaticPort())
    RegisterPort(runtime, settings.Port());
  if (settings.UseSecondPort())
    RegisterPort(runtime, settings.SecondPort());
  if (!settings.UseStaticPort() && !settings.UseSecondPort())
    ThrowOnFailure(runtime.UseAnyPort(),
                   "Failed to register RPC protocol sequences enabled for receiving remote calls.");
  ThrowOnFailure(UseWithRetries([&] { return runtime.UseLocalSocket(); }),
                 exc::FormatText("Failed to register local RPC endpoint. Path: [%1].", dcerpc::LocalSocketPath()));
}

/// False, and logged, when callers cannot authenticate in this way.
bool TryRegisterAuthentication(IRpcRuntime& runtime, const std::string& spn, auth_type_t type, std::string_view name) {
  try {
    runtime.RegisterAuthentication(spn, type);
    return true;
  } catch (const std::exception& failure) {
    g_rpc_log.Error(
        exc::FormatText("Unable to register service authentication records with %1 security provider.", name), failure);
    return false;
  }
}

void RegisterAuthenticationRecords(const std::string& serviceClass, IRpcRuntime& runtime) {
  std::string host;
  ThrowOnFailure(runtime.QualifiedHostName(host), "Failed to retrieve fully qualified computer name (FQDN).");
  g_rpc_log.Info("FQDN of the computer: [%1].", host);
  std::string spn;
  ThrowOnFailure(runtime.MakeSpn(serviceClass, host, spn),
                 exc::FormatText("Failed to construct a service principal name (SPN) that identifies a service "
                                 "instance. Computer FQDN: [%1].",
                                 host));
  g_rpc_log.Info("Service SPN: [%1]", spn);
  if (!TryRegisterAuthentication(runtime, spn, auth_type_t::Negotiate, "Negotiate")) {
    TryRegisterAuthentication(runtime, spn, auth_type_t::Ntlm, "WinNT");
    TryRegisterAuthentication(runtime, spn, auth_type_t::Kerberos, "Kerberos");
  }
  g_rpc_log.Info("RPC authentication records were initialized.");
}

void RegisterInterfaces(const std::vector<SRpcInterfaceEntry>& interfaces, IRpcRuntime& runtime) {
  try {
    for (const SRpcInterfaceEntry& entry : interfaces) {
      const error_t result = runtime.RegisterInterface(entry.handle);
      if (result == dcerpc::rpc_error::TypeAlreadyRegistered) {
        g_rpc_log.Info("RPC interface '%1' already registered in RPC runtime.", entry.name);
      } else {
        ThrowOnFailure(result, exc::FormatText("Failed to process interface [%1].", entry.name));
      }
    }
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to register RPC interfaces with runtime library.", failure);
  }
}

void RegisterWithEndpointMapper(const std::vector<SRpcInterfaceEntry>& interfaces,
                                const std::vector<std::string>& bindings, IRpcRuntime& runtime) {
  try {
    for (const SRpcInterfaceEntry& entry : interfaces)
      ThrowOnFailure(runtime.RegisterEndpoint(entry.handle->Id(), entry.name, bindings),
                     exc::FormatText("Failed to process interface [%1].", entry.name));
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to register endpoints used by RPC interfaces in the endpoint mapper database.", failure);
  }
}

void Listen(IRpcRuntime& runtime) {
  const error_t result = runtime.Listen();
  if (result == dcerpc::rpc_error::AlreadyListening) {
    g_rpc_log.Warning("RPC server listening is already launched.");
  } else {
    ThrowOnFailure(result, "Failed to signal RPC runtime to listen for remote function calls.");
  }
}

CRpcServerConfig MakeConfig(const CRpcServerSettings& settings, boost::shared_ptr<dcerpc::IRpcInterface> invoker) {
  boost::shared_ptr<dcerpc::IRpcInterface> guarded =
      boost::make_shared<CLevelGuard>(std::move(invoker), ReadMinimumAuthLevel());
  return {settings, {{std::string(InvokerName), std::move(guarded)}}, std::string(ServiceClass)};
}

/// The endpoint of the process, from start to shut-down.
struct running_server_t {
  /// Keeps alive what calls work on while they run.
  boost::shared_ptr<dcerpc::IRpcInterface> owner;
  std::unique_ptr<dcerpc::CRpcRuntime> runtime;
};

running_server_t& RunningServer() {
  static running_server_t server;
  return server;
}

}  // namespace

auth_level_t ReadMinimumAuthLevel() {
  constexpr std::string_view Name = "MinimumAuthLevel";
  platform::registry_data_t data;
  const platform::error_t result = platform::registry_t::Instance().GetValue(regkeys::Root, Name, data);
  if (result == platform::error::FileNotFound)
    return auth_level_t::Connect;
  const auto* const number = result == platform::error::Success ? std::get_if<std::uint32_t>(&data) : nullptr;
  if (number == nullptr || *number < static_cast<std::uint32_t>(auth_level_t::Connect) ||
      *number > static_cast<std::uint32_t>(auth_level_t::Privacy)) {
    g_rpc_log.Warning("The value %1 is no REG_DWORD from 2 to 6 or cannot be read: the highest level is demanded.",
                      Name);
    return auth_level_t::Privacy;
  }
  g_rpc_log.Info("%1 = %2.", Name, *number);
  return static_cast<auth_level_t>(*number);
}

void StartRpcListening(const CRpcServerConfig& config, IRpcRuntime& runtime) {
  try {
    logging::log_scope_t scope(g_rpc_log, "Starting RPC listening.");
    RegisterEndpoints(config.settings, runtime);
    RegisterAuthenticationRecords(config.serviceClass, runtime);
    RegisterInterfaces(config.interfaces, runtime);
    std::vector<std::string> bindings;
    ThrowOnFailure(runtime.InquireBindings(bindings),
                   "Failed to enumerate the binding handles over which remote procedure calls can be received.");
    RegisterWithEndpointMapper(config.interfaces, bindings, runtime);
    Listen(runtime);
    scope.Success("RPC server is initialized.");
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to start RPC listening.", failure);
  }
}

void StopRpcListening(IRpcRuntime& runtime) {
  try {
    logging::log_scope_t scope(g_rpc_log, "Stopping RPC server.");
    ThrowOnFailure(runtime.StopListening(), "The RPC server does not listen.");
    scope.Success("Server was successfully stopped.");
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to stop RPC server.", failure);
  }
}

void InitRpcServer(const CRpcServerSettings& settings, boost::shared_ptr<dcerpc::IRpcInterface> invoker,
                   boost::shared_ptr<dcerpc::ISecurityProvider> security) {
  try {
    running_server_t& server = RunningServer();
    if (server.runtime != nullptr)
      throw exc::runtime_exc_t("The RPC server is initialized already.");
    auto runtime = std::make_unique<dcerpc::CRpcRuntime>(std::move(security));
    StartRpcListening(MakeConfig(settings, invoker), *runtime);
    server = {std::move(invoker), std::move(runtime)};
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to initialize 'NFS' RPC interface.", failure);
  }
}

void ShutdownRpcServer() {
  // Dropped in any case: the runtime first, for its calls use the owner.
  running_server_t stopping = std::exchange(RunningServer(), {});
  if (stopping.runtime == nullptr)
    return;
  try {
    StopRpcListening(*stopping.runtime);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to de-initialize RPC runtime.", failure);
  }
}
