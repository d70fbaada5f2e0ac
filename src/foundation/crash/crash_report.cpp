#include "foundation/crash/crash_report.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "foundation/crash/image_names.h"
#include "foundation/crash/stack_walk.h"
#include "foundation/crash/symbolizer.h"
#include "foundation/crash/thread_notes.h"
#include "foundation/dump/process_reader.h"
#include "foundation/write_all.h"

namespace crash {

namespace {

constexpr std::size_t RulerLength = 74;
constexpr std::size_t BufferSize = std::size_t{1} << 20;
/// The frames of an overflowed stack repeat.
constexpr std::size_t MaxFrames = 256;
constexpr std::size_t ParameterCount = 4;
constexpr platform::error_t GeneralFailure = 31;

std::string_view BaseName(std::string_view path) noexcept {
  return path.substr(path.find_last_of('/') + 1);
}

class report_t {
 public:
  report_t(const exception_pointers_t& crash, const char* version, arena_t& arena) noexcept
      : crash_(crash),
        version_(version),
        place_(arena.Take<char>(BufferSize)),
        text_(place_ == nullptr ? &noPlace_ : place_, place_ == nullptr ? 1 : BufferSize),
        frames_(arena.Take<frame_t>(MaxFrames)),
        process_(static_cast<std::uint32_t>(::getpid()), arena) {
    failure_t ignored;
    // Without it the report is the poorer, but still one.
    hasProcess_ = process_.Open(ignored);
  }

  /// The errno of a failure, 0 for none.
  int Write(int file) noexcept {
    if (place_ == nullptr || frames_ == nullptr)
      return ENOMEM;
    AddHeader();
    AddRegisters();
    // What is known so far is on the disk before more is risked.
    int error = Flush(file);
    AddFrames();
    error = error != 0 ? error : Flush(file);
    AddModules();
    text_.Add("\nThreads:\n\n");
    AddThreadNotes(crash_.threadId, text_);
    return error != 0 ? error : Flush(file);
  }

 private:
  int Flush(int file) noexcept {
    const bool isWritten = io::WriteAll(file, text_.View()) == platform::error::Success;
    text_.Clear();
    return isWritten ? 0 : errno;
  }

  text_t& Hex(std::string_view label, std::uint64_t number, std::size_t digits = 8) noexcept {
    return text_.Add(label).AddHex(number, digits);
  }
  std::uint64_t Register(int index) const noexcept {
    return static_cast<std::uint64_t>(crash_.context->uc_mcontext.gregs[index]);
  }

  void AddRuler() noexcept {
    for (std::size_t i = 0; i < RulerLength; ++i)
      text_.Add('/');
    text_.Add('\n');
  }

  void AddHeader() noexcept {
    AddRuler();
    Hex("// Exception: 0x", static_cast<std::uint64_t>(crash_.signal));
    Hex(", Address: 0x", AddressOf(crash_));
    text_.Add(", Date/Time ");
    AddDateTime(text_);
    text_.Add('\n');
    if (!crash_.exceptionText.empty())
      text_.Add("// ").Add(crash_.exceptionText).Add('\n');
    text_.Format("// Process: %1, version: %2, process id: %3, thread id: %4\n",
                 {hasProcess_ ? ProgramPath() : "unknown", version_, decimal_t(static_cast<std::uint64_t>(::getpid())),
                  decimal_t(crash_.threadId)});
    AddRuler();
    text_.Add('\n');
  }

  std::string_view ProgramPath() const noexcept {
    const auto here = reinterpret_cast<std::uintptr_t>(&WriteReport);
    const module_info_t* const image = process_.FindModule(here);
    return image == nullptr ? "unknown" : image->path;
  }

  void AddRegisters() noexcept;
  void AddFrames() noexcept;
  void AddFrame(const frame_t& frame) noexcept;
  void AddSymbol(const frame_t& frame) noexcept;
  void AddModules() noexcept;
  void AddVersion(const module_info_t& image) noexcept;

