// What READ and WRITE leave in the performance log.
#include "programs/io_trace.h"

#include <fstream>

#include "programs/busy_scope.h"
#include "programs/nfs_rpc_interface.h"
#include "support/perf_log.h"
#include "unit/programs/program_test.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"

namespace {

namespace event = perf::event;
using perf::io_begin_t;
using perf::io_end_t;
using test::ReadPerfLog;
using test::SPerfRecord;

class IoTrace : public test::CProgramTest {
 protected:
  IoTrace() : CProgramTest(DispatchNfsCall, 100003, 3) {
    std::ofstream(SharePath("file"), std::ios::binary) << "0123456789";
    perf::StartLog(path_, 65536);
  }
  ~IoTrace() override { perf::StopLog(); }

  nfs_fh3 File() { return Run<LOOKUP3res>(3, LOOKUP3args{{Root(), "file"}}).object; }
  READ3res Read(const nfs_fh3& file, std::uint64_t offset, std::uint32_t count) {
    return Run<READ3res>(6, READ3args{file, offset, count});
  }
  WRITE3res Write(const nfs_fh3& file, std::uint64_t offset, std::uint32_t count, std::string_view data) {
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
    return Run<WRITE3res>(7, WRITE3args{file, offset, count, UNSTABLE, bytes});
  }
  /// Of READ and WRITE; the log ends with it.
  std::vector<SPerfRecord> Records() {
    perf::StopLog();
    std::vector<SPerfRecord> records = ReadPerfLog(path_);
    std::erase_if(records, [](const SPerfRecord& record) { return record.eventType > 30; });
    return records;
  }
  /// Checks the two events of one call.
  void CheckPair(std::uint32_t begin, std::uint32_t end, std::uint64_t fid, std::uint64_t offset, std::uint32_t count,
                 bool success) {
    const auto records = Records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].eventType, begin);
    EXPECT_EQ(records[1].eventType, end);
    EXPECT_EQ(records[0].threadId, records[1].threadId);
    EXPECT_EQ(records[0].data.size(), 20U);
    EXPECT_EQ(records[1].data.size(), 17U);
    const auto asked = records[0].As<io_begin_t>();
    const auto done = records[1].As<io_end_t>();
    EXPECT_EQ(asked.fid, fid);
    EXPECT_EQ(asked.offset, offset);
    EXPECT_EQ(asked.count, count);
    EXPECT_EQ(done.fid, fid);
    EXPECT_EQ(done.offset, offset);
    EXPECT_EQ(done.success, success ? 1 : 0);
  }

  const std::string path_ = dir_ / "perf.log";
};

TEST_F(IoTrace, AReadBeginsAndEnds) {
  const nfs_fh3 file = File();
  EXPECT_EQ(Read(file, 3, 5).status, NFS3_OK);
  CheckPair(event::ReadBegin, event::ReadEnd, FidFromHandle(file), 3, 5, true);
}

TEST_F(IoTrace, AWriteBeginsAndEnds) {
  const nfs_fh3 file = File();
  EXPECT_EQ(Write(file, 4, 2, "ab").status, NFS3_OK);
  CheckPair(event::WriteBegin, event::WriteEnd, FidFromHandle(file), 4, 2, true);
}

TEST_F(IoTrace, AFailedReadEndsToo) {
  EXPECT_EQ(Read(Root(), 0, 5).status, NFS3ERR_NOTSUPP);
  CheckPair(event::ReadBegin, event::ReadEnd, FidFromHandle(Root()), 0, 5, false);
}

TEST_F(IoTrace, AFailedWriteEndsToo) {
  const nfs_fh3 file = File();
  EXPECT_EQ(Write(file, 4, 9, "ab").status, NFS3ERR_INVAL);
  CheckPair(event::WriteBegin, event::WriteEnd, FidFromHandle(file), 4, 9, false);
}

TEST_F(IoTrace, AHandleTooShortForAFidIsToldAsNoItem) {
  nfs_fh3 handle;
  handle.size = 7;
  EXPECT_NE(Read(handle, 1, 2).status, NFS3_OK);
  CheckPair(event::ReadBegin, event::ReadEnd, UINT64_MAX, 1, 2, false);
}

TEST_F(IoTrace, ACallThatDoesNotDecodeLeavesNothing) {
  CheckCuts(6, test::BytesOf(READ3args{File(), 0, 1}));
  EXPECT_TRUE(Records().empty());
}

TEST_F(IoTrace, OtherCallsLeaveNothing) {
  Run<GETATTR3res>(1, GETATTR3args{File()});
  EXPECT_TRUE(Records().empty());
}

TEST_F(IoTrace, WithoutALogNothingIsWritten) {
  perf::StopLog();
  EXPECT_EQ(Read(File(), 0, 5).status, NFS3_OK);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(IoTrace, ACallMayEndAfterTheLog) {
  io_trace::Begin(event::ReadBegin, Root(), 0, 1);
  perf::StopLog();
  io_trace::End(event::ReadEnd, Root(), 0, true);
  ASSERT_EQ(ReadPerfLog(path_).size(), 1U);
  EXPECT_EQ(ReadPerfLog(path_)[0].eventType, event::ReadBegin);
}

TEST_F(IoTrace, AThreadThatWorksTellsHowBusyItIs) {
  // A small log shows its first event soon.
  perf::StartLog(path_, sizeof(perf::record_header_t) + sizeof(perf::thread_busy_t));
  // Each event pushes the one before it out.
  while (ReadPerfLog(path_).empty()) {
    for (int i = 0; i < 1000; ++i)
      const CBusyScope busy;
  }
  const auto record = ReadPerfLog(path_).at(0);
  EXPECT_EQ(record.eventType, event::ThreadBusy);
  const auto busy = record.As<perf::thread_busy_t>();
  EXPECT_GE(busy.periodNanoseconds, 1'000'000'000U);
  EXPECT_LE(busy.busyPermille, 1000U);
}

TEST_F(IoTrace, BusyThreadsTellNothingWithoutALog) {
  perf::StopLog();
  { const CBusyScope busy; }
  EXPECT_FALSE(std::filesystem::exists(path_));
}

}  // namespace
