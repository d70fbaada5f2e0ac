// Writing a dump from front to back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "foundation/dump/arena.h"

namespace crash {

/// Gathers what is written; the first failure sticks, and nothing more is written after it. One thread. The descriptor
/// stays the caller's.
class dump_file_t {
 public:
  dump_file_t(int descriptor, arena_t& arena) noexcept;

  std::uint64_t Position() const noexcept { return position_; }
  /// The position as the records of the format hold it.
  std::uint32_t Place() const noexcept { return static_cast<std::uint32_t>(position_); }

  void Write(const void* data, std::size_t size) noexcept;
  template <typename T>
  void WriteRecord(const T& record) noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    Write(&record, sizeof record);
  }
  /// So many zero bytes, which take no room on the disk when they are many.
  void Skip(std::uint64_t size) noexcept;
  /// Zeros until the position is a multiple.
  void Align(std::size_t multiple) noexcept;
  /// Writes over what is there.
  void WriteAt(std::uint64_t place, const void* data, std::size_t size) noexcept;
  /// Everything out. The errno of the first failure, 0 for none.
  int Finish() noexcept;

 private:
  static constexpr std::size_t BufferSize = 65536;

  void Flush() noexcept;
  void Put(std::uint64_t place, const char* data, std::size_t size) noexcept;

  const int descriptor_;
  char* const buffer_;
  std::size_t used_ = 0;
  std::uint64_t position_ = 0;
  int failure_ = 0;
};

}  // namespace crash
