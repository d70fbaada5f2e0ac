// A file behind invocation threads.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "vfs/items/fs_item.h"
#include "vfs/items/fs_proc.h"

class CCompletionEventsAllocator;
class CFsProcInvoker;

/// Passes each call on to the file through the invoker, behind what waits there already, and waits for its end; the
/// asynchronous operations do not wait. Failures come out with their own dynamic type. Any thread.
class CAsyncFsFileWrapper : public IFsAsyncFile {
 public:
  CAsyncFsFileWrapper(boost::shared_ptr<IFsFile> file, boost::shared_ptr<CFsProcInvoker> invoker,
                      boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator);

  void GetItemSpec(SFsItemSpec& spec) override;
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) override;
  void SetPermissions(bool read, bool write) override;
  void SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override;
  bool Exists() override;
  bool GetMountUid(GUID& mountUid) override;
  bool IsAddressAllowed(const sockaddr_in& address) override;
  std::string GetAllowedHostAddr() override;
  void Foresee() const noexcept override { file_->Foresee(); }

  void Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) override;
  void Write(std::uint64_t offset, std::uint32_t count, const void* data) override;
  bool TakesPipes() const noexcept override { return file_->TakesPipes(); }
  void WritePipe(std::uint64_t offset, std::uint32_t count, const void* data, platform::kernel_pipe_t& rest) override;
  void Resize(std::uint64_t newSize) override;

  void AsyncRead(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer,
                 boost::shared_ptr<IFsProcCompletionCallback> callback) override;
  void AsyncWrite(std::uint64_t offset, std::uint32_t count, const void* data,
                  boost::shared_ptr<IFsProcCompletionCallback> callback) override;

  /// The file behind the threads.
  const boost::shared_ptr<IFsFile>& File() const noexcept { return file_; }

 private:
  template <typename Proc, typename... Args>
  Proc Call(const Args&... arguments);
  template <typename Proc, typename... Args>
  Proc CallQueued(const Args&... arguments);

  const boost::shared_ptr<IFsFile> file_;
  const boost::shared_ptr<CFsProcInvoker> invoker_;
  const boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator_;
};
