#include "vfs/table/nfs_log_filter.h"

#include <chrono>

#include "foundation/log.h"

namespace {

std::uint64_t SteadyMsec() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

}  // namespace

CNfsLogFilter::CNfsLogFilter() : CNfsLogFilter(SteadyMsec) {}

CNfsLogFilter::CNfsLogFilter(clock_t clock) : clock_(std::move(clock)) {
  const std::uint64_t now = clock_();
  mountLosses_.lastPurge = getAttrs_.lastPurge = reads_.lastPurge = writes_.lastPurge = lookups_.lastPurge = now;
}

void CNfsLogFilter::ReportLost(const GUID& mountUid, const CBackupMountCfg& cfg) {
  if (!Admit(mountLosses_, {cfg.nfsFolderID, mountUid}))
    return;
  g_nfs_log.Warning("[Mount] Failed to re-connect mount agent. VM: \"%1\". Mount ID: \"%2\".  Pipe: \"%3\".",
                    cfg.vmName, platform::GuidToText(mountUid), cfg.pipe);
}

bool CNfsLogFilter::AdmitGetAttrs(std::uint64_t fid) {
  return Admit(getAttrs_, fid);
}

bool CNfsLogFilter::AdmitRead(std::uint64_t fid) {
  return Admit(reads_, fid);
}

bool CNfsLogFilter::AdmitWrite(std::uint64_t fid) {
  return Admit(writes_, fid);
}

bool CNfsLogFilter::AdmitLookup(std::uint64_t folderFid, std::string_view name) {
  // No file system has longer names; what a client sends may be much longer.
  constexpr std::size_t MaxName = 256;
  return Admit(lookups_, {folderFid, std::string(name.substr(0, MaxName))});
}

template <typename Key>
bool CNfsLogFilter::Admit(SSet<Key>& set, Key key) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::uint64_t now = clock_();
  if (now - set.lastPurge >= PurgePeriodMsec || set.keys.size() >= MaxKeys) {
    set.keys.clear();
    set.lastPurge = now;
  }
  return set.keys.insert(std::move(key)).second;
}
