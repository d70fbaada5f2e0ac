#include "hostfs/host_fs_file_cache.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <boost/smart_ptr/atomic_shared_ptr.hpp>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/thread.h"
#include "hostfs/files_access_permissions.h"
#include "platform/clock.h"
#include "platform/text.h"

namespace {

using file_ptr_t = boost::shared_ptr<platform::file_t>;

constexpr std::uint64_t IdleLimitMilliseconds = 3 * 60 * 1000;

/// One file kept open. Its end is logged, so it is never destroyed under the lock.
class CHostFsFileHandleCacheRecord {
 public:
  CHostFsFileHandleCacheRecord(std::string ownKey, std::string root) : key(std::move(ownKey)), roots{std::move(root)} {}
  CHostFsFileHandleCacheRecord(const CHostFsFileHandleCacheRecord&) = delete;
  CHostFsFileHandleCacheRecord& operator=(const CHostFsFileHandleCacheRecord&) = delete;
  ~CHostFsFileHandleCacheRecord() { g_nfs_log.Info("[HostFsFileCache] Del record '%1'", key); }

  const std::string key;
  file_ptr_t file;
  bool isForReadingAlone = false;
  bool passesLink = false;
  std::uint64_t lastUse = 0;       // Milliseconds of platform::Clock().
  std::vector<std::string> roots;  // Below which of them the path was found to lead to this file.
};
using record_ptr_t = boost::shared_ptr<CHostFsFileHandleCacheRecord>;
using records_t = std::map<std::string, record_ptr_t, std::less<>>;
/// Where records go without memory being taken: what was renamed or deleted must not stay open under its old path.
using dropped_t = records_t;

/// The path itself, or what is made of it in `room`.
std::string_view MakeKey(std::string_view path, std::string& room) {
  if (path.find('\\') == std::string_view::npos) {
    return path;
  }
  room = path;
  std::replace(room.begin(), room.end(), '\\', '/');
  return room;
}

/// Whether the key is that of something in the folder.
bool IsBelow(std::string_view key, std::string_view folder) noexcept {
  if (key.size() < folder.size() || !platform::EqualIgnoringCase(key.substr(0, folder.size()), folder)) {
    return false;
  }
  return folder.ends_with('/') || (key.size() > folder.size() && key[folder.size()] == '/');
}

/// All of the cache between Init and Deinit. A purge thread that does not end keeps it alive.
struct SCacheState {
  std::mutex lock;  // Guards all down to isClosed, and all but the key of each record.
  records_t records;
  std::multimap<platform::file_id_t, records_t::iterator> byFile;  // Each of the records once.
  std::size_t linkedRecords = 0;                                   // Those whose paths pass a link.
  bool isClosed = false;

  std::mutex stopLock;  // Guards the rest.
  std::condition_variable stopChanged;
  bool isStopping = false;
  bool hasEnded = false;
  bool isAbandoned = false;  // Deinit went on; the thread clears up after itself.
  std::unique_ptr<synch::thread_t> purgeThread;

  std::chrono::milliseconds purgePeriod{};  // Constant.
  std::chrono::milliseconds stopLimit{};

  void Add(const record_ptr_t& record) {
    const records_t::iterator added = records.emplace(record->key, record).first;
    try {
      byFile.emplace(record->file->Id(), added);
    } catch (...) {
      records.erase(added);
      throw;
    }
    linkedRecords += record->passesLink ? 1 : 0;
  }

  records_t::iterator Drop(records_t::iterator record, dropped_t& dropped) noexcept {
    record->second->file->ReleaseShare();
    const auto [first, last] = byFile.equal_range(record->second->file->Id());
    byFile.erase(std::find_if(first, last, [&record](const auto& other) { return other.second == record; }));
    linkedRecords -= record->second->passesLink ? 1 : 0;
    const records_t::iterator next = std::next(record);
    dropped.insert(records.extract(record));
    return next;
  }

  template <typename Predicate>
  void DropIf(const Predicate& isUnwanted, dropped_t& dropped) noexcept {
    for (auto record = records.begin(); record != records.end();) {
      record = isUnwanted(*record->second) ? Drop(record, dropped) : std::next(record);
    }
  }

