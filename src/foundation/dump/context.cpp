#include "foundation/dump/context.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "foundation/dump/small_file.h"

namespace crash {

void FromSignal(const ucontext_t& signal, minidump::context_t& context) noexcept {
  const auto& from = signal.uc_mcontext.gregs;
  const auto reg = [&from](int index) { return static_cast<std::uint64_t>(from[index]); };
  context = {};
  context.flags = minidump::context_t::All;
  context.rax = reg(REG_RAX);
  context.rcx = reg(REG_RCX);
  context.rdx = reg(REG_RDX);
  context.rbx = reg(REG_RBX);
  context.rsp = reg(REG_RSP);
  context.rbp = reg(REG_RBP);
  context.rsi = reg(REG_RSI);
  context.rdi = reg(REG_RDI);
  context.r8 = reg(REG_R8);
  context.r9 = reg(REG_R9);
  context.r10 = reg(REG_R10);
  context.r11 = reg(REG_R11);
  context.r12 = reg(REG_R12);
  context.r13 = reg(REG_R13);
  context.r14 = reg(REG_R14);
  context.r15 = reg(REG_R15);
  context.rip = reg(REG_RIP);
  context.eFlags = static_cast<std::uint32_t>(reg(REG_EFL));
  // Four segments of 16 bits in one register: cs, gs, fs, ss.
  const std::uint64_t segments = reg(REG_CSGSFS);
  context.cs = static_cast<std::uint16_t>(segments);
  context.gs = static_cast<std::uint16_t>(segments >> 16);
  context.fs = static_cast<std::uint16_t>(segments >> 32);
  context.ss = static_cast<std::uint16_t>(segments >> 48);
  if (const fpregset_t floats = signal.uc_mcontext.fpregs) {
    std::memcpy(context.floatSave, floats, sizeof context.floatSave);
    context.mxCsr = floats->mxcsr;
  }
}

void FromTrace(const user_regs_struct& registers, const user_fpregs_struct& floats,
               minidump::context_t& context) noexcept {
  context = {};
  context.flags = minidump::context_t::All;
  context.rax = registers.rax;
  context.rcx = registers.rcx;
  context.rdx = registers.rdx;
  context.rbx = registers.rbx;
  context.rsp = registers.rsp;
  context.rbp = registers.rbp;
  context.rsi = registers.rsi;
  context.rdi = registers.rdi;
  context.r8 = registers.r8;
  context.r9 = registers.r9;
  context.r10 = registers.r10;
  context.r11 = registers.r11;
  context.r12 = registers.r12;
  context.r13 = registers.r13;
  context.r14 = registers.r14;
  context.r15 = registers.r15;
  context.rip = registers.rip;
  context.eFlags = static_cast<std::uint32_t>(registers.eflags);
  context.cs = static_cast<std::uint16_t>(registers.cs);
  context.ds = static_cast<std::uint16_t>(registers.ds);
  context.es = static_cast<std::uint16_t>(registers.es);
  context.fs = static_cast<std::uint16_t>(registers.fs);
  context.gs = static_cast<std::uint16_t>(registers.gs);
  context.ss = static_cast<std::uint16_t>(registers.ss);
  static_assert(sizeof floats == sizeof context.floatSave);
  std::memcpy(context.floatSave, &floats, sizeof floats);
  context.mxCsr = floats.mxcsr;
}

bool FromWait(const char* path, minidump::context_t& context) noexcept {
  // "232 0x9 0x7f… … 0x<stack pointer> 0x<instruction>", or "running".
  char text[512];
  const std::string_view line(text, ReadSmallFile(path, text, sizeof text));
  std::uint64_t last[2] = {};
  std::size_t count = 0;
  for (std::size_t at = line.find("0x"); at != std::string_view::npos; at = line.find("0x", at)) {
    last[0] = last[1];
    last[1] = 0;
    ++count;
    for (at += 2; at < line.size(); ++at) {
      const std::size_t digit = std::string_view("0123456789abcdef").find(line[at]);
      if (digit == std::string_view::npos)
        break;
      last[1] = last[1] * 16 + digit;
    }
  }
  context = {};
  if (count < 2)
    return false;
  context.flags = minidump::context_t::Control;
  context.rsp = last[0];
  context.rip = last[1];
  return true;
}

}  // namespace crash
