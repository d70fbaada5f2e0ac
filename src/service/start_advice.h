// What a failed start can be told about besides its cause.
#pragma once

#include <exception>
#include <optional>
#include <string>

/// One sentence for the user of an account that may not bind a port; nothing for any other failure.
std::optional<std::string> AdviceForFailedStart(const std::exception& failure);
