// Finding, making, removing and renaming entries of folders.
#include <utility>

#include "foundation/log.h"
#include "platform/text.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/table/nfs_log_filter.h"
#include "vfs/virtual_fs/operation.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

/// A child as the table knows it, with its FID; empty and InvalidFid for an unknown name. Throws for an orphan.
boost::shared_ptr<IFsItem> KnownChild(const CFsItemsTab& tab, std::uint64_t parentFid, const std::string& name,
                                      std::uint64_t& fid) {
  for (;;) {
    if (auto item = tab.GetChild(parentFid, name, fid))
      return item;
    if (fid == InvalidFid)
      return {};
    // Another client may have removed it between the two looks; only an entry that stays is an orphan.
    if (tab.LookupChild(parentFid, name) == fid) {
      throw CVirtualFsExc(" FID [%1] is registered in the items table but it does not refer to valid item.",
                          tab.GetItemPath(fid), NFS3ERR_NOENT);
    }
  }
}

/// Whether it is known that the item is there no more. One that is just being deleted may yet stay.
bool IsGone(IFsItem& item) {
  try {
    return !item.Exists();
  } catch (const std::exception&) {
    return false;
  }
}

/// Whether the item stands where it was made or found, as far as can be told: neither removed nor renamed since.
bool StillHasName(IFsItem& item, const std::string& name) {
  try {
    if (!item.Exists())
      return false;
    SFsItemSpec spec;
    item.GetItemSpec(spec);
    return platform::EqualIgnoringCase(spec.path.substr(spec.path.rfind('/') + 1), name);
  } catch (const std::exception&) {
    return true;
  }
}

/// Shows a rename to lookups and listings that run beside it.
class CRenameMark {
 public:
  CRenameMark(std::atomic<std::uint64_t>& begun, std::atomic<std::uint64_t>& ended) : ended_(ended) { ++begun; }
  CRenameMark(const CRenameMark&) = delete;
  CRenameMark& operator=(const CRenameMark&) = delete;
  ~CRenameMark() { ++ended_; }

 private:
  std::atomic<std::uint64_t>& ended_;
};

}  // namespace

void CheckNameEncoding(const std::string& name) {
  if (platform::IsValidUtf8(name))
    return;
  throw exc::win_sys_exc_t("Failed to convert string from UTF-8.", platform::error::NoUnicodeTranslation);
}

std::uint64_t CVirtualFs::FindChild(std::uint64_t parentFid, const std::string& name,
                                    boost::shared_ptr<IFsItem>* found) {
  if (!IsEntryName(name))
    return InvalidFid;
  CheckNameEncoding(name);
  std::uint64_t fid = InvalidFid;
  if (auto item = KnownChild(*itemsTab_, parentFid, name, fid)) {
    if (item->Exists()) {
      itemsTab_->RequireStored(fid);
      if (found != nullptr)
        *found = std::move(item);
      return fid;
    }
    g_nfs_log.Info(
        "Item [%1] is registered in the Nfs hierarchy but the corresponding object on the disk was already deleted.",
        itemsTab_->GetItemPath(fid));
    if (IsDotName(name)) {
      itemsTab_->RemoveItem(fid);
      return InvalidFid;
    }
    // Another client may have met the same and been faster, and may have made it again.
    itemsTab_->RemoveChildIf(parentFid, name, fid, item.get());
  } else if (IsDotName(name)) {
    return InvalidFid;
  }

  std::vector<boost::shared_ptr<IFsFolder>> mirrors;
  itemsTab_->GetFolderMirrors(parentFid, mirrors);
  for (const auto& folder : mirrors) {
    const std::uint64_t renamesEnded = renamesEnded_;
    const auto child = folder->OpenChild(name);
    const std::uint64_t added = child ? itemsTab_->AddFoundItem(parentFid, name, child, folder.get()) : InvalidFid;
    if (added == InvalidFid)
      continue;
    if (renamesBegun_ == renamesEnded || StillHasName(*child, name)) {
      if (found != nullptr)
        *found = itemsTab_->GetItem(added);
      return added;
    }
    // It was opened before a rename that took the name from it, and added after that. Another may have the name now.
    itemsTab_->RemoveChildIf(parentFid, name, added, child.get());
    return FindChild(parentFid, name, found);
  }
  return InvalidFid;
}

CVirtualFs::SPlace CVirtualFs::LookAt(std::uint64_t parentFid, const std::string& name) const {
  SPlace place;
  place.renamesEnded = renamesEnded_;
  place.item = itemsTab_->GetChild(parentFid, name, place.fid);
  return place;
}

