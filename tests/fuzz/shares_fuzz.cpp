// The three programs over folders of the host, while others change these, and over restarts of the service.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "config/backup_mount_cfg.h"
#include "config/nfs_share_cfg.h"
#include "config/reg_keys.h"
#include "foundation/exc.h"
#include "fuzz/program_session.h"
#include "fuzz/service_world.h"
#include "hostfs/host_fs_file_cache.h"
#include "platform/guid.h"

namespace {

namespace fs = std::filesystem;

fuzz::CServiceWorld& World() {
  static fuzz::CServiceWorld world;
  return world;
}

class CSession : public fuzz::CProgramSession {
 public:
  CSession(fuzz::CInput input, std::uint8_t mode) : CProgramSession(input, mode) {
    fs::create_directories(World().Share() / "folder");
    std::ofstream(World().Share() / "file") << "content";
    std::ofstream(World().Share() / "folder" / "file") << std::string(5000, 'x');
    for (char name = 'c'; name < 'q'; ++name)
      std::ofstream(World().Share() / "folder" / std::string(1, name)) << name;
    World().registry.quiet = (mode & fuzz::session_mode::Stored) == 0;
    const auto cfg = boost::make_shared<CNfsShareCfg>();
    cfg->nfsFolderName = "fuzz";
    cfg->localPath = World().Share().string();
    uid_ = World().Fs().CreateShare(cfg);
    root_ = World().Fs().GetShareHandle("fuzz");
    AddHandle(root_);
  }
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;
  ~CSession() override {
    World().Fs().DismountBackupItems(mountUid_);
    World().Fs().DismountShare(uid_);
    World().registry.quiet = false;
    fs::remove_all(World().Share());
    World().CheckOutside();
  }

 private:
  CVirtualFs& Fs() override { return World().Fs(); }

  void Read(const READ3res& result) override {
    constexpr std::string_view Secret = fuzz::CServiceWorld::Secret;
    fuzz::Require(!result.data || std::search(result.data->begin(), result.data->end(), Secret.begin(), Secret.end()) ==
                                      result.data->end(),
                  "nothing leads out of a share");
  }

  /// A place that others reach without the service. Its folder is no link: they themselves stay within the share.
  fs::path HostPath() {
    static const std::array<std::string, 12> Paths{"file", "folder", "FILE",        "a",        "b",           "A",
                                                   "link", "a.vmdk", "folder/file", "folder/a", "folder/link", "a/b"};
    const fs::path path = World().Share() / Paths[Input().Byte() % Paths.size()];
    std::error_code ignored;
    return fs::is_symlink(path.parent_path(), ignored) ? World().Share() / "other" : path;
  }

  void Happen(std::uint8_t number) override {
    std::error_code ignored;
    switch (number) {
      case 0:
        fs::remove_all(HostPath(), ignored);
        return;
      case 1:
        std::ofstream(NotALink(HostPath())) << std::string(Input().Word(), 'y');
        return;
      case 2:
        fs::create_directory(HostPath(), ignored);
        return;
      case 3:
        return MakeLink();
      case 4:
        ::mkfifo(HostPath().c_str(), 0600);
        return;
      case 5:
        ::chmod(NotALink(HostPath()).c_str(), Input().Word() & 0777);
        return;
      case 6: {
        const fs::path from = HostPath();
        fs::rename(from, HostPath(), ignored);
        return;
      }
      default:
        return Administer(number);
    }
  }

  /// Links are made by others, and followed by the service alone.
  static fs::path NotALink(const fs::path& path) {
    std::error_code ignored;
    return fs::is_symlink(path, ignored) || fs::is_fifo(path, ignored) ? World().Share() / "other" : path;
  }

  void MakeLink() {
    static const std::array<std::string, 8> Targets{
        "../outside/secret", "../outside", "../../outside/secret", "folder", "file", "link", "..", "/"};
    const fs::path place = HostPath();
    std::error_code ignored;
    fs::remove_all(place, ignored);
    // The whole system is no place for what an input removes.
    const std::string& target = Targets[Input().Byte() % Targets.size()];
    fs::create_symlink(target == "/" ? World().Outside().string() : target, place, ignored);
  }

  void Administer(std::uint8_t number) {
    switch (number) {
      case 7:
        return HostFsFileCache::Purge();
      case 8:
        return Restart();
      case 9:
        return World().Fs().ClearItemsCache();
      case 10:
        fuzz::Try([&] {
          const std::string path = Name() + "\\" + Name();
          World().Fs().CreateHostFolder(uid_, path, Input().Byte() % 2 == 0 ? "" : "10.0.0.1;10.0.1.0/24");
        });
        return;
      case 11:
        fuzz::Try([&] { World().Fs().DeleteHostFolder(uid_, Name() + "/" + Name()); });
        return;
      case 12:
        fs::remove_all(World().Share());
        return;
      case 13:
        return Mount();
      case 14:
        fuzz::Try([&] { World().Fs().DismountBackupItems(mountUid_); });
        return;
      default:
        return;
    }
  }

  void Mount() {
    const auto cfg = boost::make_shared<CBackupMountCfg>();
    cfg->nfsFolderID = uid_;
    cfg->mountPoint = Input().Byte() % 4 == 0 ? Name() : "folder";
    cfg->pipe = Input().Byte() % 8 == 0 ? Name() : fuzz::CServiceWorld::AgentPipe;
    cfg->vmName = "machine";
    if (!fuzz::Try([&] { World().Fs().MountBackupItems(mountUid_, cfg); })) {
      // It may have taken the agent from the mount before, whose calls would then wait for it until the health check.
      fuzz::Try([&] { World().Fs().DismountBackupItems(mountUid_); });
    }
  }

  void Restart() {
    if (World().registry.quiet)
      return;
    World().Stop();
    StartAsTheOperatorWould();
    fuzz::Require(World().Fs().GetShareHandle("fuzz") == root_ && World().Fs().GetShareId("fuzz") == uid_,
                  "a share outlives the service");
  }

  /// A mount keeps the service from starting when its folder has gone, until it is taken out of the registry.
  void StartAsTheOperatorWould() const {
    try {
      World().Start();
    } catch (const exc::runtime_exc_t& failure) {
      fuzz::Require(std::string_view(failure.what()).starts_with("The specified mount folder does not exist."),
                    "nothing else keeps the service from starting");
      const std::string mount = std::string(regkeys::DynamicMounts) + "\\" + platform::GuidToText(mountUid_);
      fuzz::Require(World().registry.DeleteKey(mount) == 0, "it is the mount that stands in the registry");
      World().Start();
    }
  }

  GUID uid_;
  const GUID mountUid_ = platform::NewGuid();
  nfs_fh3 root_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  fuzz::StoreInMemory();
  ::umask(077);
  World();
  return 0;
}

/// A byte of modes, then the calls.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::CInput input(data, size);
  const std::uint8_t mode = input.Byte();
  CSession(input, mode).Run();
  return 0;
}
