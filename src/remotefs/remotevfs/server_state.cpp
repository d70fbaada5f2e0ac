#include "remotefs/remotevfs/server_state.h"

#include <algorithm>

#include "foundation/exc.h"
#include "foundation/log.h"

namespace remotevfs {

std::string PipeName(std::string_view fullPipeBaseName, std::uint32_t number) {
  return std::string(fullPipeBaseName) + '-' + std::to_string(number);
}

std::string ResetEventName(std::string_view fullPipeBaseName, std::uint32_t number) {
  fullPipeBaseName.remove_prefix(std::min(PipePrefix.size(), fullPipeBaseName.size()));
  return "Global\\VFS_on_" + PipeName(fullPipeBaseName, number);
}

ServerState::ServerState(std::uint32_t count, std::string_view fullPipeBaseName, const FindEvent& find) {
  for (std::uint32_t n = 0; n < count; ++n) {
    const std::string name = ResetEventName(fullPipeBaseName, n);
    boost::shared_ptr<platform::named_event_t> event;
    const platform::error_t found = find(name, event);
    if (found == platform::error::FileNotFound)
      continue;
    if (found != platform::error::Success)
      throw exc::win_sys_exc_t(exc::FormatText("Failed to create event [%1].", name), found);
    events_[n] = event;
    if (!agentStarted_)
      g_nfs_log.Info("Mount agent already started.");
    agentStarted_ = true;
  }
}

void ServerState::ResetAgent() {
  if (!agentStarted_)
    throw exc::runtime_exc_t("NFS mount agent is not started or not functional (2).");
  platform::error_t failure = platform::error::Success;
  for (const auto& [number, event] : events_) {
    const platform::error_t set = event->Set();
    if (set != platform::error::Success)
      failure = set;
  }
  if (failure != platform::error::Success)
    throw exc::win_sys_exc_t("Failed to send reset signal to the NFS mount agent.", failure);
}

}  // namespace remotevfs