std::uint64_t CVirtualFs::AddMade(std::uint64_t parentFid, const std::string& name,
                                  const boost::shared_ptr<IFsItem>& made, SPlace place) {
  constexpr int MostAttempts = 16;
  std::uint64_t fid = InvalidFid;
  bool isDisturbed = renamesBegun_ != place.renamesEnded;
  for (int attempt = 0; attempt < MostAttempts; ++attempt) {
    if (isDisturbed) {
      place = LookAt(parentFid, name);
      if (!StillHasName(*made, name))
        return place.fid;
    }
    // Who has the handle of a file that another client just removed is not to have that of the new one.
    if (place.item && IsGone(*place.item)) {
      itemsTab_->RemoveChildIf(parentFid, name, place.fid, place.item.get());
      place.item.reset();
    }
    fid = itemsTab_->AddMadeItem(parentFid, name, made, place.item);
    if (fid == InvalidFid || itemsTab_->GetItem(fid) == made)
      break;
    // Something has come to the place since it was looked at: it is either an older look, or younger than what was
    // made.
    isDisturbed = true;
  }
  return fid;
}

void CVirtualFs::Lookup(const LOOKUP3args& args, const sockaddr_in& client, LOOKUP3res& result) noexcept {
  const std::string& name = args.what.name;
  std::uint64_t dirFid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        dirFid = FidFromHandle(args.what.dir);
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Searching directory [%1] for the item [%2]. Requested from %3.",
                            itemsTab_->GetItemPath(dirFid), name, AddressText(client));
        }
        const auto dir = itemsTab_->GetItem(dirFid);
        if (!dir)
          throw CVirtualFsExc("The specified folder does not exist.", NFS3ERR_NOENT);
        CheckAddress(*dir, client);
        boost::shared_ptr<IFsItem> item;
        const std::uint64_t fid = FindChild(dirFid, name, &item);
        if (fid == InvalidFid)
          throw CVirtualFsExc(NFS3ERR_NOENT);
        if (!item)
          throw CVirtualFsExc(NFS3ERR_STALE);
        CheckAddress(*item, client);
        g_nfs_log.Verbose("Item [%1] ID is [%2].", name, fid);
        result.object = HandleFromFid(fid);
        result.attributes = MakeFattr(fid, *item);
        result.dirAttributes = MakeFattr(dirFid, *dir);
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3 status) {
        if (!logFilter_->AdmitLookup(dirFid, name))
          return;
        const std::string folder = itemsTab_->GetItemPath(dirFid);
        if (status == NFS3ERR_NOENT) {
          g_nfs_log.Warning("[Lookup] Item \"%1\" does not exist. Folder: \"%2\".", name, folder);
        } else {
          g_nfs_log.Error(
              exc::FormatText("[Lookup] Failed to lookup item. Parent folder: [%1]. Item name: [%2].", folder, name),
              failure);
        }
      });
}

void CVirtualFs::CreateFile(const CREATE3args& args, const sockaddr_in& client, CREATE3res& result) noexcept {
  const std::string& name = args.where.name;
  std::uint64_t parentFid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        CheckNewName(name);
        parentFid = FidFromHandle(args.where.dir);
        const auto parent = itemsTab_->GetItem(parentFid);
        if (!parent)
          throw CVirtualFsExc("Parent folder does not exists.", NFS3ERR_NOENT);
        CheckAddress(*parent, client);
        if (args.how == EXCLUSIVE)
          throw CVirtualFsExc("Exclusive creation mode is not supported.", NFS3ERR_NOTSUPP);
        if (args.how == GUARDED && FindChild(parentFid, name) != InvalidFid) {
          throw CVirtualFsExc("File already exists.", NFS3ERR_EXIST);
        }
        const auto folder = AsFolder(parent);
        if (!folder)
          throw CVirtualFsExc("The specified item is not folder", NFS3ERR_NOTDIR);
        CheckNameEncoding(name);

        const bool isRestricted = !folder->IsRootFolder() && !folder->IsAddressListEmpty();
        itemsTab_->ReleasePlace(parentFid, name);
        SPlace before = LookAt(parentFid, name);
        const auto made = folder->CreateFile(name, isRestricted ? folder->GetAllowedHostAddr() : std::string());
        ApplyAttributes(*made, args.attributes);
        const std::uint64_t fid = AddMade(parentFid, name, made, std::move(before));
        // Else another client has removed or renamed it by now.
        if (const auto item = itemsTab_->GetItem(fid)) {
          result.object = HandleFromFid(fid);
          result.attributes = MakeFattr(fid, *item);
        }
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error("[Create] Failed to create item. Item name: [%1]. Parent: [%2].", failure, name,
                        itemsTab_->GetItemPath(parentFid));
      });
}

