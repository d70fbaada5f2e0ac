#include "foundation/dump/minidump_writer.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "foundation/dump/dump_file.h"
#include "foundation/dump/folder_reader.h"
#include "foundation/dump/memory_ranges.h"
#include "foundation/dump/small_file.h"

namespace crash {

namespace {

using minidump::location_t;
using minidump::stream_t;

constexpr std::size_t MaxStreams = 16;
constexpr std::size_t ExtraRanges = 64;
/// Lists of memory with 32-bit places end here; more goes into the 64-bit list.
constexpr std::uint64_t MaxSmallList = std::uint64_t{1} << 30;
constexpr std::size_t CopyStep = 65536;
constexpr std::size_t PageSize = 4096;

/// Characters from here on take two units of UTF-16.
constexpr char32_t FirstPair = 0x10000;
constexpr char32_t NoCharacter = 0xfffd;

/// The first character of a UTF-8 text, which loses it; a byte that begins none is one of its own.
char32_t TakeCharacter(std::string_view& text) noexcept {
  const auto byte = [&text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  const char32_t first = byte(0);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xc2 ? 0
                             : first < 0xe0 ? 2
                             : first < 0xf0 ? 3
                             : first < 0xf5 ? 4
                                            : 0;
  char32_t character = length == 1 ? first : first & (0x7fU >> length);
  bool isWhole = length > 0 && length <= text.size();
  for (std::size_t i = 1; isWhole && i < length; ++i) {
    isWhole = (byte(i) & 0xc0) == 0x80;
    character = character << 6 | (byte(i) & 0x3f);
  }
  text.remove_prefix(isWhole ? length : 1);
  return isWhole && character <= 0x10ffff ? character : NoCharacter;
}

class minidump_writer_t {
 public:
  minidump_writer_t(int file, const process_reader_t& process, const dump_content_t& content, arena_t& arena) noexcept
      : file_(file, arena),
        process_(process),
        content_(content),
        arena_(arena),
        ranges_(arena, process.MappingCount() + content.threadCount + ExtraRanges),
        buffer_(arena.Take<char>(CopyStep)),
        threads_(arena.Take<minidump::thread_t>(content.threadCount)),
        modules_(arena.Take<minidump::module_t>(process.ModuleCount())) {}

  /// The errno of a failure, 0 for none.
  int Write() noexcept {
    if (buffer_ == nullptr || threads_ == nullptr || modules_ == nullptr)
      return ENOMEM;
    AddMemory(process_, content_, ranges_);
    file_.Skip(sizeof(minidump::header_t) + sizeof directory_);
    WriteSystemInfo();
    WriteMiscInfo();
    WriteModules();
    WriteThreadContexts();
    WriteException();
    WriteThreadList();
    WriteThreadNames();
    WriteNotes();
    WriteProcFile(stream_t::LinuxCmdLine, "/cmdline");
    WriteProcFile(stream_t::LinuxProcStatus, "/status");
    WriteProcFile(stream_t::LinuxAuxv, "/auxv");
    WriteBytes(stream_t::LinuxRelease, ReadSmallFile("/etc/os-release", buffer_, CopyStep));
    Begin(stream_t::LinuxMaps);
    file_.Write(process_.MapsText().data(), process_.MapsText().size());
    End();
    WriteMemory();
    WriteHead();
    return file_.Finish();
  }

 private:
  void Begin(stream_t stream) noexcept {
    file_.Align(8);
    directory_[streamCount_] = {static_cast<std::uint32_t>(stream), {0, file_.Place()}};
  }
  void End() noexcept {
    location_t& location = directory_[streamCount_++].location;
    location.size = file_.Place() - location.place;
  }
  void WriteBytes(stream_t stream, std::size_t size) noexcept {
    if (size == 0)
      return;
    Begin(stream);
    file_.Write(buffer_, size);
    End();
  }
  void WriteProcFile(stream_t stream, std::string_view tail) noexcept {
    fixed_text_t<64> path;
    process_.PathOf(tail, path);
    WriteBytes(stream, ReadSmallFile(path.CStr(), buffer_, CopyStep));
  }
  /// Length in bytes and UTF-16; returns where it stands.
  std::uint32_t WriteText(std::string_view text) noexcept {
    file_.Align(4);
    const std::uint32_t place = file_.Place();
    std::uint32_t size = 0;
    for (std::string_view left = text; !left.empty();)
      size += static_cast<std::uint32_t>(TakeCharacter(left) < FirstPair ? 2 : 4);
    file_.WriteRecord(size);
    while (!text.empty()) {
      const char32_t character = TakeCharacter(text);
      if (character >= FirstPair)
        file_.WriteRecord(static_cast<char16_t>(0xd7c0 + (character >> 10)));
      file_.WriteRecord(static_cast<char16_t>(character < FirstPair ? character : 0xdc00 + (character & 0x3ff)));
    }
    file_.WriteRecord(char16_t{0});
    return place;
  }

  void WriteSystemInfo() noexcept;
  void WriteMiscInfo() noexcept {
    minidump::misc_info_t info;
    info.processId = process_.ProcessId();
    Begin(stream_t::MiscInfo);
    file_.WriteRecord(info);
    End();
  }
  void WriteModules() noexcept;
  void WriteThreadContexts() noexcept;
  void WriteException() noexcept;
  void WriteThreadList() noexcept;
  void WriteThreadNames() noexcept;
  void WriteNotes() noexcept;
  void WriteMemory() noexcept;
  void WriteMemoryList() noexcept;
  void WriteMemory64List() noexcept;
  void PlaceStacks(std::uint64_t begin) noexcept;
  void CopyRange(const memory_range_t& range) noexcept;
  void WriteHead() noexcept;

  dump_file_t file_;
  const process_reader_t& process_;
  const dump_content_t& content_;
  arena_t& arena_;
  memory_ranges_t ranges_;
  char* const buffer_;
  minidump::thread_t* const threads_;
  minidump::module_t* const modules_;
  std::array<minidump::directory_t, MaxStreams> directory_{};
  std::uint32_t streamCount_ = 0;
  std::uint64_t threadListPlace_ = 0;
  location_t crashedContext_;
};

void minidump_writer_t::WriteSystemInfo() noexcept {
  minidump::system_info_t info;
  utsname kernel{};
  fixed_text_t<256> text;
  if (::uname(&kernel) == 0) {
    text.Format("%1 %2 %3 %4", {kernel.sysname, kernel.release, kernel.version, kernel.machine});
    std::uint32_t* const parts[] = {&info.major, &info.minor, &info.build};
    std::size_t part = 0;
    for (const char* at = kernel.release; *at != '\0' && part < std::size(parts); ++at) {
      if (*at >= '0' && *at <= '9')
        *parts[part] = *parts[part] * 10 + static_cast<std::uint32_t>(*at - '0');
      else if (*at == '.')
        ++part;
      else
        break;
    }
  }
  // Counted by the system's own file, one "processor" line each.
  const std::string_view processors(buffer_, ReadSmallFile("/proc/cpuinfo", buffer_, CopyStep));
  for (std::size_t at = processors.find("processor\t"); at != std::string_view::npos;
       at = processors.find("processor\t", at + 1))
    info.processorCount = static_cast<std::uint8_t>(std::min(255, info.processorCount + 1));
  info.servicePack = WriteText(text.View());
  Begin(stream_t::SystemInfo);
  file_.WriteRecord(info);
  End();
}

void minidump_writer_t::WriteModules() noexcept {
  for (std::size_t i = 0; i < process_.ModuleCount(); ++i) {
    const module_info_t& image = process_.Module(i);
    minidump::module_t& entry = modules_[i];
    entry = {};
    entry.base = image.start;
    entry.size = static_cast<std::uint32_t>(image.end - image.start);
    entry.name = WriteText(image.path);
    if (image.buildIdSize == 0)
      continue;
    file_.Align(4);
    entry.codeView = {static_cast<std::uint32_t>(sizeof minidump::BuildIdSignature + image.buildIdSize), file_.Place()};
    file_.WriteRecord(minidump::BuildIdSignature);
    file_.Write(image.buildId, image.buildIdSize);
  }
  Begin(stream_t::ModuleList);
  file_.WriteRecord(static_cast<std::uint32_t>(process_.ModuleCount()));
  file_.Write(modules_, process_.ModuleCount() * sizeof *modules_);
  End();
}

void minidump_writer_t::WriteThreadContexts() noexcept {
  for (std::size_t i = 0; i < content_.threadCount; ++i) {
    const dump_thread_t& thread = content_.threads[i];
    minidump::thread_t& entry = threads_[i];
    entry = {};
    entry.id = thread.id;
    file_.Align(16);
    entry.context = {sizeof thread.context, file_.Place()};
    file_.WriteRecord(thread.context);
    if (thread.id == content_.exception.threadId)
      crashedContext_ = entry.context;
  }
}

void minidump_writer_t::WriteException() noexcept {
  minidump::exception_t record;
  record.thread = content_.exception.threadId;
  record.code = static_cast<std::uint32_t>(content_.exception.signal);
  record.flags = static_cast<std::uint32_t>(content_.exception.code);
  record.address = content_.exception.address;
  record.context = crashedContext_;
  Begin(stream_t::Exception);
  file_.WriteRecord(record);
  End();
}

void minidump_writer_t::WriteThreadList() noexcept {
  Begin(stream_t::ThreadList);
  file_.WriteRecord(static_cast<std::uint32_t>(content_.threadCount));
  threadListPlace_ = file_.Position();
  // Written again when it is known where the stacks are.
  file_.Write(threads_, content_.threadCount * sizeof *threads_);
  End();
}

void minidump_writer_t::WriteThreadNames() noexcept {
  auto* const names = arena_.Take<minidump::thread_name_t>(content_.threadCount);
  if (names == nullptr)
    return;
  for (std::size_t i = 0; i < content_.threadCount; ++i) {
    fixed_text_t<64> path;
    process_.PathOf("/task/", path);
    path.AddDecimal(content_.threads[i].id).Add("/comm");
    char name[32];
    const std::size_t length = ReadSmallFile(path.CStr(), name, sizeof name);
    names[i] = {content_.threads[i].id, WriteText({name, length > 0 ? length - 1 : 0})};
  }
  Begin(stream_t::ThreadNames);
  file_.WriteRecord(static_cast<std::uint32_t>(content_.threadCount));
  file_.Write(names, content_.threadCount * sizeof *names);
  End();
}

void minidump_writer_t::WriteNotes() noexcept {
  const std::size_t size = std::min<std::size_t>(content_.exception.notesSize, CopyStep - 1);
  if (size == 0 || !process_.Read(content_.exception.notes, buffer_, size))
    return;
  buffer_[size] = '\0';
  WriteBytes(stream_t::Comment, size + 1);
}

void minidump_writer_t::WriteMemory() noexcept {
  const bool isFull = (content_.type & minidump::type::WithFullMemory) != 0;
  if (isFull || ranges_.TotalSize() > MaxSmallList) {
    WriteMemory64List();
  } else {
    WriteMemoryList();
  }
  file_.WriteAt(threadListPlace_, threads_, content_.threadCount * sizeof *threads_);
}

void minidump_writer_t::WriteMemoryList() noexcept {
  Begin(stream_t::MemoryList);
  file_.WriteRecord(static_cast<std::uint32_t>(ranges_.Count()));
  const std::uint64_t data = (file_.Position() + ranges_.Count() * sizeof(minidump::memory_t) + 15) / 16 * 16;
  std::uint64_t place = data;
  for (std::size_t i = 0; i < ranges_.Count(); ++i) {
    const memory_range_t& range = ranges_.At(i);
    file_.WriteRecord(
        minidump::memory_t{range.start, {static_cast<std::uint32_t>(range.Size()), static_cast<std::uint32_t>(place)}});
    place += range.Size();
  }
  End();
  file_.Align(16);
  PlaceStacks(data);
  for (std::size_t i = 0; i < ranges_.Count(); ++i)
    CopyRange(ranges_.At(i));
}

void minidump_writer_t::WriteMemory64List() noexcept {
  Begin(stream_t::Memory64List);
  const std::uint64_t lists = 2 * sizeof(std::uint64_t) + ranges_.Count() * sizeof(minidump::memory64_t);
  const std::uint64_t data = (file_.Position() + lists + PageSize - 1) / PageSize * PageSize;
  file_.WriteRecord(std::uint64_t{ranges_.Count()});
  file_.WriteRecord(data);
  for (std::size_t i = 0; i < ranges_.Count(); ++i)
    file_.WriteRecord(minidump::memory64_t{ranges_.At(i).start, ranges_.At(i).Size()});
  End();
  file_.Align(PageSize);
  PlaceStacks(data);
  for (std::size_t i = 0; i < ranges_.Count(); ++i)
    CopyRange(ranges_.At(i));
}

/// A stack beyond what a 32-bit place can tell is found in the list of memory alone.
void minidump_writer_t::PlaceStacks(std::uint64_t begin) noexcept {
  for (std::size_t i = 0; i < content_.threadCount; ++i) {
    const dump_thread_t& thread = content_.threads[i];
    if (!thread.hasContext)
      continue;
    const memory_range_t stack = StackOf(process_, thread.context, thread.id == content_.exception.threadId);
    const std::uint64_t place = begin + ranges_.OffsetOf(stack.start);
    threads_[i].stack.start = stack.start;
    if (place <= std::numeric_limits<std::uint32_t>::max())
      threads_[i].stack.location = {static_cast<std::uint32_t>(stack.Size()), static_cast<std::uint32_t>(place)};
  }
}

void minidump_writer_t::CopyRange(const memory_range_t& range) noexcept {
  for (std::uint64_t at = range.start; at < range.end;) {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(CopyStep, range.end - at));
    if (process_.Read(at, buffer_, size)) {
      if (std::all_of(buffer_, buffer_ + size, [](char byte) { return byte == 0; })) {
        file_.Skip(size);
      } else {
        file_.Write(buffer_, size);
      }
    } else {
      // Some page of it is not there: the others are.
      for (std::size_t done = 0; done < size;) {
        const std::size_t part = std::min<std::size_t>(PageSize - (at + done) % PageSize, size - done);
        if (process_.Read(at + done, buffer_, part))
          file_.Write(buffer_, part);
        else
          file_.Skip(part);
        done += part;
      }
    }
    at += size;
  }
}

void minidump_writer_t::WriteHead() noexcept {
  minidump::header_t head;
  head.streamCount = streamCount_;
  head.directory = sizeof head;
  head.time = static_cast<std::uint32_t>(std::time(nullptr));
  head.flags = content_.type;
  file_.WriteAt(0, &head, sizeof head);
  file_.WriteAt(sizeof head, directory_.data(), sizeof directory_);
}

}  // namespace

bool WriteMinidump(int file, const process_reader_t& process, const dump_content_t& content, arena_t& arena,
                   failure_t& failure) noexcept {
  minidump_writer_t writer(file, process, content, arena);
  const int error = writer.Write();
  if (error == 0)
    return true;
  failure.AddSystem("Failed to write the dump.", {}, error);
  return false;
}

}  // namespace crash
