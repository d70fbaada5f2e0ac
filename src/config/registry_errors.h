// How a registry's numbers become exceptions.
#pragma once

#include <string_view>

#include "foundation/exc.h"
#include "platform/error.h"

/// Throws win_sys_exc_t with the text, in which %1 stands for the key, unless the number is 0.
inline void ThrowIfFailed(platform::error_t error, std::string_view pattern, std::string_view key) {
  if (error != platform::error::Success)
    throw exc::win_sys_exc_t(exc::FormatText(pattern, key), error);
}

/// As ThrowIfFailed, but what was not there is no failure either.
inline void ThrowUnlessGone(platform::error_t error, std::string_view pattern, std::string_view key) {
  if (error != platform::error::FileNotFound)
    ThrowIfFailed(error, pattern, key);
}
