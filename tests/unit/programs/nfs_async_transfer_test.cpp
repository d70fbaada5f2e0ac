// The calls of a session: READ and WRITE that end by a callback, in the order of the calls.
#include "programs/nfs_async_transfer.h"

#include <boost/smart_ptr/weak_ptr.hpp>
#include <fstream>
#include <iterator>
#include <vector>

#include "programs/nfs_rpc_interface.h"
#include "support/captured_log.h"
#include "support/fake_fs_backend.h"
#include "unit/programs/program_test.h"
#include "vfs/nfs3/nfs_results.h"
#include "vfs/table/fs_items_tab.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A file whose transfers end when the test ends them.
class CHeldFile : public test::CFakeItem<IFsAsyncFile> {
 public:
  struct STransfer {
    SFsReadBuffer* buffer = nullptr;  ///< Of a read.
    std::string data;                 ///< Of a write.
    boost::shared_ptr<IFsProcCompletionCallback> callback;
  };

  using CFakeItem::CFakeItem;
  void Read(std::uint64_t, std::uint32_t, SFsReadBuffer&) override { throw std::logic_error("not by a session"); }
  void Write(std::uint64_t, std::uint32_t, const void*) override { throw std::logic_error("not by a session"); }
  void Resize(std::uint64_t) override {}
  void AsyncRead(std::uint64_t, std::uint32_t, SFsReadBuffer& buffer,
                 boost::shared_ptr<IFsProcCompletionCallback> callback) override {
    transfers.push_back({&buffer, {}, std::move(callback)});
  }
  void AsyncWrite(std::uint64_t, std::uint32_t count, const void* data,
                  boost::shared_ptr<IFsProcCompletionCallback> callback) override {
    transfers.push_back({nullptr, std::string(static_cast<const char*>(data), count), std::move(callback)});
  }

  /// Ends a read with these bytes.
  void EndRead(std::size_t index, const std::string& content, std::size_t claimed = std::string::npos) {
    STransfer transfer = std::move(transfers[index]);
    transfer.buffer->data.assign(content.begin(), content.end());
    transfer.buffer->length = static_cast<std::uint32_t>(std::min(claimed, content.size()));
    if (claimed != std::string::npos)
      transfer.buffer->length = static_cast<std::uint32_t>(claimed);
    transfer.buffer->eof = true;
    transfer.callback->OnCompleted();
  }
  void EndWrite(std::size_t index) { std::exchange(transfers[index].callback, nullptr)->OnCompleted(); }
  void Fail(std::size_t index, const std::exception& failure) {
    std::exchange(transfers[index].callback, nullptr)->OnFailed(failure);
  }

  std::vector<STransfer> transfers;
};

class NfsSession : public test::CProgramTest {
 protected:
  NfsSession() : CProgramTest(DispatchNfsCall, CNfsRpcInterface::Program, CNfsRpcInterface::Version) {
    const auto node = std::make_shared<test::SFakeNode>();
    held_ = boost::make_shared<CHeldFile>(boost::make_shared<test::SFakeBackend>(), node, "held");
    heldHandle_ = HandleFromFid(fs_->ItemsTab()->AddItem(FidFromHandle(Root()), "held", held_));
  }

  /// Begins a call under the next xid.
  void Begin(std::uint32_t procedure, std::span<const std::uint8_t> arguments = {}, bool isClientAllowed = true) {
    header_.xid = ++lastXid_;
    const auto bytes = CallBytes(procedure, arguments);
    program_.ProcessAsyncCall(
        isClientAllowed, peer_,
        boost::make_shared<CXDRReader>(boost::make_shared<io::byte_buffer_t>(bytes.begin(), bytes.end())), queue_,
        *fs_);
  }
  void BeginRead(const nfs_fh3& file, std::uint32_t count = 100) { Begin(6, test::BytesOf(READ3args{file, 0, count})); }
  void BeginWrite(const nfs_fh3& file, const std::string& data) {
    Begin(7, test::BytesOf(WRITE3args{file,
                                      0,
                                      static_cast<std::uint32_t>(data.size()),
                                      UNSTABLE,
                                      {reinterpret_cast<const std::uint8_t*>(data.data()), data.size()}}));
  }
  /// The replies that are due, without record marks.
  std::vector<test::bytes_t> Due() {
    xdr_replies_t replies;
    queue_->TakeFinished(replies);
    std::vector<test::bytes_t> out;
    for (const auto& reply : replies)
      out.push_back(test::MessageOf(*reply));
    return out;
  }
  /// The one reply that is due, when it comes.
  test::bytes_t Next() {
    EXPECT_TRUE(queue_->Event().Wait(20000));
    const auto due = Due();
    EXPECT_EQ(due.size(), 1U);
    return due.empty() ? test::bytes_t() : due.front();
  }
  /// The result of an accepted reply with the xid.
  template <typename Result>
  static Result ResultOf(const test::bytes_t& reply, std::uint32_t xid) {
    CXDRReader reader = test::ReaderOf(reply);
    EXPECT_EQ(reader.UInt(), xid);
    for (const std::uint32_t word : {1, 0, 0, 0, 0})
      EXPECT_EQ(reader.UInt(), word);
    Result result;
    result.Decode(reader);
    EXPECT_EQ(reader.Remaining(), 0U);
    return result;
  }
  static std::vector<std::uint32_t> XidsOf(const std::vector<test::bytes_t>& replies) {
    std::vector<std::uint32_t> xids;
    for (const auto& reply : replies)
      xids.push_back(test::ReaderOf(reply).UInt());
    return xids;
  }
  nfs_fh3 HostFile(const std::string& name, const std::string& content) {
    std::ofstream(SharePath(name), std::ios::binary) << content;
    LOOKUP3res result;
    fs_->Lookup({{Root(), name}}, peer_, result);
    return result.object;
  }

