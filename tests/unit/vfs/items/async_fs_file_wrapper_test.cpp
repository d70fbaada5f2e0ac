#include "vfs/items/async_fs_file_wrapper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <stdexcept>
#include <thread>

#include "support/captured_log.h"
#include "unit/vfs/items/wrapper_fixture.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"
#include "vfs/items/fs_procs.h"
#include "vfs/items/virtual_fs_exc.h"

using test::CapturedLog;
using test::Gate;
using test::PatientMs;
using test::RecordingCallback;
using test::WrapperTest;

namespace {

TEST_F(WrapperTest, PassesEachCallOnWhileIdleOnTheCallersThread) {
  Make();
  CallAll();
  EXPECT_EQ(file->Calls(), allCalls);
  EXPECT_EQ(file->LastThread(), std::this_thread::get_id());
  EXPECT_EQ(allocator->FreeCount(), 0u);
  EXPECT_EQ(wrapper->File(), file);
}

TEST_F(WrapperTest, PassesEachCallOnThroughTheQueueToo) {
  Make();
  // A record stays before each call, so that none is run by its caller.
  for (std::size_t i = 0; i < allCalls.size(); ++i) {
    Gate gate;
    Occupy(gate);
    std::thread caller([&, i] {
      switch (i) {
        case 0: {
          SFsItemSpec spec;
          wrapper->GetItemSpec(spec);
          EXPECT_EQ(spec.path, "/a/path");
          break;
        }
        case 1: {
          WIN32_FILE_ATTRIBUTE_DATA attributes = {};
          wrapper->GetAttributes(attributes);
          EXPECT_EQ(attributes.sizeLow, 77u);
          break;
        }
        case 2:
          wrapper->SetPermissions(true, false);
          break;
        case 3: {
          const FILETIME time = {};
          wrapper->SetTimes(nullptr, &time, nullptr);
          break;
        }
        case 4:
          EXPECT_TRUE(wrapper->Exists());
          break;
        case 5: {
          GUID uid;
          EXPECT_TRUE(wrapper->GetMountUid(uid));
          break;
        }
        case 6: {
          sockaddr_in address = {};
          address.sin_port = 5;
          EXPECT_TRUE(wrapper->IsAddressAllowed(address));
          break;
        }
        case 7:
          EXPECT_EQ(wrapper->GetAllowedHostAddr(), "10.0.0.1");
          break;
        case 8: {
          SFsReadBuffer buffer;
          wrapper->Read(10, 4, buffer);
          EXPECT_EQ(buffer.length, 4u);
          break;
        }
        case 9:
          wrapper->Write(20, 3, "abc");
          break;
        default:
          wrapper->Resize(9);
      }
      EXPECT_NE(file->LastThread(), std::this_thread::get_id());
    });
    WaitQueued(1);
    EXPECT_EQ(file->Calls().size(), i);
    gate.Open();
    caller.join();
    WaitIdle();
  }
  EXPECT_EQ(file->Calls(), allCalls);
}

TEST_F(WrapperTest, CallsRunInOrderBehindWhatWaits) {
  Make();
  Gate gate;
  Occupy(gate);
  SFsReadBuffer first;
  SFsReadBuffer second;
  const auto callback = boost::make_shared<RecordingCallback>();
  wrapper->AsyncRead(1, 1, first, callback);
  wrapper->AsyncWrite(2, 1, "w", callback);
  std::atomic<bool> returned{false};
  std::thread caller([&] {
    EXPECT_TRUE(wrapper->Exists());
    EXPECT_EQ(file->Calls().size(), 3u);
    returned = true;
  });
  WaitQueued(3);
  EXPECT_TRUE(file->Calls().empty());
  EXPECT_FALSE(returned);
  gate.Open();
  caller.join();
  EXPECT_EQ(file->Calls(), (std::vector<std::string>{"read 1 1", "write 2 w", "exists"}));
  EXPECT_EQ(callback->completed, 2);
  EXPECT_EQ(first.length, 1u);
  invoker->Stop();
}

TEST_F(WrapperTest, WhatIsQueuedDuringALoanRunsAfterIt) {
  Make();
  Gate gate;
  file->action = [&](const std::string& call) {
    if (call == "resize 1")
      gate.Enter();
  };
  std::thread lender([&] { wrapper->Resize(1); });
  ASSERT_TRUE(gate.WaitEntered());
  const auto callback = boost::make_shared<RecordingCallback>();
  wrapper->AsyncWrite(0, 1, "x", callback);
  std::thread second([&] { wrapper->Resize(2); });
  // The invocation thread has nothing to take while its place is lent.
  EXPECT_FALSE(callback->told.Wait(20));
  EXPECT_EQ(file->Calls().size(), 1u);
  gate.Open();
  lender.join();
  second.join();
  EXPECT_TRUE(callback->told.Wait(PatientMs));
  EXPECT_EQ(file->Calls()[0], "resize 1");
  EXPECT_EQ(file->MostAtOnce(), 1);
}

TEST_F(WrapperTest, OneAtATimeWithOneThread) {
  Make();
  constexpr int Threads = 4;
  constexpr int Each = 500;
  std::vector<std::thread> callers;
  for (int i = 0; i < Threads; ++i) {
    callers.emplace_back([&, i] {
      const auto callback = boost::make_shared<RecordingCallback>();
      for (int n = 0; n < Each; ++n) {
        if (i == 0)
          wrapper->AsyncWrite(0, 1, "a", callback);
        else
          wrapper->Resize(static_cast<std::uint64_t>(n));
      }
      // Behind all of its own.
      EXPECT_TRUE(wrapper->Exists());
      EXPECT_EQ(callback->completed, i == 0 ? Each : 0);
    });
  }
  for (std::thread& caller : callers)
    caller.join();
  EXPECT_EQ(file->Calls().size(), static_cast<std::size_t>(Threads * Each + Threads));
  EXPECT_EQ(file->MostAtOnce(), 1);
}

TEST_F(WrapperTest, AsManyAtOnceAsThereAreThreads) {
  Make(3);
  EXPECT_EQ(invoker->ThreadCount(), 3u);
  Gate gate;
  std::atomic<int> inside{0};
  file->action = [&](const std::string& call) {
    if (call == "write 0 g") {
      if (++inside == 3)
        gate.Enter();
      while (inside < 3)
        std::this_thread::yield();
    }
  };
  const auto callback = boost::make_shared<RecordingCallback>();
  std::thread lender([&] { wrapper->Write(0, 1, "g"); });
  for (int i = 0; i < 2; ++i)
    wrapper->AsyncWrite(0, 1, "g", callback);
  ASSERT_TRUE(gate.WaitEntered());
  gate.Open();
  lender.join();
  std::vector<std::thread> callers;
  for (int i = 0; i < 5; ++i) {
    callers.emplace_back([&] {
      for (int n = 0; n < 300; ++n)
        wrapper->Resize(1);
    });
  }
  for (std::thread& caller : callers)
    caller.join();
  EXPECT_EQ(file->MostAtOnce(), 3);
  EXPECT_EQ(file->Calls().size(), 1503u);
  invoker->Stop();
}

TEST_F(WrapperTest, FailuresComeOutWithTheirOwnTypeOnBothRoads) {
  Make();
  file->action = [](const std::string& call) {
    if (call == "resize 1")
      throw CVirtualFsExc("Not so", NFS3ERR_NOTDIR);
    if (call == "resize 2")
      throw exc::win_sys_exc_t("Denied", 5);
    if (call == "resize 3")
      throw std::out_of_range("Foreign");
    if (call == "resize 4")
      throw 4;
  };
  for (const bool queued : {false, true}) {
    for (std::uint64_t size = 1; size <= 4; ++size) {
      Gate gate;
      if (queued)
        Occupy(gate);
      const std::size_t before = file->Calls().size();
      std::thread caller([&] {
        try {
          wrapper->Resize(size);
          ADD_FAILURE();
        } catch (const CVirtualFsExc& failure) {
          EXPECT_EQ(size, 1u);
          EXPECT_EQ(failure.Status(), NFS3ERR_NOTDIR);
          EXPECT_STREQ(failure.what(), "Not so");
        } catch (const exc::win_sys_exc_t& failure) {
          EXPECT_EQ(size, 2u);
          EXPECT_EQ(failure.Code(), 5u);
        } catch (const std::out_of_range& failure) {
          EXPECT_EQ(size, 3u);
          EXPECT_STREQ(failure.what(), "Foreign");
        } catch (const exc::runtime_exc_t& failure) {
          EXPECT_EQ(size, 4u);
          EXPECT_STREQ(failure.what(), "Unknown exception.");
        }
        EXPECT_EQ(file->LastThread() == std::this_thread::get_id(), !queued);
      });
      if (queued) {
        WaitQueued(1);
        EXPECT_EQ(file->Calls().size(), before);
        gate.Open();
      }
      caller.join();
      WaitIdle();
    }
  }
  EXPECT_TRUE(wrapper->Exists());
}

TEST_F(WrapperTest, AStuckLoanFillsTheQueueAsAStuckThreadDoes) {
  SFsInvocationLimits limits;
  limits.pushLimitMs = 20;
  Make(1, limits);
  Gate gate;
  file->action = [&](const std::string& call) {
    if (call == "resize 1")
      gate.Enter();
  };
  std::thread lender([&] { wrapper->Resize(1); });
  ASSERT_TRUE(gate.WaitEntered());
  const auto callback = boost::make_shared<RecordingCallback>();
  for (int i = 0; i < 1000; ++i)
    wrapper->AsyncWrite(0, 1, "x", callback);
  for (const bool synchronous : {false, true}) {
    try {
      synchronous ? (void)wrapper->Exists() : wrapper->AsyncWrite(0, 1, "x", callback);
      ADD_FAILURE();
    } catch (const exc::runtime_exc_t& failure) {
      EXPECT_STREQ(failure.what(), "Timed out to wait for invocation queue.");
    }
  }
  gate.Open();
  lender.join();
  WaitIdle();
  EXPECT_EQ(callback->completed, 1000);
  EXPECT_EQ(file->MostAtOnce(), 1);
}

TEST_F(WrapperTest, ThreadsAreNamedAndSayThatTheyStart) {
  const CapturedLog log;
  Make(2);
  invoker->Stop();
  std::string all;
  for (const std::string& text : log.Texts())
    all += text + "\n";
  EXPECT_NE(all.find("role: FsInvocation hostfs - 0\n"), std::string::npos);
  EXPECT_NE(all.find("role: FsInvocation hostfs - 1\n"), std::string::npos);
  EXPECT_NE(all.find("Invocation thread started for 'hostfs'\n"), std::string::npos);
  EXPECT_EQ(all.find("has failed"), std::string::npos);
}

TEST_F(WrapperTest, ACallThatIsStuckStopsWaitingInTheEnd) {
  SFsInvocationLimits limits;
  limits.callLimitMs = 10;
  Make(1, limits);
  Gate gate;
  Occupy(gate);
  try {
    wrapper->Resize(1);
    ADD_FAILURE();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "Timed out to wait for FS call procedure call.");
  }
  gate.Open();
  invoker->Stop();
}

TEST(ProcInvoker, ACountBelowOneMakesOneThread) {
  const auto allocator = boost::make_shared<CCompletionEventsAllocator>();
  EXPECT_EQ(CFsProcInvoker::Create("x", 0, allocator)->ThreadCount(), 1u);
  EXPECT_EQ(CFsProcInvoker::Create("x", -5, allocator)->ThreadCount(), 1u);
}

TEST(ProcInvoker, RefusesToGoWithoutAnAllocator) {
  try {
    CFsProcInvoker::Create("x", 1, {});
    ADD_FAILURE();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "Incorrect parameter <completionEventsAllocator: {null}>");
  }
}

}  // namespace
