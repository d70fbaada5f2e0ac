// How a crash of a real service is recorded: by which generator, with how much memory, under which name, and what is
// told when that fails.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <memory>
#include <ostream>

#include "integration/support/crash_fixture.h"
#include "platform/location.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const std::string HeapMark = std::string(HeapMarkHead) + HeapMarkTail;
constexpr const char* Generated = "Crash handlers were successfully executed.";

/// Covers a file or folder with itself, so that it cannot be deleted.
class CMountedOver {
 public:
  // Complete before it is there: a service with a view of its own is not told of later changes.
  explicit CMountedOver(std::string path, bool readOnly = false) : path_(std::move(path)) {
    const platform::descriptor_t tree(open_tree(AT_FDCWD, path_.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC));
    mount_attr attributes{};
    attributes.attr_set = readOnly ? MOUNT_ATTR_RDONLY : 0;
    EXPECT_EQ(mount_setattr(tree.Get(), "", AT_EMPTY_PATH, &attributes, sizeof(attributes)), 0);
    EXPECT_EQ(move_mount(tree.Get(), "", AT_FDCWD, path_.c_str(), MOVE_MOUNT_F_EMPTY_PATH), 0);
  }
  CMountedOver(const CMountedOver&) = delete;
  CMountedOver& operator=(const CMountedOver&) = delete;
  ~CMountedOver() { umount2(path_.c_str(), MNT_DETACH); }

 private:
  std::string path_;
};

class CDumpTest : public CCrashTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    CCrashTest::SetUp();
    if (!IsSkipped() && IsRecorder())
      UseRecorder();
  }
  bool IsRecorder() const { return GetParam(); }
  void Crash() {
    SendSignal(SIGSEGV, NfsThread);
    ExpectEnd(SIGSEGV);
  }
};

TEST_P(CDumpTest, NormalHoldsStacksAlone) {
  Start();
  Crash();
  EXPECT_THAT(ReadFile(DumpPath(1)), Not(HasSubstr(HeapMark)));
  EXPECT_LT(fs::file_size(DumpPath(1)), std::uintmax_t{8} << 20);
}

TEST_P(CDumpTest, FullHoldsAllMemory) {
  SetOption("MiniDumpModeType", "REG_SZ", "Full");
  Start();
  Crash();
  EXPECT_THAT(ReadFile(DumpPath(1)), HasSubstr(HeapMark));
  const std::string text = Debug(DumpPath(1), {"bt", "target variable heapMark"});
  EXPECT_THAT(text, HasSubstr("signal SIGSEGV"));
  EXPECT_THAT(text, HasSubstr("impl::CRequestQueue::"));
  // The debugger follows a pointer from the data of an image into the heap.
  EXPECT_THAT(text, HasSubstr("\"" + HeapMark + "\""));
}

TEST_P(CDumpTest, TheMaskAddsToNormal) {
  SetOption("MiniDumpModeMask", "REG_DWORD", "512");
  Start();
  Crash();
  EXPECT_THAT(ReadFile(DumpPath(1)), HasSubstr(HeapMark));
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("impl::CRequestQueue::"));
}

TEST_P(CDumpTest, TellsWhatEachThreadWasDoing) {
  Start();
  Crash();
  const std::string dump = ReadFile(DumpPath(1));
  EXPECT_THAT(dump, HasSubstr("role: Async server\n  IO dispatch loop is started.\n"));
  EXPECT_THAT(dump, HasSubstr("role: Request queue nfs, crashed\n"));
}

TEST_P(CDumpTest, NamesItsImagesAndTheirBuild) {
  Start();
  Crash();
  const std::string text = Debug(DumpPath(1), {"image list"});
  EXPECT_THAT(text, HasSubstr(Program("KelvoNfsSvc")));
  EXPECT_THAT(text, HasSubstr("libc.so.6"));
  EXPECT_THAT(text, HasSubstr("[vdso]"));
}

