// How an input of the dumps' target tells what a crashed process looks like.
#pragma once

#include <cstdint>

namespace fuzz {

/// An input's first byte.
namespace dump_mode {
/// The list of mappings is made of the input's numbers, as the system would write it; else it is the input's rest.
inline constexpr std::uint8_t MadeMaps = 0x01;
/// The dump holds memory besides the stacks.
inline constexpr std::uint8_t AllMemory = 0x02;
inline constexpr std::uint8_t Data = 0x04;
}  // namespace dump_mode

/// Where the process's memory begins in the made list; its pages are counted from there.
inline constexpr std::uint64_t DumpBase = 0x10000;
inline constexpr std::uint64_t DumpPage = 4096;

}  // namespace fuzz
