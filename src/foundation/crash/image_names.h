// Names of functions without a library.
#pragma once

#include <cstdint>

#include "foundation/dump/process_reader.h"

namespace crash {

/// Looks the address up in the table of symbols of the image's file, or among the names that it exports. The name is as
/// the linker knows it, the offset from there to the address. False: no function is known there. No heap, no lock.
bool FindName(const module_info_t& image, std::uint64_t address, text_t& name, std::uint64_t& offset) noexcept;

}  // namespace crash