TEST_P(CDumpTest, NamesImagesInAnyScript) {
  const std::string folder = CopyProgram(
      "K\xc3\xbc"
      "che \xe2\x82\xac \xf0\x9f\x92\xbe");
  fs::copy_file(Program("kelvo-dump-recorder"), folder + "/kelvo-dump-recorder");
  Start();
  Crash();
  EXPECT_THAT(Debug(DumpPath(1), {"bt", "image list"}),
              testing::AllOf(HasSubstr(folder + "/KelvoNfsSvc"), HasSubstr("impl::CRequestQueue::")));
}

TEST_P(CDumpTest, TheTwentyFirstTakesThePlaceOfTheOldest) {
  Start();
  MakeOldDumps(7, 26);
  WriteFile(Folder() + "/NFS_crash_mine.mdmp", "kept by hand");
  Crash();
  const std::vector<std::string> names = DumpNames();
  EXPECT_EQ(names.size(), 21U);  // With the one that is none of the service's.
  EXPECT_THAT(names, Not(Contains("NFS_crash_7.mdmp")));
  EXPECT_THAT(names, Contains("NFS_crash_8.mdmp"));
  EXPECT_THAT(names, Contains("NFS_crash_27.mdmp"));
  EXPECT_THAT(names, Contains("NFS_crash_mine.mdmp"));
  EXPECT_THAT(Debug(DumpPath(27), {"bt"}), HasSubstr("signal SIGSEGV"));
  if (!IsRecorder()) {
    EXPECT_THAT(CrashLines(), Contains("Dump [" + DumpPath(7) + "] deleted."));
  }
}

TEST_P(CDumpTest, OneThatCannotBeDeletedIsLeftOut) {
  Start();
  MakeOldDumps(1, 20);
  const CMountedOver oldest(DumpPath(1));
  Crash();
  const std::vector<std::string> names = DumpNames();
  EXPECT_EQ(names.size(), 20U);
  EXPECT_THAT(names, Contains("NFS_crash_1.mdmp"));
  EXPECT_THAT(names, Not(Contains("NFS_crash_2.mdmp")));
  EXPECT_THAT(names, Contains("NFS_crash_21.mdmp"));
  if (!IsRecorder()) {
    EXPECT_THAT(CrashLines(), Contains("Old dump cannot be removed. Dump path: [" + DumpPath(1) + "]."));
    EXPECT_THAT(CrashLines(), Contains("Dump [" + DumpPath(2) + "] deleted."));
  }
}

TEST_P(CDumpTest, NoneThatCanBeDeletedMeansNoDump) {
  Start();
  MakeOldDumps(1, 20);
  std::vector<std::unique_ptr<CMountedOver>> mounts;
  for (int number = 1; number <= 20; ++number)
    mounts.push_back(std::make_unique<CMountedOver>(DumpPath(number)));
  Crash();
  EXPECT_EQ(DumpNames().size(), 20U);
  const std::vector<std::string> lines = CrashLines();
  EXPECT_THAT(lines, Contains("ERR |Cannot generate crash dump."));
  if (IsRecorder()) {
    EXPECT_THAT(lines, Contains(">>  |Dump generator process failed with 104: cannot delete old dumps"));
    EXPECT_THAT(lines, Contains("Generating dump to " + Folder() + "/NFS_crash_ Failed."));
  } else {
    EXPECT_THAT(lines, Contains("Old dump cannot be removed. Dump path: [" + DumpPath(20) + "]."));
    EXPECT_THAT(lines, Contains(">>  |Cannot cleanup out of date dumps. There are [20] dumps stored. Maximum allowed "
                                "dumps number: [20]."));
    EXPECT_THAT(lines,
                Contains(">>  |Cannot define the name of the next crash dump. Dumps folder: [" + Folder() + "]."));
  }
  EXPECT_EQ(lines.back(), Generated);
}

TEST_P(CDumpTest, TheLastNumberIsNotPassed) {
  Start();
  MakeOldDumps(10000, 10000);
  Crash();
  EXPECT_THAT(DumpNames(), ElementsAre("NFS_crash_10000.mdmp"));
  EXPECT_THAT(CrashLines(), Contains(IsRecorder() ? ">>  |Dump generator process failed with 105: invalid dump name"
                                                  : ">>  |All dump identifiers are reserved."));
}

