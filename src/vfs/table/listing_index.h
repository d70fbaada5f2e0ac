// The children of all folders by the hash of their places.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

class CNfsItemRec;

/// A name in a folder.
struct SListingPlace {
  std::uint64_t parentFid = 0;
  std::string_view name;
};

/// Finds one place among many by touching two pieces of memory, the entry and its record, where the ordered listing
/// touches forty. Names are equal in any case. Guarded by the lock of the table that owns it; the records are the
/// table's, and none changes its place while it is in here.
class CNfsListingIndex {
 public:
  /// What the place has. Both may be given other values; the place stays.
  struct SEntry {
    std::uint64_t fid;
    const CNfsItemRec* rec;
  };

  CNfsListingIndex();

  /// Makes room for so many entries, which costs less than to make it again and again. Throws std::bad_alloc, as all
  /// that takes memory, and has changed nothing then.
  void Reserve(std::size_t entries);
  /// The record's place must not be there yet.
  void Insert(std::uint64_t fid, const CNfsItemRec& rec);
  void Erase(const SListingPlace& place) noexcept;
  /// Null when there is none. Until the next change.
  SEntry* Find(const SListingPlace& place) noexcept;
  const SEntry* Find(const SListingPlace& place) const noexcept;
  std::size_t Size() const noexcept { return size_; }

  /// Fetches what Find will touch for each of the places, all at a time, and gives their records as far as hashes tell
  /// them: null for none. records is as long as places, both at most MostForeseen.
  void Foresee(std::span<const SListingPlace> places, std::span<const CNfsItemRec*> records) const noexcept;
  static constexpr std::size_t MostForeseen = 32;

 private:
  struct SSlot {
    std::uint64_t hash;
    SEntry entry;  ///< Without a record: free.
  };

  static std::size_t SlotsFor(std::size_t entries) noexcept;
  std::uint64_t Hash(const SListingPlace& place) const noexcept;
  std::size_t FindSlot(const SListingPlace& place) const noexcept;
  std::size_t Next(std::size_t slot) const noexcept { return (slot + 1) & mask_; }
  static void Put(std::vector<SSlot>& slots, std::size_t mask, const SSlot& added) noexcept;

  // A power of two of them, a quarter at least free. Who meets a slot that is taken has the next one that is free, so
  // an entry lies between the slot of its hash and the next free one.
  std::vector<SSlot> slots_;
  std::size_t mask_ = 0;
  std::size_t size_ = 0;
  // Clients choose names; that they cannot choose such as meet is the seed's work.
  const std::uint64_t seed_;
};
