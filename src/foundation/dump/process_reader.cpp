#include "foundation/dump/process_reader.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/dump/small_file.h"

namespace crash {

namespace {

/// More than any image has: a head that the crash has damaged may tell of notes without end.
constexpr std::uint16_t MaxSegments = 64;
constexpr std::uint64_t MaxNotesSize = 65536;

std::uint64_t TakeHex(std::string_view& text) noexcept {
  std::uint64_t number = 0;
  while (!text.empty()) {
    const std::size_t digit = std::string_view("0123456789abcdef").find(text.front());
    if (digit == std::string_view::npos)
      break;
    number = number * 16 + digit;
    text.remove_prefix(1);
  }
  return number;
}

void SkipField(std::string_view& text) noexcept {
  text.remove_prefix(std::min(text.find(' '), text.size()));
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

/// "7f12a000-7f12b000 r-xp 00001000 08:01 1234   /usr/lib/libc.so.6 (deleted)"
mapping_t ParseLine(std::string_view line) noexcept {
  constexpr std::string_view Deleted = " (deleted)";
  mapping_t mapping;
  mapping.start = TakeHex(line);
  line.remove_prefix(std::min<std::size_t>(1, line.size()));
  mapping.end = TakeHex(line);
  SkipField(line);
  mapping.isReadable = line.starts_with('r');
  if (line.size() >= 4) {
    mapping.isWritable = line[1] == 'w';
    mapping.isExecutable = line[2] == 'x';
    mapping.isShared = line[3] == 's';
  }
  SkipField(line);
  mapping.offset = TakeHex(line);
  SkipField(line);  // To the device.
  SkipField(line);  // To the inode.
  SkipField(line);  // To the path.
  if (line.ends_with(Deleted))
    line.remove_suffix(Deleted.size());
  mapping.path = line;
  return mapping;
}

}  // namespace

process_reader_t::process_reader_t(std::uint32_t processId, arena_t& arena, const char* root) noexcept
    : processId_(processId), root_(root), arena_(arena) {}

process_reader_t::~process_reader_t() {
  if (memory_ >= 0)
    ::close(memory_);
}

void process_reader_t::PathOf(std::string_view tail, text_t& path) const noexcept {
  path.Clear();
  path.Add(root_).Add('/').AddDecimal(processId_).Add(tail);
}

bool process_reader_t::Open(failure_t& failure) noexcept {
  fixed_text_t<64> path;
  PathOf("/mem", path);
  memory_ = ::open(path.CStr(), O_RDONLY | O_CLOEXEC);
  if (memory_ < 0) {
    failure.AddSystem("Failed to open [%1].", {path.View()}, errno);
    return false;
  }
  if (!ReadMaps(failure))
    return false;
  ParseMaps();
  FindModules();
  if (mappings_ != nullptr && modules_ != nullptr)
    return true;
  failure.Add("Out of memory.");
  return false;
}

bool process_reader_t::ReadMaps(failure_t& failure) noexcept {
  fixed_text_t<64> path;
  PathOf("/maps", path);
  mapsText_ = arena_.Front();
  // Half of the arena at most: what is made of the text needs room as well.
  mapsLength_ = ReadSmallFile(path.CStr(), mapsText_, arena_.Left() / 2);
  arena_.TakeBytes(mapsLength_);
  if (mapsLength_ > 0)
    return true;
  failure.AddSystem("Failed to read [%1].", {path.View()}, errno);
  return false;
}

void process_reader_t::ParseMaps() noexcept {
  std::string_view left = MapsText();
  const auto lines = static_cast<std::size_t>(std::count(left.begin(), left.end(), '\n'));
  mappings_ = arena_.Take<mapping_t>(lines);
  if (mappings_ == nullptr)
    return;
  while (mappingCount_ < lines) {
    const std::size_t end = left.find('\n');
    mappings_[mappingCount_++] = ParseLine(left.substr(0, end));
    left.remove_prefix(end + 1);
  }
}

bool process_reader_t::Read(std::uint64_t address, void* place, std::size_t size) const noexcept {
  auto* bytes = static_cast<char*>(place);
  while (size > 0) {
    const ssize_t got = ::pread64(memory_, bytes, size, static_cast<off64_t>(address));
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0)
      return false;
    bytes += got;
    address += static_cast<std::uint64_t>(got);
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

const mapping_t* process_reader_t::Find(std::uint64_t address) const noexcept {
  for (std::size_t i = 0; i < mappingCount_; ++i) {
    if (mappings_[i].Contains(address))
      return &mappings_[i];
  }
  return nullptr;
}

const module_info_t* process_reader_t::FindModule(std::uint64_t address) const noexcept {
  for (std::size_t i = 0; i < moduleCount_; ++i) {
    if (modules_[i].start <= address && address < modules_[i].end)
      return &modules_[i];
  }
  return nullptr;
}

/// An image is a run of mappings of one file that begins with the head of an ELF file and holds code.
void process_reader_t::FindModules() noexcept {
  modules_ = arena_.Take<module_info_t>(mappingCount_);
  if (mappings_ == nullptr || modules_ == nullptr)
    return;
  for (std::size_t i = 0; i < mappingCount_;) {
    const mapping_t& first = mappings_[i];
    std::size_t next = i + 1;
    bool hasCode = first.isExecutable;
    std::uint64_t end = first.end;
    // Parts of an image that are in no file (zeroed data) may stand between two of its mappings.
    for (std::size_t at = next; first.IsFile() && at < mappingCount_; ++at) {
      const mapping_t& other = mappings_[at];
      if (other.path == first.path && other.offset > 0) {
        hasCode = hasCode || other.isExecutable;
        end = other.end;
        next = at + 1;
      } else if (!other.path.empty() || other.start != mappings_[at - 1].end) {
        break;
      }
    }
    char magic[SELFMAG] = {};
    const bool isImage = first.isReadable && (first.IsFile() ? first.offset == 0 : first.path == "[vdso]") && hasCode &&
                         Read(first.start, magic, sizeof magic) && std::memcmp(magic, ELFMAG, SELFMAG) == 0;
    if (isImage) {
      module_info_t& image = modules_[moduleCount_++];
      image = {};
      image.start = first.start;
      image.end = end;
      image.path = first.path;
      ReadBuildId(image);
    }
    i = next;
  }
}

void process_reader_t::ReadBuildId(module_info_t& image) const noexcept {
  Elf64_Ehdr head{};
  if (!Read(image.start, &head, sizeof head) || head.e_phentsize != sizeof(Elf64_Phdr))
    return;
  Elf64_Addr firstAddress = 0;
  for (std::uint16_t i = 0; i < std::min(head.e_phnum, MaxSegments); ++i) {
    Elf64_Phdr segment{};
    if (!Read(image.start + head.e_phoff + i * sizeof segment, &segment, sizeof segment))
      return;
    if (segment.p_type == PT_LOAD && segment.p_offset == 0)
      firstAddress = segment.p_vaddr;
    if (segment.p_type != PT_NOTE)
      continue;
    const std::uint64_t begin = image.start + segment.p_vaddr - firstAddress;
    const std::uint64_t size = std::min(segment.p_memsz, MaxNotesSize);
    for (std::uint64_t at = 0; at + sizeof(Elf64_Nhdr) <= size;) {
      Elf64_Nhdr note{};
      if (!Read(begin + at, &note, sizeof note))
        break;
      const std::uint64_t name = (std::uint64_t{note.n_namesz} + 3) / 4 * 4;
      const std::uint64_t content = (std::uint64_t{note.n_descsz} + 3) / 4 * 4;
      if (note.n_type == NT_GNU_BUILD_ID && note.n_descsz <= module_info_t::MaxBuildId &&
          Read(begin + at + sizeof note + name, image.buildId, note.n_descsz)) {
        image.buildIdSize = note.n_descsz;
        return;
      }
      at += sizeof note + name + content;
    }
  }
}

}  // namespace crash
