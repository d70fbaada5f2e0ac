#include "hostfs/host_fs_folder.h"

#include <boost/make_shared.hpp>
#include <mutex>
#include <set>

#include "config/address_checker.h"
#include "config/address_checker_factory.h"
#include "config/reg_options_cache.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "hostfs/files_access_permissions.h"
#include "hostfs/host_folders.h"
#include "hostfs/host_fs_file.h"
#include "hostfs/host_fs_file_cache.h"
#include "hostfs/host_fs_item.h"
#include "platform/text.h"
#include "vfs/items/async_fs_file_wrapper.h"
#include "vfs/items/virtual_fs_exc.h"

namespace error = platform::error;
using location_ptr_t = boost::shared_ptr<const platform::location_t>;

namespace {

constexpr std::size_t MaxWarnedFolders = 1000;

void CheckAccess(const platform::location_t& where) {
  security::FilesAccessPermissions().CheckAccess(where.Path());
}

/// For names that are to stand for an entry afterwards, or for one that is taken away.
void CheckNotDots(const std::string& name) {
  host_fs_item::CheckUtf8(name);
  if (name.empty() || name == "." || name == "..") {
    throw CVirtualFsExc(NFS3ERR_INVAL);
  }
}

void CheckNewName(const std::string& name) {
  CheckNotDots(name);
  if (!platform::IsPlainName(name)) {
    throw CVirtualFsExc(NFS3ERR_INVAL);
  }
}

/// One line a folder, however often it is listed.
void WarnOfCaseVariants(const std::string& folder, const std::vector<std::string>& hidden) {
  static std::mutex lock;
  static std::set<std::string> warned;
  {
    const std::lock_guard<std::mutex> guard(lock);
    if (warned.size() >= MaxWarnedFolders) {
      warned.clear();
    }
    if (!warned.insert(folder).second) {
      return;
    }
  }
  g_nfs_log.Warning("Folder [%1] has entries that differ only by case; [%2] and %3 more are not seen.", folder,
                    hidden.front(), hidden.size() - 1);
}

/// What clients can name; the others cost themselves alone, and one line together.
void KeepUsableNames(const std::string& folder, std::vector<std::string>& names) {
  std::size_t nameless = 0;
  std::erase_if(names, [&nameless](const std::string& name) {
    const bool isText = platform::IsValidUtf8(name);
    nameless += isText ? 0 : 1;
    return !isText || !platform::IsPlainName(name);
  });
  if (nameless != 0) {
    const exc::win_sys_exc_t failure("Unicode string cannot be converted to UTF8 string.", error::NoUnicodeTranslation);
    g_nfs_log.Exception(logging::level_t::Warning,
                        exc::FormatText("Folder [%1] has %2 entries without a name.", folder, nameless), failure);
  }
}

/// What is open of an entry that is renamed or deleted.
enum class handles_t {
  Own,    ///< Of the entry itself.
  Below,  ///< And of what lies below it.
  Any,    ///< Under whatever path: that of the entry is not the only one that leads to what lies below it.
};

/// To be asked while the entry is there.
handles_t HandlesOf(const platform::location_t& where, bool isFolder, platform::files_t& files) {
  if (!isFolder) {
    return handles_t::Own;
  }
  return files.PassesLink(where) ? handles_t::Any : handles_t::Below;
}

void DropHandles(const platform::location_t& where, const platform::file_id_t& id, handles_t handles) {
  if (handles == handles_t::Any) {
    HostFsFileCache::RemoveAll();
    return;
  }
  HostFsFileCache::RemoveEntry(where.Path(), id);
  if (handles == handles_t::Below) {
    HostFsFileCache::RemoveSubtree(where.Path());
  }
}

platform::error_t DeleteFound(const platform::location_t& where, const platform::file_id_t& id, bool isFolder,
                              platform::files_t& files) {
  const handles_t handles = HandlesOf(where, isFolder, files);
  // Dropped once more afterwards: a call under way may have opened the entry again before it went.
  DropHandles(where, id, handles);
  platform::error_t failure = error::Success;
  if (isFolder) {
    DeleteHostFolderTree(where, files);
  } else {
    failure = files.DeleteFile(where);
  }
  DropHandles(where, id, handles);
  return failure;
}

/// The node of an entry that is about to be deleted, which comes back unless it was.
class CTakenChild {
 public:
  CTakenChild(CHostFsNode& folder, const std::string& name) : folder_(folder), child_(folder.TakeChild(name)) {}
  CTakenChild(const CTakenChild&) = delete;
  CTakenChild& operator=(const CTakenChild&) = delete;
  ~CTakenChild() {
    if (child_)
      folder_.PutBack(child_);
  }
  void IsGone() {
    if (child_)
      folder_.ChildIsGone(*child_);
    child_.reset();
  }

