#include "management/dcerpc/md4.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <vector>

namespace dcerpc {
namespace {

constexpr std::size_t BlockSize = 64;
constexpr std::size_t LengthSize = 8;
constexpr std::size_t WordSize = 4;
constexpr std::size_t Steps = 16;

using state_t = std::array<std::uint32_t, 4>;

struct round_t {
  std::uint32_t (*mix)(std::uint32_t x, std::uint32_t y, std::uint32_t z);
  std::uint32_t constant;
  /// Which word of the block each step takes, and how far it rotates.
  std::array<std::uint8_t, Steps> words;
  std::array<int, 4> shifts;
};

constexpr std::array<round_t, 3> Rounds{{
    {[](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return (x & y) | (~x & z); },
     0,
     {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
     {3, 7, 11, 19}},
    {[](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return (x & y) | (x & z) | (y & z); },
     0x5a827999,
     {0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15},
     {3, 5, 9, 13}},
    {[](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return x ^ y ^ z; },
     0x6ed9eba1,
     {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15},
     {3, 9, 11, 15}},
}};

std::uint32_t WordAt(std::span<const std::uint8_t> bytes, std::size_t index) {
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < WordSize; ++i)
    word |= static_cast<std::uint32_t>(bytes[index * WordSize + i]) << (8 * i);
  return word;
}

void AddBlock(state_t& state, std::span<const std::uint8_t> block) {
  state_t next = state;
  for (const round_t& round : Rounds) {
    for (std::size_t step = 0; step < Steps; ++step) {
      auto& [a, b, c, d] = next;
      a = std::rotl(a + round.mix(b, c, d) + WordAt(block, round.words[step]) + round.constant, round.shifts[step % 4]);
      // The next step works on d.
      std::rotate(next.begin(), next.end() - 1, next.end());
    }
  }
  for (std::size_t i = 0; i < state.size(); ++i)
    state[i] += next[i];
}

}  // namespace

md4_digest_t Md4(std::span<const std::uint8_t> bytes) {
  std::vector<std::uint8_t> padded(bytes.begin(), bytes.end());
  padded.push_back(0x80);
  while (padded.size() % BlockSize != BlockSize - LengthSize)
    padded.push_back(0);
  const std::uint64_t bits = std::uint64_t{bytes.size()} * 8;
  for (std::size_t i = 0; i < LengthSize; ++i)
    padded.push_back(static_cast<std::uint8_t>(bits >> (8 * i)));
  state_t state{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  for (std::size_t at = 0; at < padded.size(); at += BlockSize)
    AddBlock(state, std::span(padded).subspan(at, BlockSize));
  std::fill(padded.begin(), padded.end(), std::uint8_t{0});
  md4_digest_t digest{};
  for (std::size_t i = 0; i < digest.size(); ++i)
    digest[i] = static_cast<std::uint8_t>(state[i / WordSize] >> (8 * (i % WordSize)));
  return digest;
}

}  // namespace dcerpc
