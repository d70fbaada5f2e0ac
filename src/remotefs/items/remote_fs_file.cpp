#include "remotefs/items/remote_fs_file.h"

#include <utility>

#include "foundation/log.h"

namespace {

/// An agent answers a longer read in part, which would be taken for the end of the file, and takes no longer write.
constexpr std::uint32_t InvalidCount = 0x2800000;

void CheckCount(std::uint32_t count) {
  if (count >= InvalidCount)
    throw exc::runtime_exc_t("Specified  length of the file buffer is invalid: [%1].", count);
}

}  // namespace

CRemoteFsFile::CRemoteFsFile(boost::shared_ptr<CRemoteFsConnector> connector, std::string path, const GUID& mountUid,
                             const SRemoteHandle& handle, std::uint64_t sizeHint)
    : CRemoteFsItem(std::move(connector), std::move(path), mountUid), handle_(handle) {
  attributes_.attributes = platform::FileAttributeNormal;
  attributes_.SetSize(sizeHint);
  times_.CopyTo(attributes_);
  if (handle.handle == SRemoteHandle::None) {
    g_nfs_log.Info("[RFS] Item [%1] mounted in disconnected state. Size hint: [%2].", path_, sizeHint);
    return;
  }
  try {
    RefreshAttributes();
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to open file [%1] using pipe [%2].", failure, path_, connector_->GetConfig()->pipe);
  }
}

void CRemoteFsFile::GetItemSpec(SFsItemSpec& spec) {
  spec = SFsItemSpec{};
  spec.isRfsItem = true;
  spec.mountUid = mountUid_;
  spec.path = path_;
  const std::lock_guard lock(lock_);
  spec.rfsSize = attributes_.Size();
}

void CRemoteFsFile::RefreshAttributes() {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  attributes.attributes = platform::FileAttributeNormal;
  times_.CopyTo(attributes);
  {
    // Whatever comes of asking for the size, the times are those of now.
    const std::lock_guard lock(lock_);
    attributes.sizeHigh = attributes_.sizeHigh;
    attributes.sizeLow = attributes_.sizeLow;
    attributes_ = attributes;
  }
  const CRemoteVfsClientHolder client = connector_->GetClient();
  const std::uint64_t size = client->GetSize(HandleOn(client));
  const std::lock_guard lock(lock_);
  attributes_.SetSize(size);
}

void CRemoteFsFile::GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) {
  try {
    RefreshAttributes();
  } catch (const std::exception&) {
    // The agent is away: a host that sees the file as it was keeps it open until the agent is back.
  }
  const std::lock_guard lock(lock_);
  attributes = attributes_;
}

void CRemoteFsFile::Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) {
  CheckCount(count);
  times_.NoteRead();
  // Received where it leaves from.
  remotevfs::Buffer reply(std::move(buffer.data));
  {
    const CRemoteVfsClientHolder client = connector_->GetClient();
    client->Read(HandleOn(client), offset, count, reply, buffer.pipe.get());
  }
  const std::size_t size = reply.ActualSize();
  if (size > count)
    throw exc::runtime_exc_t("The restore agent has read [%1] bytes of item [%2] where [%3] were asked for.", size,
                             path_, count);
  buffer.isInPipe = buffer.pipe != nullptr && buffer.pipe->Held() != 0;
  buffer.data = reply.Release();
  buffer.length = static_cast<std::uint32_t>(size);
  buffer.eof = buffer.length != count;
}

void CRemoteFsFile::WriteFrom(std::uint64_t offset, std::uint32_t count, const void* data,
                              platform::kernel_pipe_t* rest) {
  CheckCount(count);
  times_.NoteWrite();
  const CRemoteVfsClientHolder client = connector_->GetClient();
  const std::int32_t written = client->Write(HandleOn(client), offset, count, data, rest);
  // The guest is told that all of it is on stable storage.
  if (written < 0 || static_cast<std::uint32_t>(written) != count) {
    throw exc::runtime_exc_t("The restore agent has written [%1] of [%2] bytes to item [%3].", written, count, path_);
  }
}

void CRemoteFsFile::Resize(std::uint64_t /*newSize*/) {
  throw exc::runtime_exc_t("[Remote FS] Resize() procedure is not supported.");
}

void CRemoteFsFile::Reopen(bool& notFound) {
  const CRemoteVfsClientHolder client = connector_->GetClient();
  std::int32_t handle = SRemoteHandle::None;
  notFound = !OpenOn(client, handle);
}

SRemoteHandle CRemoteFsFile::Handle() const {
  const std::lock_guard lock(lock_);
  return handle_;
}

std::int32_t CRemoteFsFile::HandleOn(const CRemoteVfsClientHolder& client) {
  SRemoteHandle handle = Handle();
  if (handle.connection != client.Connection() && !OpenOn(client, handle.handle))
    throw exc::runtime_exc_t("The restore agent has no item [%1] any more.", path_);
  return handle.handle;
}

bool CRemoteFsFile::OpenOn(const CRemoteVfsClientHolder& client, std::int32_t& handle) {
  handle = client->Open(path_);
  if (handle == SRemoteHandle::None)
    return false;
  const std::lock_guard lock(lock_);
  handle_ = {handle, client.Connection()};
  return true;
}
