#include "vfs/table/fs_items_tab.h"

#include <algorithm>
#include <array>
#include <boost/make_shared.hpp>
#include <cstring>
#include <utility>

#include "foundation/log.h"
#include "platform/memory.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/table/fs_items_tab_writes.h"

namespace {

using lock_t = std::lock_guard<platform::brief_mutex_t<std::recursive_mutex>>;

/// The caches of a processor hold what belongs to so many items, not more.
constexpr std::size_t LargeSize = 4096;
/// What of an item's object is touched by each call.
constexpr std::size_t ForeseenSize = 64;

}  // namespace

CFsItemsTab::CFsItemsTab(boost::shared_ptr<CRegConfigUpdateSink> updateSink) : updateSink_(std::move(updateSink)) {}

CFsItemsTab::~CFsItemsTab() = default;

std::uint64_t CFsItemsTab::AddItem(std::uint64_t parentFid, const std::string& name,
                                   const boost::shared_ptr<IFsItem>& item) {
  return AddOne(parentFid, name, item, nullptr, found_t::Replace);
}

std::uint64_t CFsItemsTab::AddFoundItem(std::uint64_t parentFid, const std::string& name,
                                        const boost::shared_ptr<IFsItem>& item, const IFsFolder* from) {
  return AddOne(parentFid, name, item, from, found_t::Keep);
}

std::uint64_t CFsItemsTab::AddMadeItem(std::uint64_t parentFid, const std::string& name,
                                       const boost::shared_ptr<IFsItem>& item,
                                       const boost::shared_ptr<IFsItem>& before) {
  return AddOne(parentFid, name, item, nullptr, found_t::ReplaceBefore, before.get());
}

std::uint64_t CFsItemsTab::AddOne(std::uint64_t parentFid, const std::string& name,
                                  const boost::shared_ptr<IFsItem>& item, const IFsFolder* from, found_t found,
                                  const IFsItem* before) {
  if (name == ".")
    return parentFid;
  if (name == "..") {
    const lock_t lock(mutex_);
    return GetRec(parentFid)->parentFid;
  }
  SPrepared prepared{name, item, from, {}, before};
  item->GetItemSpec(prepared.spec);

  changes_t changes;
  changes_t removed;
  std::uint64_t fid = InvalidFid;
  {
    const lock_t lock(mutex_);
    DeleteAllAgain();
    fid = AddPrepared(parentFid, prepared, found, changes, removed);
  }
  LogRemoved(removed);
  LogAdded(changes);
  RequireStored(fid);
  return fid;
}

void CFsItemsTab::AddItems(std::uint64_t parentFid, std::vector<SNfsChild>& items, const IFsFolder* from) {
  // Long enough that a transaction's cost is spread thin, short enough that nobody notices the lock.
  constexpr std::size_t MaxTransaction = 256;

  for (std::size_t begin = 0; begin < items.size();) {
    const std::size_t end = std::min(items.size(), begin + MaxTransaction);
    std::vector<SPrepared> prepared;
    prepared.reserve(end - begin);
    for (std::size_t i = begin; i < end; ++i) {
      prepared.push_back(SPrepared{items[i].name, items[i].item, from, {}, nullptr});
      try {
        items[i].item->GetItemSpec(prepared.back().spec);
      } catch (const std::exception& failure) {
        // Its mount is being withdrawn; that is no failure of the others.
        g_nfs_log.Warning("Item [%1] does not answer and is left out.", failure, items[i].name);
        items[i].item.reset();
      }
    }

    changes_t changes;
    changes_t removed;
    {
      const lock_t lock(mutex_);
      DeleteAllAgain();
      // Outside of the transaction, with which it would come to nothing.
      for (std::size_t i = begin; i < end && !movedFrom_.empty(); ++i)
        FreeStoredPlace(parentFid, items[i].name, InvalidFid);
      CWrites writes(*this);
      for (std::size_t i = begin; i < end; ++i) {
        if (items[i].item)
          items[i].fid = AddPrepared(parentFid, prepared[i - begin], found_t::Keep, changes, removed);
      }
      writes.Commit();
      for (std::size_t i = begin; i < end; ++i) {
        const rec_ptr rec = items[i].item ? FindRec(items[i].fid) : nullptr;
        items[i].item = rec ? rec->Item() : nullptr;
      }
    }
    LogRemoved(removed);
    LogAdded(changes);
    for (std::size_t i = begin; i < end; ++i)
      RequireStored(items[i].fid);
    begin = end;
  }
}

