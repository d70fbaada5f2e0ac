// The memory of a process, the own one or another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/dump/arena.h"
#include "foundation/dump/text.h"

namespace crash {

/// A stretch of address space as /proc/PID/maps tells it.
struct mapping_t {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;
  bool isReadable = false;
  bool isWritable = false;
  bool isExecutable = false;
  bool isShared = false;
  /// Of a file, "[stack]" and its like, or empty; without " (deleted)".
  std::string_view path;

  bool IsFile() const noexcept { return path.starts_with('/'); }
  bool Contains(std::uint64_t address) const noexcept { return start <= address && address < end; }
};

/// An image that is loaded: the program, its libraries, what the kernel brings.
struct module_info_t {
  static constexpr std::size_t MaxBuildId = 64;

  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::string_view path;
  std::size_t buildIdSize = 0;
  std::uint8_t buildId[MaxBuildId] = {};
};

/// Reads through /proc, so that memory that is not there is a failed call and no fault. What it tells lies in the
/// arena. One thread, without the heap; needs the right to trace the process.
class process_reader_t {
 public:
  /// root: where the system shows its processes; tests have one of their own. Must outlive the object.
  process_reader_t(std::uint32_t processId, arena_t& arena, const char* root = "/proc") noexcept;
  process_reader_t(const process_reader_t&) = delete;
  process_reader_t& operator=(const process_reader_t&) = delete;
  ~process_reader_t();

  /// Takes what the mappings and modules are now; false adds to the failure. Once.
  bool Open(failure_t& failure) noexcept;

  std::uint32_t ProcessId() const noexcept { return processId_; }
  /// The process's folder and the tail.
  void PathOf(std::string_view tail, text_t& path) const noexcept;
  /// True when all of it was read.
  bool Read(std::uint64_t address, void* place, std::size_t size) const noexcept;

  std::string_view MapsText() const noexcept { return {mapsText_, mapsLength_}; }
  std::size_t MappingCount() const noexcept { return mappingCount_; }
  const mapping_t& Mapping(std::size_t index) const noexcept { return mappings_[index]; }
  /// The mapping of an address, null for none.
  const mapping_t* Find(std::uint64_t address) const noexcept;
  std::size_t ModuleCount() const noexcept { return moduleCount_; }
  const module_info_t& Module(std::size_t index) const noexcept { return modules_[index]; }
  const module_info_t* FindModule(std::uint64_t address) const noexcept;

 private:
  bool ReadMaps(failure_t& failure) noexcept;
  void ParseMaps() noexcept;
  void FindModules() noexcept;
  void ReadBuildId(module_info_t& image) const noexcept;

  const std::uint32_t processId_;
  const char* const root_;
  arena_t& arena_;
  int memory_ = -1;
  char* mapsText_ = nullptr;
  std::size_t mapsLength_ = 0;
  mapping_t* mappings_ = nullptr;
  std::size_t mappingCount_ = 0;
  module_info_t* modules_ = nullptr;
  std::size_t moduleCount_ = 0;
};

}  // namespace crash