TEST_P(CDumpTest, TheRestOfAnotherIsWrittenOver) {
  Start();
  WriteFile(DumpPath(1) + ".part", std::string(1 << 20, 'x'));
  Crash();
  EXPECT_FALSE(fs::exists(DumpPath(1) + ".part"));
  EXPECT_THAT(ReadFile(DumpPath(1)), Not(HasSubstr("xxxxxxxxxxxxxxxx")));
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("impl::CRequestQueue::"));
}

TEST_P(CDumpTest, AFullDiskLeavesNoHalfDump) {
  const CTempFolder disk;
  ASSERT_EQ(mount("none", disk.Path().c_str(), "tmpfs", 0, "size=200k"), 0);
  SetOption("MiniDumpModeType", "REG_SZ", "Full");
  SetOption("LogDirectory", "REG_SZ", disk.Path());
  Start();
  Crash();
  const std::vector<std::string> lines = LinesFrom(ReadFile(disk.Path() + "/Svc.KelvoNFS.log"), "Trying to generate");
  EXPECT_FALSE(fs::exists(disk.Path() + "/NFS_crash_1.mdmp"));
  EXPECT_FALSE(fs::exists(disk.Path() + "/NFS_crash_1.mdmp.part"));
  if (IsRecorder()) {
    EXPECT_THAT(lines, Contains(">>  |Dump generator process failed with 107: cannot write dump content"));
  } else {
    EXPECT_THAT(lines, Contains(">>  |MiniDumpWriteDump() function call has failed."));
    EXPECT_THAT(lines, Contains(">>  |Crash details cannot be stored in minidump."));
  }
  EXPECT_EQ(lines.back(), Generated);
  umount2(disk.Path().c_str(), MNT_DETACH);
}

TEST_P(CDumpTest, AFolderThatTakesNoFilesIsToldOnStandardError) {
  Start();
  const CMountedOver folder(Folder(), true);
  Crash();
  const std::vector<std::string> lines = LinesFrom(service_.Output(), "Trying to generate");
  EXPECT_THAT(lines,
              Contains(IsRecorder() ? ">>  |Dump generator process failed with 106: cannot create dump file"
                                    : ">>  |Cannot create a blank minidump file. File path: [" + DumpPath(1) + "]."));
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), Generated);
}

TEST_P(CDumpTest, AFolderThatIsNoneAnyMoreIsToldOnStandardError) {
  Start();
  const std::string folder = Folder();
  fs::rename(folder, folder + ".gone");
  WriteFile(folder, "not a folder");
  Crash();
  const std::vector<std::string> lines = LinesFrom(service_.Output(), "Trying to generate");
  EXPECT_THAT(lines, Contains(IsRecorder() ? ">>  |Dump generator process failed with 103: cannot create dump folder"
                                           : ">>  |Unable to enumerate dumps stored in a folder. Folder: [" + folder +
                                                 "]. Dump extension: [mdmp]"));
  fs::remove(folder);
  fs::rename(folder + ".gone", folder);
}

TEST_P(CDumpTest, AFolderThatHasGoneIsMadeAgain) {
  Start();
  fs::remove_all(Folder());
  Crash();
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("signal SIGSEGV"));
}

INSTANTIATE_TEST_SUITE_P(Service, CDumpTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "OutOfProcess" : "InProcess"; });

class CGeneratorTest : public CCrashTest {
 protected:
  void Crash() {
    SendSignal(SIGSEGV, NfsThread);
    ExpectEnd(SIGSEGV);
  }
  /// Puts a program of the test's own in the place of the recorder.
  void UseScript(const std::string& content) {
    UseRecorder();
    const std::string path = CopyProgram() + "/kelvo-dump-recorder";
    WriteFile(path, content);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }
};

TEST_F(CGeneratorTest, WithoutARecorderTheProcessWritesItsDumpItself) {
  UseRecorder();
  const std::string folder = CopyProgram();
  Start();
  EXPECT_THAT(service_.LogText(), HasSubstr("ERR |Failed to create out-of-process dump generator\n"));
  EXPECT_THAT(service_.LogText(), HasSubstr("Failed to create dump recorder file: " + folder + "/kelvo-dump-recorder"));
  Crash();
  EXPECT_THAT(CrashLines(), Contains("Writing dump. Dump path: " + DumpPath(1) + "."));
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("impl::CRequestQueue::"));
}