/// Not for what was opened just before its mount was withdrawn or replaced: it would be there for ever, with nobody
/// behind it.
bool CFsItemsTab::IsBacked(const CNfsItemRec& parent, const SPrepared& prepared) {
  if (!prepared.spec.isRfsItem)
    return true;
  const auto backing = parent.ItemForMount(prepared.spec.mountUid);
  return backing && (prepared.from == nullptr || backing.get() == prepared.from);
}

bool CFsItemsTab::IsReplaced(std::uint64_t fid, const SPrepared& prepared, found_t found) const {
  if (found != found_t::ReplaceBefore)
    return found == found_t::Replace;
  const rec_ptr there = FindRec(fid);
  return !there || there->Item().get() == prepared.before;
}

std::uint64_t CFsItemsTab::AddPrepared(std::uint64_t parentFid, const SPrepared& prepared, found_t found,
                                       changes_t& changes, changes_t& removed) {
  const rec_ptr parent = GetRec(parentFid);
  if (!IsBacked(*parent, prepared))
    return InvalidFid;
  const CNfsListingIndex::SEntry* const entry = FindIndexed(parentFid, prepared.name);
  const bool wasFound = entry != nullptr;
  const std::uint64_t fid = wasFound ? entry->fid : GenerateFid();
  if (wasFound && !IsReplaced(fid, prepared, found)) {
    g_nfs_log.Info("Item [%1] was found. ID: [%2].", prepared.name, fid);
    return fid;
  }

  // A place that cannot be freed adds nothing.
  FreeStoredPlace(parentFid, prepared.name, fid);
  const auto rec =
      boost::make_shared<CNfsItemRec>(prepared.name, parentFid, parent->share, prepared.item, prepared.spec.mountUid);
  NoteUnwritten(fid);
  const rec_ptr old = wasFound ? FindRec(fid) : nullptr;
  if (wasFound)
    TakeOverOldRec(*rec, fid, removed);
  PutRec(fid, rec);
  try {
    PutListing(fid, rec);
  } catch (...) {
    // Nobody would find it, nor remove it.
    if (!wasFound) {
      items_.erase(fid);
      NoteWritten(fid);
    }
    throw;
  }
  WriteRecord(fid, [&] { StorePrepared(parentFid, fid, prepared, old.get()); });
  ForgetMove(fid);
  changes.push_back({prepared.name, fid, parentFid, wasFound});
  return fid;
}

void CFsItemsTab::StorePrepared(std::uint64_t parentFid, std::uint64_t fid, const SPrepared& prepared,
                                const CNfsItemRec* old) {
  if (old == nullptr || old->MountUid() == prepared.spec.mountUid) {
    updateSink_->OnItemAdded(parentFid, prepared.name, fid, prepared.spec);
    return;
  }
  // What backed it before would come back in its place after a restart.
  CRegConfigUpdateSink::CBatch batch(*updateSink_);
  updateSink_->OnItemAdded(parentFid, prepared.name, fid, prepared.spec);
  updateSink_->OnItemDeleted(fid, &old->MountUid());
  batch.Commit();
}

