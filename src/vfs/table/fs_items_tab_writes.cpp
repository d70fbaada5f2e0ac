#include "vfs/table/fs_items_tab_writes.h"

void CFsItemsTab::NoteUnwritten(std::uint64_t fid) {
  unwritten_.insert(fid);
  hasUnwritten_.store(true, std::memory_order_relaxed);
}

void CFsItemsTab::WriteAgain(std::uint64_t fid) {
  if (!unwritten_.contains(fid))
    return;
  if (const rec_ptr rec = FindRec(fid)) {
    SFsItemSpec spec;
    rec->Item()->GetItemSpec(spec);
    updateSink_->OnItemAdded(rec->parentFid, rec->name, fid, spec);
  } else {
    updateSink_->OnItemDeleted(fid, nullptr);
  }
  unwritten_.erase(fid);
  hasUnwritten_.store(!unwritten_.empty(), std::memory_order_relaxed);
}

void CFsItemsTab::WriteAgain(again_t which) {
  for (auto fid = unwritten_.begin(); fid != unwritten_.end();) {
    const std::uint64_t next = *fid++;
    if (which == again_t::All || !items_.contains(next))
      WriteAgain(next);
  }
}

void CFsItemsTab::RequireStored(std::uint64_t fid) {
  if (!hasUnwritten_.load(std::memory_order_relaxed))
    return;
  const std::lock_guard lock(mutex_);
  WriteAgain(fid);
}

void CFsItemsTab::RequireAllStored() {
  if (!hasUnwritten_.load(std::memory_order_relaxed))
    return;
  const std::lock_guard lock(mutex_);
  WriteAgain(again_t::All);
}