  const exception_pointers_t& crash_;
  const char* const version_;
  char noPlace_ = '\0';
  char* const place_;
  text_t text_;
  frame_t* const frames_;
  process_reader_t process_;
  bool hasProcess_ = false;
  symbolizer_t symbolizer_;
};

void report_t::AddRegisters() noexcept {
  const std::uint64_t flags = Register(REG_EFL);
  const auto flag = [this, flags](unsigned bit, const char* set, const char* clear) {
    text_.Add(' ').Add((flags >> bit & 1) != 0 ? set : clear);
  };
  Hex("eax=", Register(REG_RAX)), Hex(" ebx=", Register(REG_RBX)), Hex(" ecx=", Register(REG_RCX));
  Hex(" edx=", Register(REG_RDX)), Hex(" esi=", Register(REG_RSI)), Hex(" edi=", Register(REG_RDI)).Add('\n');
  Hex("eip=", Register(REG_RIP)), Hex(" esp=", Register(REG_RSP)), Hex(" ebp=", Register(REG_RBP));
  Hex(" iopl=", flags >> 12 & 3, 1);
  flag(20, "vip", "   ");
  flag(19, "vif", "   ");
  flag(11, "ov", "nv");
  flag(10, "dn", "up");
  flag(9, "ei", "di");
  flag(7, "ng", "pl");
  flag(6, "zr", "nz");
  flag(4, "ac", "na");
  flag(2, "po", "pe");
  flag(0, "cy", "nc");
  text_.Add('\n');
  const std::uint64_t segments = Register(REG_CSGSFS);
  std::uint16_t ds = 0;
  std::uint16_t es = 0;
  // The signal does not tell these two; nobody changes them.
  __asm__("mov %%ds, %0" : "=r"(ds));
  __asm__("mov %%es, %0" : "=r"(es));
  Hex("cs=", segments & 0xffff, 4), Hex("  ss=", segments >> 48, 4), Hex("  ds=", ds, 4), Hex("  es=", es, 4);
  Hex("  fs=", segments >> 32 & 0xffff, 4), Hex("  gs=", segments >> 16 & 0xffff, 4);
  text_.AddSpaces(13);
  Hex("efl=", flags).Add('\n');
  const int further[] = {REG_R8, REG_R9, REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
  for (std::size_t i = 0; i < std::size(further); ++i) {
    text_.Add(i == 0 ? "" : " ").Add('r').AddDecimal(8 + i);
    Hex("=", Register(further[i]));
  }
  text_.Add("\n\n");
}

void report_t::AddFrames() noexcept {
  failure_t failure;
  text_.Add("Stack frames:\n");
  const std::size_t count = WalkStack(*crash_.context, frames_, MaxFrames, failure);
  for (std::size_t i = 0; i < count; ++i)
    AddFrame(frames_[i]);
  if (!failure.Text().empty())
    text_.Format("\nThe stack cannot be followed further. %1\n", {failure.Text()});
  text_.Add('\n');
}

void report_t::AddFrame(const frame_t& frame) noexcept {
  Hex("\nFrame address: 0x", frame.address);
  Hex("\nReturn address: 0x", frame.returnAddress);
  std::uint64_t parameters[ParameterCount] = {};
  if (hasProcess_)
    process_.Read(frame.address, parameters, sizeof parameters);
  for (std::size_t i = 0; i < ParameterCount; ++i) {
    text_.Add("\nParam").AddDecimal(i + 1);
    Hex(": 0x", parameters[i]);
  }
  Hex("\n\n0x", frame.instruction).Add('\t');
  const module_info_t* const image = hasProcess_ ? process_.FindModule(frame.instruction) : nullptr;
  text_.Add(image == nullptr ? "<no module>" : BaseName(image->path)).Add('!');
  AddSymbol(frame);
  text_.Add('\n');
}

void report_t::AddSymbol(const frame_t& frame) noexcept {
  constexpr std::string_view Kinds[] = {"no symbols", "export table", "COFF", "CodeView"};
  symbol_t symbol;
  symbolizer_.Find(frame.instruction, !frame.isExact, symbol);
  const module_info_t* const image = hasProcess_ ? process_.FindModule(frame.instruction) : nullptr;
  const std::uint64_t asked = frame.instruction - (frame.isExact ? 0 : 1);
  if (symbol.name.IsEmpty() && image != nullptr && FindName(*image, asked, symbol.name, symbol.offset)) {
    symbol.offset += frame.instruction - asked;
    symbol.kind = symbol_t::kind_t::SymbolTable;
  }
  text_.Add(symbol.name.IsEmpty() ? "<no symbol>" : symbol.name.View()).Add(' ');
  text_.AddSigned(static_cast<std::int64_t>(symbol.offset)).Add(" bytes, ");
  if (symbol.file.IsEmpty()) {
    text_.Add("no line information was available");
  } else {
    text_.Add(symbol.file.View()).Add('(').AddDecimal(symbol.line).Add(')');
  }
  text_.Add(", symbol type:").Add(Kinds[static_cast<std::size_t>(symbol.kind)]);
}

void report_t::AddModules() noexcept {
  text_.Add("Loaded modules:\n\n");
  for (std::size_t i = 0; hasProcess_ && i < process_.ModuleCount(); ++i) {
    const module_info_t& image = process_.Module(i);
    Hex("0x", image.start);
    Hex(" - 0x", image.end);
    text_.Add(' ').Add(BaseName(image.path)).Add(" (").Add(image.path).Add(") ");
    AddVersion(image);
    const bool hasSymbols = symbolizer_.HasSymbols(image.start);
    if (symbolizer_.IsLost()) {
      Hex(", no matching symbolic information found (error code: 0x", GeneralFailure).Add(")\n");
    } else {
      text_.Add(hasSymbols ? ", symbols loaded\n" : ", no symbols are available\n");
    }
  }
}

/// The program's own; of a library what its file is named after, as 6.0.30 of "libstdc++.so.6.0.30".
void report_t::AddVersion(const module_info_t& image) noexcept {
  constexpr std::string_view Mark = ".so.";
  constexpr std::size_t Parts = 4;
  std::string_view left = version_;
  if (image.path != ProgramPath()) {
    const std::size_t mark = image.path.rfind(Mark);
    left = mark == std::string_view::npos ? std::string_view() : image.path.substr(mark + Mark.size());
  }
  for (std::size_t part = 0; part < Parts; ++part) {
    std::uint64_t number = 0;
    while (!left.empty() && left.front() >= '0' && left.front() <= '9') {
      number = number * 10 + static_cast<std::uint64_t>(left.front() - '0');
      left.remove_prefix(1);
    }
    text_.Add(part == 0 ? "" : ".").AddDecimal(number & 0xffff);
    if (left.starts_with('.'))
      left.remove_prefix(1);
    else
      left = {};
  }
}

}  // namespace

bool WriteReport(int file, const exception_pointers_t& crash, const char* version, arena_t& arena,
                 failure_t& failure) noexcept {
  // On the arena: it is too large for the stack of a signal handler.
  void* const place = arena.TakeBytes(sizeof(report_t));
  if (place == nullptr) {
    failure.Add("Out of memory.");
    return false;
  }
  const int error = (new (place) report_t(crash, version, arena))->Write(file);
  if (error == 0)
    return true;
  failure.AddSystem("Failed to write the report.", {}, error);
  return false;
}

}  // namespace crash