void CFsItemsTab::TakeOverOldRec(CNfsItemRec& rec, std::uint64_t fid, changes_t& removed) {
  slots_.ResetFolder(fid);
  const rec_ptr old = FindRec(fid);
  if (!old || !old->IsFolder())
    return;
  if (!rec.IsFolder()) {
    // A file in a folder's place: what was below the folder has no way to it any more.
    DeleteChildren(fid, nullptr, removed);
    return;
  }
  // Mounts on the folder outlive its being made or found once more.
  const auto& mirrors = old->Folder()->mirrors;
  rec.Folder()->mirrors.insert(rec.Folder()->mirrors.end(), mirrors.begin() + 1, mirrors.end());
}

void CFsItemsTab::Expect(std::size_t items) {
  const lock_t lock(mutex_);
  // What grows past its room is made anew whole, while everybody waits.
  const std::size_t withMore = items + items / 4;
  items_.reserve(withMore);
  listingIndex_.Reserve(withMore);
}

void CFsItemsTab::ResumeItem(std::uint64_t fid, std::uint64_t parentFid, const std::string& name,
                             const boost::shared_ptr<IFsItem>& item, const GUID& mountUid) {
  {
    const lock_t lock(mutex_);
    const rec_ptr parent = GetRec(parentFid);
    const auto rec = boost::make_shared<CNfsItemRec>(name, parentFid, parent->share, item, mountUid);
    PutRec(fid, rec);
    PutListing(fid, rec);
  }
  g_nfs_log.Info("Item [%1] resumed. FID: [%2]. Parent FID: [%3].", name, fid, parentFid);
}

template <typename Removal>
void CFsItemsTab::RemoveAndLog(const Removal& removal) {
  changes_t removed;
  try {
    const lock_t lock(mutex_);
    removal(removed);
  } catch (...) {
    LogRemoved(removed);
    throw;
  }
  LogRemoved(removed);
}

void CFsItemsTab::RemoveItem(std::uint64_t fid) {
  RemoveAndLog([&](changes_t& removed) { Delete(fid, nullptr, false, removed); });
}

void CFsItemsTab::RemoveItemForMount(std::uint64_t fid, const GUID& mountUid) {
  RemoveAndLog([&](changes_t& removed) { Delete(fid, &mountUid, false, removed); });
}

void CFsItemsTab::RemoveChild(std::uint64_t parentFid, const std::string& name) {
  RemoveAndLog([&](changes_t& removed) {
    const std::uint64_t fid = LookupChild(parentFid, name);
    if (fid != InvalidFid)
      Delete(fid, nullptr, false, removed);
  });
}

void CFsItemsTab::RemoveChildIf(std::uint64_t parentFid, const std::string& name, std::uint64_t fid,
                                const IFsItem* item) {
  RemoveAndLog([&](changes_t& removed) {
    const CNfsListingIndex::SEntry* const found = FindIndexed(parentFid, name);
    if (found != nullptr && found->fid == fid && (item == nullptr || found->rec->Item().get() == item))
      Delete(fid, nullptr, false, removed);
  });
}

std::uint64_t CFsItemsTab::LookupChild(std::uint64_t parentFid, std::string_view name) const {
  if (name == ".")
    return parentFid;
  const lock_t lock(mutex_);
  if (name == "..") {
    const rec_ptr parent = FindRec(parentFid);
    return parent ? parent->parentFid : InvalidFid;
  }
  const CNfsListingIndex::SEntry* const found = FindIndexed(parentFid, name);
  return found == nullptr ? InvalidFid : found->fid;
}

boost::shared_ptr<IFsItem> CFsItemsTab::GetChild(std::uint64_t parentFid, std::string_view name,
                                                 std::uint64_t& fid) const {
  const lock_t lock(mutex_);
  if (name == "." || name == "..") {
    fid = LookupChild(parentFid, name);
    return GetItem(fid);
  }
  const CNfsListingIndex::SEntry* const found = FindIndexed(parentFid, name);
  fid = found == nullptr ? InvalidFid : found->fid;
  return found == nullptr ? nullptr : found->rec->Item();
}

