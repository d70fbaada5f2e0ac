#include "foundation/crash/crash.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>
#include <vector>

#include "foundation/crash/guard.h"
#include "foundation/crash/out_of_proc_dump_gen.h"
#include "foundation/crash/thread_notes.h"
#include "foundation/line_format.h"
#include "foundation/log.h"
#include "support/temp_dir.h"

namespace crash {
namespace {

class call_step_t : public deinit_step_t {
 public:
  explicit call_step_t(std::function<void()> call) : call_(std::move(call)) {}
  void Run() override { call_(); }

 private:
  std::function<void()> call_;
};

boost::shared_ptr<deinit_step_t> Step(std::function<void()> call) {
  return boost::make_shared<call_step_t>(std::move(call));
}

TEST(DeinitSeqTest, RunsInTheOrderOfRegistration) {
  deinit_seq_t sequence;
  std::vector<int> order;
  const auto first = sequence.Add(Step([&] { order.push_back(1); }));
  auto second = sequence.Add(Step([&] { order.push_back(2); }));
  const auto third = sequence.Add(Step([&] { order.push_back(3); }));
  second.Reset();
  second.Reset();
  failure_t failure;
  EXPECT_TRUE(sequence.Run(failure));
  EXPECT_EQ(order, (std::vector<int>{1, 3}));
  EXPECT_EQ(failure.Text(), "");
}

TEST(DeinitSeqTest, GoesOnBehindAStepThatFails) {
  deinit_seq_t sequence;
  bool isReached = false;
  const auto first = sequence.Add(Step([] { throw exc::runtime_exc_t("The disk is full."); }));
  const auto second = sequence.Add(Step([] { LeaveGuard(SIGSEGV); }));
  const auto third = sequence.Add(Step([&] { isReached = true; }));
  failure_t failure;
  EXPECT_FALSE(sequence.Run(failure));
  EXPECT_TRUE(isReached);
  EXPECT_EQ(failure.Text(), "The disk is full.\nEnded by SIGSEGV.");
}

TEST(DeinitSeqTest, RegistrationsOfManyThreadsStayWhole) {
  deinit_seq_t sequence;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 1000; ++round)
        auto step = sequence.Add(Step([] {}));
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  int count = 0;
  const auto last = sequence.Add(Step([&] { ++count; }));
  failure_t failure;
  EXPECT_TRUE(sequence.Run(failure));
  EXPECT_EQ(count, 1);
}

TEST(GuardTest, LeavesTheInnermost) {
  failure_t failure;
  bool isLeft = false;
  auto inner = [&] { LeaveGuard(SIGFPE); };
  auto outer = [&] {
    isLeft = !Guarded(100000, inner, failure);
    failure.Add("outside");
  };
  EXPECT_TRUE(Guarded(100000, outer, failure));
  EXPECT_TRUE(isLeft);
  EXPECT_EQ(failure.Text(), "Ended by SIGFPE.\noutside");
  LeaveGuard(SIGSEGV);  // Nothing to leave.
}

#ifndef __SANITIZE_THREAD__  // Keeps signals back from a thread that never calls anything.
TEST(GuardTest, LeavesAStepThatHangs) {
  failure_t failure;
  volatile bool isEver = false;
  auto hang = [&] {
    while (!isEver) {
    }
  };
  EXPECT_FALSE(Guarded(50, hang, failure));
  EXPECT_EQ(failure.Text(), "Not finished within 50 milliseconds.");
  auto outer = [&] {
    Guarded(100000, hang, failure);
    hang();
  };
  EXPECT_FALSE(Guarded(50, outer, failure));
}
#endif

TEST(CrashLogTest, WritesLinesAsTheLogDoes) {
  const test::TempDir dir;
  const std::string path = dir / "crash.log";
  const std::time_t before = std::time(nullptr);
  std::string sample;
  logging::format::line_t line;
  line.time = &before;
  logging::format::AppendLine(sample, logging::format_mode_t::Normal, line);
  {
    crash_log_t log(path.c_str());
    log.Info("first\nsecond %1", {"x"});
    crash_log_scope_t scope(log, "Scope.");
    failure_t failure;
    failure.Add("cause").Add("meaning");
    log.Error("It failed.", failure);
  }
  std::ifstream stream(path);
  const std::string text(std::istreambuf_iterator<char>(stream), {});
  fixed_text_t<64> now;
  AddDateTime(now);
  EXPECT_EQ(now.View().substr(0, 10), sample.substr(1, 10));
  EXPECT_EQ(now.View().size(), 19U);
  const std::string thread = std::to_string(gettid());
  const std::string head = "\\] < *" + thread + "> ";
  EXPECT_THAT(text, testing::ContainsRegex(head + "first\n.*" + head + "second x\n.*" + head + "Scope.\n.*" + head +
                                           "ERR \\|  It failed.\n.*" + head + ">>  \\|  cause\n.*" + head +
                                           ">>  \\|  meaning\n"));
  EXPECT_THAT(text, testing::ContainsRegex(head + "Scope. Failed.\n$"));
}

TEST(ThreadNotesTest, TellTheOpenScopes) {
  const logging::quiet_log_scope_t scope(g_log, "Taking %1 of %2.", 3, 4);
  char place[16384];
  text_t notes(place, sizeof place);
  AddThreadNotes(monitoring::CurrentThreadId(), notes);
  EXPECT_THAT(std::string(notes.View()), testing::HasSubstr(", crashed\n  Taking 3 of 4.\n"));
}

class OutOfProcTest : public testing::Test {
 protected:
  OutOfProcTest() {
    getcontext(&context_);
    info_.si_signo = SIGSEGV;
    crash_.signal = SIGSEGV;
    crash_.info = &info_;
    crash_.context = &context_;
    crash_.threadId = static_cast<std::uint32_t>(gettid());
    place_.folder = folder_.c_str();
    place_.stem = "NFS_crash_";
    place_.log = &log_;
  }
  std::string Script(const std::string& content) {
    const std::string path = dir_ / "recorder";
    std::ofstream(path) << "#!/bin/sh\n" << content << "\n";
    ::chmod(path.c_str(), 0755);
    return path;
  }

