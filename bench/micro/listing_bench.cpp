// What a listing of a large folder costs, page by page and as a whole.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "config/address_checker_factory.h"
#include "config/nfs_share_cfg.h"
#include "config/reg_config_root_folder.h"
#include "hostfs/host_fs_file_cache.h"
#include "platform/registry.h"
#include "platform/sqlite_registry.h"
#include "rpc/xdr_writer.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

/// A virtual file system of its own with one folder of many files.
class CListedFolder {
 public:
  explicit CListedFolder(std::int64_t files) {
    std::filesystem::create_directories(state_);
    ::setenv("ALLUSERSPROFILE", state_.c_str(), 1);
    registry_ = std::make_unique<platform::sqlite_registry_t>((state_ / "registry.db").string());
    previousRegistry_ = platform::registry_t::SetInstance(registry_.get());
    CAddressCheckerFactory::Install(boost::make_shared<CAddressCheckerFactory>(true));
    HostFsFileCache::Init();
    fs = std::make_unique<CVirtualFs>();
    const auto share = boost::make_shared<CNfsShareCfg>();
    share->nfsFolderName = "vol";
    share->localPath = CRegConfigRootFolder(true).Get();
    fs->CreateShare(share);
    folder = fs->GetShareHandle("vol");
    for (std::int64_t i = 0; i < files; ++i)
      std::ofstream(std::filesystem::path(share->localPath) / ("a file of the listing " + std::to_string(i)));
  }
  CListedFolder(const CListedFolder&) = delete;
  CListedFolder& operator=(const CListedFolder&) = delete;
  ~CListedFolder() {
    fs.reset();
    HostFsFileCache::Deinit();
    CAddressCheckerFactory::Install({});
    platform::registry_t::SetInstance(previousRegistry_);
    registry_.reset();
    std::filesystem::remove_all(state_);
  }

  /// The page behind the cookie, as it goes onto the wire. True at the end of the listing.
  bool Page(std::uint64_t cookie) {
    READDIRPLUS3args args;
    args.dir = folder;
    args.cookie = cookie;
    READDIRPLUS3res result;
    fs->ReadDirPlus(args, client_, result);
    CXDRWriter writer;
    result.Encode(writer);
    benchmark::DoNotOptimize(writer.TakeSegments(true));
    return result.eof || result.status != NFS3_OK;
  }

  std::unique_ptr<CVirtualFs> fs;
  nfs_fh3 folder;

 private:
  const std::filesystem::path state_ =
      std::filesystem::temp_directory_path() / ("kelvo-listing-" + std::to_string(::getpid()));
  std::unique_ptr<platform::sqlite_registry_t> registry_;
  platform::registry_t* previousRegistry_ = nullptr;
  sockaddr_in client_{};
};

/// A page that begins a listing: the folder is read and compared with what is known of it.
void ListFirstPage(benchmark::State& state) {
  CListedFolder listed(state.range(0));
  listed.Page(0);
  for (auto _ : state)
    listed.Page(0);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ListFirstPage)->Arg(10000)->Unit(benchmark::kMicrosecond);

/// A page of a listing that was begun.
void ListNextPage(benchmark::State& state) {
  CListedFolder listed(state.range(0));
  listed.Page(0);
  for (auto _ : state)
    listed.Page(10);
  state.SetItemsProcessed(state.iterations() * 10);
}
BENCHMARK(ListNextPage)->Arg(1000)->Unit(benchmark::kNanosecond);

/// A folder whose files nobody has named yet.
void ListNewFolder(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    {
      CListedFolder listed(state.range(0));
      state.ResumeTiming();
      listed.Page(0);
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ListNewFolder)->Arg(30000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
