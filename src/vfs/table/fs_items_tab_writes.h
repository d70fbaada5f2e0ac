// How the table writes to the registry, and remembers what could not be written.
#pragma once

#include <cstdint>
#include <vector>

#include "config/reg_config_update_sink.h"
#include "vfs/table/fs_items_tab.h"

/// Makes the table's writes one transaction, from here to Commit. When it fails, all of them stay noted as unwritten.
/// Under the table's lock, and none inside another.
class CFsItemsTab::CWrites {
 public:
  explicit CWrites(CFsItemsTab& tab) : tab_(tab), batch_(*tab.updateSink_) { tab_.writes_ = this; }
  CWrites(const CWrites&) = delete;
  CWrites& operator=(const CWrites&) = delete;
  ~CWrites() { tab_.writes_ = nullptr; }

  void Add(std::uint64_t fid) { fids_.push_back(fid); }
  /// Once, at the end. Throws when nothing was stored.
  void Commit() {
    batch_.Commit();
    for (const std::uint64_t fid : fids_)
      tab_.NoteWritten(fid);
  }

 private:
  CFsItemsTab& tab_;
  std::vector<std::uint64_t> fids_;
  CRegConfigUpdateSink::CBatch batch_;
};

template <typename Write>
void CFsItemsTab::WriteRecord(std::uint64_t fid, const Write& write) {
  write();
  if (writes_ == nullptr)
    NoteWritten(fid);
}
