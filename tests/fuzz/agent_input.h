// How an input of the agent's target tells what the service asks of a mount agent.
#pragma once

#include <cstdint>

namespace fuzz {

/// An input's first byte.
namespace agent_mode {
/// The agent has an overlay, which the input damages before it is opened: a list of places follows the source's size.
inline constexpr std::uint8_t DamagedOverlay = 0x01;
/// The check sums of the damaged overlay are made right again.
inline constexpr std::uint8_t MendSums = 0x02;
/// Guests write to the source itself.
inline constexpr std::uint8_t ToSource = 0x04;
/// Nobody writes.
inline constexpr std::uint8_t ReadOnly = 0x08;
}  // namespace agent_mode

/// What a request is: the commands of the protocol by their numbers, then these.
namespace agent_request {
inline constexpr std::uint8_t Raw = 5;     ///< A length and the bytes of a request.
inline constexpr std::uint8_t Reopen = 6;  ///< The agent ends, and another one serves the same folders.
inline constexpr std::uint8_t Kinds = 7;
}  // namespace agent_request

}  // namespace fuzz
