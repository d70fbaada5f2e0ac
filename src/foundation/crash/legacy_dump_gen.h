// A crash as a text.
#pragma once

#include <string>

#include "foundation/crash/dump_gen.h"
#include "foundation/dump/arena.h"

namespace crash::win32 {

/// Needs nothing of the system but to write a file; what else it can get (modules, frames, symbols, lines) it tells.
class legacy_dump_gen_t : public dump_gen_base_t {
 public:
  static constexpr std::string_view Extension = "txt";

  legacy_dump_gen_t();

  bool Generate(const exception_pointers_t& crash, const dump_place_t& place, failure_t& failure) noexcept override;

 private:
  const std::string version_;
  arena_t arena_;
};

}  // namespace crash::win32
