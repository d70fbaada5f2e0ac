#include "config/rpc_server_settings.h"

#include <limits>
#include <optional>
#include <string>

#include "config/registry_errors.h"
#include "foundation/log.h"
#include "platform/registry.h"
#include "platform/text.h"

namespace {

constexpr std::string_view PortValue = "Port";

bool IsPort(std::uint32_t port) {
  return port <= std::numeric_limits<std::uint16_t>::max();
}

}  // namespace

void CRpcServerSettings::ReadPortSettings(std::string_view keyName, const CCommandLine& commandLine,
                                          std::uint32_t defaultPort) {
  useStaticPort_ = true;
  port_ = defaultPort;

  std::uint32_t stored = 0;
  if (platform::registry_t::Instance().GetDword(keyName, PortValue, stored) == platform::error::Success) {
    if (IsPort(stored)) {
      g_rpc_log.Info("Port settings were read from registry. Port: '%1'.", stored);
      port_ = stored;
      return;
    }
    g_rpc_log.Info("Invalid port value was read from registry, setting '%1' is skipped.", stored);
  }

  const std::optional<std::string> argument = commandLine.ValueOf("-port");
  if (!argument)
    return;
  const std::optional<std::uint32_t> given = platform::ParseU32(*argument);
  if (given && IsPort(*given)) {
    g_rpc_log.Info("Port settings were obtained from command line. Port: '%1'.", *given);
    port_ = *given;
    return;
  }
  g_rpc_log.Info("Invalid port value was read from command line, setting '%1' is skipped.", *argument);
}

void CRpcServerSettings::SetPort(bool useStatic, std::uint32_t port) {
  if (useStatic && !IsPort(port))
    throw exc::runtime_exc_t("Invalid argument.");
  useStaticPort_ = useStatic;
  port_ = port;
}

void CRpcServerSettings::StorePortSettings(std::string_view keyName) const {
  g_rpc_log.Info("Storing RPC server settings. Static port: [%1], Port: [%2].", useStaticPort_, port_);
  platform::registry_t& registry = platform::registry_t::Instance();
  try {
    if (useStaticPort_) {
      ThrowIfFailed(registry.SetDword(keyName, PortValue, port_), "Failed to open registry key [%1].", keyName);
    } else {
      ThrowUnlessGone(registry.DeleteValue(keyName, PortValue), "Failed to open registry key [%1].", keyName);
    }
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to store RPC server settings. Key name: [%1].", failure, keyName);
  }
}
