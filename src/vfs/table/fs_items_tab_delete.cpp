// Removal of items, and the stored places of those that were moved.
#include <iterator>
#include <utility>

#include "foundation/log.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/table/fs_items_tab_writes.h"

namespace {

using lock_t = std::lock_guard<platform::brief_mutex_t<std::recursive_mutex>>;

}  // namespace

void CFsItemsTab::Delete(std::uint64_t fid, const GUID* mountUid, bool isShareRoot, changes_t& removed) {
  const rec_ptr rec = GetRec(fid);
  if (LivesWithout(*rec, mountUid)) {
    DropMirror(fid, *rec, *mountUid);
    return;
  }
  // Asked before anything is removed: a share whose folder is away for a moment keeps its children's FIDs.
  if (rec->parentFid == InvalidFid && !isShareRoot) {
    throw exc::runtime_exc_t("Item [%1] refers to the root of the NFS share and cannot be deleted.", rec->name);
  }
  if (!rec->IsFolder()) {
    DeleteOne(fid, *rec, removed);
    return;
  }
  CWrites writes(*this);
  DeleteChildren(fid, mountUid, removed);
  DeleteOne(fid, *rec, removed);
  writes.Commit();
}

void CFsItemsTab::DeleteChildren(std::uint64_t fid, const GUID* mountUid, changes_t& removed) {
  // A walk with a stack of its own: how deep a tree goes is up to the clients.
  struct SStep {
    std::uint64_t fid;
    bool isOpened;
  };
  std::vector<SStep> steps;
  const auto open = [&](std::uint64_t folderFid) {
    for (auto child = FirstChild(folderFid); child != listing_.end() && child->rec->parentFid == folderFid; ++child) {
      steps.push_back({child->fid, false});
    }
  };
  open(fid);
  while (!steps.empty()) {
    const SStep step = steps.back();
    const rec_ptr rec = GetRec(step.fid);
    if (rec->IsFolder() && !step.isOpened) {
      if (LivesWithout(*rec, mountUid)) {
        DropMirror(step.fid, *rec, *mountUid);
        steps.pop_back();
        continue;
      }
      steps.back().isOpened = true;
      open(step.fid);
      continue;
    }
    steps.pop_back();
    DeleteOne(step.fid, *rec, removed);
  }
}

void CFsItemsTab::DeleteOne(std::uint64_t fid, const CNfsItemRec& rec, changes_t& removed) {
  removed.push_back({rec.name, fid, rec.parentFid, true});
  NoteUnwritten(fid);
  if (rec.parentFid != InvalidFid)
    EraseListing(rec, fid);
  slots_.ResetFolder(fid);
  ForgetMove(fid);
  items_.erase(fid);
  WriteRecord(fid, [&] { updateSink_->OnItemDeleted(fid, nullptr); });
}

void CFsItemsTab::EraseListing(const CNfsItemRec& rec, std::uint64_t fid) {
  const auto entry = listing_.find(SListingPlace{rec.parentFid, rec.name});
  if (entry != listing_.end() && entry->fid == fid) {
    listingIndex_.Erase({rec.parentFid, rec.name});
    NoteSize();
    listing_.erase(entry);
    NoteFolderChange(rec.parentFid);
  }
}

bool CFsItemsTab::LivesWithout(const CNfsItemRec& rec, const GUID* mountUid) {
  if (mountUid == nullptr || !rec.IsFolder())
    return false;
  GUID primaryUid;
  return !rec.Folder()->primary->GetMountUid(primaryUid) || primaryUid != *mountUid;
}

void CFsItemsTab::DropMirror(std::uint64_t fid, CNfsItemRec& rec, const GUID& mountUid) {
  auto& mirrors = rec.Folder()->mirrors;
  GUID uid;
  if (rec.Folder()->primary->GetMountUid(uid) && uid == mountUid) {
    throw exc::runtime_exc_t(
        "Failed to remove RFS folder [%1] from the NFS node because the folder is  primary node item.",
        platform::GuidToText(mountUid));
  }
  for (auto mirror = mirrors.begin(); mirror != mirrors.end(); ++mirror) {
    if (!(*mirror)->GetMountUid(uid) || uid != mountUid)
      continue;
    // First: one that could not be taken out of the registry is found by the next attempt.
    updateSink_->OnItemDeleted(fid, &mountUid);
    mirrors.erase(mirror);
    NoteFolderChange(fid);
    return;
  }
}

