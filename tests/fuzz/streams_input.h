// How an input of the streams' target tells what a client sends.
#pragma once

#include <cstdint>

/// An input is a list of pieces: a kind, a length in 16 bits, little-endian, and as many bytes. Each piece is one send.
namespace fuzz::stream_piece {

inline constexpr std::uint8_t Record = 0;     ///< With the mark that it needs in front.
inline constexpr std::uint8_t Raw = 1;        ///< As it is.
inline constexpr std::uint8_t Large = 2;      ///< A record that is so many times 256 bytes long, of the first byte.
inline constexpr std::uint8_t Announced = 3;  ///< A mark with the length alone; what follows is the record.
inline constexpr std::uint8_t Kinds = 4;

}  // namespace fuzz::stream_piece
