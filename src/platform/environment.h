// The environment: variables, and the folders that they place.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// The variable of exactly this name, or else the first that is equal without regard to ASCII case. Any thread, as
/// long as no thread changes the environment; the service never does.
std::optional<std::string> EnvironmentVariable(std::string_view name);

/// Replaces each %NAME% by its variable; an unknown one stays as it stands. %ALLUSERSPROFILE% is always known.
/// What comes in with a variable is not expanded again.
std::string ExpandEnvironment(std::string_view text);

/// Below it lies everything that the service stores: ALLUSERSPROFILE, or /var/lib when that is unset or empty.
/// Without a separator at the end.
std::string CommonAppDataFolder();

/// Below it lie the sockets of events, pipes and management: KELVO_RUNTIME_DIR, or /run/kelvo when that is unset or
/// empty. Without a separator at the end.
std::string RuntimeFolder();

}  // namespace platform