CFsItemsTab::CNfsListingTab::const_iterator CFsItemsTab::FirstChild(std::uint64_t parentFid) const {
  return listing_.lower_bound(SListingPlace{parentFid, {}});
}

CFsItemsTab::CPreparedMove CFsItemsTab::PrepareMove(std::uint64_t fid, const std::string& newName) const {
  CPreparedMove move;
  move.name_ = newName;
  const lock_t lock(mutex_);
  const rec_ptr rec = FindRec(fid);
  if (!rec || movedItems_.contains(fid))
    return move;
  move.stored_ = {rec->parentFid, rec->name};
  moved_items_t moved{{fid, SMoved{move.stored_}}};
  places_t place{{move.stored_, fid}};
  move.moved_ = moved.extract(moved.begin());
  move.place_ = place.extract(place.begin());
  return move;
}

void CFsItemsTab::NoteMove(std::uint64_t fid, const CNfsItemRec& rec, std::uint64_t newParentFid, CPreparedMove& move) {
  auto moved = movedItems_.find(fid);
  if (moved == movedItems_.end()) {
    if (move.moved_.empty() || move.stored_.parentFid != rec.parentFid || move.stored_.name != rec.name)
      move = PrepareMove(fid, move.name_);
    moved = movedItems_.insert(std::move(move.moved_)).position;
    if (auto put = movedFrom_.insert(std::move(move.place_)); !put.inserted)
      put.position->second = fid;
  }
  moved->second.hasLeftFolder = moved->second.hasLeftFolder || rec.parentFid != newParentFid;
  const SListingKey& stored = moved->second.stored;
  if (!moved->second.hasLeftFolder && stored.parentFid == newParentFid && stored.name == move.name_)
    ForgetMove(fid);
}

void CFsItemsTab::ForgetMove(std::uint64_t fid) {
  const auto moved = movedItems_.find(fid);
  if (moved == movedItems_.end())
    return;
  const auto place = movedFrom_.find(moved->second.stored);
  if (place != movedFrom_.end() && place->second == fid)
    movedFrom_.erase(place);
  movedItems_.erase(moved);
}

void CFsItemsTab::ReleasePlace(std::uint64_t parentFid, const std::string& name, std::uint64_t moverFid) {
  const lock_t lock(mutex_);
  DeleteAllAgain();
  FreeStoredPlace(parentFid, name, moverFid);
}

void CFsItemsTab::FreeStoredPlace(std::uint64_t parentFid, const std::string& name, std::uint64_t moverFid) {
  // The record of an item that was moved from here still claims the place. Whatever comes to stand here would be taken
  // for that item after a restart, and its handle would silently be that of another file.
  const auto place = movedFrom_.find(SListingPlace{parentFid, name});
  if (place == movedFrom_.end() || place->second == moverFid)
    return;
  const std::uint64_t fid = place->second;
  const rec_ptr rec = FindRec(fid);
  if (rec && rec->parentFid == parentFid && platform::EqualIgnoringCase(rec->name, name))
    return;  // It is back here, in another spelling.

  const auto moved = movedItems_.find(fid);
  const bool hasLeftFolder = moved != movedItems_.end() && moved->second.hasLeftFolder;
  if (!rec) {
    ForgetMove(fid);
    return;
  }
  if (hasLeftFolder) {
    // Nor is its object where the item is now: no place can be stored under which it would be found again, and better a
    // stale handle than one of another file.
    updateSink_->OnItemDeleted(fid, nullptr);
  } else {
    updateSink_->OnItemMoved(fid, rec->parentFid, rec->name);
  }
  ForgetMove(fid);
}
