#include "config/reg_options.h"

#include "config/reg_keys.h"
#include "foundation/log.h"
#include "platform/registry.h"

namespace {

void ReadFlag(std::string_view name, bool& flag) {
  std::uint32_t number = 0;
  if (platform::registry_t::Instance().GetDword(regkeys::Root, name, number) == platform::error::Success)
    flag = number != 0;
}

}  // namespace

CRegOptions::CRegOptions(bool load) {
  if (load)
    Load();
}

bool CRegOptions::Load() {
  platform::registry_t& registry = platform::registry_t::Instance();
  const bool isOpen = registry.FindKey(regkeys::Root) == platform::error::Success;
  if (isOpen) {
    hasPerfLogPath_ = registry.GetText(regkeys::Root, "PerfLogPath", perfLogPath_) == platform::error::Success;
    ReadFlag("AsyncTcp", asyncTcp_);
    ReadFlag("QuillNFSDisableIPAuth", disableIpAuth_);
  }
  LogOptions();
  return isOpen;
}

bool CRegOptions::GetPerfLogPath(std::string& path) const {
  if (hasPerfLogPath_)
    path = perfLogPath_;
  return hasPerfLogPath_;
}

void CRegOptions::LogOptions() const {
  constexpr std::string_view Line = "%1 = %2.";
  g_log.Info("NFS Server options:");
  g_log.Info(Line, "PerfLogPath", hasPerfLogPath_ ? std::string_view(perfLogPath_) : std::string_view());
  g_log.Info(Line, "AsyncTcp", asyncTcp_);
  g_log.Info(Line, "QuillNFSDisableIPAuth", disableIpAuth_);
}
