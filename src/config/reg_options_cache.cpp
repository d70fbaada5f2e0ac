#include "config/reg_options_cache.h"

#include <utility>

#include "config/reg_config_root_folder.h"
#include "foundation/log.h"
#include "platform/clock.h"

std::string CRegOptionsCache::Get() {
  std::unique_lock<std::mutex> lock(lock_);
  const std::uint64_t now = platform::Clock().MonotonicMilliseconds();
  if (!lastUpdate_) {
    rootFolder_ = CRegConfigRootFolder(true).Get();
    lastUpdate_ = now;
    return rootFolder_;
  }
  if (now - *lastUpdate_ < PeriodMilliseconds)
    return rootFolder_;

  // One thread reads again; the others go on with what is known, however long the registry takes.
  lastUpdate_ = now;
  lock.unlock();
  std::string rootFolder;
  try {
    rootFolder = CRegConfigRootFolder(true).Get();
  } catch (const std::exception& failure) {
    // A registry that is busy for a while must not fail the clients' calls.
    g_nfs_log.Warning("The root folder is not read again.", failure);
    lock.lock();
    return rootFolder_;
  }
  lock.lock();
  rootFolder_ = std::move(rootFolder);
  return rootFolder_;
}
