#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "recording_file.h"
#include "support/refused_memory.h"
#include "vfs/items/async_fs_file_wrapper.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"

namespace {

/// Does nothing, and allocates nothing for it.
class IdleFile : public test::RecordingFile {
 public:
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) override { attributes.sizeLow = 1; }
  bool Exists() override { return true; }
  bool IsAddressAllowed(const sockaddr_in&) override { return true; }
  void Read(std::uint64_t, std::uint32_t count, SFsReadBuffer& buffer) override { buffer.length = count; }
  void Write(std::uint64_t, std::uint32_t, const void*) override {}
};

TEST(Loan, ACallThatFindsItsInvokerIdleAllocatesNothing) {
  const auto allocator = boost::make_shared<CCompletionEventsAllocator>();
  const auto file = boost::make_shared<IdleFile>();
  const auto invoker = CFsProcInvoker::Create("hostfs", 1, allocator);
  CAsyncFsFileWrapper wrapper(file, invoker, allocator);
  const long shares = file.use_count();
  SFsReadBuffer buffer;
  WIN32_FILE_ATTRIBUTE_DATA attributes = {};
  const sockaddr_in address = {};
  const std::size_t before = test::MemoryRequests();
  for (int i = 0; i < 10; ++i) {
    wrapper.GetAttributes(attributes);
    wrapper.Read(0, 4096, buffer);
    wrapper.Write(0, 4096, nullptr);
    wrapper.Exists();
    wrapper.IsAddressAllowed(address);
  }
  EXPECT_EQ(test::MemoryRequests(), before);
  EXPECT_EQ(attributes.sizeLow, 1u);
  EXPECT_EQ(buffer.length, 4096u);
  EXPECT_EQ(allocator->FreeCount(), 0u);
  EXPECT_EQ(file.use_count(), shares);
}

}  // namespace