  CNfsRpcInterface program_;
  boost::shared_ptr<CXDRCompletionQueue> queue_ = boost::make_shared<CXDRCompletionQueue>();
  boost::shared_ptr<CHeldFile> held_;
  nfs_fh3 heldHandle_;
  std::uint32_t lastXid_ = 0;
};

TEST_F(NfsSession, ReadsAndWritesAHostFile) {
  const nfs_fh3 file = HostFile("file", "content");
  BeginRead(file);
  const auto read = ResultOf<READ3res>(Next(), 1);
  EXPECT_EQ(read.status, NFS3_OK);
  EXPECT_EQ(read.count, 7U);
  EXPECT_TRUE(read.eof);
  EXPECT_FALSE(read.attributes.has_value());
  EXPECT_EQ(std::string(read.data->begin(), read.data->end()), "content");
  BeginWrite(file, "CON");
  const auto written = ResultOf<WRITE3res>(Next(), 2);
  EXPECT_EQ(written.status, NFS3_OK);
  EXPECT_EQ(written.count, 3U);
  EXPECT_EQ(written.committed, FILE_SYNC);
  std::ifstream stream(SharePath("file"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}), "CONtent");
}

TEST_F(NfsSession, AnswersAllElseBeforeItReturns) {
  Begin(0);
  Begin(1, test::BytesOf(GETATTR3args{Root()}));
  Begin(21);
  Begin(1000);
  EXPECT_THAT(XidsOf(Due()), ElementsAre(1, 2, 3, 4));
}

TEST_F(NfsSession, RefusesByTheHeaderAsEverywhere) {
  header_.programVersion = 2;
  BeginRead(heldHandle_);
  EXPECT_EQ(test::WordsOf(Next()), (std::vector<std::uint32_t>{1, 1, 0, 3, 0, 0}));
  header_.programVersion = 3;
  Begin(6, test::BytesOf(READ3args{heldHandle_, 0, 1}), false);
  EXPECT_EQ(test::WordsOf(Next()), (std::vector<std::uint32_t>{2, 1, 0, 0, 0, 0, 13}));
  EXPECT_THAT(held_->transfers, IsEmpty());
}

