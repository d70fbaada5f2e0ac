#include "vfs/items/async_fs_file_wrapper.h"

#include <cxxabi.h>

#include <boost/make_shared.hpp>

#include "foundation/exc.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"
#include "vfs/items/fs_procs.h"

namespace {

/// A pointer without a count, for a procedure that ends before its caller's share does.
boost::shared_ptr<IFsFile> Borrowed(const boost::shared_ptr<IFsFile>& file) noexcept {
  return boost::shared_ptr<IFsFile>(boost::shared_ptr<IFsFile>(), file.get());
}

}  // namespace

CAsyncFsFileWrapper::CAsyncFsFileWrapper(boost::shared_ptr<IFsFile> file, boost::shared_ptr<CFsProcInvoker> invoker,
                                         boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator)
    : file_(std::move(file)),
      invoker_(std::move(invoker)),
      completionEventsAllocator_(std::move(completionEventsAllocator)) {}

/// Where the invoker is idle the caller's thread stands in for it: no allocation, no event, no hand-over.
template <typename Proc, typename... Args>
Proc CAsyncFsFileWrapper::Call(const Args&... arguments) {
  if (const CFsProcInvoker::CLoan loan(*invoker_); loan) {
    try {
      Proc proc(Borrowed(file_), arguments...);
      proc.Execute();
      return proc;
    } catch (const std::exception&) {
      throw;
    } catch (const abi::__forced_unwind&) {
      throw;
    } catch (...) {
      // As an invocation thread tells it.
      throw exc::runtime_exc_t("Unknown exception.");
    }
  }
  return CallQueued<Proc>(arguments...);
}

template <typename Proc, typename... Args>
Proc CAsyncFsFileWrapper::CallQueued(const Args&... arguments) {
  const auto proc = boost::make_shared<Proc>(file_, arguments...);
  invoker_->InvokeAndWait(proc, completionEventsAllocator_);
  return *proc;
}

void CAsyncFsFileWrapper::GetItemSpec(SFsItemSpec& spec) {
  spec = Call<CGetRestoreInfoProc>().Result();
}

void CAsyncFsFileWrapper::GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) {
  Call<CGetAttrsProc>(&attributes);
}

void CAsyncFsFileWrapper::SetPermissions(bool read, bool write) {
  Call<CChmodProc>(read, write);
}

void CAsyncFsFileWrapper::SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) {
  Call<CSetTimeProc>(creation, lastAccess, lastWrite);
}

bool CAsyncFsFileWrapper::Exists() {
  return Call<CCheckExistsProc>().Result();
}

bool CAsyncFsFileWrapper::GetMountUid(GUID& mountUid) {
  return Call<CGetRfsIdProc>(&mountUid).Result();
}

bool CAsyncFsFileWrapper::IsAddressAllowed(const sockaddr_in& address) {
  return Call<CIsAccessAllowedProc>(address).Result();
}

std::string CAsyncFsFileWrapper::GetAllowedHostAddr() {
  return Call<CGetAllowedAddrListProc>().Result();
}

void CAsyncFsFileWrapper::Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) {
  Call<CReadFileProc>(offset, count, &buffer);
}

void CAsyncFsFileWrapper::Write(std::uint64_t offset, std::uint32_t count, const void* data) {
  Call<CWriteFileProc>(offset, count, data);
}

void CAsyncFsFileWrapper::WritePipe(std::uint64_t offset, std::uint32_t count, const void* data,
                                    platform::kernel_pipe_t& rest) {
  Call<CWriteFileProc>(offset, count, data, &rest);
}

void CAsyncFsFileWrapper::Resize(std::uint64_t newSize) {
  Call<CResizeProc>(newSize);
}

void CAsyncFsFileWrapper::AsyncRead(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer,
                                    boost::shared_ptr<IFsProcCompletionCallback> callback) {
  invoker_->Invoke(boost::make_shared<CReadFileProc>(file_, offset, count, &buffer), std::move(callback));
}

void CAsyncFsFileWrapper::AsyncWrite(std::uint64_t offset, std::uint32_t count, const void* data,
                                     boost::shared_ptr<IFsProcCompletionCallback> callback) {
  invoker_->Invoke(boost::make_shared<CWriteFileProc>(file_, offset, count, data), std::move(callback));
}
