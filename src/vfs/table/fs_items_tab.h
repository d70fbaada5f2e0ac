// The catalogue of everything that a client can name.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "foundation/exc.h"
#include "platform/brief_mutex.h"
#include "platform/guid.h"
#include "platform/text.h"
#include "vfs/items/fs_item.h"
#include "vfs/table/listing_index.h"
#include "vfs/table/listing_slots.h"
#include "vfs/table/nfs_folder_dir_plus_cache.h"
#include "vfs/table/nfs_item_rec.h"
#include "vfs/table/nfs_name.h"

class CRegConfigUpdateSink;
struct CNfsShareCfg;

/// A share of the same alias, or with the same identity, is there already.
class CNfsShareAlreadyRegisteredExc : public exc::exc_of_t<CNfsShareAlreadyRegisteredExc, exc::exc_base_t> {
 public:
  CNfsShareAlreadyRegisteredExc(const std::string& alias, const GUID& uid);
  std::string GetKind() const override;
};

/// A child of a folder.
struct SNfsChild {
  std::string name;
  std::uint64_t fid = InvalidFid;
  boost::shared_ptr<IFsItem> item;
};

/// Items by FID, children by (parent FID, name) and shares by GUID. What is added or removed here is added to and
/// removed from the registry at once.
///
/// Any thread may call any operation. One recursive lock is held for the whole of each; no file work happens under it.
/// Items are handed out by shared pointer and outlive their record in the hands of whoever uses them. Operations that
/// return an item return an empty pointer for an unknown FID unless they say that they throw. Faults with a meaning for
/// clients are CVirtualFsExc, others runtime_exc_t; nothing is rolled back. What could not be written to the registry
/// is written later: nobody is given a handle before its item is stored, since it would be lost with the process, and
/// nothing is stored at a place while the record of an item that was removed from there is left.
class CFsItemsTab {
 public:
  explicit CFsItemsTab(boost::shared_ptr<CRegConfigUpdateSink> updateSink);
  CFsItemsTab(const CFsItemsTab&) = delete;
  CFsItemsTab& operator=(const CFsItemsTab&) = delete;
  ~CFsItemsTab();

  /// @name Shares
  /// @{
  /// Publishes rootItem as the root of the share. A wantedFid other than InvalidFid is one that the registry knows
  /// already. Throws CNfsShareAlreadyRegisteredExc, wrapped, for an alias or a uid that is taken.
  void RegisterShare(const boost::shared_ptr<CNfsShareCfg>& cfg, const GUID& uid,
                     const boost::shared_ptr<IFsItem>& rootItem, std::uint64_t wantedFid);
  /// Removes the share and every item below it. An unknown uid is no fault.
  void UnregisterShare(const GUID& uid);
  void GetShareUids(std::set<GUID>& uids) const;
  bool FindShareByAlias(const std::string& alias, GUID& uid) const;
  /// Throws for an unknown share.
  std::uint64_t GetShareFid(const GUID& uid) const;
  std::uint64_t GetShareFidByAlias(const std::string& alias) const;
  GUID GetShareIdByAlias(const std::string& alias) const;
  /// False for an unknown share.
  bool GetShareCfg(const GUID& uid, std::uint64_t& fid, boost::shared_ptr<CNfsShareCfg>& cfg) const;
  /// @}

