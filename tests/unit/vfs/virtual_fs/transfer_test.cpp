// READ and WRITE.
#include <condition_variable>
#include <mutex>

#include "support/kernel_pipe_of.h"
#include "support/xdr_record.h"
#include "vfs/items/fs_proc.h"
#include "virtual_fs_fixture.h"

namespace test {
namespace {

using Transfer = VirtualFsFixture;

/// Waits for the end of a transfer.
class CWaitingCallback : public IFsProcCompletionCallback {
 public:
  void OnCompleted() override { End(NFS3_OK); }
  void OnFailed(const std::exception& failure) override { End(StatusFromException(failure)); }
  nfsstat3 Wait() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return hasEnded_; });
    return status_;
  }

 private:
  void End(nfsstat3 status) {
    const std::lock_guard lock(mutex_);
    hasEnded_ = true;
    status_ = status;
    ended_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable ended_;
  bool hasEnded_ = false;
  nfsstat3 status_ = NFS3_OK;
};

WRITE3args WriteArgs(std::uint64_t fid, std::uint32_t count, std::span<const std::uint8_t> data) {
  WRITE3args args;
  args.file = HandleFromFid(fid);
  args.count = count;
  args.data = data;
  return args;
}

TEST_F(Transfer, WhatIsWrittenIsRead) {
  const auto fid = MakeFile(root, "disk");
  EXPECT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  EXPECT_EQ(Write(fid, 5, " world"), NFS3_OK);
  EXPECT_EQ(Read(fid), "hello world");
  EXPECT_EQ(Read(fid, 6, 3), "wor");
  EXPECT_EQ(GetLocal("disk"), "hello world");
}

TEST_F(Transfer, AWriteIsStoredWhenItIsAnswered) {
  const auto fid = MakeFile(root, "disk");
  const std::vector<std::uint8_t> data{1, 2, 3, 4};
  auto args = WriteArgs(fid, 3, data);
  args.stable = UNSTABLE;
  WRITE3res result;
  fs->Write(args, result);
  EXPECT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.count, 3U);
  EXPECT_EQ(result.committed, FILE_SYNC);
  EXPECT_EQ(result.verifier, nfs_verifier_t{});
  EXPECT_FALSE(result.wcc.before);
  EXPECT_FALSE(result.wcc.after);
  EXPECT_EQ(GetLocal("disk").size(), 3U) << "what is more than count is left out";
}

TEST_F(Transfer, AnEmptyWriteSucceeds) {
  const auto fid = MakeFile(root, "disk");
  WRITE3res result;
  fs->Write(WriteArgs(fid, 0, {}), result);
  EXPECT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.count, 0U);
}

TEST_F(Transfer, ACountPastTheDataIsInvalidBeforeTheHandleIsLookedAt) {
  const std::vector<std::uint8_t> data(3);
  WRITE3res result;
  fs->Write(WriteArgs(MakeFile(root, "disk"), 4, data), result);
  EXPECT_EQ(result.status, NFS3ERR_INVAL);
  fs->Write(WriteArgs(4711, 4, data), result);
  EXPECT_EQ(result.status, NFS3ERR_INVAL);
}

TEST_F(Transfer, UnknownItemsAndFolders) {
  EXPECT_EQ(Write(4711, 0, "x"), NFS3ERR_NOENT);
  EXPECT_EQ(Read(4711), "status 2");
  EXPECT_EQ(Write(root, 0, "x"), NFS3ERR_SERVERFAULT);
  EXPECT_EQ(Read(root), "status 10004");
}

TEST_F(Transfer, AReadPastTheEndIsEmptyAndAtTheEnd) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  SFsReadBuffer buffer;
  EXPECT_EQ(fs->Read(HandleFromFid(fid), 100, 10, buffer), NFS3_OK);
  EXPECT_EQ(buffer.length, 0U);
  EXPECT_TRUE(buffer.eof);
  EXPECT_EQ(fs->Read(HandleFromFid(fid), 0, 3, buffer), NFS3_OK);
  EXPECT_EQ(buffer.length, 3U);
  EXPECT_FALSE(buffer.eof);
}

TEST_F(Transfer, TheCountGoesToTheBackendAsItStands) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  EXPECT_EQ(Read(fid, 0, 0x2800000 - 1), "hello");
  EXPECT_EQ(Read(fid, 0, 0x2800000), "status 10006");
  EXPECT_EQ(Read(fid, 0, 0xffffffff), "status 10006");
}

TEST_F(Transfer, ARefusedClientWithAHandleReads) {
  const auto backend = boost::make_shared<SFakeBackend>();
  const auto node = backend->Put("disk", false, "hello");
  const auto fid = Find(PublishFake(backend), "disk");
  node->refused.insert(client.sin_addr.s_addr);
  EXPECT_EQ(GetAttrs(fid).status, NFS3ERR_ACCES);
  EXPECT_EQ(Read(fid), "hello");
}

