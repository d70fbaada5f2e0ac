// What a failed start can be told about besides its cause.
#pragma once

#include <exception>
#include <optional>
#include <string>

/// One sentence for who may not bind a port, and one for who has a backup mount without its folder; nothing for any
/// other failure.
std::optional<std::string> AdviceForFailedStart(const std::exception& failure);