  void DropPath(std::string_view path, dropped_t& dropped) {
    std::string room;
    if (const auto found = records.find(MakeKey(path, room)); found != records.end()) {
      Drop(found, dropped);
    }
  }

  void DropFile(const platform::file_id_t& id, dropped_t& dropped) noexcept {
    for (auto found = byFile.find(id); found != byFile.end(); found = byFile.find(id)) {
      Drop(found->second, dropped);
    }
  }
};

boost::atomic_shared_ptr<SCacheState> cacheState;

[[noreturn]] void ThrowNoLock() {
  throw exc::runtime_exc_t("Failed to synchronize {null} object");
}

boost::shared_ptr<SCacheState> State() {
  boost::shared_ptr<SCacheState> state = cacheState.load();
  if (!state) {
    ThrowNoLock();
  }
  return state;
}

class CCacheLock {
 public:
  explicit CCacheLock(SCacheState& state) : lock_(state.lock) {
    if (state.isClosed) {
      ThrowNoLock();
    }
  }

 private:
  const std::lock_guard<std::mutex> lock_;
};

platform::error_t OpenFile(const platform::location_t& where, platform::files_t& files, file_ptr_t& file,
                           bool& isForReadingAlone) {
  security::FilesAccessPermissions().CheckAccess(where.Path());
  platform::file_request_t request;
  const platform::error_t failure = files.Open(where, request, file);
  isForReadingAlone = failure == platform::error::AccessDenied;
  if (!isForReadingAlone) {
    return failure;
  }
  // Files and media that cannot be written can still be read.
  request.access = platform::file_access_t::Read;
  return files.Open(where, request, file);
}

/// Whether the record may serve a caller who is confined to another root than those so far: the path must lead to the
/// same file without leaving that one.
platform::error_t CheckRoot(CHostFsFileHandleCacheRecord& record, const platform::location_t& where,
                            platform::files_t& files, bool& isSame) {
  const std::string& root = where.Root().Path();
  isSame = std::find(record.roots.begin(), record.roots.end(), root) != record.roots.end();
  if (isSame) {
    return platform::error::Success;
  }
  platform::file_info_t info;
  const platform::error_t failure = files.GetInfo(where, info);
  isSame = failure == platform::error::Success && info.id == record.file->Id();
  if (isSame) {
    record.roots.push_back(root);
  }
  return failure;
}

/// Tries to have a file for writing that is open for reading alone. When that fails it serves on, without a share mode,
/// which readers do not need. `former` takes what is not to be closed under the lock.
void OpenForWriting(CHostFsFileHandleCacheRecord& record, const platform::location_t& where, platform::files_t& files,
                    file_ptr_t& former) {
  // Our own share mode stands in the way.
  record.file->ReleaseShare();
  file_ptr_t file;
  bool isForReadingAlone = false;
  if (OpenFile(where, files, file, isForReadingAlone) != platform::error::Success) {
    return;
  }
  const bool isSame = file->Id() == record.file->Id();
  former = std::exchange(isSame ? record.file : file, isSame ? file : nullptr);
  if (isSame) {
    record.isForReadingAlone = isForReadingAlone;
  }
}

/// Opens a file to empty it, or makes it, and drops whatever record of it is in the way.
platform::error_t OpenWithoutRecords(const platform::location_t& where, platform::files_t& files,
                                     platform::file_disposition_t disposition, file_ptr_t& file) {
  const platform::file_request_t request{platform::file_access_t::ReadWrite, platform::file_share_t::Read, disposition};
  const boost::shared_ptr<SCacheState> state = State();
  dropped_t dropped;
  const CCacheLock lock(*state);
  state->DropPath(where.Path(), dropped);
  for (;;) {
    const platform::error_t failure = files.Open(where, request, file);
    platform::file_info_t info;
    if (failure != platform::error::SharingViolation || files.GetInfo(where, info) != platform::error::Success) {
      return failure;
    }
    const std::size_t before = dropped.size();
    state->DropFile(info.id, dropped);
    if (dropped.size() == before) {
      return failure;
    }
  }
}

void PurgeState(SCacheState& state) {
  dropped_t dropped;
  const std::lock_guard<std::mutex> lock(state.lock);
  const std::uint64_t now = platform::Clock().MonotonicMilliseconds();
  state.DropIf(
      [now](const CHostFsFileHandleCacheRecord& record) {
        return (now > record.lastUse ? now - record.lastUse : record.lastUse - now) >= IdleLimitMilliseconds;
      },
      dropped);
}

void RunPurgeThread(const boost::shared_ptr<SCacheState>& state) {
  try {
    g_nfs_log.Info("[HostFsFileCache] Purge thread started");
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(state->stopLock);
        if (state->stopChanged.wait_for(lock, state->purgePeriod, [&state] { return state->isStopping; })) {
          break;
        }
      }
      try {
        PurgeState(*state);
      } catch (const std::exception& failure) {
        g_nfs_log.Warning("[HostFsFileCache] A purge failed", failure);
      }
    }
    g_nfs_log.Info("[HostFsFileCache] Purge thread terminated");
  } catch (const std::exception& exception) {
    g_nfs_log.Error("[HostFsFileCache] Purge thread finished unexpectedly", exception);
  }
  std::unique_ptr<synch::thread_t> own;
  const std::lock_guard<std::mutex> lock(state->stopLock);
  state->hasEnded = true;
  if (state->isAbandoned) {
    own = std::move(state->purgeThread);
  }
}

