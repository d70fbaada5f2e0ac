#include "foundation/dump/memory_ranges.h"

#include <algorithm>

namespace crash {

namespace {

constexpr std::uint64_t PageSize = 4096;
/// Below the stack pointer functions may use so much without moving it.
constexpr std::uint64_t RedZone = 128;
/// A stack that has overflowed points into the gap below it.
constexpr std::uint64_t MaxGap = std::uint64_t{1} << 20;
constexpr std::uint64_t MaxCrashedStack = std::uint64_t{64} << 20;
constexpr std::uint64_t MaxStack = std::uint64_t{1} << 20;
constexpr std::uint64_t AroundInstruction = 256;

/// What the kernel shows to everyone, and what reading would disturb.
bool CanBeRead(const mapping_t& mapping) noexcept {
  return mapping.isReadable && !mapping.path.starts_with("[vvar") && mapping.path != "[vsyscall]" &&
         !mapping.path.starts_with("/dev/");
}

bool IsWanted(const process_reader_t& process, std::size_t index, std::uint64_t type) noexcept {
  const mapping_t& mapping = process.Mapping(index);
  if (!CanBeRead(mapping))
    return false;
  if ((type & minidump::type::WithFullMemory) != 0)
    return true;
  if (!mapping.isWritable || mapping.isShared)
    return false;
  if ((type & minidump::type::WithPrivateReadWriteMemory) != 0)
    return true;
  if ((type & minidump::type::WithDataSegs) == 0)
    return false;
  // Data of an image, and the zeroed data right behind it.
  const mapping_t* const before = index > 0 ? &process.Mapping(index - 1) : nullptr;
  return mapping.IsFile() || (mapping.path.empty() && before != nullptr && before->IsFile() && before->isWritable &&
                              before->end == mapping.start);
}

}  // namespace

memory_ranges_t::memory_ranges_t(arena_t& arena, std::size_t capacity) noexcept
    : ranges_(arena.Take<memory_range_t>(capacity)), capacity_(ranges_ == nullptr ? 0 : capacity) {}

void memory_ranges_t::Add(std::uint64_t start, std::uint64_t end) noexcept {
  if (start < end && count_ < capacity_)
    ranges_[count_++] = {start, end};
}

void memory_ranges_t::Settle() noexcept {
  std::sort(ranges_, ranges_ + count_,
            [](const memory_range_t& left, const memory_range_t& right) { return left.start < right.start; });
  std::size_t kept = 0;
  for (std::size_t i = 0; i < count_; ++i) {
    if (kept > 0 && ranges_[i].start <= ranges_[kept - 1].end) {
      ranges_[kept - 1].end = std::max(ranges_[kept - 1].end, ranges_[i].end);
    } else {
      ranges_[kept++] = ranges_[i];
    }
  }
  count_ = kept;
}

std::uint64_t memory_ranges_t::TotalSize() const noexcept {
  std::uint64_t size = 0;
  for (std::size_t i = 0; i < count_; ++i)
    size += ranges_[i].Size();
  return size;
}

std::uint64_t memory_ranges_t::OffsetOf(std::uint64_t address) const noexcept {
  std::uint64_t offset = 0;
  for (std::size_t i = 0; i < count_; ++i) {
    if (address < ranges_[i].end)
      return offset + address - ranges_[i].start;
    offset += ranges_[i].Size();
  }
  return offset;
}

memory_range_t StackOf(const process_reader_t& process, const minidump::context_t& context, bool isCrashed) noexcept {
  const std::uint64_t pointer = context.rsp < RedZone ? 0 : context.rsp - RedZone;
  for (std::size_t i = 0; i < process.MappingCount(); ++i) {
    const mapping_t& mapping = process.Mapping(i);
    if (mapping.end <= context.rsp || !mapping.isReadable || !mapping.isWritable)
      continue;
    if (mapping.start > context.rsp && mapping.start - context.rsp > MaxGap)
      break;
    const std::uint64_t start = std::max(mapping.start, pointer / PageSize * PageSize);
    return {start, std::min(mapping.end, start + (isCrashed ? MaxCrashedStack : MaxStack))};
  }
  return {};
}

void AddMemory(const process_reader_t& process, const dump_content_t& content, memory_ranges_t& ranges) noexcept {
  for (std::size_t i = 0; i < content.threadCount; ++i) {
    const dump_thread_t& thread = content.threads[i];
    if (!thread.hasContext)
      continue;
    const memory_range_t stack = StackOf(process, thread.context, thread.id == content.exception.threadId);
    ranges.Add(stack.start, stack.end);
  }
  const std::uint64_t instruction = content.exception.context.rip;
  if (const mapping_t* const code = process.Find(instruction); code != nullptr && CanBeRead(*code)) {
    ranges.Add(std::max(code->start, instruction - std::min(instruction, AroundInstruction / 2)),
               std::min(code->end, instruction + AroundInstruction / 2));
  }
  for (std::size_t i = 0; i < process.MappingCount(); ++i) {
    if (IsWanted(process, i, content.type))
      ranges.Add(process.Mapping(i).start, process.Mapping(i).end);
  }
  ranges.Settle();
}

}  // namespace crash