std::uint64_t CVirtualFs::MakeSubfolder(IFsFolder& folder, std::uint64_t parentFid, const std::string& name,
                                        const std::string& allowedHostAddr) {
  try {
    itemsTab_->ReleasePlace(parentFid, name);
    SPlace before = LookAt(parentFid, name);
    const auto made = folder.CreateSubfolder(name, allowedHostAddr);
    return AddMade(parentFid, name, made, std::move(before));
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to create subfolder [%1] of the folder  [%2].", failure, name,
                       itemsTab_->GetItemPath(parentFid));
  }
}

void CVirtualFs::CreateDir(const MKDIR3args& args, const sockaddr_in& client, MKDIR3res& result) noexcept {
  const std::string& name = args.where.name;
  std::uint64_t parentFid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Creating subfolder [%1] ( Parent folder: [%2]). Requested from %3.", name,
                            itemsTab_->GetItemPath(FidFromHandle(args.where.dir)), AddressText(client));
        }
        CheckNewName(name);
        parentFid = FidFromHandle(args.where.dir);
        const auto folder = AsFolder(itemsTab_->GetItem(parentFid));
        if (!folder)
          throw CVirtualFsExc("Parent folder does not exist.", NFS3ERR_NOENT);
        CheckAddress(*folder, client);
        CheckNameEncoding(name);

        // Unlike for a file, it is not asked whether the list is empty: an empty one is as good as none.
        const std::uint64_t fid = MakeSubfolder(*folder, parentFid, name,
                                                folder->IsRootFolder() ? std::string() : folder->GetAllowedHostAddr());
        const auto item = itemsTab_->GetItem(fid);
        if (!item)
          throw CVirtualFsExc("Folder was not registered in the items tab.", NFS3ERR_SERVERFAULT);
        result.object = HandleFromFid(fid);
        result.attributes = MakeFattr(fid, *item);
        result.dirWcc.after = result.attributes;  // The new folder's own: clients take them from here.
        result.status = NFS3_OK;
        g_nfs_log.Info("Subfolder is created. FID: [%1].", fid);
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error("[MkDir] Failed to create directory. Parent folder: [%1], subfolder: [%2].", failure,
                        itemsTab_->GetItemPath(parentFid), name);
      });
}

void CVirtualFs::Remove(const REMOVE3args& args, const sockaddr_in& client, REMOVE3res& result) noexcept {
  const std::string& name = args.object.name;
  std::uint64_t parentFid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        parentFid = FidFromHandle(args.object.dir);
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Removing item [%1] from folder [%2]. Requested from %3.", name,
                            itemsTab_->GetItemPath(parentFid), AddressText(client));
        }
        const auto parent = itemsTab_->GetItem(parentFid);
        if (!parent)
          throw CVirtualFsExc("Parent folder does not exist.", NFS3ERR_NOENT);
        CheckAddress(*parent, client);
        if (name.empty() || IsDotName(name))
          throw CVirtualFsExc(NFS3ERR_INVAL);
        const auto folder = AsFolder(parent);
        if (!folder)
          throw CVirtualFsExc(NFS3ERR_NOTDIR);
        if (IsEntryName(name)) {
          CheckNameEncoding(name);
          // Of what another client makes under the name meanwhile nothing is removed.
          std::uint64_t fid = InvalidFid;
          const auto child = itemsTab_->GetChild(parentFid, name, fid);
          folder->DeleteChild(name);
          itemsTab_->RemoveChildIf(parentFid, name, fid, child.get());
        }
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error("[Remove] Failed to remove item. Item name: [%1]. Parent: [%2].", failure, name,
                        itemsTab_->GetItemPath(parentFid));
      });
}