void StopPurgeThread(SCacheState& state) {
  {
    const std::lock_guard<std::mutex> lock(state.stopLock);
    state.isStopping = true;
    state.stopChanged.notify_all();
  }
  const bool isJoined = state.purgeThread->WaitFor(static_cast<std::uint32_t>(state.stopLimit.count()));
  std::unique_ptr<synch::thread_t> ended;
  const std::lock_guard<std::mutex> lock(state.stopLock);
  if (isJoined || state.hasEnded) {
    ended = std::move(state.purgeThread);
  } else {
    state.isAbandoned = true;
  }
}

}  // namespace

void HostFsFileCache::Init(std::chrono::milliseconds purgePeriod, std::chrono::milliseconds stopLimit) {
  if (cacheState.load()) {
    Deinit();
  }
  const auto state = boost::make_shared<SCacheState>();
  state->purgePeriod = purgePeriod;
  state->stopLimit = stopLimit;
  state->purgeThread =
      std::make_unique<synch::thread_t>("HostFs File Cache Purge Thread", [state] { RunPurgeThread(state); });
  cacheState.store(state);
  g_nfs_log.Info("[HostFsFileCache] Cache initialized");
}

void HostFsFileCache::Deinit() {
  const boost::shared_ptr<SCacheState> state = cacheState.exchange(nullptr);
  if (!state) {
    return;
  }
  StopPurgeThread(*state);
  dropped_t dropped;
  {
    const std::lock_guard<std::mutex> lock(state->lock);
    state->isClosed = true;
    state->DropIf([](const CHostFsFileHandleCacheRecord&) { return true; }, dropped);
  }
  dropped.clear();
  g_nfs_log.Info("[HostFsFileCache] Cache deinitialized");
}