  /// @name Items
  /// @{
  /// The item's FID. A name that is there already, in any case, keeps its FID and its further backings and gets the new
  /// item and spelling. "." and ".." add nothing and give the folder and its parent. InvalidFid, and nothing added, for
  /// an item of a mount that does not back the folder (any more).
  std::uint64_t AddItem(std::uint64_t parentFid, const std::string& name, const boost::shared_ptr<IFsItem>& item);
  /// AddItem for an item that was looked for because the name was not there: a name that has come meanwhile keeps its
  /// item too, which is the younger one. It may have been moved here while the other was opened.
  /// from: the folder's backing that opened it, when that must still be one.
  std::uint64_t AddFoundItem(std::uint64_t parentFid, const std::string& name, const boost::shared_ptr<IFsItem>& item,
                             const IFsFolder* from = nullptr);
  /// AddItem for an item that was made where `before` stood, as GetItem gives it, or nothing: what has come to the
  /// place since then stays, for the caller to look at.
  std::uint64_t AddMadeItem(std::uint64_t parentFid, const std::string& name, const boost::shared_ptr<IFsItem>& item,
                            const boost::shared_ptr<IFsItem>& before);
  /// AddFoundItem for many items of one folder: fills their FIDs and replaces items that were there already by
  /// those that the table keeps; what is not added has neither. The registry is written in few transactions, and the
  /// lock is given up between them, so that other calls go on while a large folder comes in.
  void AddItems(std::uint64_t parentFid, std::vector<SNfsChild>& items, const IFsFolder* from = nullptr);
  /// Makes room for so many items, which costs less than to make it again and again.
  void Expect(std::size_t items);
  /// Brings an item back under its stored FID; writes nothing to the registry. mountUid: the mount that backs it, nil
  /// for the host.
  void ResumeItem(std::uint64_t fid, std::uint64_t parentFid, const std::string& name,
                  const boost::shared_ptr<IFsItem>& item, const GUID& mountUid);
  /// Removes the item and all below it.
  void RemoveItem(std::uint64_t fid);
  /// Removes what the mount backs: a folder that is also backed by others stays, without the mount.
  void RemoveItemForMount(std::uint64_t fid, const GUID& mountUid);
  /// An unknown name is no fault.
  void RemoveChild(std::uint64_t parentFid, const std::string& name);
  /// Removes the item if it still is the folder's child of that name, and, with an item, still that one.
  void RemoveChildIf(std::uint64_t parentFid, const std::string& name, std::uint64_t fid,
                     const IFsItem* item = nullptr);
  /// The child's FID or InvalidFid. "." gives the folder, whether it exists or not; ".." its parent.
  std::uint64_t LookupChild(std::uint64_t parentFid, std::string_view name) const;
  /// LookupChild and GetItem at one moment.
  boost::shared_ptr<IFsItem> GetChild(std::uint64_t parentFid, std::string_view name, std::uint64_t& fid) const;
  /// Whether there are so many items that most of them are far from the processor. May be told without a lock.
  bool IsLarge() const noexcept { return isLarge_; }
  /// For children that will be looked up soon, at most MostForeseen of them: has the processor fetch what that will
  /// touch, for all at a time instead of one after another. Changes nothing; names need not be there.
  void Foresee(std::span<const SListingPlace> places) const;
  static constexpr std::size_t MostForeseen = CNfsListingIndex::MostForeseen;
  /// Gives the item a new place under the same FID; an item that stands there is dropped. The registry keeps the old
  /// place until that is taken by another item, be it added or moved. Throws 22 for a place below the item itself.
  void MoveItem(std::uint64_t fid, std::uint64_t newParentFid, const std::string& newName);
  /// The memory that a move of the item takes. To be had before a backend is asked for the same move, which it does not
  /// take back.
  class CPreparedMove;
  CPreparedMove PrepareMove(std::uint64_t fid, const std::string& newName) const;
  /// Takes no memory unless the item has been moved since, or something stands at the place.
  void MoveItem(std::uint64_t fid, std::uint64_t newParentFid, CPreparedMove&& move);
  /// To be called before a backend puts something at the place: from here on no item that was moved away from it comes
  /// back there after a restart, nor one that was removed, whatever becomes of the backend's work. moverFid: the item
  /// that is to stand there, if it is one already. Throws when the registry cannot be brought to that.
  void ReleasePlace(std::uint64_t parentFid, const std::string& name, std::uint64_t moverFid = InvalidFid);
  /// To be called before the handle of a child that the table knows is given out. Throws when its record could not be
  /// stored, and still cannot be.
  void RequireStored(std::uint64_t fid);
  /// The same for all that are not stored.
  void RequireAllStored();
  /// True when fid is ancestorFid or lies below it.
  bool IsSameOrBelow(std::uint64_t fid, std::uint64_t ancestorFid) const;
  /// A folder gives its primary.
  boost::shared_ptr<IFsItem> GetItem(std::uint64_t fid) const;
  /// "name/name. FID: n", for logs.
  std::string GetItemPath(std::uint64_t fid) const;
  /// @}

  /// @name Mounts
  /// @{
  /// Adds a backing to a folder and to its stored record. Throws for an unknown FID, for a file, and when it cannot be
  /// stored; then nothing has changed.
  void MountMirroredFolder(std::uint64_t folderFid, const GUID& mountUid, const boost::shared_ptr<IFsFolder>& mirror);
  /// The object by which the mount backs the item.
  boost::shared_ptr<IFsItem> GetItemForMount(std::uint64_t fid, const GUID& mountUid) const;
  /// A copy; empty for an unknown FID and for a file.
  void GetFolderMirrors(std::uint64_t fid, std::vector<boost::shared_ptr<IFsFolder>>& mirrors) const;
  /// @}

