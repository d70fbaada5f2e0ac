#include "foundation/perf_logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <thread>

#include "foundation/monitoring.h"
#include "platform/futex.h"
#include "support/captured_log.h"
#include "support/perf_log.h"
#include "support/temp_dir.h"

namespace {

using perf::CPerfEventArg;
using perf::CPerfLogger;
using test::BytesOfFile;
using test::ReadPerfLog;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

constexpr std::size_t HeaderSize = 20;
constexpr const char* FlushFailed =
    "Unable to flush performance log data. Perflog buffer will be erased, data will be lost.";
constexpr const char* FolderFailed = "Performance logger failed to create directory.";

class PerfLogger : public testing::Test {
 protected:
  void Write(CPerfLogger& log, std::uint32_t type, const std::string& data) {
    log.WriteEvent(type, static_cast<std::uint32_t>(data.size()), data.data());
  }
  std::vector<std::uint32_t> Types() const {
    std::vector<std::uint32_t> types;
    for (const auto& record : ReadPerfLog(path_))
      types.push_back(record.eventType);
    return types;
  }

  test::TempDir folder_;
  const std::string path_ = folder_ / "perf.log";
};

TEST_F(PerfLogger, ARecordHasItsFormatToTheByte) {
  const std::int64_t before = platform::MonotonicNanoseconds();
  {
    CPerfLogger log(path_, 1024);
    Write(log, 0x01020304, "abcde");
    Write(log, 7, "");
  }
  const std::int64_t after = platform::MonotonicNanoseconds();
  const std::string bytes = BytesOfFile(path_);
  ASSERT_EQ(bytes.size(), HeaderSize + 5 + HeaderSize);
  const auto number = [&]<typename Number>(std::size_t offset, Number value) {
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
  };
  EXPECT_GE(number(0, std::int64_t{}), before);
  EXPECT_LE(number(0, std::int64_t{}), after);
  EXPECT_EQ(number(8, std::uint32_t{}), 0x01020304U);
  EXPECT_EQ(number(12, std::uint32_t{}), 5U);
  EXPECT_EQ(number(16, std::uint32_t{}), static_cast<std::uint32_t>(::gettid()));
  EXPECT_EQ(bytes.substr(20, 5), "abcde");
  EXPECT_GE(number(25, std::int64_t{}), number(0, std::int64_t{}));
  EXPECT_EQ(number(33, std::uint32_t{}), 7U);
  EXPECT_EQ(number(37, std::uint32_t{}), 0U);
}

TEST_F(PerfLogger, ARecordOfTheBuffersSizeFitsIntoTheEmptyBuffer) {
  CPerfLogger log(path_, 100);
  Write(log, 1, std::string(80, 'x'));
  EXPECT_FALSE(fs::exists(path_));
  log.Flush();
  EXPECT_EQ(ReadPerfLog(path_).at(0).data, std::string(80, 'x'));
}

TEST_F(PerfLogger, ARecordOfOneByteMoreIsDroppedAndTheBufferStaysAsItWas) {
  const test::CapturedLog lines;
  {
    CPerfLogger log(path_, 100);
    Write(log, 1, "kept");
    Write(log, 2, std::string(81, 'x'));
    EXPECT_FALSE(fs::exists(path_)) << "what is dropped must not flush";
    Write(log, 3, "too");
  }
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1, 3}));
  EXPECT_THAT(lines.Lines(), IsEmpty());
}

TEST_F(PerfLogger, ASizeNearTheLargestNumberIsDropped) {
  CPerfLogger log(path_, 100);
  log.WriteEvent(1, 0xFFFFFFFFU, nullptr);
  log.WriteEvent(1, 0xFFFFFFFFU - 19, nullptr);
  log.Flush();
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(PerfLogger, TheBufferIsWrittenWhenTheNextRecordDoesNotFit) {
  CPerfLogger log(path_, 100);
  Write(log, 1, std::string(30, 'a'));
  Write(log, 2, std::string(30, 'b'));
  EXPECT_FALSE(fs::exists(path_)) << "100 bytes fit";
  Write(log, 3, "");
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1, 2}));
  log.Flush();
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1, 2, 3}));
  log.Flush();
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1, 2, 3}));
}

