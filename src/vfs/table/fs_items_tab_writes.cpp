#include "vfs/table/fs_items_tab_writes.h"

#include <utility>

void CFsItemsTab::NoteUnwritten(std::uint64_t fid) {
  unwritten_.insert(fid);
  hasUnwritten_.store(true, std::memory_order_relaxed);
  if (writes_ != nullptr)
    writes_->Add(fid);
}

void CFsItemsTab::NoteWritten(std::uint64_t fid) noexcept {
  unwritten_.erase(fid);
  hasUnwritten_.store(!unwritten_.empty(), std::memory_order_relaxed);
}

void CFsItemsTab::DeleteAgain(std::uint64_t fid) {
  updateSink_->OnItemDeleted(fid, nullptr);
  NoteWritten(fid);
}

void CFsItemsTab::DeleteAllAgain() {
  for (auto fid = unwritten_.begin(); fid != unwritten_.end();) {
    const std::uint64_t next = *fid++;
    if (!items_.contains(next))
      DeleteAgain(next);
  }
}

void CFsItemsTab::RequireStored(std::uint64_t fid) {
  if (!hasUnwritten_.load(std::memory_order_relaxed))
    return;
  // What the record says comes from the item, which may have to be asked for it: between two holds of the lock, and
  // once more when it was replaced meanwhile.
  boost::shared_ptr<IFsItem> asked;
  SFsItemSpec spec;
  for (;;) {
    boost::shared_ptr<IFsItem> item;
    {
      const std::lock_guard lock(mutex_);
      if (!unwritten_.contains(fid))
        return;
      const rec_ptr rec = FindRec(fid);
      if (!rec) {
        DeleteAgain(fid);
        return;
      }
      item = rec->Item();
      if (item == asked) {
        updateSink_->OnItemAdded(rec->parentFid, rec->name, fid, spec);
        NoteWritten(fid);
        return;
      }
    }
    spec = SFsItemSpec();
    item->GetItemSpec(spec);
    asked = std::move(item);
  }
}

void CFsItemsTab::RequireAllStored() {
  if (!hasUnwritten_.load(std::memory_order_relaxed))
    return;
  std::vector<std::uint64_t> fids;
  {
    const std::lock_guard lock(mutex_);
    fids.assign(unwritten_.begin(), unwritten_.end());
  }
  for (const std::uint64_t fid : fids)
    RequireStored(fid);
}
