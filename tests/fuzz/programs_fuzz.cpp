// The three programs over one file system in memory, on the ways of both servers.
#include <memory>

#include "config/address_checker_factory.h"
#include "config/nfs_share_cfg.h"
#include "fuzz/program_session.h"
#include "fuzz/quiet_registry.h"
#include "hostfs/host_fs_file_cache.h"
#include "platform/sqlite_registry.h"
#include "support/temp_dir.h"
#include "vfs/items/async_fs_file_wrapper.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"
#include "vfs/table/fs_items_tab.h"

namespace {

/// One file system for all inputs; each input has a share of its own in it.
struct SWorld {
  test::TempDir dir;
  test::ScopedEnvironment appData{"ALLUSERSPROFILE", dir.Path().string()};
  platform::sqlite_registry_t stored{dir / "registry.db"};
  fuzz::CQuietRegistry registry{stored};
  boost::shared_ptr<CCompletionEventsAllocator> events = boost::make_shared<CCompletionEventsAllocator>();
  boost::shared_ptr<CFsProcInvoker> fileThread = CFsProcInvoker::Create("fuzz", 1, events);
  std::unique_ptr<CVirtualFs> fs;

  SWorld() {
    platform::registry_t::SetInstance(&registry);
    CAddressCheckerFactory::Install(boost::make_shared<CAddressCheckerFactory>(true));
    HostFsFileCache::Init();
    fs = std::make_unique<CVirtualFs>();
    registry.quiet = true;
  }
  SWorld(const SWorld&) = delete;
  SWorld& operator=(const SWorld&) = delete;
  ~SWorld() {
    fs.reset();
    HostFsFileCache::Deinit();
    CAddressCheckerFactory::Install({});
    platform::registry_t::SetInstance(nullptr);
  }
};

SWorld& World() {
  static SWorld world;
  return world;
}

class CSession : public fuzz::CProgramSession {
 public:
  CSession(fuzz::CInput input, std::uint8_t mode) : CProgramSession(input, mode) {
    constexpr std::uint64_t LargestFile = 1 << 20;
    backend_->largestFile = LargestFile;
    backend_->Put("folder/file", false, "content");
    backend_->Put("file", false, "more content");
    // More than fit on a page.
    for (char name = 'c'; name < 'q'; ++name)
      backend_->Put(std::string("folder/") + name, name % 4 == 0);
    if ((mode & fuzz::session_mode::FileThread) != 0) {
      backend_->wrapFile = [](const boost::shared_ptr<IFsFile>& file) {
        return boost::make_shared<CAsyncFsFileWrapper>(file, World().fileThread, World().events);
      };
    }
    const auto cfg = boost::make_shared<CNfsShareCfg>();
    cfg->nfsFolderName = "fuzz";
    World().fs->ItemsTab()->RegisterShare(cfg, uid_, test::CFakeFolder::Root(backend_, true), InvalidFid);
    AddHandle(World().fs->GetShareHandle("fuzz"));
  }
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;
  ~CSession() override { World().fs->ItemsTab()->UnregisterShare(uid_); }

 private:
  CVirtualFs& Fs() override { return *World().fs; }

  void Prepare(std::uint8_t marks) override {
    backend_->isAvailable = (marks & fuzz::call_mark::BackendAway) == 0;
    const bool fails = (marks & fuzz::call_mark::BackendFails) != 0;
    backend_->failure = fails ? static_cast<int>(platform::error::AccessDenied) : 0;
  }

  /// Somebody else changes what the backend holds.
  void Happen(std::uint8_t number) override {
    switch (number) {
      case 0:
        return backend_->Drop(Name());
      case 1:
        backend_->Put("file", true);
        return;
      case 2:
        backend_->Put("folder/file", false, std::string(Input().Word(), 'x'));
        return;
      case 3:
        backend_->state = Input().Byte();
        return;
      case 4:
        backend_->Put("file", false)->isMute = (Input().Byte() & 1) != 0;
        return;
      case 5:
        backend_->Put("folder", true)->refused = {test::Client("10.0.0.9").sin_addr.s_addr};
        return;
      case 6:
        return World().fs->ClearItemsCache();
      case 7:
        return World().fs->SetDatastoreSize(Input().Word(), Input().Word());
      case 8:
        return World().fs->ResetDatastoreSize();
      default:
        return;
    }
  }

  const boost::shared_ptr<test::SFakeBackend> backend_ = boost::make_shared<test::SFakeBackend>();
  const GUID uid_ = platform::NewGuid();
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
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
