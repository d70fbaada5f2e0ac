// How an input of the registry's target tells what is stored.
#pragma once

#include <cstdint>

/// What a row does; its key follows.
namespace fuzz::registry_row {

inline constexpr std::uint8_t Text = 0;
inline constexpr std::uint8_t Dword = 1;
inline constexpr std::uint8_t Qword = 2;
inline constexpr std::uint8_t Delete = 3;
inline constexpr std::uint8_t Tool = 4;  ///< A run of kelvo-reg.
inline constexpr std::uint8_t Kinds = 5;

}  // namespace fuzz::registry_row
