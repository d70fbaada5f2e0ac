// How an input of the mount agent's target tells what the agent sends.
#pragma once

#include <cstdint>

/// Each reply of the agent: a mark, a length in 16 bits, little-endian, and so many bytes.
namespace fuzz::chunk_mark {

inline constexpr std::uint8_t Framed = 1;     ///< With their number in front, as a message. Otherwise as they are.
inline constexpr std::uint8_t Unasked = 2;    ///< Without a request before.
inline constexpr std::uint8_t HangUp = 4;     ///< And the agent is gone then.
inline constexpr std::uint8_t Announces = 8;  ///< A framed one announces more than it brings.

}  // namespace fuzz::chunk_mark
