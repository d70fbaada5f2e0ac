#include "vfs/table/listing_index.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

#include "platform/memory.h"
#include "platform/text.h"
#include "vfs/table/nfs_item_rec.h"

namespace {

constexpr std::size_t FewestSlots = 16;
constexpr std::size_t NoSlot = static_cast<std::size_t>(-1);

SListingPlace PlaceOf(const CNfsItemRec& rec) noexcept {
  return {rec.parentFid, rec.name};
}

}  // namespace

CNfsListingIndex::CNfsListingIndex() : seed_(platform::NewHashSeed()) {
  Reserve(0);
}

std::size_t CNfsListingIndex::SlotsFor(std::size_t entries) noexcept {
  return std::bit_ceil(std::max(FewestSlots, entries + entries / 3 + 1));
}

std::uint64_t CNfsListingIndex::Hash(const SListingPlace& place) const noexcept {
  return platform::HashIgnoringCase(place.name, seed_ + place.parentFid);
}

void CNfsListingIndex::Reserve(std::size_t entries) {
  const std::size_t count = SlotsFor(entries);
  if (count <= slots_.size())
    return;
  std::vector<SSlot> slots(count, SSlot{0, {0, nullptr}});
  for (const SSlot& slot : slots_) {
    if (slot.entry.rec != nullptr)
      Put(slots, count - 1, slot);
  }
  slots_ = std::move(slots);
  mask_ = count - 1;
}

void CNfsListingIndex::Put(std::vector<SSlot>& slots, std::size_t mask, const SSlot& added) noexcept {
  std::size_t at = added.hash & mask;
  while (slots[at].entry.rec != nullptr)
    at = (at + 1) & mask;
  slots[at] = added;
}

void CNfsListingIndex::Insert(std::uint64_t fid, const CNfsItemRec& rec) {
  Reserve(size_ + 1);
  Put(slots_, mask_, {Hash(PlaceOf(rec)), {fid, &rec}});
  ++size_;
}

std::size_t CNfsListingIndex::FindSlot(const SListingPlace& place) const noexcept {
  const std::uint64_t hash = Hash(place);
  for (std::size_t at = hash & mask_; slots_[at].entry.rec != nullptr; at = Next(at)) {
    const CNfsItemRec& rec = *slots_[at].entry.rec;
    if (slots_[at].hash == hash && rec.parentFid == place.parentFid &&
        platform::EqualIgnoringCase(rec.name, place.name))
      return at;
  }
  return NoSlot;
}

void CNfsListingIndex::Erase(const SListingPlace& place) noexcept {
  std::size_t free = FindSlot(place);
  if (free == NoSlot)
    return;
  // What lies behind moves up where it would not be found any more past the free slot.
  for (std::size_t at = Next(free); slots_[at].entry.rec != nullptr; at = Next(at)) {
    const std::size_t wanted = slots_[at].hash & mask_;
    if (((at - wanted) & mask_) >= ((at - free) & mask_)) {
      slots_[free] = slots_[at];
      free = at;
    }
  }
  slots_[free].entry.rec = nullptr;
  --size_;
}

CNfsListingIndex::SEntry* CNfsListingIndex::Find(const SListingPlace& place) noexcept {
  const std::size_t slot = FindSlot(place);
  return slot == NoSlot ? nullptr : &slots_[slot].entry;
}

const CNfsListingIndex::SEntry* CNfsListingIndex::Find(const SListingPlace& place) const noexcept {
  const std::size_t slot = FindSlot(place);
  return slot == NoSlot ? nullptr : &slots_[slot].entry;
}

void CNfsListingIndex::Foresee(std::span<const SListingPlace> places,
                               std::span<const CNfsItemRec*> records) const noexcept {
  std::array<std::uint64_t, MostForeseen> hashes;
  for (std::size_t i = 0; i < places.size(); ++i) {
    hashes[i] = Hash(places[i]);
    __builtin_prefetch(&slots_[hashes[i] & mask_]);
  }
  for (std::size_t i = 0; i < places.size(); ++i) {
    std::size_t at = hashes[i] & mask_;
    while (slots_[at].entry.rec != nullptr && slots_[at].hash != hashes[i])
      at = Next(at);
    records[i] = slots_[at].entry.rec;
    platform::Prefetch(records[i], sizeof(CNfsItemRec));
  }
}
