// The handshake that tells a running mount agent to start afresh.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/named_event.h"

namespace remotevfs {

/// The prefix of the full name of a pipe.
inline constexpr std::string_view PipePrefix = R"(\\.\pipe\)";

/// The names of pipe n of a mount, and of its reset event. The base name is the full one, with the prefix.
std::string PipeName(std::string_view fullPipeBaseName, std::uint32_t number);
std::string ResetEventName(std::string_view fullPipeBaseName, std::uint32_t number);

/// The reset events of a mount's pipes. They are the agent's: they can be found exactly while it runs, and nothing is
/// created in its place, for an agent that starts at this moment would find what goes with this object. One thread.
class ServerState {
 public:
  /// Finds a named event: 2 when there is none.
  using FindEvent = std::function<platform::error_t(std::string_view, boost::shared_ptr<platform::named_event_t>&)>;

  /// Looks for the events of so many pipes. Throws win_sys_exc_t "Failed to create event [%1]." when whether one is
  /// there cannot be told.
  ServerState(std::uint32_t count, std::string_view fullPipeBaseName,
              const FindEvent& find = platform::named_event_t::Open);

  bool IsAgentStarted() const { return agentStarted_; }

  /// Tells the agent to forget its client and to answer a new one. Throws "NFS mount agent is not started or not
  /// functional (2)." when no event was there, and win_sys_exc_t "Failed to send reset signal to the NFS mount agent."
  /// when one could not be set, after all have been tried.
  void ResetAgent();

 private:
  std::map<std::uint32_t, boost::shared_ptr<platform::named_event_t>> events_;
  bool agentStarted_ = false;
};

}  // namespace remotevfs