const CNfsListingIndex::SEntry* CFsItemsTab::FindIndexed(std::uint64_t parentFid, std::string_view name) const {
  return listingIndex_.Find({parentFid, name});
}

void CFsItemsTab::Foresee(std::span<const SListingPlace> places) const {
  std::array<const CNfsItemRec*, MostForeseen> records;
  std::array<IFsItem*, MostForeseen> items;
  const lock_t lock(mutex_);
  listingIndex_.Foresee(places, std::span(records).first(places.size()));
  for (std::size_t i = 0; i < places.size(); ++i) {
    items[i] = records[i] == nullptr ? nullptr : records[i]->File().get();
    platform::Prefetch(items[i], ForeseenSize);
  }
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (items[i] != nullptr)
      items[i]->Foresee();
  }
}

void CFsItemsTab::MoveItem(std::uint64_t fid, std::uint64_t newParentFid, const std::string& newName) {
  MoveItem(fid, newParentFid, PrepareMove(fid, newName));
}

void CFsItemsTab::MoveItem(std::uint64_t fid, std::uint64_t newParentFid, CPreparedMove&& move) {
  RemoveAndLog([&](changes_t& removed) {
    const rec_ptr rec = FindRec(fid);
    if (!rec)
      throw exc::runtime_exc_t("There is no item with FID [%1]. Item cannot be moved.", fid);
    if (rec->parentFid == InvalidFid) {
      throw exc::runtime_exc_t("Failed to move NFS shared folder [%1].", rec->name);
    }
    GetRec(newParentFid);
    if (IsSameOrBelow(newParentFid, fid))
      throw CVirtualFsExc(NFS3ERR_INVAL);

    const CNfsListingIndex::SEntry* const occupied = FindIndexed(newParentFid, move.name_);
    if (occupied != nullptr && occupied->fid != fid)
      Delete(occupied->fid, nullptr, false, removed);

    FreeStoredPlace(newParentFid, move.name_, fid);
    NoteMove(fid, *rec, newParentFid, move);
    const auto listed = listing_.find(SListingPlace{rec->parentFid, rec->name});
    CNfsListingTab::node_type entry;
    if (listed != listing_.end() && listed->fid == fid) {
      listingIndex_.Erase({rec->parentFid, rec->name});
      entry = listing_.extract(listed);
      NoteFolderChange(rec->parentFid);
    }
    rec->name.swap(move.name_);
    rec->parentFid = newParentFid;
    if (entry.empty()) {
      PutListing(fid, rec);
      return;
    }
    listing_.insert(std::move(entry));
    listingIndex_.Insert(fid, *rec);
    NoteFolderChange(newParentFid);
  });
}

bool CFsItemsTab::IsSameOrBelow(std::uint64_t fid, std::uint64_t ancestorFid) const {
  const lock_t lock(mutex_);
  while (fid != InvalidFid) {
    if (fid == ancestorFid)
      return true;
    const rec_ptr rec = FindRec(fid);
    if (!rec)
      return false;
    fid = rec->parentFid;
  }
  return false;
}

boost::shared_ptr<IFsItem> CFsItemsTab::GetItem(std::uint64_t fid) const {
  const lock_t lock(mutex_);
  const auto found = items_.find(fid);
  return found == items_.end() ? boost::shared_ptr<IFsItem>() : found->second->Item();
}

std::string CFsItemsTab::GetItemPath(std::uint64_t fid) const {
  std::string path;
  {
    const lock_t lock(mutex_);
    std::vector<const std::string*> names;
    std::size_t size = 0;
    for (std::uint64_t at = fid; at != InvalidFid;) {
      const auto rec = items_.find(at);
      if (rec == items_.end())
        break;
      names.push_back(&rec->second->name);
      size += rec->second->name.size() + 1;
      at = rec->second->parentFid;
    }
    path.reserve(size + 30);
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
      if (!path.empty())
        path += '/';
      path += **name;
    }
  }
  return path + ". FID: " + std::to_string(fid);
}

