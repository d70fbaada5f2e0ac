// What the log reads from the registry. The registry may be absent, damaged or another's: the log opens all the same.
#include <arpa/inet.h>

#include <algorithm>

#include "foundation/debug_string_log.h"
#include "foundation/exc.h"
#include "foundation/log_rotation.h"
#include "foundation/log_setup.h"
#include "platform/environment.h"
#include "platform/registry.h"

namespace logging {

namespace {

constexpr std::uint32_t LargestCount = 1000;
constexpr std::uint32_t LargestPort = 65535;

/// A DWORD or a QWORD.
bool ReadNumber(std::string_view key, std::string_view name, std::uint64_t& number) {
  platform::registry_data_t data;
  if (platform::registry_t::Instance().GetValue(key, name, data) != platform::error::Success)
    return false;
  if (const auto* dword = std::get_if<std::uint32_t>(&data)) {
    number = *dword;
  } else if (const auto* qword = std::get_if<std::uint64_t>(&data)) {
    number = *qword;
  } else {
    return false;
  }
  return true;
}

}  // namespace

rotation_settings_t ReadRotationSettings() {
  try {
    rotation_settings_t settings;
    if (ReadNumber(CommonRegistryKey, "AgentMaxLogSize", settings.maxSize) &&
        platform::registry_t::Instance().GetDword(CommonRegistryKey, "AgentMaxLogCount", settings.maxCount) ==
            platform::error::Success) {
      // A negative count is a large one here.
      settings.maxCount = std::min(settings.maxCount, LargestCount);
      return settings;
    }
  } catch (const std::exception&) {
    // As good as missing.
  }
  return {};
}

std::string LogFolder() {
  std::string folder;
  try {
    if (platform::registry_t::Instance().GetText(CommonRegistryKey, "LogDirectory", folder) ==
            platform::error::Success &&
        !folder.empty()) {
      std::replace(folder.begin(), folder.end(), '\\', '/');
      if (folder.back() != '/')
        folder.push_back('/');
      return folder;
    }
  } catch (const std::exception&) {
    // As good as missing.
  }
  return platform::CommonAppDataFolder() + "/Kelvo/Backup/";
}

namespace receiver {

udp_copy_settings_t ReadUdpCopySettings() {
  constexpr char Key[] = "SOFTWARE\\KelvO\\Kelvo NFS";
  platform::registry_t& registry = platform::registry_t::Instance();
  const platform::error_t error = registry.FindKey(Key);
  if (error != platform::error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to open registry key [%1].", Key), error);
  }
  udp_copy_settings_t settings;
  std::uint32_t number = 0;
  settings.enabled = registry.GetDword(Key, "ExtLogEnabled", number) == platform::error::Success && number != 0;
  if (registry.GetDword(Key, "ExtLogPort", number) == platform::error::Success && number > 0 && number <= LargestPort) {
    settings.port = static_cast<std::uint16_t>(number);
  }
  std::string host;
  in_addr address{};
  if (registry.GetText(Key, "ExtLogHost", host) == platform::error::Success &&
      ::inet_pton(AF_INET, host.c_str(), &address) == 1) {
    settings.host = host;
  }
  return settings;
}

}  // namespace receiver

}  // namespace logging
