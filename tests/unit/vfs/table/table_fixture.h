// A table whose registry is in memory, and fake items to put into it.
#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "config/nfs_share_cfg.h"
#include "config/reg_config_update_sink.h"
#include "support/fake_fs_backend.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/table/fs_items_tab.h"

namespace test {

/// Keeps what the table stores.
class CMemorySink : public CRegConfigUpdateSink {
 public:
  struct SRecord {
    std::uint64_t parentFid = 0;
    std::string name;
    std::map<GUID, SFsItemSpec> backings;
  };

  CMemorySink() : CRegConfigUpdateSink(nullptr) {}

  using CRegConfigUpdateSink::OnItemAdded;
  void OnItemAdded(std::uint64_t parentFid, const std::string& name, std::uint64_t fid,
                   const SFsItemSpec& spec) override {
    CheckBroken();
    SRecord& record = records[fid];
    record.parentFid = parentFid;
    record.name = name;
    record.backings[spec.mountUid] = spec;
    ++writes;
  }
  void OnItemDeleted(std::uint64_t fid, const GUID* mountUid) override {
    CheckBroken();
    if (mountUid == nullptr) {
      records.erase(fid);
      return;
    }
    records[fid].backings.erase(*mountUid);
    if (records[fid].backings.empty())
      records.erase(fid);
  }
  void OnItemMoved(std::uint64_t fid, std::uint64_t parentFid, const std::string& name) override {
    CheckBroken();
    const auto record = records.find(fid);
    if (record == records.end())
      return;
    record->second.parentFid = parentFid;
    record->second.name = name;
  }

  std::map<std::uint64_t, SRecord> records;
  bool isBroken = false;
  bool isCommitBroken = false;  ///< What a batch wrote is taken back.
  int writes = 0;
  int batches = 0;

 protected:
  void BeginBatch() override {
    ++batches;
    before_ = records;
  }
  void CommitBatch() override {
    if (!isCommitBroken)
      return;
    RollbackBatch();
    throw exc::win_sys_exc_t("The registry is broken.", platform::error::DiskFull);
  }
  void RollbackBatch() noexcept override { records = before_; }

 private:
  void CheckBroken() const {
    if (isBroken)
      throw exc::win_sys_exc_t("The registry is broken.", platform::error::DiskFull);
  }

  std::map<std::uint64_t, SRecord> before_;
};

inline GUID Guid(std::uint8_t number) {
  GUID guid;
  guid.bytes[15] = number;
  return guid;
}

/// One share, "vol", on a fake backend that stands for the host.
class TableFixture : public ::testing::Test {
 public:
  TableFixture() {
    cfg->nfsFolderName = "vol";
    cfg->localPath = "/srv/vol";
    table.RegisterShare(cfg, shareUid, CFakeFolder::Root(host, true), InvalidFid);
    root = table.GetShareFid(shareUid);
  }

  boost::shared_ptr<IFsItem> MakeFile(const std::string& path) {
    return boost::make_shared<CFakeFile>(host, host->Put(path, false), path);
  }
  boost::shared_ptr<CFakeFolder> MakeFolder(const std::string& path) {
    return boost::make_shared<CFakeFolder>(host, host->Put(path, true), path);
  }
  boost::shared_ptr<IFsItem> MakeMountFile(const boost::shared_ptr<SFakeBackend>& backend, const std::string& path) {
    return boost::make_shared<CFakeFile>(backend, backend->Put(path, false), path);
  }
  CNfsNameMap Children(std::uint64_t fid) {
    std::vector<SNfsChild> list;
    table.ListChildren(fid, list);
    CNfsNameMap children;
    for (const SNfsChild& child : list)
      children.emplace(child.name, child.fid);
    return children;
  }

  const boost::shared_ptr<CMemorySink> sink = boost::make_shared<CMemorySink>();
  CFsItemsTab table{sink};
  const boost::shared_ptr<SFakeBackend> host = boost::make_shared<SFakeBackend>();
  const boost::shared_ptr<CNfsShareCfg> cfg = boost::make_shared<CNfsShareCfg>();
  const GUID shareUid = Guid(1);
  std::uint64_t root = InvalidFid;
};

/// Runs the call and gives the text of what it threw; fails the test when it threw nothing.
template <typename Exception = std::exception, typename Call>
std::string ThrownText(const Call& call) {
  try {
    call();
  } catch (const Exception& failure) {
    return failure.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

/// The status of the CVirtualFsExc that the call throws.
template <typename Call>
nfsstat3 ThrownStatus(const Call& call) {
  try {
    call();
  } catch (const CVirtualFsExc& failure) {
    return failure.Status();
  }
  ADD_FAILURE() << "no CVirtualFsExc was thrown";
  return NFS3_OK;
}

}  // namespace test
