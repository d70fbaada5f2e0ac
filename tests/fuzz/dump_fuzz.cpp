// What the recorder of dumps reads of a crashed process: the list of its mappings, its memory with the images in it,
// the record of the crash and the names of its threads; and the dump that comes of it.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "foundation/dump/context.h"
#include "foundation/dump/minidump_writer.h"
#include "fuzz/dump_input.h"
#include "fuzz/fuzz_input.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
namespace mode = fuzz::dump_mode;
using crash::minidump::stream_t;

constexpr std::uint32_t ProcessId = 7;
constexpr std::size_t ThreadCount = 3;
constexpr std::uint32_t FirstThread = 11;
/// What a dump may hold; a process with more is not taken.
constexpr std::uint64_t MostMemory = 1U << 20;

/// A folder as the system shows its processes, with one process in it.
struct SProcess {
  test::TempDir root;
  std::string folder = root / std::to_string(ProcessId);

  SProcess() {
    for (std::size_t i = 0; i < ThreadCount; ++i)
      fs::create_directories(Thread(i));
  }
  std::string Thread(std::size_t index) const { return folder + "/task/" + std::to_string(FirstThread + index); }
};

SProcess& Process() {
  static SProcess process;
  return process;
}

void Write(const std::string& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

class CCrash {
 public:
  explicit CCrash(fuzz::CInput input) : input_(input), mode_(input_.Byte()) {
    content_.type = (mode_ & mode::AllMemory) != 0 ? crash::minidump::type::WithFullMemory
                    : (mode_ & mode::Data) != 0    ? crash::minidump::type::WithDataSegs
                                                   : crash::minidump::type::Normal;
    content_.exception.signal = input_.Byte();
    content_.exception.code = input_.Byte();
    content_.exception.address = Address();
    content_.exception.threadId = FirstThread;
    content_.exception.notes = Address();
    content_.exception.notesSize = input_.Word();
    for (std::size_t i = 0; i < ThreadCount; ++i)
      ReadThread(i);
    content_.exception.context = threads_[0].context;
    content_.threads = threads_.data();
    content_.threadCount = ThreadCount;
    ReadMemory();
    Write(Process().folder + "/cmdline", Text());
    Write(Process().folder + "/maps", (mode_ & mode::MadeMaps) != 0 ? MakeMaps() : fuzz::TextOf(input_.Rest()));
  }

  void Run() {
    crash::arena_t arena(std::size_t{8} << 20);
    crash::failure_t failure;
    crash::process_reader_t process(ProcessId, arena, Process().root.Path().c_str());
    if (!process.Open(failure) || !IsSmall(process))
      return;
    CheckModules(process);
    const std::string path = Process().root / "dump";
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool isWritten = crash::WriteMinidump(file, process, content_, arena, failure);
    ::close(file);
    fuzz::Require(isWritten, "a dump is written of any process");
    std::ifstream stream(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(stream), {});
    CheckDump();
  }

 private:
  std::uint64_t Address() {
    const std::uint64_t page = input_.Word();
    constexpr std::uint64_t Last = 0xff00;
    return page >= Last ? std::uint64_t{0} - (page - Last)
                        : fuzz::DumpBase + (page % 256) * fuzz::DumpPage + (page / 256) * 16;
  }
  std::string Text() { return fuzz::TextOf(input_.Take(input_.Byte())); }

  void ReadThread(std::size_t index) {
    crash::dump_thread_t& thread = threads_[index];
    thread.id = FirstThread + static_cast<std::uint32_t>(index);
    Write(Process().Thread(index) + "/comm", Text());
    // The last one could not be stopped.
    if (index + 1 == ThreadCount) {
      Write(Process().Thread(index) + "/syscall", Text());
      thread.hasContext = crash::FromWait((Process().Thread(index) + "/syscall").c_str(), thread.context);
      return;
    }
    thread.hasContext = true;
    thread.context.flags = crash::minidump::context_t::All;
    thread.context.rsp = Address();
    thread.context.rip = Address();
  }

  void ReadMemory() {
    const std::string path = Process().folder + "/mem";
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    constexpr int MostPlaces = 8;
    for (int places = input_.Byte() % MostPlaces; places > 0; --places) {
      const auto at = static_cast<off_t>(fuzz::DumpBase + input_.Byte() * fuzz::DumpPage);
      const fuzz::bytes_view_t bytes = input_.Take(input_.Word() % fuzz::DumpPage);
      fuzz::Require(::pwrite(file, bytes.data(), bytes.size(), at) >= 0, "there is room");
    }
    // Pages without content are there, too, up to here.
    fuzz::Require(::ftruncate(file, static_cast<off_t>(fuzz::DumpBase) + input_.Word() * 64L) == 0, "there is room");
    ::close(file);
  }

  std::string MakeMaps() {
    static constexpr std::array<const char*, 8> Paths{"",       "/lib/a.so", "/lib/a.so (deleted)", "[stack]",
                                                      "[vdso]", "[heap]",    "/dev/zero",           "[vvar]"};
    std::string maps;
    std::uint64_t at = fuzz::DumpBase;
    constexpr int MostMappings = 32;
    for (int i = 0; i < MostMappings && !input_.IsEmpty(); ++i) {
      at += (input_.Byte() % 8) * fuzz::DumpPage;
      const std::uint64_t end = at + (1 + input_.Byte() % 16) * fuzz::DumpPage;
      const std::uint8_t rights = input_.Byte();
      const std::uint8_t place = input_.Byte();
      char line[160];
      std::snprintf(line, sizeof line, "%lx-%lx %c%c%c%c %08lx 08:01 %u   %s\n", at, end, (rights & 1) != 0 ? 'r' : '-',
                    (rights & 2) != 0 ? 'w' : '-', (rights & 4) != 0 ? 'x' : '-', (rights & 8) != 0 ? 's' : 'p',
                    (rights >> 4) * fuzz::DumpPage, 17U, Paths[place % Paths.size()]);
      maps += line;
      at = end;
    }
    return maps;
  }

  /// The system tells of no mapping that ends before it begins or overlaps another one, and this process is small.
  static bool IsSmall(const crash::process_reader_t& process) {
    std::uint64_t end = 0;
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < process.MappingCount(); ++i) {
      const crash::mapping_t& mapping = process.Mapping(i);
      if (mapping.start < end || mapping.end <= mapping.start)
        return false;
      end = mapping.end;
      const std::uint64_t size = mapping.end - mapping.start;
      total += size;
      if (size > MostMemory || total > MostMemory)
        return false;
    }
    return true;
  }

  static void CheckModules(const crash::process_reader_t& process) {
    for (std::size_t i = 0; i < process.ModuleCount(); ++i) {
      const crash::module_info_t& image = process.Module(i);
      fuzz::Require(image.start < image.end && image.buildIdSize <= crash::module_info_t::MaxBuildId,
                    "an image lies in its mappings");
      fuzz::Require(process.FindModule(image.start) == &image, "an image is found by its address");
    }
  }

  template <typename T>
  T At(std::uint64_t place) const {
    fuzz::Require(place <= bytes_.size() && sizeof(T) <= bytes_.size() - place, "a record lies in the dump");
    T record;
    std::memcpy(&record, bytes_.data() + place, sizeof record);
    return record;
  }
  void CheckPlace(std::uint64_t place, std::uint64_t size) const {
    fuzz::Require(place <= bytes_.size() && size <= bytes_.size() - place, "what a dump tells of lies in it");
  }

  void CheckDump() const {
    const auto head = At<crash::minidump::header_t>(0);
    for (std::uint32_t i = 0; i < head.streamCount; ++i) {
      const auto entry = At<crash::minidump::directory_t>(head.directory + i * sizeof(crash::minidump::directory_t));
      CheckPlace(entry.location.place, entry.location.size);
      switch (static_cast<stream_t>(entry.type)) {
        case stream_t::ThreadList:
          CheckThreads(entry.location.place);
          break;
        case stream_t::MemoryList:
          CheckMemory(entry.location.place);
          break;
        case stream_t::Memory64List:
          CheckMemory64(entry.location.place);
          break;
        default:
          break;
      }
    }
  }
  void CheckThreads(std::uint64_t place) const {
    fuzz::Require(At<std::uint32_t>(place) == ThreadCount, "every thread is there");
    for (std::size_t i = 0; i < ThreadCount; ++i) {
      const auto thread = At<crash::minidump::thread_t>(place + 4 + i * sizeof(crash::minidump::thread_t));
      CheckPlace(thread.context.place, thread.context.size);
      CheckPlace(thread.stack.location.place, thread.stack.location.size);
    }
  }
  void CheckMemory(std::uint64_t place) const {
    const auto count = At<std::uint32_t>(place);
    for (std::uint32_t i = 0; i < count; ++i) {
      const auto range = At<crash::minidump::memory_t>(place + 4 + i * sizeof(crash::minidump::memory_t));
      CheckPlace(range.location.place, range.location.size);
    }
  }
  void CheckMemory64(std::uint64_t place) const {
    const auto count = At<std::uint64_t>(place);
    std::uint64_t at = At<std::uint64_t>(place + 8);
    for (std::uint64_t i = 0; i < count; ++i) {
      const auto range = At<crash::minidump::memory64_t>(place + 16 + i * sizeof(crash::minidump::memory64_t));
      CheckPlace(at, range.size);
      at += range.size;
    }
  }

  fuzz::CInput input_;
  const std::uint8_t mode_;
  crash::dump_content_t content_;
  std::array<crash::dump_thread_t, ThreadCount> threads_;
  std::string bytes_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  fuzz::StoreInMemory();
  Process();
  return 0;
}

/// A byte of modes, the record of the crash, the threads, the memory, the list of mappings.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CCrash({data, size}).Run();
  return 0;
}