void CFsItemsTab::PutRec(std::uint64_t fid, const rec_ptr& rec) {
  items_[fid] = rec;
  NoteFolderChange(fid);
}

void CFsItemsTab::NoteFolderChange(std::uint64_t fid) {
  // A listing that is kept of it stands until it is replaced or too old: nobody pays for its end here.
  const rec_ptr rec = FindRec(fid);
  if (rec && rec->IsFolder())
    rec->Folder()->version = ++folderVersions_;
}

void CFsItemsTab::PutListing(std::uint64_t fid, const rec_ptr& rec) {
  NoteFolderChange(rec->parentFid);
  const auto [entry, isNew] = listing_.insert(SListed{fid, rec});
  if (isNew) {
    try {
      listingIndex_.Insert(fid, *rec);
    } catch (...) {
      listing_.erase(entry);
      throw;
    }
    NoteSize();
    return;
  }
  *listingIndex_.Find({rec->parentFid, rec->name}) = {fid, rec.get()};
  auto node = listing_.extract(entry);
  node.value() = SListed{fid, rec};
  listing_.insert(std::move(node));
}

void CFsItemsTab::NoteSize() noexcept {
  isLarge_ = listingIndex_.Size() >= LargeSize;
}

std::uint64_t CFsItemsTab::GenerateFid() const {
  constexpr int MaxAttempts = 1000;
  for (int attempt = 0; attempt < MaxAttempts; ++attempt) {
    // A handle is all that a READ needs, so a FID is not to be guessed. The bytes that hold a GUID's version and
    // variant are left out.
    const GUID random = platform::NewGuid();
    std::uint64_t fid = 0;
    std::memcpy(&fid, random.bytes.data(), 6);
    fid |= static_cast<std::uint64_t>(random.bytes[9]) << 48 | static_cast<std::uint64_t>(random.bytes[10]) << 56;
    if (fid == InvalidFid || fid == 0 || items_.contains(fid))
      continue;
    g_nfs_log.Verbose("Generated new FID: [%1].", fid);
    return fid;
  }
  throw exc::runtime_exc_t("Failed to allocate unique FID.");
}

CFsItemsTab::rec_ptr CFsItemsTab::FindRec(std::uint64_t fid) const {
  const auto found = items_.find(fid);
  return found == items_.end() ? rec_ptr() : found->second;
}

CFsItemsTab::rec_ptr CFsItemsTab::GetRec(std::uint64_t fid) const {
  rec_ptr rec = FindRec(fid);
  if (!rec)
    throw CVirtualFsExc("Item with FID [%1] does not exist", std::to_string(fid), NFS3ERR_NOENT);
  return rec;
}

void CFsItemsTab::LogAdded(const changes_t& changes) {
  const logging::lines_together_t together;
  for (const SChange& change : changes) {
    if (change.wasFound)
      g_nfs_log.Info("Item [%1] was found. ID: [%2].", change.name, change.fid);
    g_nfs_log.Info("    NewItem: [%1]. FID: [%2]. Parent: [%3].", change.name, change.fid, change.parentFid);
    g_nfs_log.Info("Added item [%1]. FID: [%2].", change.name, change.fid);
  }
}

void CFsItemsTab::LogRemoved(const changes_t& removed) {
  const logging::lines_together_t together;
  for (const SChange& change : removed) {
    g_nfs_log.Info("    RemItem: [%1]. FID: [%2]. Parent: [%3].", change.name, change.fid, change.parentFid);
  }
}

boost::shared_ptr<IFsItem> GetRequiredItem(const CFsItemsTab& tab, std::uint64_t fid) {
  auto item = tab.GetItem(fid);
  if (!item) {
    throw CVirtualFsExc("NFS listing table does not contain item with FID [%1].", std::to_string(fid), NFS3ERR_STALE);
  }
  return item;
}