void CVirtualFs::RemoveDir(const RMDIR3args& args, const sockaddr_in& client, RMDIR3res& result) noexcept {
  const std::string& name = args.object.name;
  std::uint64_t parentFid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Deleting subfolder [%1] ( parent folder: [%2]). Requested from %3.", name,
                            itemsTab_->GetItemPath(FidFromHandle(args.object.dir)), AddressText(client));
        }
        if (name.empty() || IsDotName(name))
          throw CVirtualFsExc(NFS3ERR_INVAL);
        parentFid = FidFromHandle(args.object.dir);
        result.status = NFS3_OK;
        const std::uint64_t fid = FindChild(parentFid, name);
        if (fid == InvalidFid)
          return;

        const auto parent = itemsTab_->GetItem(parentFid);
        if (!parent)
          throw CVirtualFsExc("Parent folder does not exist.", NFS3ERR_NOENT);
        CheckAddress(*parent, client);
        const auto folder = AsFolder(parent);
        if (!folder) {
          throw CVirtualFsExc("Item [%1] is not folder.", itemsTab_->GetItemPath(parentFid), NFS3ERR_NOTDIR);
        }
        const auto child = itemsTab_->GetItem(fid);
        if (child && !AsFolder(child)) {
          throw CVirtualFsExc("Item [%1] is not folder.", itemsTab_->GetItemPath(fid), NFS3ERR_NOTDIR);
        }
        folder->DeleteChild(name);
        itemsTab_->RemoveChildIf(parentFid, name, fid, child.get());
        g_nfs_log.Info("Subfolder was deleted.");
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error("[RmDir] Failed to remove directory. Parent folder: [%1], subfolder: [%2].", failure,
                        itemsTab_->GetItemPath(parentFid), name);
      });
}

void CVirtualFs::RenameEntry(const RENAME3args& args, const sockaddr_in& client, std::uint64_t fromDir,
                             std::uint64_t toDir) {
  const std::string& fromName = args.from.name;
  const std::string& toName = args.to.name;
  if (IsDotName(fromName))
    throw CVirtualFsExc(NFS3ERR_INVAL);
  CheckNewName(toName);

  const std::uint64_t fid = FindChild(fromDir, fromName);
  if (fid == InvalidFid)
    throw CVirtualFsExc("Source item does not exist.", NFS3ERR_NOENT);
  const std::uint64_t target = FindChild(toDir, toName);
  const auto source = itemsTab_->GetItem(fromDir);
  if (!source)
    throw CVirtualFsExc("Parent folder does not exist.", NFS3ERR_NOENT);
  CheckAddress(*source, client);
  const auto folder = AsFolder(source);
  if (!folder)
    throw CVirtualFsExc(NFS3ERR_NOTDIR);
  // Nothing has changed yet: a place that the item cannot move to is refused before the backend acts.
  const auto destination = itemsTab_->GetItem(toDir);
  if (!destination)
    throw CVirtualFsExc("Parent folder does not exist.", NFS3ERR_NOENT);
  if (!AsFolder(destination))
    throw CVirtualFsExc(NFS3ERR_NOTDIR);
  if (itemsTab_->IsSameOrBelow(toDir, fid))
    throw CVirtualFsExc(NFS3ERR_INVAL);
  // Nor is the folder that it lies in to make way for it.
  if (target != InvalidFid && itemsTab_->IsSameOrBelow(fromDir, target))
    throw CVirtualFsExc(NFS3ERR_INVAL);

  // A rename to another spelling of its own name finds the item itself, which stays.
  if (target != InvalidFid && target != fid)
    itemsTab_->RemoveChildIf(toDir, toName, target);
  itemsTab_->ReleasePlace(toDir, toName, fid);
  // The backend renames inside the source folder, whatever the target folder is, and replaces what has the name there.
  if (fromDir != toDir) {
    itemsTab_->ReleasePlace(fromDir, toName, fid);
    // Gone before what has its name is another file: the process may end at any moment.
    const std::uint64_t replaced = itemsTab_->LookupChild(fromDir, toName);
    if (replaced != fid)
      itemsTab_->RemoveChildIf(fromDir, toName, replaced);
  }
  const CRenameMark mark(renamesBegun_, renamesEnded_);
  auto move = itemsTab_->PrepareMove(fid, toName);
  folder->RenameChild(fromName, toName);
  itemsTab_->MoveItem(fid, toDir, std::move(move));
  g_nfs_log.Info("Item was renamed.");
}

void CVirtualFs::Rename(const RENAME3args& args, const sockaddr_in& client, RENAME3res& result) noexcept {
  std::uint64_t fromDir = InvalidFid;
  std::uint64_t toDir = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        fromDir = FidFromHandle(args.from.dir);
        toDir = FidFromHandle(args.to.dir);
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Renaming item [%1] ( folder [%2]) to [%3] (folder [%4]). Requested from %5.",
                            args.from.name, itemsTab_->GetItemPath(fromDir), args.to.name,
                            itemsTab_->GetItemPath(toDir), AddressText(client));
        }
        RenameEntry(args, client, fromDir, toDir);
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error(
            "[Rename] Failed to rename item. Source folder: [%1]. Source item: [%2]. "
            "Target folder: [%3]. Target item: [%4].",
            failure, itemsTab_->GetItemPath(fromDir), args.from.name, itemsTab_->GetItemPath(toDir), args.to.name);
      });
}