TEST_F(NfsSession, ASlowCallHoldsBackWhatWasCalledBehindIt) {
  BeginWrite(heldHandle_, "data");
  Begin(1, test::BytesOf(GETATTR3args{Root()}));
  BeginRead(heldHandle_);
  Begin(0);
  EXPECT_THAT(Due(), IsEmpty());
  held_->EndRead(1, "early");
  EXPECT_THAT(Due(), IsEmpty());
  EXPECT_EQ(held_->transfers[0].data, "data");
  held_->EndWrite(0);
  const auto due = Due();
  EXPECT_THAT(XidsOf(due), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(ResultOf<WRITE3res>(due[0], 1).count, 4U);
  const auto read = ResultOf<READ3res>(due[2], 3);
  EXPECT_EQ(std::string(read.data->begin(), read.data->end()), "early");
}

TEST_F(NfsSession, WhatCannotBeBegunIsAnsweredInItsPlace) {
  BeginRead(heldHandle_);
  BeginRead(Root());
  BeginWrite(Root(), "x");
  BeginRead(HandleFromFid(4711));
  BeginWrite(HandleFromFid(4711), "x");
  Begin(7, test::BytesOf(WRITE3args{heldHandle_, 0, 5, UNSTABLE, {}}));
  EXPECT_THAT(Due(), IsEmpty());
  held_->EndRead(0, "");
  const auto due = Due();
  ASSERT_THAT(XidsOf(due), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_EQ(ResultOf<READ3res>(due[1], 2).status, NFS3ERR_NOTSUPP);
  EXPECT_EQ(ResultOf<WRITE3res>(due[2], 3).status, NFS3ERR_SERVERFAULT);
  EXPECT_EQ(ResultOf<READ3res>(due[3], 4).status, NFS3ERR_NOENT);
  EXPECT_EQ(ResultOf<WRITE3res>(due[4], 5).status, NFS3ERR_NOENT);
  EXPECT_EQ(ResultOf<WRITE3res>(due[5], 6).status, NFS3ERR_INVAL);
}

TEST_F(NfsSession, AWriteToAFolderIsToldInTheLog) {
  const test::CapturedLog log;
  BeginWrite(Root(), "x");
  Next();
  bool isTold = false;
  for (const std::string& line : log.Texts())
    isTold |= line.find("The specified item does not support async file access.") != std::string::npos;
  EXPECT_TRUE(isTold);
}

TEST_F(NfsSession, AFailedTransferIsItsStatus) {
  BeginRead(heldHandle_);
  BeginWrite(heldHandle_, "x");
  held_->Fail(0, exc::win_sys_exc_t("gone", 1627));
  held_->Fail(1, CVirtualFsExc(NFS3ERR_STALE));
  const auto due = Due();
  ASSERT_EQ(due.size(), 2U);
  EXPECT_EQ(ResultOf<READ3res>(due[0], 1).status, 1627U);
  EXPECT_EQ(ResultOf<WRITE3res>(due[1], 2).status, NFS3ERR_STALE);
}

TEST_F(NfsSession, ABackendThatClaimsMoreThanItReadIsAFault) {
  BeginRead(heldHandle_);
  held_->EndRead(0, "four", 5);
  EXPECT_EQ(ResultOf<READ3res>(Next(), 1).status, NFS3ERR_SERVERFAULT);
}

TEST_F(NfsSession, ACallThatIsCutThrowsAndTakesNoPlace) {
  for (const std::uint32_t procedure : {6U, 7U}) {
    const auto arguments = procedure == 6 ? test::BytesOf(READ3args{heldHandle_, 0, 1})
                                          : test::BytesOf(WRITE3args{heldHandle_, 0, 0, UNSTABLE, {}});
    for (std::size_t cut = 0; cut < arguments.size(); ++cut)
      EXPECT_THROW(Begin(procedure, std::span(arguments).first(cut)), std::exception) << cut;
  }
  EXPECT_TRUE(queue_->IsEmpty());
  EXPECT_THAT(held_->transfers, IsEmpty());
}

TEST_F(NfsSession, ATransferThatIsForgottenHoldsNobodyBack) {
  BeginRead(heldHandle_);
  Begin(0);
  EXPECT_THAT(Due(), IsEmpty());
  held_->transfers.clear();
  EXPECT_THAT(XidsOf(Due()), ElementsAre(2));
}

TEST_F(NfsSession, CallsOutliveTheirSession) {
  BeginRead(heldHandle_);
  BeginWrite(heldHandle_, "data");
  const boost::weak_ptr<IFsProcCompletionCallback> callback = held_->transfers[1].callback;
  queue_.reset();
  EXPECT_EQ(held_->transfers[1].data, "data");
  held_->EndRead(0, "for nobody");
  held_->EndWrite(1);
  EXPECT_TRUE(callback.expired());
}

TEST_F(NfsSession, WeighsWhatACallMayKeep) {
  BeginRead(heldHandle_, 1 << 20);
  EXPECT_GT(queue_->Weight(), std::size_t{1} << 20);
  BeginWrite(heldHandle_, std::string(1 << 20, 'w'));
  EXPECT_GT(queue_->Weight(), std::size_t{2} << 20);
  held_->EndRead(0, "short");
  held_->EndWrite(1);
  EXPECT_LT(queue_->Weight(), 2000U);
  // The record is kept as it came, also what stands behind the data.
  auto arguments = test::BytesOf(WRITE3args{heldHandle_, 0, 0, UNSTABLE, {}});
  arguments.resize(1 << 20);
  Begin(7, arguments);
  EXPECT_GT(queue_->Weight(), std::size_t{1} << 20);
  held_->EndWrite(2);
  EXPECT_LT(queue_->Weight(), 2000U);
}

}  // namespace
