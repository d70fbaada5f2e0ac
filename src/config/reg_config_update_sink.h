// The way by which the catalogue in the registry follows the table of items.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "platform/guid.h"
#include "vfs/items/fs_item.h"

class CRegConfig;

/// Called by the table for each change, under the table's lock, on any thread. Throws what keeps the change from being
/// written. A test may derive a sink that writes elsewhere, and give it no configuration.
class CRegConfigUpdateSink {
 public:
  explicit CRegConfigUpdateSink(boost::shared_ptr<CRegConfig> config);
  CRegConfigUpdateSink(const CRegConfigUpdateSink&) = delete;
  CRegConfigUpdateSink& operator=(const CRegConfigUpdateSink&) = delete;
  virtual ~CRegConfigUpdateSink();

  /// Asks the item for its spec and stores it.
  void OnItemAdded(std::uint64_t parentFid, const std::string& name, std::uint64_t fid, IFsItem& item);
  virtual void OnItemAdded(std::uint64_t parentFid, const std::string& name, std::uint64_t fid,
                           const SFsItemSpec& spec);
  /// mountUid as in CRegConfig::DeleteItem.
  virtual void OnItemDeleted(std::uint64_t fid, const GUID* mountUid);
  /// The stored item has a new place.
  virtual void OnItemMoved(std::uint64_t fid, std::uint64_t parentFid, const std::string& name);

  /// Makes the calls of one thread on one sink a single transaction, from here to Commit: it costs about as much as a
  /// single write. Without a Commit nothing of them is stored. After a call that threw, Commit throws too. One inside
  /// another joins it. Other threads that write to the registry wait meanwhile.
  class CBatch {
   public:
    explicit CBatch(CRegConfigUpdateSink& sink);
    CBatch(const CBatch&) = delete;
    CBatch& operator=(const CBatch&) = delete;
    ~CBatch();

    /// Once, at the end. Throws when nothing was stored.
    void Commit();

   private:
    CRegConfigUpdateSink& sink_;
    bool open_;
  };

 protected:
  /// What CBatch calls. Commit and Rollback each answer one Begin.
  virtual void BeginBatch();
  virtual void CommitBatch();
  virtual void RollbackBatch() noexcept;

 private:
  const boost::shared_ptr<CRegConfig> config_;
};