TEST_F(PerfLogger, BuffersThatHoldNoRecordDropThemAll) {
  for (const std::size_t size : {0U, 1U, 19U}) {
    CPerfLogger log(path_, size);
    Write(log, 1, "");
    log.Flush();
    EXPECT_FALSE(fs::exists(path_)) << size;
  }
  CPerfLogger log(path_, HeaderSize);
  Write(log, 1, "");
  log.Flush();
  EXPECT_EQ(BytesOfFile(path_).size(), HeaderSize);
}

TEST_F(PerfLogger, ABufferThatCannotBeHadLosesTheEventsAlone) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "The sanitizers' allocators end the process instead.";
#endif
  const test::CapturedLog lines;
  CPerfLogger log(path_, SIZE_MAX / 4);
  Write(log, 1, "x");
  log.Flush();
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_THAT(lines.Texts("Warning"),
              ElementsAre("There is no memory for the buffer of the performance log, 4611686018427387903 bytes. Its "
                          "events are lost."));
}

TEST_F(PerfLogger, ANewLogIsAppendedToTheOldFile) {
  for (const std::uint32_t type : {1U, 2U}) {
    CPerfLogger log(path_, 1024);
    Write(log, type, "data");
  }
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1, 2}));
}

TEST_F(PerfLogger, TheFoldersAreMadeAtTheFirstFlushForTheServiceAlone) {
  const std::string path = folder_ / "a/b/perf.log";
  CPerfLogger log(path, 1024);
  Write(log, 1, "x");
  EXPECT_FALSE(fs::exists(folder_ / "a"));
  log.Flush();
  EXPECT_EQ(ReadPerfLog(path).size(), 1U);
  EXPECT_EQ(fs::status(folder_ / "a/b").permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(PerfLogger, AFolderThatCannotBeMadeIsLoggedOnceAndTheDataOfEachFlushIsLost) {
  const test::CapturedLog lines;
  const std::string obstacle = folder_ / "file";
  std::ofstream(obstacle) << "in the way";
  CPerfLogger log(obstacle + "/sub/perf.log", 100);
  for (int i = 0; i < 2; ++i) {
    Write(log, 1, "lost");
    log.Flush();
  }
  EXPECT_EQ(lines.Count(FolderFailed), 1U);
  EXPECT_EQ(lines.Count(FlushFailed), 2U);
  EXPECT_THAT(lines.Texts("Error"), testing::Contains(FolderFailed));
  EXPECT_THAT(lines.Texts("Warning"), testing::Contains(FlushFailed));
  // The obstacle goes, and what comes from now on is written.
  fs::remove(obstacle);
  fs::create_directories(obstacle + "/sub");
  Write(log, 2, "kept");
  log.Flush();
  EXPECT_EQ(ReadPerfLog(obstacle + "/sub/perf.log").at(0).data, "kept");
}

TEST_F(PerfLogger, AFileWhereTheFolderShouldBeIsAFailureToMakeIt) {
  const test::CapturedLog lines;
  std::ofstream(folder_ / "file") << "in the way";
  CPerfLogger log(folder_ / "file/perf.log", 100);
  Write(log, 1, "lost");
  log.Flush();
  EXPECT_EQ(lines.Count(FolderFailed), 1U);
  EXPECT_EQ(lines.Count(FlushFailed), 1U);
}

TEST_F(PerfLogger, APathThatIsAFolderOrAPipeLosesTheDataAlone) {
  const test::CapturedLog lines;
  const std::string pipe = folder_ / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path : {folder_.Path().string(), pipe, std::string()}) {
    CPerfLogger log(path, 100);
    Write(log, 1, "lost");
    log.Flush();
  }
  EXPECT_EQ(lines.Count(FlushFailed), 3U);
}

TEST_F(PerfLogger, APathWithoutAFolderIsInTheCurrentOne) {
  const test::CapturedLog lines;
  const fs::path before = fs::current_path();
  fs::current_path(folder_.Path());
  {
    CPerfLogger log("bare.log", 100);
    Write(log, 1, "x");
  }
  fs::current_path(before);
  EXPECT_EQ(ReadPerfLog(folder_ / "bare.log").size(), 1U);
  EXPECT_THAT(lines.Lines(), IsEmpty());
}

/// Files cannot grow past the limit while it lives, as on a disk that fills up in the middle of a write.
class CFileSizeLimit {
 public:
  explicit CFileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &old_);
    const rlimit limit{bytes, old_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  CFileSizeLimit(const CFileSizeLimit&) = delete;
  CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;
  ~CFileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, handler_);
  }

 private:
  rlimit old_{};
  sighandler_t handler_;
};