/// A WRITE of a file of a backend, with the last bytes of its record still in the kernel.
class WriteFromPipe : public VirtualFsFixture {
 protected:
  WriteFromPipe() {
    backend_->Put("disk", false, "");
    fid_ = Find(PublishFake(backend_), "disk");
    for (std::size_t i = 0; i < data_.size(); ++i)
      data_[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  }

  /// `count` as the client tells it; all but the first `first` bytes of the data are in the kernel. The status.
  nfsstat3 Write(std::uint64_t fid, std::uint32_t count, std::size_t first) {
    auto args = WriteArgs(fid, count, data_);
    const std::vector<std::uint8_t> bytes = BytesOf(args);
    wantedRest_ = static_cast<std::uint32_t>(bytes.size() - data_.size());
    CXDRReader reader = SplitReaderOf(bytes, wantedRest_ + first);
    args = WRITE3args();
    args.Decode(reader);
    WRITE3res result;
    fs->Write(args, result);
    wanted_ = reader.WantedRest();
    return result.status;
  }

  const boost::shared_ptr<SFakeBackend> backend_ = boost::make_shared<SFakeBackend>();
  std::uint64_t fid_ = 0;
  std::vector<std::uint8_t> data_ = std::vector<std::uint8_t>(65536);
  std::uint32_t wantedRest_ = 0;  ///< Where the data begins.
  std::uint32_t wanted_ = 0;      ///< What the call told of it.
};

TEST_F(WriteFromPipe, GoesOnFromThereWhereTheFileTakesIt) {
  backend_->takesPipes = true;
  for (const std::size_t first : {0U, 1U, 65535U, 65536U}) {
    backend_->Put("disk", false, "");
    EXPECT_EQ(Write(fid_, 65536, first), NFS3_OK);
    EXPECT_EQ(Read(fid_, 0, 65536), std::string(data_.begin(), data_.end()));
    EXPECT_EQ(wanted_, wantedRest_);
  }
  EXPECT_EQ(backend_->pipeWrites, 3) << "not where nothing was in the pipe";
}

TEST_F(WriteFromPipe, IsBroughtIntoMemoryForAFileThatDoesNot) {
  EXPECT_EQ(Write(fid_, 65536, 5), NFS3_OK);
  EXPECT_EQ(Read(fid_, 0, 65536), std::string(data_.begin(), data_.end()));
  EXPECT_EQ(backend_->pipeWrites, 0);
  EXPECT_EQ(wanted_, 0U);
  const auto onHost = MakeFile(root, "disk");
  EXPECT_EQ(Write(onHost, 65536, 0), NFS3_OK);
  EXPECT_EQ(GetLocal("disk"), std::string(data_.begin(), data_.end()));
  EXPECT_EQ(wanted_, 0U);
}

TEST_F(WriteFromPipe, IsBroughtIntoMemoryWhenItIsMoreThanTheCount) {
  backend_->takesPipes = true;
  EXPECT_EQ(Write(fid_, 65535, 5), NFS3_OK);
  EXPECT_EQ(Read(fid_, 0, 65536), std::string(data_.begin(), data_.end() - 1));
  EXPECT_EQ(backend_->pipeWrites, 0);
}

TEST_F(WriteFromPipe, IsTooLittleForALargerCount) {
  backend_->takesPipes = true;
  EXPECT_EQ(Write(fid_, 65537, 5), NFS3ERR_INVAL);
}

TEST_F(WriteFromPipe, IsNotWantedForLittleData) {
  backend_->takesPipes = true;
  data_.resize(16380);
  EXPECT_EQ(Write(fid_, 16380, 5), NFS3_OK);
  EXPECT_EQ(wanted_, 0U);
}

TEST_F(Transfer, TheAsynchronousFormsCompleteByCallback) {
  const auto fid = MakeFile(root, "disk");
  const std::vector<std::uint8_t> data{'a', 'b', 'c'};
  const auto args = WriteArgs(fid, 3, data);
  const auto written = boost::make_shared<CWaitingCallback>();
  fs->AsyncWrite(args, written);
  EXPECT_EQ(written->Wait(), NFS3_OK);

  SFsReadBuffer buffer;
  const auto read = boost::make_shared<CWaitingCallback>();
  fs->AsyncRead(HandleFromFid(fid), 1, 10, buffer, read);
  EXPECT_EQ(read->Wait(), NFS3_OK);
  EXPECT_EQ(std::string(buffer.data.begin(), buffer.data.begin() + buffer.length), "bc");
  EXPECT_TRUE(buffer.eof);
}

TEST_F(Transfer, AnAsynchronousReadThatCannotStartThrows) {
  SFsReadBuffer buffer;
  const auto status = [&](std::uint64_t fid) {
    try {
      fs->AsyncRead(HandleFromFid(fid), 0, 1, buffer, boost::make_shared<CWaitingCallback>());
    } catch (const CVirtualFsExc& failure) {
      return failure.Status();
    }
    return NFS3_OK;
  };
  EXPECT_EQ(status(4711), NFS3ERR_NOENT);
  EXPECT_EQ(status(root), NFS3ERR_NOTSUPP);
}

TEST_F(Transfer, AnAsynchronousWriteThatCannotStartFailsByCallback) {
  const std::vector<std::uint8_t> data{1};
  const auto status = [&](const WRITE3args& args) {
    const auto callback = boost::make_shared<CWaitingCallback>();
    fs->AsyncWrite(args, callback);
    return callback->Wait();
  };
  EXPECT_EQ(status(WriteArgs(4711, 1, data)), NFS3ERR_NOENT);
  EXPECT_EQ(status(WriteArgs(root, 1, data)), NFS3ERR_SERVERFAULT);
  EXPECT_EQ(status(WriteArgs(MakeFile(root, "disk"), 2, data)), NFS3ERR_INVAL);
}

}  // namespace
}  // namespace test