 private:
  CHostFsNode& folder_;
  CHostFsNodePtr child_;
};

boost::shared_ptr<IAddressChecker> MakeChecker(const std::string& allowedHostAddr) {
  return CAddressCheckerFactory::Get()->CreateItemChecker(allowedHostAddr);
}

SFsFolderState AsItemState(const platform::folder_state_t& state) {
  return {state.id.device, state.id.inode, state.changed.tv_sec, state.changed.tv_nsec};
}

CRegOptionsCache& RootFolderOption() {
  static CRegOptionsCache option;
  return option;
}

}  // namespace

boost::shared_ptr<CHostFsFolder> CHostFsFolder::Create(const std::string& path,
                                                       boost::shared_ptr<CFsProcInvoker> invoker,
                                                       boost::shared_ptr<CCompletionEventsAllocator> allocator,
                                                       const std::string& allowedHostAddr, bool isRootFolder,
                                                       platform::files_t& files) {
  return boost::make_shared<CHostFsFolder>(
      CHostFsNode::CreateRoot(path, files), std::move(invoker), std::move(allocator),
      CAddressCheckerFactory::Get()->CreateItemChecker(allowedHostAddr), isRootFolder);
}

CHostFsFolder::CHostFsFolder(CHostFsNodePtr node, boost::shared_ptr<CFsProcInvoker> invoker,
                             boost::shared_ptr<CCompletionEventsAllocator> allocator,
                             boost::shared_ptr<IAddressChecker> addressChecker, bool isRootFolder)
    : node_(std::move(node)),
      invoker_(std::move(invoker)),
      allocator_(std::move(allocator)),
      addressChecker_(std::move(addressChecker)),
      isRootFolder_(isRootFolder) {}

CHostFsFolder::CHostFsFolder(CHostFsNodePtr node, boost::shared_ptr<CFsProcInvoker> invoker,
                             boost::shared_ptr<CCompletionEventsAllocator> allocator, bool isRootFolder)
    : CHostFsFolder(std::move(node), std::move(invoker), std::move(allocator), nullptr, isRootFolder) {}

void CHostFsFolder::GetItemSpec(SFsItemSpec& spec) {
  spec = SFsItemSpec{};
  spec.path = node_->Path();
  spec.isFolder = true;
  spec.allowedHostAddr = GetAllowedHostAddr();
}

bool CHostFsFolder::RestoreRootFolder() {
  const std::string configured = RootFolderOption().Get();
  const std::string path = node_->Path();
  if (!platform::EqualIgnoringCase(path, platform::NormalizePath(configured))) {
    return false;
  }
  g_nfs_log.Warning("Root NFS directory doesn't exist: Restoring directory '%1'", path);
  CreateHostFolderChain(path, node_->Files());
  return true;
}

void CHostFsFolder::GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) {
  platform::error_t failure = host_fs_item::TryGetAttributes(*node_, attributes);
  const bool isGone = failure == error::FileNotFound || failure == error::PathNotFound;
  if (isGone && RestoreRootFolder()) {
    failure = host_fs_item::TryGetAttributes(*node_, attributes);
  }
  if (failure != error::Success) {
    host_fs_item::ThrowNoAttributes(*node_, failure);
  }
}

void CHostFsFolder::SetPermissions(bool /*read*/, bool write) {
  host_fs_item::SetPermissions(*node_, write);
}

void CHostFsFolder::SetTimes(const FILETIME* /*creation*/, const FILETIME* /*lastAccess*/,
                             const FILETIME* /*lastWrite*/) {
  throw exc::runtime_exc_t("Failed to update folder modification/access/creation times (%1).", node_->Path());
}

bool CHostFsFolder::Exists() {
  // The root of the file system is there, whatever a search for it says.
  const location_ptr_t where = node_->Location();
  return (where && where->Path() == "/") || host_fs_item::Exists(*node_);
}

bool CHostFsFolder::GetMountUid(GUID& /*mountUid*/) {
  return false;
}

bool CHostFsFolder::IsAddressAllowed(const sockaddr_in& address) {
  return host_fs_item::IsAddressAllowed(addressChecker_.get(), address);
}

std::string CHostFsFolder::GetAllowedHostAddr() {
  return host_fs_item::AddressText(addressChecker_.get());
}

bool CHostFsFolder::IsAddressListEmpty() {
  return !addressChecker_ || addressChecker_->IsEmpty();
}

bool CHostFsFolder::IsRootFolder() {
  return isRootFolder_;
}

