// Which memory goes into a dump.
#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/dump/minidump_writer.h"

namespace crash {

struct memory_range_t {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t Size() const noexcept { return end - start; }
};

/// Ranges in the order of their addresses that neither meet nor overlap. No heap; one thread.
class memory_ranges_t {
 public:
  /// Takes the room for so many from the arena; further ones are dropped.
  memory_ranges_t(arena_t& arena, std::size_t capacity) noexcept;

  void Add(std::uint64_t start, std::uint64_t end) noexcept;
  /// Orders and joins what was added.
  void Settle() noexcept;

  std::size_t Count() const noexcept { return count_; }
  const memory_range_t& At(std::size_t index) const noexcept { return ranges_[index]; }
  std::uint64_t TotalSize() const noexcept;
  /// How many bytes of the ranges lie below the address of one of them.
  std::uint64_t OffsetOf(std::uint64_t address) const noexcept;

 private:
  memory_range_t* const ranges_;
  const std::size_t capacity_;
  std::size_t count_ = 0;
};

/// What a thread has on its stack; empty when its stack pointer points nowhere near a stack.
memory_range_t StackOf(const process_reader_t& process, const minidump::context_t& context, bool isCrashed) noexcept;

/// Adds all that the content asks for, the stacks included.
void AddMemory(const process_reader_t& process, const dump_content_t& content, memory_ranges_t& ranges) noexcept;

}  // namespace crash
