// A file behind its wrapper, with an invoker that the test occupies.
#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <string>
#include <thread>
#include <vector>

#include "recording_file.h"
#include "support/captured_log.h"
#include "vfs/items/async_fs_file_wrapper.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"

namespace test {

class WrapperTest : public testing::Test {
 protected:
  void Make(std::int32_t threads = 1, const SFsInvocationLimits& limits = {}) {
    invoker = CFsProcInvoker::Create("hostfs", threads, allocator, limits);
    wrapper = boost::make_shared<CAsyncFsFileWrapper>(file, invoker, allocator);
  }
  /// Keeps the pool's threads busy until the gate opens.
  void Occupy(Gate& gate) {
    invoker->Invoke(boost::make_shared<FunctionProc>([&gate] { gate.Enter(); }),
                    boost::make_shared<RecordingCallback>());
    ASSERT_TRUE(gate.WaitEntered());
  }
  /// Whether the next call finds the invoker idle.
  bool IsIdle() {
    const CFsProcInvoker::CLoan loan(*invoker);
    return static_cast<bool>(loan);
  }
  void WaitQueued(std::size_t count) {
    while (invoker->Waiting() != count)
      std::this_thread::yield();
  }
  void WaitIdle() {
    while (!IsIdle())
      std::this_thread::yield();
  }
  /// A stop that soon says when it has to wait.
  static SFsInvocationLimits TellingLimits() {
    SFsInvocationLimits limits;
    limits.stopLimitMs = 10;
    limits.longStopLimitMs = PatientMs;
    return limits;
  }
  static void WaitUntilStopWaits(const CapturedLog& log) {
    while (!log.Has("Invocation thread for 'hostfs' didn't stop in 3 minutes. Waiting for stop."))
      std::this_thread::yield();
  }
  /// Every operation, with its result.
  void CallAll() {
    SFsItemSpec spec;
    wrapper->GetItemSpec(spec);
    EXPECT_EQ(spec.path, "/a/path");
    WIN32_FILE_ATTRIBUTE_DATA attributes = {};
    wrapper->GetAttributes(attributes);
    EXPECT_EQ(attributes.sizeLow, 77u);
    wrapper->SetPermissions(true, false);
    const FILETIME time = {};
    wrapper->SetTimes(nullptr, &time, nullptr);
    EXPECT_TRUE(wrapper->Exists());
    GUID uid;
    EXPECT_TRUE(wrapper->GetMountUid(uid));
    sockaddr_in address = {};
    address.sin_port = 5;
    EXPECT_TRUE(wrapper->IsAddressAllowed(address));
    EXPECT_EQ(wrapper->GetAllowedHostAddr(), "10.0.0.1");
    SFsReadBuffer buffer;
    wrapper->Read(10, 4, buffer);
    EXPECT_EQ(buffer.length, 4u);
    EXPECT_TRUE(buffer.eof);
    wrapper->Write(20, 3, "abc");
    wrapper->Resize(9);
  }

  const std::vector<std::string> allCalls = {"spec",      "attributes",   "permissions 10", "times 010",
                                             "exists",    "mount",        "allowed 5",      "addresses",
                                             "read 10 4", "write 20 abc", "resize 9"};
  const boost::shared_ptr<CCompletionEventsAllocator> allocator = boost::make_shared<CCompletionEventsAllocator>();
  const boost::shared_ptr<RecordingFile> file = boost::make_shared<RecordingFile>();
  boost::shared_ptr<CFsProcInvoker> invoker;
  boost::shared_ptr<CAsyncFsFileWrapper> wrapper;
};

}  // namespace test
