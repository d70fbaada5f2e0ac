#include "vfs/table/listing_slots.h"

#include <iterator>
#include <utility>

boost::shared_ptr<CNfsFolderDirPlusCache> CNfsListingSlots::Get(const SKey& key) {
  const auto slot = slots_.find(key);
  if (slot == slots_.end())
    return {};
  uses_.splice(uses_.end(), uses_, slot->second.use);
  return slot->second.snapshot;
}

void CNfsListingSlots::Set(const SKey& key, boost::shared_ptr<CNfsFolderDirPlusCache> snapshot) {
  Reset(key);
  const auto slot = slots_.emplace(key, SSlot{std::move(snapshot), uses_.end()}).first;
  try {
    slot->second.use = uses_.insert(uses_.end(), key);
  } catch (...) {
    slots_.erase(slot);
    throw;
  }
  entryCount_ += slot->second.snapshot->GetEntries().size();
  while (slots_.size() > 1 && (slots_.size() > MaxSnapshots || entryCount_ > MaxEntries)) {
    Erase(slots_.find(uses_.front()));
  }
}

boost::shared_ptr<CNfsWholeListing> CNfsListingSlots::GetWhole(std::uint64_t folderFid) {
  return boost::static_pointer_cast<CNfsWholeListing>(Get({folderFid, 0, true}));
}

void CNfsListingSlots::SetWhole(std::uint64_t folderFid, const boost::shared_ptr<CNfsWholeListing>& listing) {
  Set({folderFid, 0, true}, listing);
}

void CNfsListingSlots::Reset(const SKey& key) noexcept {
  const auto slot = slots_.find(key);
  if (slot != slots_.end())
    Erase(slot);
}

void CNfsListingSlots::ResetFolder(std::uint64_t folderFid) noexcept {
  auto slot = slots_.lower_bound(SKey{folderFid, 0});
  while (slot != slots_.end() && slot->first.folderFid == folderFid) {
    const auto next = std::next(slot);
    Erase(slot);
    slot = next;
  }
}

void CNfsListingSlots::Erase(slots_t::iterator slot) noexcept {
  entryCount_ -= slot->second.snapshot->GetEntries().size();
  uses_.erase(slot->second.use);
  slots_.erase(slot);
}