TEST_F(PerfLogger, AWriteThatStopsHalfwayLeavesWholeRecords) {
  const test::CapturedLog lines;
  CPerfLogger log(path_, 1000);
  Write(log, 1, std::string(100, 'a'));
  log.Flush();
  {
    const CFileSizeLimit limit(200);
    Write(log, 2, std::string(100, 'b'));
    log.Flush();
  }
  EXPECT_EQ(lines.Count(FlushFailed), 1U);
  EXPECT_EQ(BytesOfFile(path_).size(), 120U);
  Write(log, 3, "after");
  log.Flush();
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1, 3}));
}

TEST_F(PerfLogger, TheMarkedFailureTellsItsCause) {
  const test::CapturedLog lines;
  CPerfLogger log(folder_.Path().string(), 100);
  Write(log, 1, "lost");
  log.Flush();
  EXPECT_THAT(lines.Texts(), testing::Contains(HasSubstr("Cannot write to file [" + folder_.Path().string() + "].")));
}

TEST_F(PerfLogger, ArgumentsStandOneAfterTheOther) {
  {
    CPerfLogger log(path_, 1024);
    const CPerfEventArg byte(std::uint8_t{0xAB});
    const CPerfEventArg number(std::uint64_t{0x1122334455667788});
    const CPerfEventArg negative(std::int32_t{-2});
    std::string source = "a text that is longer than what a string keeps inside itself";
    const CPerfEventArg text(source);
    source.assign(source.size(), '?');
    const CPerfEventArg nothing(std::string_view{});
    log.WriteEvent(5, {&byte, &number, &nothing, &negative, &text});
    log.WriteEvent(6, {});
  }
  const auto records = ReadPerfLog(path_);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].data, std::string("\xAB\x88\x77\x66\x55\x44\x33\x22\x11\xFE\xFF\xFF\xFF") +
                                 "a text that is longer than what a string keeps inside itself");
  EXPECT_EQ(records[1].data, "");
}

TEST_F(PerfLogger, ArgumentsThatDoNotFitAreDropped) {
  CPerfLogger log(path_, 100);
  const CPerfEventArg text(std::string(40, 'x'));
  const CPerfEventArg byte(std::uint8_t{1});
  log.WriteEvent(1, {&text, &text, &byte});
  log.WriteEvent(2, {&text, &text});
  log.Flush();
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{2}));
}

TEST_F(PerfLogger, AClosedLogDropsAndWritesNothingTwice) {
  CPerfLogger log(path_, 100);
  Write(log, 1, "x");
  log.Close();
  Write(log, 2, "y");
  log.Flush();
  log.Close();
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1}));
}

