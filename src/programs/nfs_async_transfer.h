// READ and WRITE that end by a callback (RFC 1813, 3.3.6 and 3.3.7).
#pragma once

#include <boost/shared_ptr.hpp>
#include <exception>
#include <optional>

#include "rpc/xdr_completion_queue.h"
#include "rpc/xdr_reader.h"
#include "vfs/items/fs_item.h"
#include "vfs/items/fs_proc.h"

class CVirtualFs;
struct WRITE3args;

/// What a transfer that was begun keeps of its call: the place of its reply. One object serves one call; it is told of
/// the end once, by whatever thread the transfer ends on. A reply that cannot be made leaves the call unanswered, and
/// so does an object that goes before it was told: no other reply waits for it.
class CNfsAsyncCompletionCallback : public IFsProcCompletionCallback {
 public:
  CNfsAsyncCompletionCallback() = default;
  CNfsAsyncCompletionCallback(const CNfsAsyncCompletionCallback&) = delete;
  CNfsAsyncCompletionCallback& operator=(const CNfsAsyncCompletionCallback&) = delete;
  ~CNfsAsyncCompletionCallback() override;

  /// Before the transfer is begun. The record's writer holds the xid.
  void SetRecord(CXDRCallCompletionRec record) { record_ = std::move(record); }

 protected:
  /// Makes the reply with fill(result) and hands it over; what fails is logged as the text.
  template <typename Result, typename Fill>
  void Answer(const char* failureText, const Fill& fill) noexcept;

 private:
  std::optional<CXDRCallCompletionRec> record_;
};

class CNfsAsyncReadCompletionCallback : public CNfsAsyncCompletionCallback {
 public:
  CNfsAsyncReadCompletionCallback();
  /// Where the read goes. The reply takes the bytes from here without copying them.
  SFsReadBuffer& Buffer() noexcept { return *buffer_; }

  void OnCompleted() override;
  void OnFailed(const std::exception& exception) override;

 private:
  const boost::shared_ptr<SFsReadBuffer> buffer_;
};

class CNfsAsyncWriteCompletionCallback : public CNfsAsyncCompletionCallback {
 public:
  /// Keeps both: the data to be written lies in the record that the reader decodes.
  CNfsAsyncWriteCompletionCallback(boost::shared_ptr<WRITE3args> args, boost::shared_ptr<CXDRReader> reader);

  void OnCompleted() override;
  void OnFailed(const std::exception& exception) override;

 private:
  const boost::shared_ptr<WRITE3args> args_;
  const boost::shared_ptr<CXDRReader> reader_;
};

/// A call whose reply is made when its transfer has ended. The reader stands at the arguments; the writer holds the
/// xid.
struct SAsyncProcedureCall {
  const boost::shared_ptr<CXDRReader>& reader;
  const boost::shared_ptr<CXDRWriter>& writer;
  CXDRCompletionQueue& completionQueue;
  CVirtualFs& fs;
};

/// Take the call's place in the order and begin the transfer. Throw when the arguments do not decode, before the place
/// is taken; every other failure is a status in the reply.
void BeginNfsRead(const SAsyncProcedureCall& call);
void BeginNfsWrite(const SAsyncProcedureCall& call);
