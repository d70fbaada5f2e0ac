// How replies leave.
#include "transports/sync/xdr_session_writer.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/xdr_record.h"
#include "unit/transports/sockets/socket_pair.h"
#include "unit/transports/sync/rig.h"

namespace test {
namespace {

/// Records the sends, each with what it moved. Any thread.
class CRecordingDev : public io::io_dev_t {
 public:
  std::uint64_t Write(const void* data, std::uint64_t length) override {
    const std::lock_guard guard(lock_);
    if (fails_)
      throw exc::runtime_exc_t(std::string("broken"));
    sends_.emplace_back(static_cast<const char*>(data), length);
    return length;
  }
  std::uint64_t Read(void*, std::uint64_t) override { throw std::logic_error("a writer does not read"); }

  std::vector<std::string> Sends() {
    const std::lock_guard guard(lock_);
    return sends_;
  }
  std::string All() {
    std::string all;
    for (const std::string& send : Sends())
      all += send;
    return all;
  }
  void Fail() {
    const std::lock_guard guard(lock_);
    fails_ = true;
  }

 private:
  std::mutex lock_;
  std::vector<std::string> sends_;
  bool fails_ = false;
};

class SessionWriterTest : public CSocketPairTest {
 protected:
  SessionWriterTest() { server_->SetDevices(nullptr, device_); }

