// A real service, crashed in every way on a thread of its own, and what the debugger finds in what it left.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <ostream>

#include "integration/support/crash_fixture.h"
#include "integration/support/wire.h"

namespace test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

/// One way to crash and how the process must end by it.
struct SWay {
  const char* name;
  injected_t how;
  int signal;
  const char* signalName;
  /// Of the function in which it happens.
  const char* function;
};

const SWay Ways[] = {
    {"NullPointer", injected_t::NullPointer, SIGSEGV, "SIGSEGV", "WriteToNull"},
    {"TruncatedMapping", injected_t::TruncatedMapping, SIGBUS, "SIGBUS", "ReadPastEndOfFile"},
    {"DivisionByZero", injected_t::DivisionByZero, SIGFPE, "SIGFPE", "OnInjection"},
    {"BadInstruction", injected_t::BadInstruction, SIGILL, "SIGILL", "OnInjection"},
    {"Abort", injected_t::Abort, SIGABRT, "SIGABRT", "OnInjection"},
    {"Exception", injected_t::Exception, SIGABRT, "SIGABRT", "ThrowToNobody"},
    {"ExceptionOfNoClass", injected_t::ExceptionOfNoClass, SIGABRT, "SIGABRT", "ThrowToNobody"},
    {"StackOverflow", injected_t::StackOverflow, SIGSEGV, "SIGSEGV", "Recurse"},
    {"DamagedHeap", injected_t::DamagedHeap, SIGABRT, "SIGABRT", "DamageHeap"},
    {"LockedHeap", injected_t::LockedHeap, SIGABRT, "SIGABRT", "LockHeap"},
    {"NoDescriptors", injected_t::NoDescriptors, SIGSEGV, "SIGSEGV", "WriteToNull"},
    {"TwoThreads", injected_t::TwoThreads, SIGSEGV, "SIGSEGV", "WriteToNull"},
    {"BlockedSignals", injected_t::BlockedSignals, SIGSEGV, "SIGSEGV", "WriteToNull"},
};

/// What gtest shows of the parameters.
void PrintTo(const SWay& way, std::ostream* out) {
  *out << way.name;
}

enum class generator_t { InProcess, OutOfProcess, Text };

std::string NameOf(generator_t generator) {
  const char* const names[] = {"InProcess", "OutOfProcess", "Text"};
  return names[static_cast<int>(generator)];
}

void PrintTo(generator_t generator, std::ostream* out) {
  *out << NameOf(generator);
}

std::string WayName(const testing::TestParamInfo<std::tuple<generator_t, SWay>>& info) {
  return NameOf(std::get<0>(info.param)) + std::get<1>(info.param).name;
}

class CCrashWayTest : public CCrashTest, public testing::WithParamInterface<std::tuple<generator_t, SWay>> {
 protected:
  void SetUp() override {
    CCrashTest::SetUp();
    if (IsSkipped())
      return;
    if (Generator() == generator_t::OutOfProcess)
      UseRecorder();
    if (Generator() == generator_t::Text)
      UseTextReport();
    Start();
  }
  generator_t Generator() const { return std::get<0>(GetParam()); }
  const SWay& Way() const { return std::get<1>(GetParam()); }

  void ExpectDump() {
    const std::string text = Debug(DumpPath(1), {"bt", "thread list"});
    EXPECT_THAT(text, HasSubstr("stop reason = signal " + std::string(Way().signalName)));
    EXPECT_THAT(text, HasSubstr(Way().function));
    if (Way().how != injected_t::TwoThreads) {
      EXPECT_THAT(text, HasSubstr("KelvoNfsSvc`synch::completion_port_t::Run() at completion_port.cpp:"));
    }
    // The other threads are there as well, each where it waits.
    const std::string others = Debug(DumpPath(1), {"thread backtrace all"});
    EXPECT_THAT(others, HasSubstr("KelvoNfsSvc`CStopSignals::Wait() const at service_state.cpp:"));
    EXPECT_THAT(others, HasSubstr("KelvoNfsSvc`impl::CRequestQueue::"));
    EXPECT_THAT(others, HasSubstr("named_event.cpp:"));
  }

  void ExpectReport() {
    const std::string text = ReadFile(DumpPath(1, "txt"));
    EXPECT_THAT(text, HasSubstr("Exception: 0x0000000" + std::string(1, "0123456789abcdef"[Way().signal])));
    EXPECT_THAT(text, HasSubstr(Way().function));
    if (Way().how != injected_t::TwoThreads && Way().how != injected_t::StackOverflow) {
      // Without the heap, names stay as the linker knows them.
      EXPECT_THAT(text,
                  HasSubstr(Way().how == injected_t::LockedHeap ? "KelvoNfsSvc!_ZN5synch17completion_port_t3RunEv +"
                                                                : "KelvoNfsSvc!synch::completion_port_t::Run() +"));
      EXPECT_THAT(text, HasSubstr("IO dispatch loop is started."));
    }
    EXPECT_THAT(text, HasSubstr("role: Async server"));
  }
};

TEST_P(CCrashWayTest, LeavesItsStateAndEndsByTheSignal) {
  Inject(Way().how);
  ExpectEnd(Way().signal);
  const std::vector<std::string> lines = CrashLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.back(), HasSubstr("Crash handlers were successfully executed."));
  EXPECT_THAT(lines, Not(Contains(HasSubstr("ERR |")))) << service_.LogText();
  if (Generator() == generator_t::Text)
    ExpectReport();
  else
    ExpectDump();
}

