// Writing whole texts to a descriptor.
#pragma once

#include <string_view>

#include "platform/error.h"

namespace io {

/// Writes all of it, going on after short writes and signals; the error that stopped it. The descriptor stays the
/// caller's.
platform::error_t WriteAll(int descriptor, std::string_view bytes) noexcept;

}  // namespace io
