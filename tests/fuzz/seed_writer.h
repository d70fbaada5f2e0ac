// Where seeds go, and how their bytes are put together.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fuzz {

using seed_t = std::vector<std::uint8_t>;

/// The folder of all corpora; set once, by main.
inline std::filesystem::path& SeedFolder() {
  static std::filesystem::path folder;
  return folder;
}

/// Makes or replaces a seed of a target.
inline void WriteSeed(const std::string& target, const std::string& name, const seed_t& bytes) {
  const std::filesystem::path folder = SeedFolder() / target;
  std::filesystem::create_directories(folder);
  std::ofstream file(folder / name, std::ios::binary);
  file.exceptions(std::ios::failbit | std::ios::badbit);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

/// The seeds of the targets that run programs, commands, agents and what is stored; in service_seeds.cpp.
void WriteServiceSeeds();

}  // namespace fuzz
