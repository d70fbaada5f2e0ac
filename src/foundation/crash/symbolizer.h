// Names and source lines of addresses of this process.
#pragma once

#include <cstdint>

#include "foundation/dump/text.h"

struct Dwfl;

namespace crash {

struct symbol_t {
  /// Where the name was found, best last.
  enum class kind_t { None, ExportTable, SymbolTable, DebugInfo };

  kind_t kind = kind_t::None;
  fixed_text_t<512> name;
  /// From the symbol to the address.
  std::uint64_t offset = 0;
  /// Empty: no source line is known.
  fixed_text_t<512> file;
  std::uint32_t line = 0;
};

/// Asks a library that uses the heap, which may be damaged by now: every call is guarded, and after the first that
/// fails the library is not asked again. One thread, after a crash.
class symbolizer_t {
 public:
  symbolizer_t() = default;
  symbolizer_t(const symbolizer_t&) = delete;
  symbolizer_t& operator=(const symbolizer_t&) = delete;

  /// True when the image around the address has more than the names that it exports.
  bool HasSymbols(std::uint64_t address) noexcept;
  /// Fills in what is known of the address. For a return address, the call is one byte before.
  void Find(std::uint64_t address, bool isReturn, symbol_t& symbol) noexcept;
  /// The library has failed, and nothing is found any more.
  bool IsLost() const noexcept { return isLost_; }

 private:
  template <typename Step>
  bool Ask(Step step) noexcept;

  bool isLost_ = false;
  Dwfl* session_ = nullptr;
};

}  // namespace crash
