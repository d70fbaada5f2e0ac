// READ and WRITE.
#include "foundation/log.h"
#include "vfs/items/fs_proc.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/table/nfs_log_filter.h"
#include "vfs/virtual_fs/operation.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

void CheckDataLength(const WRITE3args& args) {
  const std::size_t size = args.DataSize();
  if (size >= args.count)
    return;
  throw CVirtualFsExc("Length of the area to rewrite (%1) exceed the size of the provided data buffer (%2).",
                      std::to_string(args.count), std::to_string(size), NFS3ERR_INVAL);
}

const void* Pointer(std::span<const std::uint8_t> data) {
  return data.empty() ? nullptr : data.data();
}

/// Data that is still in the kernel goes on from there, where the file takes it so and all of it is to be written.
void WriteData(IFsFile& file, const WRITE3args& args) {
  if (args.reader != nullptr && file.TakesPipes()) {
    if (args.DataSize() >= platform::kernel_pipe_t::Least)
      args.reader->WantRest();
    if (platform::kernel_pipe_t* const rest = args.Rest(); rest != nullptr && args.count == args.DataSize())
      return file.WritePipe(args.offset, args.count, Pointer(args.data), *rest);
  }
  file.Write(args.offset, args.count, Pointer(args.GatherData()));
}

}  // namespace

nfsstat3 CVirtualFs::Read(const nfs_fh3& handle, std::uint64_t offset, std::uint32_t count,
                          SFsReadBuffer& buffer) noexcept {
  std::uint64_t fid = InvalidFid;
  try {
    fid = FidFromHandle(handle);
    const auto item = itemsTab_->GetItem(fid);
    if (!item)
      throw CVirtualFsExc(NFS3ERR_NOENT);
    auto* const file = dynamic_cast<IFsFile*>(item.get());
    if (file == nullptr)
      throw CVirtualFsExc("The specified item is not file.", NFS3ERR_NOTSUPP);
    file->Read(offset, count, buffer);
    return NFS3_OK;
  } catch (const std::exception& failure) {
    LogReadFailure(fid, offset, failure);
    return StatusFromException(failure);
  }
}

void CVirtualFs::LogReadFailure(std::uint64_t fid, std::uint64_t offset, const std::exception& failure) noexcept {
  try {
    if (!logFilter_->AdmitRead(fid))
      return;
    g_nfs_log.Error("[Read] Failed to retrieve item content. Item: [%1]. Offset: [%2].", failure,
                    itemsTab_->GetItemPath(fid), offset);
  } catch (const std::exception&) {
    // Without memory for the line the client still gets its answer.
  }
}

void CVirtualFs::LogWriteFailure(std::uint64_t fid, std::uint64_t offset, const std::exception& failure) noexcept {
  try {
    if (!logFilter_->AdmitWrite(fid))
      return;
    g_nfs_log.Error("[Write] Failed to write to the file. Item: [%1]. Offset: [%2].", failure,
                    itemsTab_->GetItemPath(fid), offset);
  } catch (const std::exception&) {
    // Without memory for the line the client still gets its answer.
  }
}

void CVirtualFs::Write(const WRITE3args& args, WRITE3res& result) noexcept {
  std::uint64_t fid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        CheckDataLength(args);
        fid = FidFromHandle(args.file);
        const auto item = itemsTab_->GetItem(fid);
        if (!item)
          throw CVirtualFsExc(NFS3ERR_NOENT);
        auto* const file = dynamic_cast<IFsFile*>(item.get());
        if (file == nullptr)
          throw exc::runtime_exc_t("The specified item is folder.");
        WriteData(*file, args);
        result = WRITE3res{};
        result.count = args.count;
        result.committed = FILE_SYNC;
      },
      [&](const std::exception& failure, nfsstat3) { LogWriteFailure(fid, args.offset, failure); });
}

void CVirtualFs::AsyncRead(const nfs_fh3& handle, std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer,
                           const boost::shared_ptr<IFsProcCompletionCallback>& callback) {
  const auto item = itemsTab_->GetItem(FidFromHandle(handle));
  if (!item)
    throw CVirtualFsExc(NFS3ERR_NOENT);
  auto* const file = dynamic_cast<IFsAsyncFile*>(item.get());
  if (file == nullptr)
    throw CVirtualFsExc("The specified item is not an asynchronous file.", NFS3ERR_NOTSUPP);
  file->AsyncRead(offset, count, buffer, callback);
}

void CVirtualFs::AsyncWrite(const WRITE3args& args,
                            const boost::shared_ptr<IFsProcCompletionCallback>& callback) noexcept {
  std::uint64_t fid = InvalidFid;
  try {
    CheckDataLength(args);
    fid = FidFromHandle(args.file);
    const auto item = itemsTab_->GetItem(fid);
    if (!item)
      throw CVirtualFsExc(NFS3ERR_NOENT);
    auto* const file = dynamic_cast<IFsAsyncFile*>(item.get());
    if (file == nullptr)
      throw exc::runtime_exc_t("The specified item does not support async file access.");
    file->AsyncWrite(args.offset, args.count, Pointer(args.GatherData()), callback);
  } catch (const std::exception& failure) {
    LogWriteFailure(fid, args.offset, failure);
    try {
      callback->OnFailed(failure);
    } catch (const std::exception& second) {
      g_nfs_log.Error("Failed to handle failure with file write operation.", second);
    }
  }
}