TEST_F(CGeneratorTest, ARecorderThatWasReplacedIsStillTheOldOne) {
  UseRecorder();
  const std::string recorder = CopyProgram() + "/kelvo-dump-recorder";
  fs::copy_file(Program("kelvo-dump-recorder"), recorder);
  Start();
  fs::remove(recorder);
  WriteFile(recorder, "of another version");
  Crash();
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("impl::CRequestQueue::"));
}

TEST_F(CGeneratorTest, EachExitCodeHasItsText) {
  const std::pair<const char*, const char*> codes[] = {{"exit 1", "1: unspecified failure"},
                                                       {"exit 101", "101: invalid count of arguments"},
                                                       {"exit 102", "102: invalid arguments"},
                                                       {"exit 108", "108: NTDLL is not loaded"},
                                                       {"exit 109", "109: memset is not exported from NTDLL"},
                                                       {"exit 110", "110: _vsnwprintf is not exported from NTDLL"},
                                                       {"exit 55", "55: unspecified failure"},
                                                       {"kill -KILL $$", "137: unspecified failure"}};
  UseScript("");
  for (const auto& [command, text] : codes) {
    WriteFile(copies_.Path() + "/copy/kelvo-dump-recorder", std::string("#!/bin/sh\n") + command + "\n");
    Start();
    if (HasFatalFailure())
      return;
    Crash();
    EXPECT_THAT(service_.LogText(), HasSubstr("ERR |Cannot generate crash dump.\n"));
    EXPECT_THAT(service_.LogText(), HasSubstr(std::string("Dump generator process failed with ") + text + "\n"));
    EXPECT_THAT(DumpNames(), ElementsAre());
  }
}

TEST_F(CGeneratorTest, ARecorderThatIsNoProgramCannotBeStarted) {
  UseScript("no program");
  Start();
  Crash();
  EXPECT_THAT(CrashLines(), Contains(">>  |Failed to start dump generator process. File: " + copies_.Path() +
                                     "/copy/kelvo-dump-recorder"));
  EXPECT_EQ(CrashLines().back(), Generated);
}

TEST_F(CGeneratorTest, TheRecorderRefusesWhatNoServiceAsks) {
  EXPECT_EQ(RunProgram({Program("kelvo-dump-recorder")}).exitCode, 101);
  EXPECT_EQ(RunProgram({Program("kelvo-dump-recorder"), "1", "2", "3", "4", "/tmp", "stem", "more"}).exitCode, 101);
  for (const auto& [handle, address, thread] : {std::array<const char*, 3>{"x", "10", "1"},
                                                {"0", "10", "1"},
                                                {"99999999999999999999", "10", "1"},
                                                {"0", "zz", "1"},
                                                {"0", "10", "-1"}}) {
    EXPECT_EQ(RunProgram({Program("kelvo-dump-recorder"), handle, address, thread, "0", "/tmp", "stem"}).exitCode, 102)
        << handle << address << thread;
  }
}