  test::TempDir dir_;
  const std::string folder_ = dir_.Path().string();
  ucontext_t context_{};
  siginfo_t info_{};
  exception_pointers_t crash_;
  dump_place_t place_;
  crash_log_t log_{(dir_ / "log").c_str()};
  failure_t failure_;
};

TEST_F(OutOfProcTest, IsNotWaitedForLongerThanItsLimit) {
  win32::COutOfProcDumpGen generator(Script("echo $$ >" + folder_ + "/pid; exec sleep 1000"), 0, 300);
  EXPECT_FALSE(generator.Generate(crash_, place_, failure_));
  EXPECT_EQ(failure_.Text(), "Timed out waiting for dump generator process to finish");
  pid_t pid = 0;
  std::ifstream(dir_ / "pid") >> pid;
  EXPECT_NE(pid, 0);
  EXPECT_NE(::kill(pid, 0), 0) << "it is still there";
}

TEST_F(OutOfProcTest, GetsItsArgumentsAndTellsItsCode) {
  win32::COutOfProcDumpGen generator(Script("echo $# $3 $4 $5 $6 >" + folder_ + "/arguments; exit 104"), 0x202);
  EXPECT_FALSE(generator.Generate(crash_, place_, failure_));
  EXPECT_EQ(failure_.Text(), "Dump generator process failed with 104: cannot delete old dumps");
  std::string arguments;
  std::ifstream stream(dir_ / "arguments");
  std::getline(stream, arguments);
  EXPECT_EQ(arguments, "6 " + std::to_string(gettid()) + " 202 " + folder_ + " NFS_crash_");
}

TEST_F(OutOfProcTest, NeedsItsProgram) {
  try {
    win32::COutOfProcDumpGen generator(dir_ / "none", 0);
    FAIL();
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Code(), platform::error::FileNotFound);
    EXPECT_THAT(failure.what(), testing::HasSubstr("Failed to create dump recorder file: " + (dir_ / "none")));
    EXPECT_THAT(failure.what(), testing::EndsWith("\nFailed to create out-of-process dump generator"));
  }
}

class idle_handler_t : public crash_handler_t {
 public:
  void OnCrash(const exception_pointers_t&) noexcept override {}
};

TEST(InstallTest, OneHandlerIsNotReplacedByAnother) {
  idle_handler_t other;
  Install(DumpingHandler());
  Install(DumpingHandler());
  try {
    Install(other);
    FAIL();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "Cannot supersede crash handler.");
  }
}

}  // namespace
}  // namespace crash
