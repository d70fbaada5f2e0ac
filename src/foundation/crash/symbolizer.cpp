#include "foundation/crash/symbolizer.h"

#include <cxxabi.h>
#include <elf.h>
#include <elfutils/libdwfl.h>
#include <unistd.h>

#include <cstring>

#include "foundation/crash/guard.h"

namespace crash {

namespace {

constexpr std::uint32_t LimitMs = 10000;

/// No look at servers for debug information, as the standard one does.
const Dwfl_Callbacks Callbacks{dwfl_linux_proc_find_elf, dwfl_build_id_find_debuginfo, nullptr, nullptr};

void AddDemangled(const char* name, text_t& text) {
  int status = 0;
  // Its result is never freed: a heap that was damaged is left alone where it can be.
  const char* const plain = abi::__cxa_demangle(name, nullptr, nullptr, &status);
  text.Add(status == 0 && plain != nullptr ? plain : name);
}

bool HasSymbolTable(Dwfl_Module* module) {
  GElf_Addr bias = 0;
  Elf* const image = dwfl_module_getelf(module, &bias);
  for (Elf_Scn* section = nullptr; image != nullptr && (section = elf_nextscn(image, section)) != nullptr;) {
    GElf_Shdr head{};
    if (gelf_getshdr(section, &head) != nullptr && head.sh_type == SHT_SYMTAB)
      return true;
  }
  return false;
}

void AskForSymbol(Dwfl_Module* module, std::uint64_t asked, std::uint64_t address, symbol_t& symbol) {
  GElf_Off offset = 0;
  GElf_Sym entry{};
  const char* const name = dwfl_module_addrinfo(module, asked, &offset, &entry, nullptr, nullptr, nullptr);
  if (name == nullptr)
    return;
  symbol.kind = HasSymbolTable(module) ? symbol_t::kind_t::SymbolTable : symbol_t::kind_t::ExportTable;
  symbol.offset = offset + (address - asked);
  symbol.name.Clear();
  // The plain name first: taking it apart needs the heap.
  symbol.name.Add(name);
  fixed_text_t<512> plain;
  AddDemangled(name, plain);
  symbol.name.Clear();
  symbol.name.Add(plain.View());
}

void AskForLine(Dwfl_Module* module, std::uint64_t asked, symbol_t& symbol) {
  Dwfl_Line* const line = dwfl_module_getsrc(module, asked);
  int number = 0;
  const char* const file = line == nullptr ? nullptr : dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr);
  if (file == nullptr)
    return;
  symbol.kind = symbol_t::kind_t::DebugInfo;
  symbol.file.Add(file);
  symbol.line = static_cast<std::uint32_t>(number);
}

}  // namespace

template <typename Step>
bool symbolizer_t::Ask(Step step) noexcept {
  if (isLost_)
    return false;
  failure_t ignored;
  bool isReady = false;
  auto guarded = [&] {
    if (session_ == nullptr) {
      session_ = dwfl_begin(&Callbacks);
      if (session_ == nullptr || dwfl_linux_proc_report(session_, ::getpid()) != 0 ||
          dwfl_report_end(session_, nullptr, nullptr) != 0)
        return;
    }
    isReady = true;
    step();
  };
  isLost_ = !Guarded(LimitMs, guarded, ignored) || !isReady;
  return !isLost_;
}

bool symbolizer_t::HasSymbols(std::uint64_t address) noexcept {
  bool has = false;
  Ask([&] {
    Dwarf_Addr bias = 0;
    Dwfl_Module* const module = dwfl_addrmodule(session_, address);
    has = module != nullptr && (HasSymbolTable(module) || dwfl_module_getdwarf(module, &bias) != nullptr);
  });
  return has;
}

void symbolizer_t::Find(std::uint64_t address, bool isReturn, symbol_t& symbol) noexcept {
  const std::uint64_t asked = address - (isReturn && address > 0 ? 1 : 0);
  Ask([&] {
    Dwfl_Module* const module = dwfl_addrmodule(session_, asked);
    if (module == nullptr)
      return;
    AskForSymbol(module, asked, address, symbol);
    AskForLine(module, asked, symbol);
  });
}

}  // namespace crash
