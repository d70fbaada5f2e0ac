#include "foundation/crash/image_names.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace crash {

namespace {

/// A file in memory, looked at within its bounds.
class elf_file_t {
 public:
  explicit elf_file_t(const char* path) noexcept {
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file >= 0 && ::fstat(file, &status) == 0 && status.st_size > 0) {
      size_ = static_cast<std::size_t>(status.st_size);
      void* const place = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
      bytes_ = place == MAP_FAILED ? nullptr : static_cast<const char*>(place);
    }
    if (file >= 0)
      ::close(file);
  }
  elf_file_t(const elf_file_t&) = delete;
  elf_file_t& operator=(const elf_file_t&) = delete;
  ~elf_file_t() {
    if (bytes_ != nullptr)
      ::munmap(const_cast<char*>(bytes_), size_);
  }

  /// What lies so many bytes behind the begin of a table. Neither is believed: their sum may come round.
  template <typename T>
  bool Read(std::uint64_t begin, std::uint64_t offset, T& record) const noexcept {
    if (!IsInside(begin, offset) || size_ - begin - offset < sizeof record)
      return false;
    std::memcpy(&record, bytes_ + begin + offset, sizeof record);
    return true;
  }
  void AddText(std::uint64_t begin, std::uint64_t offset, text_t& text) const noexcept {
    if (IsInside(begin, offset))
      text.Add({bytes_ + begin + offset, ::strnlen(bytes_ + begin + offset, size_ - begin - offset)});
  }
  bool ReadHead(Elf64_Ehdr& head) const noexcept {
    return Read(0, 0, head) && std::memcmp(head.e_ident, ELFMAG, SELFMAG) == 0 && head.e_ident[EI_CLASS] == ELFCLASS64;
  }

 private:
  bool IsInside(std::uint64_t begin, std::uint64_t offset) const noexcept {
    return bytes_ != nullptr && begin <= size_ && offset <= size_ - begin;
  }

  const char* bytes_ = nullptr;
  std::size_t size_ = 0;
};

/// Where the file's first byte is meant to lie.
std::uint64_t FirstAddress(const elf_file_t& file, const Elf64_Ehdr& head) noexcept {
  for (std::uint16_t i = 0; i < head.e_phnum; ++i) {
    Elf64_Phdr segment{};
    if (file.Read(head.e_phoff, i * sizeof segment, segment) && segment.p_type == PT_LOAD)
      return segment.p_vaddr - segment.p_offset;
  }
  return 0;
}

bool FindInTable(const elf_file_t& file, const Elf64_Shdr& table, std::uint64_t names, std::uint64_t address,
                 text_t& name, std::uint64_t& offset) noexcept {
  Elf64_Sym symbol{};
  for (std::uint64_t at = 0; at + sizeof symbol <= table.sh_size; at += sizeof symbol) {
    if (!file.Read(table.sh_offset, at, symbol))
      return false;
    if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_shndx == SHN_UNDEF || address < symbol.st_value ||
        address - symbol.st_value >= symbol.st_size)
      continue;
    offset = address - symbol.st_value;
    file.AddText(names, symbol.st_name, name);
    return true;
  }
  return false;
}

}  // namespace

bool FindName(const module_info_t& image, std::uint64_t address, text_t& name, std::uint64_t& offset) noexcept {
  path_text_t path;
  path.Add(image.path);
  const elf_file_t file(path.CStr());
  Elf64_Ehdr head{};
  if (!file.ReadHead(head))
    return false;
  const std::uint64_t asked = address - image.start + FirstAddress(file, head);
  for (const std::uint32_t type : {std::uint32_t{SHT_SYMTAB}, std::uint32_t{SHT_DYNSYM}}) {
    for (std::uint16_t i = 0; i < head.e_shnum; ++i) {
      Elf64_Shdr table{};
      Elf64_Shdr names{};
      if (file.Read(head.e_shoff, i * sizeof table, table) && table.sh_type == type &&
          file.Read(head.e_shoff, table.sh_link * sizeof names, names) &&
          FindInTable(file, table, names.sh_offset, asked, name, offset))
        return true;
    }
  }
  return false;
}

}  // namespace crash