std::string CHostFsFolder::ChildPath(const std::string& name) const {
  return node_->Path() + "/" + name;
}

void CHostFsFolder::Enumerate(SFsEnumeration& enumeration) {
  enumeration = SFsEnumeration{};
  platform::folder_listing_t listing;
  const platform::error_t failure = node_->AtLocation([&](const location_ptr_t& where) {
    CheckAccess(*where);
    return node_->Files().List(*where, listing);
  });
  const bool isEmpty =
      failure == error::FileNotFound || failure == error::PathNotFound || failure == error::NoMoreFiles;
  if (failure != error::Success && !isEmpty) {
    const std::string text = exc::FormatText("File search operation has failed. Search mask: [%1].", ChildPath("*"));
    const exc::win_sys_exc_t exception(text, failure);
    g_nfs_log.Exception(logging::level_t::Error, text, exception);
    throw exception;
  }
  if (!listing.hidden.empty()) {
    WarnOfCaseVariants(node_->Path(), listing.hidden);
  }
  KeepUsableNames(node_->Path(), listing.names);
  enumeration.names = std::move(listing.names);
  if (listing.state) {
    enumeration.state = AsItemState(*listing.state);
  }
}

std::optional<SFsFolderState> CHostFsFolder::GetState() {
  platform::folder_state_t state;
  const platform::error_t failure =
      node_->AtLocation([&](const location_ptr_t& where) { return node_->Files().GetFolderState(*where, state); });
  return failure == error::Success ? std::optional(AsItemState(state)) : std::nullopt;
}

boost::shared_ptr<IFsItem> CHostFsFolder::MakeItem(const CHostFsNodePtr& node, bool isFolder,
                                                   const boost::shared_ptr<IAddressChecker>& checker) {
  if (isFolder) {
    return boost::make_shared<CHostFsFolder>(node, invoker_, allocator_, checker, false);
  }
  return boost::make_shared<CAsyncFsFileWrapper>(boost::make_shared<CHostFsFile>(node, checker), invoker_, allocator_);
}

CHostFsNodePtr CHostFsFolder::FindChild(const std::string& name, bool& isFolder) {
  host_fs_item::CheckUtf8(name);
  if (!platform::IsPlainName(name)) {
    return nullptr;
  }
  platform::file_info_t info;
  const platform::error_t failure = node_->AtLocation([&](const location_ptr_t& where) {
    const platform::location_t child = where->Child(name);
    CheckAccess(child);
    return node_->Files().GetInfo(child, info);
  });
  if (host_fs_item::MeansAbsent(failure)) {
    return nullptr;
  }
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to retrieve attributes of the file [%1]", ChildPath(name)),
                             failure);
  }
  isFolder = info.attributes.IsDirectory();
  return node_->Child(info.name);
}

boost::shared_ptr<IFsItem> CHostFsFolder::OpenChild(const std::string& name) {
  bool isFolder = false;
  const CHostFsNodePtr child = FindChild(name, isFolder);
  // A checker of equal text would be a lookup for each entry of a listing. An empty one has no text to hand down.
  const bool isInherited = addressChecker_ && !addressChecker_->IsEmpty();
  return child ? MakeItem(child, isFolder, isInherited ? addressChecker_ : MakeChecker({})) : nullptr;
}

boost::shared_ptr<IFsItem> CHostFsFolder::ResumeChild(const std::string& name, const SFsItemSpec& spec) {
  bool isFolder = false;
  const CHostFsNodePtr child = FindChild(name, isFolder);
  return child ? MakeItem(child, isFolder, MakeChecker(spec.allowedHostAddr)) : nullptr;
}

boost::shared_ptr<IFsItem> CHostFsFolder::CreateFile(const std::string& name, const std::string& allowedHostAddr) {
  CheckNewName(name);
  platform::files_t& files = node_->Files();
  std::string spelling;
  const platform::error_t failure = node_->AtLocation([&](const location_ptr_t& where) {
    platform::file_info_t info;
    CheckAccess(where->Child(name));
    // Mostly it is not there, and then there is no other spelling to be looked for.
    const platform::error_t created = HostFsFileCache::CreateNew(where->Child(name), files);
    if (created == error::Success) {
      node_->ChildIsMade(name);
    }
    if (created != error::AlreadyExists) {
      spelling = name;
      return created;
    }
    spelling = files.GetInfo(where->Child(name), info) == error::Success ? info.name : name;
    const platform::location_t target = where->Child(spelling);
    return HostFsFileCache::CreateOver(target, files);
  });
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to create or open file [%1].", ChildPath(name)), failure);
  }
  return MakeItem(node_->Child(spelling), false, MakeChecker(allowedHostAddr));
}