TEST_F(PerfLogger, ThreadsDoNotMixTheirRecords) {
  constexpr std::uint32_t Threads = 4;
  constexpr std::uint32_t Records = 2000;
  {
    CPerfLogger log(path_, 500);
    std::vector<std::thread> threads;
    for (std::uint32_t type = 0; type < Threads; ++type) {
      threads.emplace_back([&, type] {
        for (std::uint32_t i = 0; i < Records; ++i) {
          const CPerfEventArg number(i);
          const CPerfEventArg text(std::string(i % 50, static_cast<char>('a' + type)));
          log.WriteEvent(type, {&number, &text});
        }
      });
    }
    for (std::thread& thread : threads)
      thread.join();
  }
  std::map<std::uint32_t, std::uint32_t> next;
  std::map<std::uint32_t, std::uint32_t> threadOf;
  std::int64_t last = 0;
  for (const auto& record : ReadPerfLog(path_)) {
    ASSERT_GE(record.timestamp, last);
    last = record.timestamp;
    const std::uint32_t i = next[record.eventType]++;
    ASSERT_EQ(record.data.size(), sizeof(i) + i % 50);
    ASSERT_EQ(std::memcmp(record.data.data(), &i, sizeof(i)), 0);
    ASSERT_EQ(record.data.substr(sizeof(i)), std::string(i % 50, static_cast<char>('a' + record.eventType)));
    ASSERT_EQ(threadOf.emplace(record.eventType, record.threadId).first->second, record.threadId);
  }
  for (std::uint32_t type = 0; type < Threads; ++type)
    EXPECT_EQ(next[type], Records);
}

TEST_F(PerfLogger, TheProcessLogIsOnBetweenItsStartAndItsStop) {
  EXPECT_FALSE(perf::IsOn());
  perf::WriteEvent(1, 0, nullptr);
  perf::StartLog(path_, 1024);
  EXPECT_TRUE(perf::IsOn());
  perf::WriteEvent(2, 0, nullptr);
  const CPerfEventArg text(std::string_view("abc"));
  perf::WriteEvent(3, {&text});
  perf::WriteRecord(4, perf::io_end_t{5, 6, 1});
  perf::StopLog();
  EXPECT_FALSE(perf::IsOn());
  perf::WriteEvent(5, 0, nullptr);
  perf::StopLog();
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{2, 3, 4}));
  EXPECT_EQ(ReadPerfLog(path_).at(2).As<perf::io_end_t>().offset, 6U);
}

TEST_F(PerfLogger, AStartReplacesTheLogThatRuns) {
  perf::StartLog(path_, 1024);
  perf::WriteEvent(1, 0, nullptr);
  perf::StartLog(folder_ / "second.log", 1024);
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1}));
  perf::WriteEvent(2, 0, nullptr);
  perf::StopLog();
  EXPECT_EQ(Types(), (std::vector<std::uint32_t>{1}));
  EXPECT_EQ(ReadPerfLog(folder_ / "second.log").size(), 1U);
}

TEST_F(PerfLogger, EventsMayComeWhileTheProcessLogStopsAndStarts) {
  std::atomic<bool> isOver = false;
  std::vector<std::thread> threads;
  threads.reserve(2);
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      while (!isOver) {
        perf::WriteRecord(9, perf::io_end_t{1, 2, 1});
        std::this_thread::yield();
      }
    });
  }
  // A small buffer, so that the file tells of what comes while the log runs.
  for (int round = 0; round < 20; ++round) {
    const std::string path = folder_ / ("perf" + std::to_string(round) + ".log");
    perf::StartLog(path, 500);
    while (!fs::exists(path))
      std::this_thread::yield();
    perf::StopLog();
    const auto records = ReadPerfLog(path);
    EXPECT_GE(records.size(), 13U);
    for (const auto& record : records)
      ASSERT_EQ(record.As<perf::io_end_t>().offset, 2U);
    fs::remove(path);
  }
  isOver = true;
  for (std::thread& thread : threads)
    thread.join();
}

}  // namespace
