// Dumps of the test's own process, taken apart by hand.
#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "foundation/dump/context.h"
#include "foundation/dump/minidump_writer.h"
#include "support/temp_dir.h"

namespace crash {
namespace {

using minidump::stream_t;

class MinidumpTest : public testing::Test {
 protected:
  template <typename T>
  T At(std::uint64_t place) const {
    T record;
    if (place + sizeof record > bytes_.size())
      throw std::out_of_range("a record outside the file");
    std::memcpy(&record, bytes_.data() + place, sizeof record);
    return record;
  }
  void Write(std::uint64_t type = minidump::type::Normal) {
    arena_t arena(std::size_t{64} << 20);
    failure_t failure;
    process_reader_t process(static_cast<std::uint32_t>(getpid()), arena);
    ASSERT_TRUE(process.Open(failure)) << failure.Text();
    ucontext_t here{};
    getcontext(&here);
    dump_thread_t threads[2];
    threads[0].id = 4711;
    threads[0].hasContext = true;
    FromSignal(here, threads[0].context);
    threads[1].id = 4712;
    dump_content_t content;
    content.type = type;
    content.exception.signal = SIGBUS;
    content.exception.code = 3;
    content.exception.address = 0x1234;
    content.exception.threadId = 4711;
    content.exception.context = threads[0].context;
    content.exception.notes = reinterpret_cast<std::uintptr_t>(notes_.data());
    content.exception.notesSize = notes_.size();
    content.threads = threads;
    content.threadCount = 2;
    context_ = threads[0].context;
    const std::string path = dir_ / "dump";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_TRUE(WriteMinidump(file, process, content, arena, failure)) << failure.Text();
    close(file);
    std::ifstream stream(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(stream), {});
    ReadDirectory(type);
  }
  void ReadDirectory(std::uint64_t type) {
    const auto head = At<minidump::header_t>(0);
    EXPECT_EQ(bytes_.substr(0, 4), "MDMP");
    EXPECT_EQ(head.version & 0xffff, 0xa793U);
    EXPECT_EQ(head.flags, type);
    for (std::uint32_t i = 0; i < head.streamCount; ++i) {
      const auto entry = At<minidump::directory_t>(head.directory + i * sizeof(minidump::directory_t));
      EXPECT_TRUE(streams_.emplace(entry.type, entry.location).second) << entry.type;
      EXPECT_LE(std::uint64_t{entry.location.place} + entry.location.size, bytes_.size());
    }
  }
  minidump::location_t Stream(stream_t stream) const { return streams_.at(static_cast<std::uint32_t>(stream)); }
  std::string Text(std::uint64_t place) const {
    std::string text;
    for (std::uint32_t i = 0; i < At<std::uint32_t>(place) / 2; ++i)
      text += static_cast<char>(At<char16_t>(place + 4 + i * 2));
    return text;
  }

