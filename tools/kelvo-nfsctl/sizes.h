// Sizes as people write and read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace nfsctl {

/// Bytes of "10GiB", "1.5T", "500 MB", "4096": K, M, G, T, P with or without "iB" are powers of 1024, with "B" alone
/// powers of 1000; case does not matter. Throws usage_error_t.
std::uint64_t ParseSize(std::string_view text);

/// "1.5 GiB (1610612736 bytes)"; "512 bytes".
std::string FormatSize(std::uint64_t bytes);

}  // namespace nfsctl
