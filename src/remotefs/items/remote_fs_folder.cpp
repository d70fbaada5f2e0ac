#include "remotefs/items/remote_fs_folder.h"

#include <boost/make_shared.hpp>
#include <utility>

#include "foundation/log.h"
#include "platform/clock.h"
#include "platform/location.h"
#include "platform/text.h"
#include "remotefs/items/remote_fs_file.h"
#include "vfs/items/async_fs_file_wrapper.h"

namespace {

constexpr std::uint32_t LookupFailurePeriodMs = 1800000;

/// Milliseconds that come round after 49 days.
std::uint32_t TickCount() {
  return static_cast<std::uint32_t>(platform::Clock().MonotonicMilliseconds());
}

bool IsRecent(std::uint32_t last, std::uint32_t now) {
  return last == now || (now > last && now - last < LookupFailurePeriodMs);
}

}  // namespace

CRemoteFsFolder::CRemoteFsFolder(boost::shared_ptr<CRemoteFsConnector> connector, std::string path,
                                 const GUID& mountUid)
    : CRemoteFsItem(std::move(connector), std::move(path), mountUid) {}

void CRemoteFsFolder::GetItemSpec(SFsItemSpec& spec) {
  spec = SFsItemSpec{};
  spec.isFolder = true;
  spec.isRfsItem = true;
  spec.path = path_;
  spec.mountUid = mountUid_;
}

void CRemoteFsFolder::GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) {
  attributes = WIN32_FILE_ATTRIBUTE_DATA{};
  attributes.attributes = platform::FileAttributeDirectory;
  times_.CopyTo(attributes);
}

bool CRemoteFsFolder::IsAvailable() {
  return connector_->IsConnected();
}

void CRemoteFsFolder::Enumerate(SFsEnumeration& enumeration) {
  enumeration = SFsEnumeration{};
  enumeration.mountUid = mountUid_;
  enumeration.unavailable = true;
  if (!connector_->IsConnected())
    return;
  try {
    const CRemoteVfsClientHolder client = connector_->GetClient();
    const auto items = path_.empty() ? client->Enumerate() : client->Enumerate(path_);
    enumeration.names.reserve(items->Size());
    for (const remotevfs::VfsItem& item : items->Items())
      enumeration.names.push_back(item.name);
    enumeration.unavailable = false;
  } catch (const std::exception& failure) {
    g_nfs_log.Warning("Failed to enumerate items of the folder [%1]. Pipe: [%2].", failure, path_,
                      connector_->GetConfig()->pipe);
  }
}

boost::shared_ptr<IFsItem> CRemoteFsFolder::CreateFile(const std::string& name,
                                                       const std::string& /*allowedHostAddr*/) {
  throw exc::runtime_exc_t("[RemoteFS] CreateFile() function is not supported. File name: [%1].", name);
}

boost::shared_ptr<IFsItem> CRemoteFsFolder::CreateSubfolder(const std::string& name,
                                                            const std::string& /*allowedHostAddr*/) {
  throw exc::runtime_exc_t("[RemoteFS] CreateSubfolder() function is not supported. Folder name: [%1].", name);
}

std::string CRemoteFsFolder::ChildPath(const std::string& name) const {
  return path_.empty() ? name : path_ + "//" + name;
}

boost::shared_ptr<IFsItem> CRemoteFsFolder::Wrap(const boost::shared_ptr<IFsFile>& file) const {
  return boost::make_shared<CAsyncFsFileWrapper>(file, connector_->GetInvoker(), connector_->GetAllocator());
}

boost::shared_ptr<IFsItem> CRemoteFsFolder::OpenFile(const std::string& name) {
  const std::string path = ChildPath(name);
  SRemoteHandle handle;
  {
    // Free again before the file asks for its size.
    const CRemoteVfsClientHolder client = connector_->GetClient();
    handle = {client->Open(path), client.Connection()};
  }
  if (handle.handle == SRemoteHandle::None)
    return {};
  auto file = Wrap(boost::make_shared<CRemoteFsFile>(connector_, path, mountUid_, handle, 0));
  const std::lock_guard lock(lookupLock_);
  lookupFailTicks_.erase(name);
  return file;
}

boost::shared_ptr<IFsItem> CRemoteFsFolder::TryOpen(const std::string& name, bool& hasFailed) {
  hasFailed = false;
  // No agent is asked for what can be no entry of a folder.
  if (!platform::IsPlainName(name) || !platform::IsValidUtf8(name))
    return {};
  try {
    return OpenFile(name);
  } catch (const std::exception& failure) {
    ProcessLookupFail(name, failure);
    hasFailed = true;
    return {};
  }
}

boost::shared_ptr<IFsItem> CRemoteFsFolder::OpenChild(const std::string& name) {
  bool hasFailed = false;
  return TryOpen(name, hasFailed);
}

void CRemoteFsFolder::ProcessLookupFail(const std::string& name, const std::exception& failure) noexcept {
  try {
    const std::uint32_t now = TickCount();
    {
      const std::lock_guard lock(lookupLock_);
      const auto known = lookupFailTicks_.find(name);
      if (known != lookupFailTicks_.end() && IsRecent(known->second, now))
        return;
      if (lookupFailTicks_.size() >= MaxLookupFailures)
        lookupFailTicks_.clear();
      lookupFailTicks_.insert_or_assign(name, now);
    }
    g_nfs_log.Error("Failed to find RFS item [%1].", failure, name);
  } catch (const std::exception& second) {
    g_nfs_log.Error("CRemoteFsFolder::ProcessLookupFail", second);
  }
}

boost::shared_ptr<IFsItem> CRemoteFsFolder::MakePlaceholder(const SFsItemSpec& spec) const {
  if (spec.isFolder)
    return boost::make_shared<CRemoteFsFolder>(connector_, spec.path, mountUid_);
  return Wrap(boost::make_shared<CRemoteFsFile>(connector_, spec.path, mountUid_, SRemoteHandle{}, spec.rfsSize));
}

boost::shared_ptr<IFsItem> CRemoteFsFolder::ResumeChild(const std::string& name, const SFsItemSpec& spec) {
  if (!connector_->IsConnected())
    return MakePlaceholder(spec);
  bool hasFailed = false;
  auto child = TryOpen(name, hasFailed);
  // An agent that fails has not said that the file is gone, and hosts hold its handle.
  return hasFailed ? MakePlaceholder(spec) : child;
}

void CRemoteFsFolder::DeleteChild(const std::string& name) {
  throw exc::runtime_exc_t("[RemoteFS] DeleteChild() function is not supported. Child item name: [%1]. Folder: [%2].",
                           name, path_);
}

void CRemoteFsFolder::RenameChild(const std::string& oldName, const std::string& newName) {
  throw exc::runtime_exc_t(
      "[RemoteFS] RenameChild() function is not supported. Old child item name: [%1]. New child item name: [%2]. "
      "Folder: [%3].",
      oldName, newName, path_);
}
