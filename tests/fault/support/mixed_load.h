// A client that changes a folder in every way and knows what must be there afterwards.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "integration/support/wire_fixture.h"

namespace test {

/// What was answered, in numbers.
struct SLoadFigures {
  std::size_t answered = 0;    ///< Calls.
  std::size_t writes = 0;      ///< Of them.
  std::size_t unanswered = 0;  ///< Calls that a kill cut off.
  std::size_t handles = 0;     ///< Handles that were looked at after a restart.
  std::size_t stale = 0;       ///< Of them, those of renamed items that had become stale, as they may.
};

/// Works in a folder of its own, over a connection of its own, one call after the other: creates, writes, renames,
/// replaces, removes, resizes, makes and removes folders, lists. Keeps a model of what the answers promised. Stop ends
/// it; when the service dies first, the call that was under way is remembered as one that may or may not have happened.
///
/// Start, Stop, Check and Start again, from one thread.
class CMixedLoad {
 public:
  /// share: the handle of the share's root, which survives restarts. name: of the folder, made by the first Start.
  CMixedLoad(bytes_t share, std::string name, unsigned seed);
  CMixedLoad(const CMixedLoad&) = delete;
  CMixedLoad& operator=(const CMixedLoad&) = delete;
  ~CMixedLoad() { Stop(); }

  void Start();
  void Stop();
  /// False once its connection ended.
  bool IsRunning() const { return isRunning_; }
  /// Calls that were answered so far.
  std::size_t Answered() const { return answered_; }

  /// After Stop, with the service running again: every handle is asked first, before anything is looked up by name, and
  /// then every name. Fails the test for each answer that is not kept. Afterwards the model is what was found.
  void Check();
  const SLoadFigures& Figures() const { return figures_; }

 private:
  struct SFile {
    bytes_t handle;
    std::uint64_t fileid = 0;
    std::string content;
    /// Renamed, or below a folder that was: its handle may be stale after a restart, and is never another's.
    bool mayBeStale = false;
  };
  struct SFolder {
    bytes_t handle;
    std::uint64_t fileid = 0;
    bool mayBeStale = false;
    std::map<std::string, SFile> files;
  };
  enum class kind_t { Write, Resize, Create, Remove, Rename, MakeFolder, RemoveFolder, RenameFolder };
  /// The call under way.
  struct SPending {
    kind_t kind = kind_t::Write;
    std::string folder, name, target;
    std::string content;  ///< Of the file, once the call has happened.
  };

  void Run();
  void Step(CNfsClient& client);
  void MakeFile(CNfsClient& client, const std::string& folderName, SFolder& folder);
  void WriteFile(CNfsClient& client, const std::string& folderName, SFolder& folder);
  void ResizeFile(CNfsClient& client, const std::string& folderName, SFolder& folder);
  void RemoveFile(CNfsClient& client, const std::string& folderName, SFolder& folder);
  void RenameFile(CNfsClient& client, const std::string& folderName, SFolder& folder);
  void ListFolder(CNfsClient& client, const SFolder& folder);
  void MakeFolder(CNfsClient& client);
  void RemoveFolder(CNfsClient& client);
  void RenameFolder(CNfsClient& client);
  /// Notes the call that is to come.
  void Begin(kind_t kind, std::string folder, std::string name = {}, std::string target = {},
             std::string content = {}) {
    pending_ = {kind, std::move(folder), std::move(name), std::move(target), std::move(content)};
  }
  void Done() {
    pending_.reset();
    ++answered_;
  }
  void Gone(const SFile& file) { gone_.insert(file.handle); }
  void Gone(const SFolder& folder);
  std::string NewContent();
  std::map<std::string, SFile>::iterator SomeFile(SFolder& folder);

  using listed_t = std::map<std::string, SEntry>;
  void CheckHandles(CNfsClient& client);
  void CheckHandle(CNfsClient& client, const bytes_t& handle, std::uint64_t fileid, bool mayBeStale,
                   const std::string& what);
  void CheckNames(CNfsClient& client);
  void CheckFolders(const listed_t& listed);
  void CheckFiles(CNfsClient& client, const std::string& folderName, SFolder& folder, const listed_t& listed);
  void CheckFile(CNfsClient& client, const std::string& folderName, const SEntry& entry, SFile& file);
  static listed_t Listed(CNfsClient& client, const bytes_t& folder);
  /// Every content that the file may have, given the call that was under way.
  std::set<std::string> ContentsOf(const std::string& folderName, const std::string& name, const SFile& file) const;
  /// Whether the call under way is about it, so that it may have gone, come or become stale.
  bool IsUncertain(const std::string& folderName, const std::string& name) const;
  /// Takes over what the restarted service says of a folder or a file.
  template <typename Item>
  void Adopt(Item& item, const SEntry& entry, bool isUncertain, const std::string& what);

  const bytes_t share_;
  const std::string name_;
  std::mt19937 random_;
  unsigned number_ = 0;
  /// By name; "" is the load's own folder.
  std::map<std::string, SFolder> folders_;
  /// Handles of what was answered as removed or replaced.
  std::set<bytes_t> gone_;
  std::optional<SPending> pending_;
  SLoadFigures figures_;
  std::atomic<std::size_t> answered_ = 0;
  std::atomic<bool> stop_ = false;
  std::atomic<bool> isRunning_ = false;
  std::thread thread_;
};

}  // namespace test
