// Files of the system that fit into a buffer.
#pragma once

#include <cstddef>

namespace crash {

/// Bytes that were read, at most size; 0 also when the file cannot be read. Without the heap.
std::size_t ReadSmallFile(const char* path, char* place, std::size_t size) noexcept;

}  // namespace crash
