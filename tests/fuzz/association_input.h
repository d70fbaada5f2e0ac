// The inputs of the association's target, as its seeds are written and its run reads them.
#pragma once

#include <cstdint>

#include "fuzz/fuzz_input.h"
#include "management/dcerpc/security_context.h"

namespace fuzz {

/// Bits of an input's first byte. The second byte picks the authentication level of the fake context that protects what
/// is marked with Protect.
namespace association_mode {
/// The listener offers authentication.
inline constexpr std::uint8_t Security = 0x01;
/// The transport knows the caller.
inline constexpr std::uint8_t KnownCaller = 0x02;
/// The rest is a stream, cut as the connection does it; else it is a list of PDUs, each with a byte of marks and its
/// length in two bytes before it.
inline constexpr std::uint8_t Stream = 0x04;
/// Small budgets and a small cap for requests.
inline constexpr std::uint8_t SmallBudget = 0x08;
}  // namespace association_mode

/// Marks of a PDU in a list.
namespace pdu_mark {
/// The lengths in its header are made right.
inline constexpr std::uint8_t Lengths = 0x01;
/// A request is protected as a peer does it that is on the association's level.
inline constexpr std::uint8_t Protect = 0x02;
}  // namespace pdu_mark

inline dcerpc::auth_level_t LevelOf(std::uint8_t number) {
  constexpr dcerpc::auth_level_t Levels[] = {dcerpc::auth_level_t::Privacy, dcerpc::auth_level_t::Integrity,
                                             dcerpc::auth_level_t::Packet, dcerpc::auth_level_t::Connect};
  return Levels[number % std::size(Levels)];
}

}  // namespace fuzz