  const std::string notes_ = "what the threads were doing";
  test::TempDir dir_;
  minidump::context_t context_;
  std::string bytes_;
  std::map<std::uint32_t, minidump::location_t> streams_;
};

TEST_F(MinidumpTest, HoldsTheException) {
  Write();
  const auto record = At<minidump::exception_t>(Stream(stream_t::Exception).place);
  EXPECT_EQ(record.thread, 4711U);
  EXPECT_EQ(record.code, static_cast<std::uint32_t>(SIGBUS));
  EXPECT_EQ(record.flags, 3U);
  EXPECT_EQ(record.address, 0x1234U);
  EXPECT_EQ(record.context.size, 1232U);
  EXPECT_EQ(At<minidump::context_t>(record.context.place).rip, context_.rip);
  EXPECT_EQ(bytes_.substr(Stream(stream_t::Comment).place, notes_.size()), notes_);
}

TEST_F(MinidumpTest, HoldsTheThreadsAndTheirStacks) {
  Write();
  const std::uint32_t place = Stream(stream_t::ThreadList).place;
  ASSERT_EQ(At<std::uint32_t>(place), 2U);
  const auto thread = At<minidump::thread_t>(place + 4);
  EXPECT_EQ(thread.id, 4711U);
  EXPECT_LE(thread.stack.start, context_.rsp);
  EXPECT_GT(thread.stack.start + thread.stack.location.size, context_.rsp);
  // The words at the stack pointer are in the file, where the record says, and so is the list of memory.
  const std::uint64_t offset = context_.rsp - thread.stack.start;
  EXPECT_LE(thread.stack.location.place + offset + 8, bytes_.size());
  const std::uint32_t list = Stream(stream_t::MemoryList).place;
  bool isListed = false;
  for (std::uint32_t i = 0; i < At<std::uint32_t>(list); ++i) {
    const auto memory = At<minidump::memory_t>(list + 4 + i * sizeof(minidump::memory_t));
    EXPECT_LE(std::uint64_t{memory.location.place} + memory.location.size, bytes_.size());
    isListed = isListed || (memory.start <= context_.rsp && context_.rsp < memory.start + memory.location.size);
  }
  EXPECT_TRUE(isListed);
  // Of a thread of which nothing is known, no stack is told.
  EXPECT_EQ(At<minidump::thread_t>(place + 4 + sizeof thread).stack.location.size, 0U);
}

TEST_F(MinidumpTest, NamesTheImages) {
  Write();
  const std::uint32_t place = Stream(stream_t::ModuleList).place;
  std::map<std::string, minidump::module_t> modules;
  for (std::uint32_t i = 0; i < At<std::uint32_t>(place); ++i) {
    const auto image = At<minidump::module_t>(place + 4 + i * sizeof(minidump::module_t));
    modules[Text(image.name)] = image;
  }
  const auto own = modules.find(std::filesystem::canonical("/proc/self/exe"));
  ASSERT_NE(own, modules.end());
  const auto here = reinterpret_cast<std::uintptr_t>(&FromSignal);
  EXPECT_LE(own->second.base, here);
  EXPECT_GT(own->second.base + own->second.size, here);
  EXPECT_EQ(own->second.codeView.size, 24U);
  EXPECT_EQ(At<std::uint32_t>(own->second.codeView.place), minidump::BuildIdSignature);
  EXPECT_TRUE(modules.contains("[vdso]"));
}

TEST_F(MinidumpTest, TellsOfTheSystemAndTheProcess) {
  Write();
  const auto system = At<minidump::system_info_t>(Stream(stream_t::SystemInfo).place);
  EXPECT_EQ(system.architecture, 9U);
  EXPECT_EQ(system.platform, 0x8201U);
  EXPECT_GE(system.major, 4U);
  EXPECT_GE(system.processorCount, 1U);
  EXPECT_EQ(Text(system.servicePack).substr(0, 6), "Linux ");
  EXPECT_EQ(At<minidump::misc_info_t>(Stream(stream_t::MiscInfo).place).processId, static_cast<unsigned>(getpid()));
  EXPECT_NE(bytes_.substr(Stream(stream_t::LinuxMaps).place, Stream(stream_t::LinuxMaps).size).find("[stack]"),
            std::string::npos);
}

TEST_F(MinidumpTest, AFullDiskIsAFailure) {
  arena_t arena(std::size_t{64} << 20);
  failure_t failure;
  process_reader_t process(static_cast<std::uint32_t>(getpid()), arena);
  ASSERT_TRUE(process.Open(failure));
  const int file = open("/dev/full", O_RDWR | O_CLOEXEC);
  EXPECT_FALSE(WriteMinidump(file, process, {}, arena, failure));
  close(file);
  EXPECT_NE(failure.Text().find("Failed to write the dump.\nError code: 112"), std::string_view::npos)
      << failure.Text();
}

TEST(ProcessReaderTest, WhatIsNotThereIsAFailedRead) {
  arena_t arena(std::size_t{8} << 20);
  failure_t failure;
  process_reader_t process(static_cast<std::uint32_t>(getpid()), arena);
  ASSERT_TRUE(process.Open(failure));
  const int number = 42;
  int copy = 0;
  EXPECT_TRUE(process.Read(reinterpret_cast<std::uintptr_t>(&number), &copy, sizeof copy));
  EXPECT_EQ(copy, 42);
  EXPECT_FALSE(process.Read(0, &copy, sizeof copy));
  EXPECT_EQ(process.Find(0), nullptr);
  EXPECT_EQ(process.FindModule(reinterpret_cast<std::uintptr_t>(&number)), nullptr);
}

TEST(ProcessReaderTest, AProcessThatIsNotThereCannotBeOpened) {
  arena_t arena(std::size_t{8} << 20);
  failure_t failure;
  process_reader_t process(0x7fffffff, arena);
  EXPECT_FALSE(process.Open(failure));
  EXPECT_NE(failure.Text().find("Failed to open [/proc/2147483647/mem]."), std::string_view::npos);
}

TEST(ProcessReaderTest, AnArenaThatIsTooSmallIsAFailure) {
  arena_t arena(4096);
  failure_t failure;
  process_reader_t process(static_cast<std::uint32_t>(getpid()), arena);
  EXPECT_FALSE(process.Open(failure));
}

TEST(ProcessReaderTest, NotesOfAnImageThatDoNotEndAreGivenUp) {
  // Zeros as far as the file goes, which are notes of nothing one after the other.
  constexpr std::uint64_t Length = std::uint64_t{1} << 40;
  constexpr std::uint64_t Start = 0x10000;
  const test::TempDir root;
  std::filesystem::create_directory(root / "7");
  Elf64_Ehdr head{};
  std::memcpy(head.e_ident, ELFMAG, SELFMAG);
  head.e_phoff = sizeof head;
  head.e_phentsize = sizeof(Elf64_Phdr);
  head.e_phnum = 0xffff;
  Elf64_Phdr segments[2]{};
  segments[0].p_type = PT_LOAD;
  segments[1].p_type = PT_NOTE;
  segments[1].p_vaddr = 4096;
  segments[1].p_memsz = Length;
  {
    std::ofstream memory(root / "7/mem", std::ios::binary);
    memory.seekp(Start);
    memory.write(reinterpret_cast<const char*>(&head), sizeof head);
    memory.write(reinterpret_cast<const char*>(segments), sizeof segments);
    std::ofstream(root / "7/maps") << "10000-20000 r-xp 00000000 08:01 17   /lib/a.so\n";
  }
  std::filesystem::resize_file(root / "7/mem", Length);
  arena_t arena(std::size_t{8} << 20);
  failure_t failure;
  process_reader_t process(7, arena, root.Path().c_str());
  ASSERT_TRUE(process.Open(failure)) << failure.Text();
  ASSERT_EQ(process.ModuleCount(), 1U);
  EXPECT_EQ(process.Module(0).buildIdSize, 0U);
}

TEST(ContextTest, AThreadThatWaitsTellsWhere) {
  const test::TempDir dir;
  const std::string path = dir / "syscall";
  minidump::context_t context;
  std::ofstream(path) << "232 0x9 0x7f00 0x40 0xffffffffffffffff 0x0 0x0 0x7ffc1230 0x7f8a40726f36\n";
  EXPECT_TRUE(FromWait(path.c_str(), context));
  EXPECT_EQ(context.rsp, 0x7ffc1230U);
  EXPECT_EQ(context.rip, 0x7f8a40726f36U);
  std::ofstream(path) << "running\n";
  EXPECT_FALSE(FromWait(path.c_str(), context));
  EXPECT_FALSE(FromWait((dir / "none").c_str(), context));
}

}  // namespace
}  // namespace crash