boost::shared_ptr<IFsItem> CHostFsFolder::CreateSubfolder(const std::string& name, const std::string& allowedHostAddr) {
  CheckNewName(name);
  platform::files_t& files = node_->Files();
  std::string spelling = name;
  const platform::error_t failure = node_->AtLocation([&](const location_ptr_t& where) {
    const platform::location_t target = where->Child(name);
    CheckAccess(target);
    const platform::error_t created = files.CreateFolder(target);
    if (created == error::Success) {
      node_->ChildIsMade(name);
    }
    platform::file_info_t info;
    // What is there already serves, as long as it is a folder.
    if (created != error::AlreadyExists || files.GetInfo(target, info) != error::Success ||
        !info.attributes.IsDirectory()) {
      return created;
    }
    spelling = info.name;
    return error::Success;
  });
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to create folder [%1]. Full path: %2", name, ChildPath(name)),
                             failure);
  }
  return MakeItem(node_->Child(spelling), true, MakeChecker(allowedHostAddr));
}

void CHostFsFolder::DeleteChild(const std::string& name) {
  CheckNotDots(name);
  if (!platform::IsPlainName(name)) {
    return;
  }
  platform::files_t& files = node_->Files();
  std::optional<CTakenChild> taken;
  const platform::error_t failure = node_->AtLocation([&](const location_ptr_t& where) {
    platform::file_info_t info;
    const platform::location_t child = where->Child(name);
    taken.reset();  // What was not found where this folder was before is looked for where it is now.
    CheckAccess(child);
    if (const platform::error_t found = files.FindEntry(child, info); found != error::Success) {
      return found;
    }
    // Who still has an item of it, moved elsewhere as it may be, must not find there what comes next.
    taken.emplace(*node_, info.name);
    return DeleteFound(where->Child(info.name), info.id, info.attributes.IsDirectory(), files);
  });
  // Whoever deleted it.
  const bool isGone = failure == error::Success || failure == error::FileNotFound || failure == error::PathNotFound;
  if (isGone && taken) {
    taken->IsGone();
  }
  if (!isGone) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to delete file: [%1].", ChildPath(name)), failure);
  }
}

void CHostFsFolder::RenameChild(const std::string& oldName, const std::string& newName) {
  CheckNotDots(oldName);
  CheckNewName(newName);
  platform::files_t& files = node_->Files();
  const auto rename = [&](const location_ptr_t& where) {
    platform::file_info_t source;
    platform::file_info_t target;
    CheckAccess(where->Child(oldName));
    CheckAccess(where->Child(newName));
    if (const platform::error_t failure = files.FindEntry(where->Child(oldName), source); failure != error::Success) {
      return failure;
    }
    const bool isTaken = files.FindEntry(where->Child(newName), target) == error::Success;
    const bool isFolder = source.attributes.IsDirectory();
    const std::string replaced = isTaken && target.name != source.name ? target.name : std::string();
    const platform::location_t from = where->Child(source.name);
    const platform::location_t to = where->Child(newName);
    const platform::location_t over = where->Child(replaced.empty() ? newName : replaced);
    const handles_t handles = HandlesOf(from, isFolder, files);
    const auto dropAll = [&] {
      DropHandles(from, source.id, handles);
      DropHandles(to, target.id, handles);
      if (!replaced.empty()) {
        DropHandles(over, target.id, handles);
      }
    };
    dropAll();
    return node_->RenameChild(source.name, newName, replaced, [&] {
      // This folder may have been moved since, and another one may be here.
      const location_ptr_t present = node_->Location();
      if (!present || present->Path() != where->Path()) {
        return error::FileNotFound;
      }
      const platform::error_t failure = files.Rename(from, to);
      // Again before the items follow: a call under way may have opened the old path before it was moved, and the
      // name may be given to another file.
      dropAll();
      return failure;
    });
  };
  const platform::error_t failure = platform::IsPlainName(oldName) ? node_->AtLocation(rename) : error::FileNotFound;
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(
        exc::FormatText("Failed to rename file from [%1] to [%2].", ChildPath(oldName), ChildPath(newName)), failure);
  }
}

platform::disk_space_t CHostFsFolder::GetDiskSpace() const {
  platform::disk_space_t space;
  const platform::error_t failure =
      node_->AtLocation([&](const location_ptr_t& where) { return node_->Files().GetDiskSpace(*where, space); });
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to retrieve free space of the folder [%1].", node_->Path()),
                             failure);
  }
  return space;
}

void CHostFsFolder::DeleteRecursively() {
  const location_ptr_t where = node_->Location();
  if (where) {
    // A folder is no file that could be open.
    DeleteFound(*where, {}, true, node_->Files());
  }
}
