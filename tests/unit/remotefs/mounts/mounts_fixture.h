// A share on the host, mounts in it, and the agents behind them.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "config/nfs_share_cfg.h"
#include "config/reg_config_update_sink.h"
#include "hostfs/host_fs_file_cache.h"
#include "hostfs/host_fs_folder.h"
#include "remotefs/mounts/remote_fs_mounter.h"
#include "support/captured_log.h"
#include "support/failure_text.h"
#include "support/remote_mount.h"
#include "vfs/items/fs_proc_invoker.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/table/nfs_log_filter.h"

namespace test {

inline GUID MountUid(std::uint8_t number) {
  GUID uid;
  uid.bytes[15] = number;
  return uid;
}

inline const std::string UidText7 = "{00000000-0000-0000-0000-000000000007}";

/// Stores nothing, and fails when it is told to.
class CFaultySink : public CRegConfigUpdateSink {
 public:
  CFaultySink() : CRegConfigUpdateSink(nullptr) {}

  using CRegConfigUpdateSink::OnItemAdded;
  void OnItemAdded(std::uint64_t, const std::string&, std::uint64_t, const SFsItemSpec&) override { CheckBroken(); }
  void OnItemDeleted(std::uint64_t, const GUID*) override { CheckBroken(); }
  void OnItemMoved(std::uint64_t, std::uint64_t, const std::string&) override { CheckBroken(); }

  std::atomic<bool> isBroken{false};
  std::atomic<int> writesUntilBroken{0};  ///< Above 0: so many writes succeed, and then it is broken.

 protected:
  void BeginBatch() override {}
  void CommitBatch() override {}
  void RollbackBatch() noexcept override {}

 private:
  void CheckBroken() {
    if (writesUntilBroken > 0) {
      isBroken = --writesUntilBroken == 0;
      return;
    }
    if (isBroken)
      throw exc::win_sys_exc_t("The registry is broken.", platform::error::DiskFull);
  }
};

/// The share "vol" on a host folder with the sub-folder "backup". The agent "vm1" runs.
class MountsFixture : public RemoteMountFixture {
 protected:
  MountsFixture() {
    HostFsFileCache::Init();
    std::filesystem::create_directories(host / "backup");
    shareCfg->nfsFolderName = "vol";
    shareCfg->localPath = host.string();
    tab->RegisterShare(shareCfg, shareUid, CHostFsFolder::Create(host.string(), hostInvoker, allocator, {}, true),
                       InvalidFid);
    root = tab->GetShareFid(shareUid);
    cfg->nfsFolderID = shareUid;
    cfg->mountPoint = "backup";
  }
  ~MountsFixture() override {
    mounter.reset();
    tab.reset();
    HostFsFileCache::Deinit();
  }

  boost::shared_ptr<CRemoteFsMounter> MakeMounter(const CRemoteFsMounter::mounts_cfg_t& mounts = {}) const {
    return boost::make_shared<CRemoteFsMounter>(mounts, tab, allocator, filter, limits);
  }
  boost::shared_ptr<CBackupMountCfg> Cfg(const std::string& pipe, const std::string& mountPoint,
                                         const std::string& vmName = "machine") const {
    const auto result = MountCfg(pipe);
    result->nfsFolderID = shareUid;
    result->mountPoint = mountPoint;
    result->vmName = vmName;
    return result;
  }
  /// As a client finds it: in the folder's backings, and into the table.
  std::uint64_t Find(std::uint64_t folderFid, const std::string& name) const {
    std::vector<boost::shared_ptr<IFsFolder>> mirrors;
    tab->GetFolderMirrors(folderFid, mirrors);
    for (const auto& mirror : mirrors) {
      if (const auto item = mirror->OpenChild(name))
        return tab->AddFoundItem(folderFid, name, item);
    }
    return InvalidFid;
  }
  std::string Read(std::uint64_t fid) const {
    const auto file = boost::dynamic_pointer_cast<IFsFile>(tab->GetItem(fid));
    if (!file)
      return "no file";
    SFsReadBuffer buffer;
    try {
      file->Read(0, 1000, buffer);
    } catch (const exc::exc_base_t& failure) {
      return failure.what();
    }
    return {buffer.data.begin(), buffer.data.begin() + buffer.length};
  }
  /// What the log was told, but for threads that start whenever they like.
  static std::vector<std::string> Told(const CapturedLog& log) { return WithoutThreads(log.Texts()); }
  static std::vector<std::string> WithoutThreads(std::vector<std::string> lines) {
    std::erase_if(lines, [](const std::string& line) {
      return line.starts_with("Invocation thread started") || line.starts_with("Thread started.") ||
             line == "[HostFsFileCache] Purge thread started";
    });
    return lines;
  }
  /// The only connector of the mounter.
  boost::shared_ptr<CRemoteFsConnector> TheConnector() const {
    CRemoteFsMounter::connectors_t mounts;
    mounter->GetActiveMounts(mounts);
    if (mounts.empty())
      mounter->GetInactiveMounts(mounts);
    return mounts.empty() ? nullptr : mounts.begin()->second;
  }
  std::set<GUID> Active() const { return Uids(&CRemoteFsMounter::GetActiveMounts); }
  std::set<GUID> Inactive() const { return Uids(&CRemoteFsMounter::GetInactiveMounts); }
  std::vector<std::string> Connections() const {
    std::list<std::string> names;
    mounter->GetActiveConnections(names);
    return {names.begin(), names.end()};
  }

  const std::filesystem::path host = folder.Path() / "host";
  const GUID shareUid = MountUid(1);
  const GUID mountUid = MountUid(7);
  const boost::shared_ptr<CNfsShareCfg> shareCfg = boost::make_shared<CNfsShareCfg>();
  const boost::shared_ptr<CFsProcInvoker> hostInvoker = CFsProcInvoker::Create("hostfs", 1, allocator);
  const boost::shared_ptr<CFaultySink> sink = boost::make_shared<CFaultySink>();
  boost::shared_ptr<CFsItemsTab> tab = boost::make_shared<CFsItemsTab>(sink);
  std::uint64_t now = 0;
  const boost::shared_ptr<CNfsLogFilter> filter = boost::make_shared<CNfsLogFilter>([this] { return now; });
  std::uint64_t root = InvalidFid;
  boost::shared_ptr<CRemoteFsMounter> mounter;

 private:
  std::set<GUID> Uids(void (CRemoteFsMounter::*get)(CRemoteFsMounter::connectors_t&) const) const {
    CRemoteFsMounter::connectors_t mounts;
    mounts.emplace(MountUid(99), nullptr);
    (mounter.get()->*get)(mounts);
    std::set<GUID> uids;
    for (const auto& mount : mounts)
      uids.insert(mount.first);
    return uids;
  }
};

}  // namespace test