INSTANTIATE_TEST_SUITE_P(Service, CCrashWayTest,
                         testing::Combine(testing::Values(generator_t::InProcess, generator_t::OutOfProcess,
                                                          generator_t::Text),
                                          testing::ValuesIn(Ways)),
                         WayName);

TEST_F(CCrashTest, EverySignalFromOutsideEndsTheProcessByItself) {
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
    Start();
    if (HasFatalFailure())
      return;
    SendSignal(signal, NfsThread);
    ExpectEnd(signal);
  }
  EXPECT_EQ(DumpNames().size(), 5U);
  const std::string text = Debug(DumpPath(2), {"bt"});
  EXPECT_THAT(text, HasSubstr("signal SIGBUS"));
  EXPECT_THAT(text, HasSubstr("impl::CRequestQueue::"));
}

TEST_F(CCrashTest, TheMainThreadMayCrashAsWell) {
  Start();
  SendSignal(SIGSEGV, "KelvoNfsSvc");
  ExpectEnd(SIGSEGV);
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("KelvoNfsSvc`RunProcess(int, char const* const*)"));
}

TEST_F(CCrashTest, TheMainThreadMayOverflowItsStack) {
  Start();
  Inject(injected_t::StackOverflow, "KelvoNfsSvc");
  ExpectEnd(SIGSEGV);
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("KelvoNfsSvc`RunProcess(int, char const* const*)"));
}

TEST_F(CCrashTest, AThreadOfTheManagementMayOverflowItsStack) {
  Start();
  Inject(injected_t::StackOverflow, "Management acce");
  ExpectEnd(SIGSEGV);
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("KelvoNfsSvc`dcerpc::CListener::AcceptLoop()"));
}

TEST_F(CCrashTest, TheThreadThatAnswersForTheEventMayCrash) {
  Start();
  SendSignal(SIGSEGV, "named event");
  ExpectEnd(SIGSEGV);
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("named_event.cpp:"));
}

TEST_F(CCrashTest, TellsTheExceptionThatNobodyCaught) {
  Start();
  Inject(injected_t::Exception);
  ExpectEnd(SIGABRT);
  EXPECT_THAT(CrashLines(), Contains(HasSubstr("Unhandled exception of type St13runtime_error: the injected failure")));
}

TEST_F(CCrashTest, ACrashInTheMiddleOfALogLineHangsNothing) {
  Start();
  Inject(injected_t::LogLine);
  // A call that writes a line.
  RunProgram({Program("kelvo-nfsctl"), "call", "NoSuchCommand"}, service_.Environment());
  ExpectEnd(SIGSEGV);
  EXPECT_THAT(CrashLines().back(), HasSubstr("Crash handlers were successfully executed."));
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("logging::log_t::Write"));
}

TEST_F(CCrashTest, LogsEachStep) {
  Start();
  SendSignal(SIGSEGV, NfsThread);
  ExpectEnd(SIGSEGV);
  const std::vector<std::string> lines = CrashLines();
  ASSERT_EQ(lines.size(), 5U) << service_.LogText();
  EXPECT_EQ(lines[0], "Trying to generate crash dump");
  EXPECT_THAT(lines[1], testing::StartsWith("SIGSEGV (11), address: 0x"));
  EXPECT_EQ(lines[2], "Writing dump. Dump path: " + DumpPath(1) + ".");
  EXPECT_EQ(lines[3], "Executing crash handlers.");
  EXPECT_EQ(lines[4], "Crash handlers were successfully executed.");
  // A line of the crash looks as every other: same time, same thread.
  EXPECT_THAT(service_.LogText(),
              testing::ContainsRegex("\n\\[[0-9]{2}\\.[0-9]{2}\\.[0-9]{4} [0-9:]{8}\\] <[ 0-9]{6,}> "
                                     "Trying to generate crash dump\n"));
}

TEST_F(CCrashTest, DumpsAreForTheirOwnerAlone) {
  UseRecorder();
  Start();
  SendSignal(SIGSEGV, NfsThread);
  ExpectEnd(SIGSEGV);
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(DumpPath(1)).permissions(), perms::owner_read | perms::owner_write);
}

TEST_F(CCrashTest, ThePerformanceLogKeepsWhatWentBefore) {
  const std::string path = service_.Root() + "/perf.log";
  service_.SetValue("PerfLogPath", "REG_SZ", path);
  Start();
  ASSERT_TRUE(CNfsClient().Mount().has_value());
  EXPECT_FALSE(std::filesystem::exists(path));
  SendSignal(SIGSEGV, NfsThread);
  ExpectEnd(SIGSEGV);
  ASSERT_TRUE(std::filesystem::exists(path));
  EXPECT_GT(std::filesystem::file_size(path), 0U);
  EXPECT_THAT(CrashLines().back(), HasSubstr("Crash handlers were successfully executed."));
}

TEST_F(CCrashTest, TheNextStartServesTheSameHandles) {
  Start();
  const bytes_t root = CNfsClient().Mount().value();
  SendSignal(SIGSEGV, NfsThread);
  ExpectEnd(SIGSEGV);
  Start();
  EXPECT_EQ(CNfsClient().GetAttr(root), 0U);
}

}  // namespace
}  // namespace test