  /// @name Listings. client is the caller's IPv4 address.
  /// @{
  /// Empty when nothing is kept or the FID is unknown; throws for a file.
  boost::shared_ptr<CNfsFolderDirPlusCache> GetDirPlusCache(std::uint64_t fid, std::uint32_t client);
  /// Keeps the listing for the client's next page. A FID that has gone is no fault.
  void SetDirPlusCache(std::uint64_t fid, std::uint32_t client,
                       const boost::shared_ptr<CNfsFolderDirPlusCache>& listing);
  /// Throws 2 for an unknown FID, and for a file.
  void ResetDirPlusCache(std::uint64_t fid, std::uint32_t client);
  /// The folder's unfiltered listing, if one is kept and nothing has changed in the table since.
  boost::shared_ptr<CNfsWholeListing> GetWholeListing(std::uint64_t fid);
  /// Another number after each change of the folder's children or backings; 0 when it is no folder.
  std::uint64_t GetFolderVersion(std::uint64_t fid) const;
  /// Keeps a listing, unless the folder has another version by now.
  void KeepWholeListing(std::uint64_t fid, const boost::shared_ptr<CNfsWholeListing>& listing);
  /// In the order of the names. The lock is given up between some thousands of them.
  void ListChildren(std::uint64_t parentFid, std::vector<SNfsChild>& children) const;
  void ListChildrenForMount(std::uint64_t parentFid, const GUID& mountUid, CNfsNameMap& children) const;
  void ListChildFidsForMount(std::uint64_t parentFid, const GUID& mountUid, std::set<std::uint64_t>& fids) const;
  /// @}

 private:
  struct SShare {
    std::uint64_t rootFid = InvalidFid;
    boost::shared_ptr<CNfsShareCfg> cfg;
  };
  using rec_ptr = boost::shared_ptr<CNfsItemRec>;
  struct SListingKey {
    std::uint64_t parentFid;
    std::string name;
  };
  /// Stands at the place that its record names, which is not changed while the entry is in the listing: a name is kept
  /// once, however many items there are.
  struct SListed {
    std::uint64_t fid;
    rec_ptr rec;
  };
  struct SListingLess {
    using is_transparent = void;
    template <typename Key>
    static const Key& Place(const Key& key) noexcept {
      return key;
    }
    static const CNfsItemRec& Place(const SListed& listed) noexcept { return *listed.rec; }
    template <typename Left, typename Right>
    bool operator()(const Left& leftKey, const Right& rightKey) const noexcept {
      const auto& left = Place(leftKey);
      const auto& right = Place(rightKey);
      if (left.parentFid != right.parentFid)
        return left.parentFid < right.parentFid;
      return platform::CompareIgnoringCase(left.name, right.name) < 0;
    }
  };
  /// Children of one folder are adjacent, in the order of their names.
  using CNfsListingTab = std::set<SListed, SListingLess>;
  using places_t = std::map<SListingKey, std::uint64_t, SListingLess>;
  struct SMoved {
    SListingKey stored;
    bool hasLeftFolder = false;  ///< Its object did not follow it: a backend renames within one folder.
  };
  using moved_items_t = std::map<std::uint64_t, SMoved>;
  /// A new item with what had to be asked of it before the lock was taken.
  struct SPrepared {
    const std::string& name;
    const boost::shared_ptr<IFsItem>& item;
    const IFsFolder* from;  ///< As AddFoundItem says.
    SFsItemSpec spec;
    const IFsItem* before = nullptr;  ///< As AddMadeItem says.
  };
  /// Items of which the log is to be told once the lock is free.
  struct SChange {
    std::string name;
    std::uint64_t fid;
    std::uint64_t parentFid;
    bool wasFound;
  };
  using changes_t = std::vector<SChange>;
  class CWrites;

