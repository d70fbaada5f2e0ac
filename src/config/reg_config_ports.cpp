#include "config/reg_config_ports.h"

#include <limits>

#include "config/reg_keys.h"
#include "config/registry_errors.h"
#include "foundation/log.h"
#include "platform/registry.h"

namespace {

using port_t = std::atomic<std::uint16_t>;

bool IsPort(std::uint32_t port) {
  return port <= std::numeric_limits<std::uint16_t>::max();
}

void Set(port_t& held, std::uint32_t port) {
  if (!IsPort(port))
    throw exc::runtime_exc_t("Invalid argument.");
  held = static_cast<std::uint16_t>(port);
}

void Read(std::string_view name, port_t& held) {
  std::uint32_t port = 0;
  if (platform::registry_t::Instance().GetDword(regkeys::Root, name, port) == platform::error::Success && IsPort(port))
    held = static_cast<std::uint16_t>(port);
}

}  // namespace

CRegConfigPorts::CRegConfigPorts(bool load) {
  if (load)
    Load();
}

void CRegConfigPorts::SetMountPort(std::uint32_t port) {
  Set(mountPort_, port);
}

void CRegConfigPorts::SetNfsPort(std::uint32_t port) {
  Set(nfsPort_, port);
}

void CRegConfigPorts::Load() {
  try {
    ThrowIfFailed(platform::registry_t::Instance().CreateKey(regkeys::Root), "Failed to open registry key [%1].",
                  regkeys::Root);
    Read("MountPort", mountPort_);
    Read("NfsPort", nfsPort_);
  } catch (const std::exception& failure) {
    g_log.Warning("Failed to load registry options.", failure);
  }
}

void CRegConfigPorts::Save() const {
  try {
    ThrowIfFailed(platform::registry_t::Instance().SetValues(
                      regkeys::Root, {{"MountPort", std::uint32_t{mountPort_}}, {"NfsPort", std::uint32_t{nfsPort_}}}),
                  "Failed to open registry key [%1].", regkeys::Root);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to save registry options.", failure);
  }
}
