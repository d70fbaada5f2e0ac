// A minidump that the crashed process writes itself.
#pragma once

#include "foundation/crash/dump_gen.h"
#include "foundation/dump/arena.h"

namespace crash::win32 {

class minidump_gen_t : public dump_gen_base_t {
 public:
  /// The type is one of minidump::type. Throws "Minidump writer cannot be initialized." over the cause, when the
  /// system keeps the process from reading itself.
  explicit minidump_gen_t(std::uint64_t type);

  bool Generate(const exception_pointers_t& crash, const dump_place_t& place, failure_t& failure) noexcept override;

 private:
  bool Write(const exception_pointers_t& crash, const char* path, failure_t& failure) noexcept;

  const std::uint64_t type_;
  /// All the memory that a dump needs.
  arena_t arena_;
};

}  // namespace crash::win32