  // All of these rely on the caller's lock, but for the writers of log lines, which are called without it.
  std::uint64_t GenerateFid() const;
  rec_ptr FindRec(std::uint64_t fid) const;
  rec_ptr GetRec(std::uint64_t fid) const;
  const SShare* FindShare(const std::string& alias, GUID* uid) const;
  /// What becomes of a record that has the name already.
  enum class found_t { Replace, ReplaceBefore, Keep };
  std::uint64_t AddOne(std::uint64_t parentFid, const std::string& name, const boost::shared_ptr<IFsItem>& item,
                       const IFsFolder* from, found_t found, const IFsItem* before = nullptr);
  /// Whether the item at the place gives way to the one that is added.
  bool IsReplaced(std::uint64_t fid, const SPrepared& prepared, found_t found) const;
  static bool IsBacked(const CNfsItemRec& parent, const SPrepared& prepared);
  std::uint64_t AddPrepared(std::uint64_t parentFid, const SPrepared& prepared, found_t found, changes_t& changes,
                            changes_t& removed);
  /// old: the record that it replaces, or null.
  void StorePrepared(std::uint64_t parentFid, std::uint64_t fid, const SPrepared& prepared, const CNfsItemRec* old);
  void TakeOverOldRec(CNfsItemRec& rec, std::uint64_t fid, changes_t& removed);
  void FreeStoredPlace(std::uint64_t parentFid, const std::string& name, std::uint64_t moverFid);
  void NoteMove(std::uint64_t fid, const CNfsItemRec& rec, std::uint64_t newParentFid, CPreparedMove& move);
  void ForgetMove(std::uint64_t fid);
  /// Runs a write of the item's record, after NoteUnwritten; one that fails stays noted.
  template <typename Write>
  void WriteRecord(std::uint64_t fid, const Write& write);
  /// To be called before a change that the item's record has to follow: afterwards there may be no memory for the note.
  void NoteUnwritten(std::uint64_t fid);
  void NoteWritten(std::uint64_t fid) noexcept;
  void DeleteAgain(std::uint64_t fid);
  /// What the registry still has of items that are none any more. Throws at the first that fails.
  void DeleteAllAgain();
  void Delete(std::uint64_t fid, const GUID* mountUid, bool isShareRoot, changes_t& removed);
  void DeleteChildren(std::uint64_t fid, const GUID* mountUid, changes_t& removed);
  void DeleteOne(std::uint64_t fid, const CNfsItemRec& rec, changes_t& removed);
  void PutRec(std::uint64_t fid, const rec_ptr& rec);
  /// To be called after each change of a folder's children or backings.
  void NoteFolderChange(std::uint64_t fid);
  /// Also gives the entry the new spelling.
  void PutListing(std::uint64_t fid, const rec_ptr& rec);
  void EraseListing(const CNfsItemRec& rec, std::uint64_t fid);
  /// After a change of the index.
  void NoteSize() noexcept;
  /// The child of that name, null for none. Until the table changes.
  const CNfsListingIndex::SEntry* FindIndexed(std::uint64_t parentFid, std::string_view name) const;
  void StoreMirror(std::uint64_t folderFid, const CNfsItemRec& rec, const GUID& mountUid, SFsItemSpec spec);
  void RemoveAndLogShare(const GUID& uid);
  void DropMirror(std::uint64_t fid, CNfsItemRec& rec, const GUID& mountUid);
  CNfsListingTab::const_iterator FirstChild(std::uint64_t parentFid) const;
  static bool LivesWithout(const CNfsItemRec& rec, const GUID* mountUid);
  static void LogAdded(const changes_t& changes);
  static void LogRemoved(const changes_t& removed);
  /// Runs a removal under the lock and tells the log, also of what was removed before a failure.
  template <typename Removal>
  void RemoveAndLog(const Removal& removal);

  mutable platform::brief_mutex_t<std::recursive_mutex> mutex_;  // Guards all below.
  std::map<GUID, SShare> shares_;
  std::unordered_map<std::uint64_t, rec_ptr> items_;
  CNfsListingTab listing_;
  CNfsListingIndex listingIndex_;
  CNfsListingSlots slots_;
  std::uint64_t folderVersions_ = 0;  // Given out so far.
  // Stored places of items that were moved away from them: place to FID, FID to place. No other item stands at one of
  // these places.
  places_t movedFrom_;
  moved_items_t movedItems_;
  // Items whose record is not what it should be; those that are no items any more should have none.
  std::set<std::uint64_t> unwritten_;
  std::atomic<bool> hasUnwritten_ = false;  // Also read without the lock.
  std::atomic<bool> isLarge_ = false;       // The same.
  CWrites* writes_ = nullptr;               // Those of the transaction under way.

  const boost::shared_ptr<CRegConfigUpdateSink> updateSink_;
};

class CFsItemsTab::CPreparedMove {
 private:
  friend class CFsItemsTab;

  std::string name_;
  SListingKey stored_;  // Where the item is.
  moved_items_t::node_type moved_;
  places_t::node_type place_;
};

/// The item; throws CVirtualFsExc 70 for an unknown FID.
boost::shared_ptr<IFsItem> GetRequiredItem(const CFsItemsTab& tab, std::uint64_t fid);
