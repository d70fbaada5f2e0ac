#include "vfs/table/nfs_log_filter.h"

#include <chrono>

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

bool CNfsLogFilter::AdmitMountLoss(const GUID& shareUid, const GUID& mountUid) {
  return Admit(mountLosses_, {shareUid, mountUid});
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