TEST_F(CGeneratorTest, AnOldSystemGetsAReport) {
  UseTextReport();
  Start();
  Inject(injected_t::NullPointer);
  ExpectEnd(SIGSEGV);
  EXPECT_THAT(CrashLines(), Contains("  Writing legacy dump. Dump path: " + DumpPath(1, "txt") + "."));
  const std::string text = ReadFile(DumpPath(1, "txt"));
  const std::string ruler(74, '/');
  EXPECT_THAT(text, testing::StartsWith(ruler + "\n// Exception: 0x0000000b, Address: 0x00000000, Date/Time "));
  EXPECT_THAT(text, HasSubstr("// Process: " + Program("KelvoNfsSvc") + ", version: 1."));
  EXPECT_THAT(
      text, testing::ContainsRegex("\neax=[0-9a-f]{8,16} ebx=[0-9a-f]{8,16} ecx=[0-9a-f]{8,16} "
                                   "edx=[0-9a-f]{8,16} esi=[0-9a-f]{8,16} edi=[0-9a-f]{8,16}\n"
                                   "eip=[0-9a-f]{8,16} esp=[0-9a-f]{8,16} ebp=[0-9a-f]{8,16} iopl=0 [^\n]*[cn][yc]\n"));
  EXPECT_THAT(text, testing::ContainsRegex("\ncs=0033  ss=002b  ds=0000  es=0000  fs=[0-9a-f]{4}  gs=[0-9a-f]{4}      "
                                           "       efl=[0-9a-f]{8}\n"));
  EXPECT_THAT(text, HasSubstr("\nStack frames:\n\nFrame address: 0x"));
  EXPECT_THAT(text, testing::ContainsRegex("\nFrame address: 0x[0-9a-f]+\nReturn address: 0x[0-9a-f]+\n"
                                           "Param1: 0x[0-9a-f]+\nParam2: 0x[0-9a-f]+\nParam3: 0x[0-9a-f]+\n"
                                           "Param4: 0x[0-9a-f]+\n\n0x[0-9a-f]+\tKelvoNfsSvc!"
                                           "synch::completion_port_t::Run\\(\\) \\+[0-9]+ bytes, [^\n]*"
                                           "completion_port.cpp\\([0-9]+\\), symbol type:CodeView\n"));
  EXPECT_THAT(text, testing::ContainsRegex("\nLoaded modules:\n\n0x[0-9a-f]+ - 0x[0-9a-f]+ KelvoNfsSvc "
                                           "\\([^)]*KelvoNfsSvc\\) 1.0.0.0, symbols loaded\n"));
  EXPECT_THAT(text, testing::ContainsRegex("libstdc\\+\\+.so.6.0.[0-9]+ \\([^)]*\\) 6.0.[0-9]+.0, no symbols are "
                                           "available\n"));
  EXPECT_THAT(text, HasSubstr("role: Async server, crashed\n  IO dispatch loop is started.\n"));
}

TEST_F(CGeneratorTest, AProcessThatMayNotReadItselfGetsAReport) {
  service_.SetVariable(ClosedVariable, "/proc/self/mem");
  Start();
  EXPECT_THAT(service_.LogText(), HasSubstr("Minidump writer cannot be initialized."));
  Crash();
  const std::string text = ReadFile(DumpPath(1, "txt"));
  EXPECT_THAT(text, HasSubstr("impl::CRequestQueue::"));
}

TEST_F(CGeneratorTest, ReportsAreLimitedLikeDumps) {
  UseTextReport();
  Start();
  for (int number = 1; number <= 20; ++number)
    WriteFile(DumpPath(number, "txt"), "old");
  MakeOldDumps(50, 50);
  Crash();
  EXPECT_FALSE(fs::exists(DumpPath(1, "txt")));
  EXPECT_TRUE(fs::exists(DumpPath(2, "txt")));
  EXPECT_TRUE(fs::exists(DumpPath(21, "txt")));
}

/// What a step of clean-up does, and what is told of it.
struct SBadStep {
  const char* name;
  const char* told;
};

void PrintTo(const SBadStep& step, std::ostream* out) {
  *out << step.name;
}

class CCleanUpTest : public CCrashTest, public testing::WithParamInterface<SBadStep> {};

TEST_P(CCleanUpTest, AStepThatFailsIsToldAndLeft) {
  service_.SetVariable(NotifyVariable, GetParam().name);
  Start();
  SendSignal(SIGSEGV, NfsThread);
  ExpectEnd(SIGSEGV);
  const std::vector<std::string> lines = CrashLines();
  EXPECT_THAT(lines, Contains("Executing crash handlers. Failed."));
  EXPECT_THAT(lines, Contains("ERR |Crash handlers cannot be executed."));
  EXPECT_THAT(lines, Contains(std::string(">>  |") + GetParam().told));
  EXPECT_THAT(Debug(DumpPath(1), {"bt"}), HasSubstr("signal SIGSEGV"));
}

INSTANTIATE_TEST_SUITE_P(Service, CCleanUpTest,
                         testing::Values(SBadStep{"crash", "Ended by SIGSEGV."},
                                         SBadStep{"hang", "Not finished within 10000 milliseconds."},
                                         SBadStep{"throw", "Ended by SIGABRT."}),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace test