  void Start() { writer_ = std::make_unique<CXdrSessionWriter>(server_, queue_, backlog_, stopCtx_); }
  boost::shared_ptr<CXDRWriter> Reply(std::size_t size, char fill) {
    const auto reply = boost::make_shared<CXDRWriter>();
    const std::string bytes(size, fill);
    reply->Data(bytes.data(), bytes.size());
    backlog_->Add(reply->Used());
    return reply;
  }
  /// One whose data is in a pipe; its record.
  std::string PushPiped(xdr_writer_queue_t::items_t& replies, const std::string& data) {
    const platform::descriptor_t file(::memfd_create("data", MFD_CLOEXEC));
    EXPECT_EQ(::pwrite(file.Get(), data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
    const auto pipe = platform::kernel_pipe_t::Acquire();
    std::size_t moved = 0;
    EXPECT_EQ(pipe->TakeFromFile(file.Get(), 0, data.size(), moved), 0U);
    EXPECT_EQ(moved, data.size());
    const auto reply = boost::make_shared<CXDRWriter>();
    reply->TakePipes();
    reply->PipedVarLenData(pipe);
    backlog_->Add(reply->Used());
    replies.push_back(reply);
    CXDRWriter copy;
    copy.VarLenData(data.data(), data.size());
    const bytes_t record = WithMark(MessageOf(copy));
    return {record.begin(), record.end()};
  }
  static std::string Record(std::size_t size, char fill) {
    const bytes_t record = WithMark(bytes_t(size, static_cast<std::uint8_t>(fill)));
    return {record.begin(), record.end()};
  }

  CapturedLog log_;
  boost::shared_ptr<CRecordingDev> device_ = boost::make_shared<CRecordingDev>();
  boost::shared_ptr<xdr_writer_queue_t> queue_ = boost::make_shared<xdr_writer_queue_t>();
  boost::shared_ptr<CXdrBacklog> backlog_ = boost::make_shared<CXdrBacklog>(1, 1);
  boost::shared_ptr<CXdrSessionStopCtx> stopCtx_ = boost::make_shared<CXdrSessionStopCtx>();
  std::unique_ptr<CXdrSessionWriter> writer_;
};

TEST_F(SessionWriterTest, ASmallReplyThatIsAloneLeavesWithItsMarkInOneSend) {
  queue_->Push(Reply(100, 'a'));
  Start();
  ASSERT_TRUE(Eventually([&] { return backlog_->HasRoom(); }));
  ASSERT_TRUE(Eventually([&] { return !device_->Sends().empty(); }));
  EXPECT_EQ(device_->Sends(), (std::vector<std::string>{Record(100, 'a')}));
}

TEST_F(SessionWriterTest, ALargeReplyThatIsAloneBeginsWithOneSegment) {
  queue_->Push(Reply(300000, 'a'));
  Start();
  ASSERT_TRUE(Eventually([&] { return device_->All().size() == 300004; }));
  EXPECT_EQ(device_->Sends().front().size(), 1460U);
  EXPECT_TRUE(device_->All() == Record(300000, 'a'));
}

TEST_F(SessionWriterTest, SeveralSmallRepliesLeaveInOneSend) {
  xdr_writer_queue_t::items_t replies;
  std::string all;
  for (char fill = 'a'; fill < 'k'; ++fill) {
    replies.push_back(Reply(64, fill));
    all += Record(64, fill);
  }
  queue_->PushList(replies);
  Start();
  ASSERT_TRUE(Eventually([&] { return !device_->Sends().empty(); }));
  EXPECT_EQ(device_->Sends(), (std::vector<std::string>{all}));
  EXPECT_TRUE(Eventually([&] { return backlog_->HasRoom(); }));
}

TEST_F(SessionWriterTest, DataInAPipeLeavesAloneAndInItsPlaceAmongOthers) {
  xdr_writer_queue_t::items_t replies;
  std::string all = PushPiped(replies, std::string(20001, 'p'));
  queue_->PushList(replies);
  Start();
  ASSERT_TRUE(Eventually([&] { return device_->All().size() == all.size(); }));
  replies.clear();
  for (char fill = 'a'; fill < 'e'; ++fill) {
    replies.push_back(Reply(64, fill));
    all += Record(64, fill);
    all += PushPiped(replies, std::string(16384, fill));
  }
  replies.push_back(Reply(64, 'z'));
  all += Record(64, 'z');
  queue_->PushList(replies);
  ASSERT_TRUE(Eventually([&] { return device_->All().size() == all.size(); }));
  EXPECT_TRUE(device_->All() == all);
  EXPECT_TRUE(Eventually([&] { return backlog_->HasRoom(); }));
}

TEST_F(SessionWriterTest, BatchesAreCutWhereTheyAreFull) {
  constexpr std::size_t size = 200 << 10;
  xdr_writer_queue_t::items_t replies{Reply(size, 'a'), Reply(size, 'b')};
  queue_->PushList(replies);
  Start();
  ASSERT_TRUE(Eventually([&] { return device_->Sends().size() == 2; }));
  EXPECT_EQ(device_->Sends()[0].size(), CXdrReplyBatch::BatchSize);
  EXPECT_TRUE(device_->All() == Record(size, 'a') + Record(size, 'b'));
}

TEST_F(SessionWriterTest, SmallAndLargePiecesKeepTheirOrderAndLeaveInWholeBatches) {
  xdr_writer_queue_t::items_t replies;
  std::string all;
  std::size_t size = 4;
  for (int i = 0; i < 60; ++i, size = size * 7 % 70001 / 4 * 4 + 4) {
    const char fill = static_cast<char>('A' + i);
    const auto data = boost::make_shared<io::byte_buffer_t>(size, static_cast<std::uint8_t>(fill));
    const auto reply = boost::make_shared<CXDRWriter>();
    reply->SharedVarLenData(data, data->size());
    reply->UInt(0x2B2B2B2B);
    backlog_->Add(reply->Used());
    io::byte_buffer_t bytes;
    reply->Finish(bytes, true);
    all.append(bytes.begin(), bytes.end());
    replies.push_back(reply);
  }
  ASSERT_GT(all.size(), 2 * CXdrReplyBatch::BatchSize);
  queue_->PushList(replies);
  Start();
  ASSERT_TRUE(Eventually([&] { return device_->All().size() == all.size(); }));
  EXPECT_TRUE(device_->All() == all);
  const auto sends = device_->Sends();
  EXPECT_EQ(sends.size(), all.size() / CXdrReplyBatch::BatchSize + 1);
  for (std::size_t i = 0; i + 1 < sends.size(); ++i)
    EXPECT_EQ(sends[i].size(), CXdrReplyBatch::BatchSize);
  EXPECT_TRUE(Eventually([&] { return backlog_->HasRoom(); }));
}

TEST_F(SessionWriterTest, BehindTheLastReplyTheConnectionIsClosed) {
  queue_->Push(Reply(8, 'a'));
  queue_->Push(nullptr);
  Start();
  EXPECT_TRUE(stopCtx_->Event()->Wait(20000));
  EXPECT_EQ(stopCtx_->State(), CXdrSessionStopCtx::state_t::Closed);
  EXPECT_EQ(device_->All(), Record(8, 'a'));
}

TEST_F(SessionWriterTest, WhatFailsToLeaveEndsTheSession) {
  device_->Fail();
  queue_->Push(Reply(8, 'a'));
  Start();
  EXPECT_TRUE(stopCtx_->Event()->Wait(20000));
  writer_.reset();
  EXPECT_EQ(stopCtx_->State(), CXdrSessionStopCtx::state_t::Closed);
  EXPECT_TRUE(Logged(log_, "XdrSendThread error"));
  EXPECT_TRUE(Logged(log_, "broken"));
  EXPECT_TRUE(Logged(log_, "XdrSendThread finished."));
}

TEST_F(SessionWriterTest, AReplyOfNoWholeWordsEndsTheSession) {
  queue_->Push(Reply(3, 'a'));
  Start();
  EXPECT_TRUE(stopCtx_->Event()->Wait(20000));
  EXPECT_TRUE(device_->Sends().empty());
}

TEST_F(SessionWriterTest, AnIdleWriterIsStoppedByItsEnd) {
  Start();
  writer_.reset();
  EXPECT_EQ(stopCtx_->State(), CXdrSessionStopCtx::state_t::Stopped);
  EXPECT_TRUE(Logged(log_, "Stopping XdrWriter thread."));
  EXPECT_TRUE(Logged(log_, "XdrSendThread finished."));
}

TEST_F(SessionWriterTest, ASessionThatIsClosedElsewhereIsNoFailureOfTheWriter) {
  Start();
  stopCtx_->ReportClosed();
  writer_.reset();
  EXPECT_FALSE(Logged(log_, "XdrSendThread error"));
  EXPECT_TRUE(log_.Texts("Error").empty());
}

}  // namespace
}  // namespace test
