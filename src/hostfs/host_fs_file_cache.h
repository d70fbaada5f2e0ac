// Host files that stay open between the calls of clients, who know no open and no close.
#pragma once

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <cstddef>
#include <string>

#include "platform/files.h"

/// The process's open host files, keyed by path. A file is closed when it was idle for three minutes, to within the
/// minute of the purge thread. All static; started and stopped by the service. Outside Init … Deinit every other call
/// throws runtime_exc_t "Failed to synchronize {null} object". Any thread; one lock guards the records and is held
/// while a file is opened, never while one is read or written.
class HostFsFileCache {
 public:
  /// Idleness goes by platform::Clock(); the limits are for tests.
  static void Init(std::chrono::milliseconds purgePeriod = std::chrono::milliseconds(60000),
                   std::chrono::milliseconds stopLimit = std::chrono::milliseconds(10000));
  /// Ends the purge thread and drops every record. Files still in use close with their last holder.
  static void Deinit();

  enum class use_t { Read, Write };

  /// The file at the location, opened for reading and writing, or for reading alone when that is refused (5). Throws
  /// win_sys_exc_t "Failed to open existing file [%1] for read/write access."
  static boost::shared_ptr<platform::file_t> GetFile(const platform::location_t& where, platform::files_t& files);
  /// As GetFile, and gives the failed open's number instead of throwing. A file that was opened for reading alone is
  /// opened anew for who wants to write, as it may have become writable since.
  static platform::error_t TryGetFile(const platform::location_t& where, platform::files_t& files, use_t use,
                                      boost::shared_ptr<platform::file_t>& file);
  /// As GetFile for any path of the host, confined to the folder it names.
  static boost::shared_ptr<platform::file_t> GetFile(const std::string& path);
  /// Drops the record of a path. The path may use `/` or `\`.
  static void Remove(const std::string& path);
  /// Drops every record below a folder; A to Z are equal to a to z.
  static void RemoveSubtree(const std::string& path);
  /// Drops what may mean another file once an entry is renamed or deleted: the record of its path, all others of the
  /// file that it is, since a link gives a folder a second path, and every record whose path passes a link. A file that
  /// has a further name stays, and is opened again by it.
  static void RemoveEntry(const std::string& path, const platform::file_id_t& id);
  /// Drops every record. For a folder that is renamed or deleted by one of several paths: what is open below it may be
  /// so under another one.
  static void RemoveAll();

  /// Makes the file at the location, or empties the one that is there, with no record of that file in the way: neither
  /// under this path nor under another spelling or link. Other files are served while it is emptied, which can take
  /// long.
  static platform::error_t CreateOver(const platform::location_t& where, platform::files_t& files);
  /// The same for a file that is not there in any case; 183 when it is.
  static platform::error_t CreateNew(const platform::location_t& where, platform::files_t& files);

  /// Closes what is idle now; what the purge thread does each period.
  static void Purge();
  static std::size_t RecordCount();
};