platform::error_t HostFsFileCache::TryGetFile(const platform::location_t& where, platform::files_t& files, use_t use,
                                              file_ptr_t& file) {
  const boost::shared_ptr<SCacheState> state = State();
  const std::string& path = where.Path();
  std::string room;
  const std::string_view key = MakeKey(path, room);
  dropped_t dropped;
  file_ptr_t former;
  {
    const CCacheLock lock(*state);
    auto found = state->records.find(key);
    if (found != state->records.end()) {
      bool isSame = false;
      if (const platform::error_t failure = CheckRoot(*found->second, where, files, isSame);
          failure != platform::error::Success) {
        return failure;
      }
      if (!isSame) {
        state->Drop(found, dropped);
        found = state->records.end();
      }
    }
    if (found != state->records.end()) {
      CHostFsFileHandleCacheRecord& record = *found->second;
      if (use == use_t::Write && record.isForReadingAlone) {
        OpenForWriting(record, where, files, former);
      }
      record.lastUse = platform::Clock().MonotonicMilliseconds();
      file = record.file;
      return platform::error::Success;
    }
    bool isForReadingAlone = false;
    if (const platform::error_t failure = OpenFile(where, files, file, isForReadingAlone);
        failure != platform::error::Success) {
      return failure;
    }
    const auto record = boost::make_shared<CHostFsFileHandleCacheRecord>(std::string(key), where.Root().Path());
    record->file = file;
    record->isForReadingAlone = isForReadingAlone;
    record->passesLink = files.PassesLink(where);
    record->lastUse = platform::Clock().MonotonicMilliseconds();
    state->Add(record);
  }
  g_nfs_log.Info("[HostFsFileCache] Add record '%1'", key);
  return platform::error::Success;
}

file_ptr_t HostFsFileCache::GetFile(const platform::location_t& where, platform::files_t& files) {
  file_ptr_t file;
  if (const platform::error_t failure = TryGetFile(where, files, use_t::Read, file);
      failure != platform::error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to open existing file [%1] for read/write access.", where.Path()),
                             failure);
  }
  return file;
}

file_ptr_t HostFsFileCache::GetFile(const std::string& path) {
  const std::string normalized = platform::NormalizePath(path);
  const std::size_t separator = normalized.rfind('/');
  const std::string folder = separator == std::string::npos ? std::string(".") : normalized.substr(0, separator + 1);
  const std::string name = separator == std::string::npos ? normalized : normalized.substr(separator + 1);
  return GetFile(platform::location_t(boost::make_shared<platform::root_folder_t>(folder), name),
                 platform::SystemFiles());
}

void HostFsFileCache::Remove(const std::string& path) {
  const boost::shared_ptr<SCacheState> state = State();
  dropped_t dropped;
  const CCacheLock lock(*state);
  state->DropPath(path, dropped);
}

void HostFsFileCache::RemoveSubtree(const std::string& path) {
  const boost::shared_ptr<SCacheState> state = State();
  std::string room;
  const std::string_view folder = MakeKey(path, room);
  dropped_t dropped;
  const CCacheLock lock(*state);
  state->DropIf([folder](const CHostFsFileHandleCacheRecord& record) { return IsBelow(record.key, folder); }, dropped);
}

void HostFsFileCache::RemoveEntry(const std::string& path, const platform::file_id_t& id) {
  const boost::shared_ptr<SCacheState> state = State();
  dropped_t dropped;
  const CCacheLock lock(*state);
  state->DropPath(path, dropped);
  state->DropFile(id, dropped);
  if (state->linkedRecords != 0)
    state->DropIf([](const CHostFsFileHandleCacheRecord& record) { return record.passesLink; }, dropped);
}

void HostFsFileCache::RemoveAll() {
  const boost::shared_ptr<SCacheState> state = State();
  dropped_t dropped;
  const CCacheLock lock(*state);
  state->DropIf([](const CHostFsFileHandleCacheRecord&) { return true; }, dropped);
}

platform::error_t HostFsFileCache::CreateOver(const platform::location_t& where, platform::files_t& files) {
  file_ptr_t file;
  const platform::error_t failure = OpenWithoutRecords(where, files, platform::file_disposition_t::OpenAlways, file);
  if (failure != platform::error::Success) {
    return failure;
  }
  // Whoever comes while it is emptied finds no share mode in the way.
  file->ReleaseShare();
  return file->SetSize(0);
}

platform::error_t HostFsFileCache::CreateNew(const platform::location_t& where, platform::files_t& files) {
  file_ptr_t file;
  return OpenWithoutRecords(where, files, platform::file_disposition_t::CreateNew, file);
}

void HostFsFileCache::Purge() {
  PurgeState(*State());
}

std::size_t HostFsFileCache::RecordCount() {
  const boost::shared_ptr<SCacheState> state = State();
  const CCacheLock lock(*state);
  return state->records.size();
}
