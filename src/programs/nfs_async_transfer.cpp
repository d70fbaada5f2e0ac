#include "programs/nfs_async_transfer.h"

#include <boost/make_shared.hpp>
#include <utility>

#include "foundation/log.h"
#include "programs/nfs_read_result.h"
#include "programs/read_buffer_pool.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

/// What a call under way keeps besides its data, about.
constexpr std::size_t CallWeight = 512;

}  // namespace

CNfsAsyncCompletionCallback::~CNfsAsyncCompletionCallback() {
  if (record_)
    record_->Abandon();
}

template <typename Result, typename Fill>
void CNfsAsyncCompletionCallback::Answer(const char* failureText, const Fill& fill) noexcept {
  try {
    Result result;
    fill(result);
    CXDRWriter& writer = record_->Writer();
    writer.AcceptedReply();
    result.Encode(writer);
    record_->Complete();
  } catch (const std::exception& failure) {
    g_nfs_log.Error(failureText, failure);
    record_->Abandon();
  }
}

CNfsAsyncReadCompletionCallback::CNfsAsyncReadCompletionCallback() : buffer_(CReadBufferPool::Instance().Acquire()) {}

void CNfsAsyncReadCompletionCallback::OnCompleted() {
  Answer<READ3res>("Failed to complete read procedure.", [this](READ3res& result) { SetReadResult(result, buffer_); });
}

void CNfsAsyncReadCompletionCallback::OnFailed(const std::exception& exception) {
  Answer<READ3res>("Faild to handle failure of read procedure.",
                   [&](READ3res& result) { SetFailedResult(result, StatusFromException(exception)); });
}

CNfsAsyncWriteCompletionCallback::CNfsAsyncWriteCompletionCallback(boost::shared_ptr<WRITE3args> args,
                                                                   boost::shared_ptr<CXDRReader> reader)
    : args_(std::move(args)), reader_(std::move(reader)) {}

void CNfsAsyncWriteCompletionCallback::OnCompleted() {
  Answer<WRITE3res>("Failed to complete file write operation.", [this](WRITE3res& result) {
    result.count = args_->count;
    result.committed = FILE_SYNC;
  });
}

void CNfsAsyncWriteCompletionCallback::OnFailed(const std::exception& exception) {
  Answer<WRITE3res>("Failed to handle failure with file write operation.",
                    [&](WRITE3res& result) { SetFailedResult(result, StatusFromException(exception)); });
}

void BeginNfsRead(const SAsyncProcedureCall& call) {
  READ3args args;
  args.Decode(*call.reader);
  const auto callback = boost::make_shared<CNfsAsyncReadCompletionCallback>();
  callback->SetRecord(call.completionQueue.Reserve(call.writer, CallWeight + args.count));
  LendPipe(callback->Buffer(), *call.writer, args.count);
  try {
    call.fs.AsyncRead(args.file, args.offset, args.count, callback->Buffer(), callback);
  } catch (const std::exception& failure) {
    callback->OnFailed(failure);
  }
}

void BeginNfsWrite(const SAsyncProcedureCall& call) {
  const auto args = boost::make_shared<WRITE3args>();
  args->Decode(*call.reader);
  const auto callback = boost::make_shared<CNfsAsyncWriteCompletionCallback>(args, call.reader);
  // The call keeps the record, with whatever stands behind the data.
  const std::size_t kept = call.reader->Record().size() + (args->Rest() == nullptr ? 0 : args->Rest()->Held());
  callback->SetRecord(call.completionQueue.Reserve(call.writer, CallWeight + kept));
  call.fs.AsyncWrite(*args, callback);
}
