// Keeps failures that repeat from filling the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "config/backup_mount_cfg.h"
#include "platform/guid.h"

/// Remembers for half an hour which failure lines were written. Each question is true for the first failure of its
/// key, and the line is then written; a client that meets the same failure in a loop logs once. Any thread; the lock is
/// the filter's own and is held for the question alone.
class CNfsLogFilter {
 public:
  /// Milliseconds of a clock that does not go back.
  using clock_t = std::function<std::uint64_t()>;

  static constexpr std::uint64_t PurgePeriodMsec = 1800000;
  /// A set that grows past this is emptied early, so that a client which asks for ever new names costs no memory.
  static constexpr std::size_t MaxKeys = 100000;

  CNfsLogFilter();
  explicit CNfsLogFilter(clock_t clock);

  /// Writes the line of a mount whose agent did not come back, if it is the first.
  void ReportLost(const GUID& mountUid, const CBackupMountCfg& cfg);
  bool AdmitGetAttrs(std::uint64_t fid);
  bool AdmitRead(std::uint64_t fid);
  bool AdmitWrite(std::uint64_t fid);
  bool AdmitLookup(std::uint64_t folderFid, std::string_view name);

 private:
  template <typename Key>
  struct SSet {
    std::set<Key> keys;
    std::uint64_t lastPurge = 0;
  };

  template <typename Key>
  bool Admit(SSet<Key>& set, Key key);

  const clock_t clock_;
  std::mutex mutex_;  // Guards all below.
  SSet<std::pair<GUID, GUID>> mountLosses_;
  SSet<std::uint64_t> getAttrs_;
  SSet<std::uint64_t> reads_;
  SSet<std::uint64_t> writes_;
  SSet<std::pair<std::uint64_t, std::string>> lookups_;
};
