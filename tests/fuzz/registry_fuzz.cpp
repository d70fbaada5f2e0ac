// What stands in the registry: written through kelvo-reg's command line or straight, read by everything that the
// service loads from it, and brought back by a start of the service.
#include <array>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <streambuf>
#include <string>
#include <vector>

#include "config/address_checker_factory.h"
#include "config/address_checker_registry_synced.h"
#include "config/common_options.h"
#include "config/nfs_options.h"
#include "config/nfs_params.h"
#include "config/reg_config.h"
#include "config/reg_keys.h"
#include "config/reg_options.h"
#include "config/reg_options_cache.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/registry_input.h"
#include "hostfs/host_fs_file_cache.h"
#include "kelvo-reg/registry_json.h"
#include "platform/sqlite_registry.h"
#include "support/fake_fs_backend.h"
#include "support/temp_dir.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/virtual_fs.h"

/// The program's own, under another name.
int KelvoRegMain(int argc, char** argv);

namespace {

namespace fs = std::filesystem;
namespace kind = fuzz::registry_row;

struct SWorld {
  test::TempDir dir;
  test::ScopedEnvironment appData{"ALLUSERSPROFILE", dir.Path().string()};
  test::ScopedEnvironment runtimeDir{"KELVO_RUNTIME_DIR", dir.Path().string()};
  platform::sqlite_registry_t registry{dir / "registry.db"};

  SWorld() {
    platform::registry_t::SetInstance(&registry);
    CAddressCheckerFactory::Install(boost::make_shared<CAddressCheckerFactory>(true));
    HostFsFileCache::Init();
  }
  SWorld(const SWorld&) = delete;
  SWorld& operator=(const SWorld&) = delete;
  ~SWorld() {
    HostFsFileCache::Deinit();
    CAddressCheckerFactory::Install({});
    platform::registry_t::SetInstance(nullptr);
  }
  fs::path Share() const { return dir.Path() / "share"; }
};

SWorld& World() {
  static SWorld world;
  return world;
}

/// Swallows what a program prints.
class CSilence {
 public:
  CSilence() = default;
  CSilence(const CSilence&) = delete;
  CSilence& operator=(const CSilence&) = delete;
  ~CSilence() {
    std::cout.rdbuf(out_);
    std::cerr.rdbuf(err_);
    std::cout.clear();
  }

 private:
  struct SNowhere : std::streambuf {
    int overflow(int character) override { return character; }
  };
  SNowhere nowhere_;
  std::streambuf* const out_ = std::cout.rdbuf(&nowhere_);
  std::streambuf* const err_ = std::cerr.rdbuf(&nowhere_);
};

class CStored {
 public:
  explicit CStored(fuzz::CInput input) : input_(input) {
    World().registry.DeleteKey("SOFTWARE");
    fs::remove_all(World().Share());
    fs::create_directories(World().Share() / "folder");
  }

  void Run() {
    {
      platform::registry_transaction_t transaction(World().registry);
      constexpr int MostRows = 64;
      for (int i = 0; i < MostRows && !input_.IsEmpty(); ++i)
        Store(input_.Byte() % kind::Kinds);
      fuzz::Require(transaction.Commit() == 0, "what was stored is stored");
    }
    CheckExport();
    if (Load())
      Resume();
  }

 private:
  // ---- Storing.

  std::string Key() {
    constexpr std::uint8_t Own = 0xf0;
    const std::uint8_t which = input_.Byte();
    const std::string id = Id(which >> 4);
    switch (which < Own ? which % 8 : 8) {
      case 0:
        return std::string(regkeys::Root);
      case 1:
        return std::string(regkeys::SharedFolders) + '\\' + id;
      case 2:
        return std::string(regkeys::DynamicMounts) + '\\' + id;
      case 3:
        return std::string(regkeys::ItemsCache) + '\\' + Fid(which >> 4);
      case 4:
        return std::string(regkeys::ItemsCache) + '\\' + Fid(which >> 4) + '\\' + id;
      case 5:
        return std::string(regkeys::RpcSettings);
      case 6:
        return CCommonOptions::Instance().registryPath;
      case 7:
        // A share's root node.
        return std::string(regkeys::ItemsCache) + "\\1";
      default:
        // Nowhere but where it is deleted again.
        return "SOFTWARE\\" + fuzz::TextOf(input_.Take(input_.Byte()));
    }
  }
  static std::string Id(unsigned number) {
    return "{d1c2c07a-d989-48cc-a423-b73ecd518d4" + std::string(1, static_cast<char>('0' + number % 8)) + "}";
  }
  static std::string Fid(unsigned number) {
    static const std::array<std::string, 10> Fids{
        "1", "2", "3", "4", "5", "0", "18446744073709551615", "18446744073709551614", "x", "-1"};
    return Fids[number % Fids.size()];
  }

  std::string Name() {
    static const std::array<std::string, 30> Names{"nfsFolderName",
                                                   "nfsFolderID",
                                                   "mountPoint",
                                                   "vmName",
                                                   "description",
                                                   "pipe",
                                                   "allowedHostAddr",
                                                   "itemName",
                                                   "parentItemFID",
                                                   "path",
                                                   "isFolder",
                                                   "isRfsItem",
                                                   "rfsSizeLow",
                                                   "rfsSizeHigh",
                                                   "MountPort",
                                                   "NfsPort",
                                                   "Port",
                                                   "RootFolder",
                                                   "PerfLogPath",
                                                   "AsyncTcp",
                                                   "QuillNFSDisableIPAuth",
                                                   "AllowedAddresses",
                                                   "PerfBufSize",
                                                   "MiniDumpModeType",
                                                   "XDRBufInitialSize",
                                                   "NfsRecvTimeoutSec",
                                                   "NfsProtocolVersion",
                                                   "NfsAsyncWriteEnabled",
                                                   "WinFileWriteRetryCount",
                                                   "CustomTempDirPath"};
    constexpr std::uint8_t Own = 0xf0;
    const std::uint8_t which = input_.Byte();
    return which < Own ? Names[which % Names.size()] : fuzz::TextOf(input_.Take(input_.Byte()));
  }

  std::string Text() {
    static const std::array<std::string, 20> Texts{"folder",
                                                   "file",
                                                   "share",
                                                   "/share/",
                                                   "1",
                                                   "2",
                                                   "18446744073709551615",
                                                   "..",
                                                   "",
                                                   "a/b",
                                                   "10.0.0.0/8;10.1.1.1",
                                                   "%ALLUSERSPROFILE%\\x",
                                                   "%PATH%",
                                                   "{d1c2c07a-d989-48cc-a423-b73ecd518d40}",
                                                   "{d1c2c07a-d989-48cc-a423-b73ecd518d41}",
                                                   "\\\\.\\pipe\\none",
                                                   "0x10",
                                                   "4294967296",
                                                   "C:\\",
                                                   " \t"};
    constexpr std::uint8_t Own = 0xd0;
    const std::uint8_t which = input_.Byte();
    return which < Own ? Texts[which % Texts.size()] : fuzz::TextOf(input_.Take(input_.Byte()));
  }

  std::uint64_t Number() {
    const std::uint16_t number = input_.Word();
    constexpr std::uint16_t Small = 0xff00;
    return number < Small ? number : std::uint64_t{0} - (number - Small);
  }

  void Store(std::uint8_t what) {
    platform::registry_t& registry = World().registry;
    const std::string key = Key();
    switch (what) {
      case kind::Text:
        Put(key, Name(), Text());
        return;
      case kind::Dword:
        Put(key, Name(), static_cast<std::uint32_t>(Number()));
        return;
      case kind::Qword:
        Put(key, Name(), Number());
        return;
      case kind::Delete:
        fuzz::Try([&] { input_.Byte() % 2 == 0 ? registry.DeleteKey(key) : registry.DeleteValue(key, Name()); });
        return;
      default:
        return RunTool(key);
    }
  }

  /// A write that is refused for its text leaves the transaction sound.
  template <typename Data>
  static void Put(const std::string& key, const std::string& name, const Data& data) {
    platform::registry_t& registry = World().registry;
    if (registry.SetValues(key, {{name, data}}) != 0)
      return;
    platform::registry_data_t stored;
    fuzz::Require(registry.GetValue(key, name, stored) == 0 && stored == platform::registry_data_t(data),
                  "what is stored is there");
  }

  /// kelvo-reg with words of the input, or with the four of a write.
  void RunTool(const std::string& key) {
    static const std::array<std::string, 12> Words{"get",       "set", "delete", "export", "REG_SZ", "REG_DWORD",
                                                   "reg_qword", "--",  "--help", "0xff",   "-1",     "SOFTWARE"};
    std::vector<std::string> arguments{"kelvo-reg"};
    const std::uint8_t count = input_.Byte() % 8;
    if (count == 0) {
      const std::string name = Name();
      arguments.insert(arguments.end(), {"set", key, name, Words[4 + input_.Byte() % 3], Text()});
    }
    for (std::uint8_t i = 0; i < count; ++i) {
      const std::uint8_t which = input_.Byte();
      constexpr std::uint8_t Own = 0xe0;
      constexpr std::uint8_t TheKey = 0xc0;
      arguments.push_back(which >= Own      ? fuzz::TextOf(input_.Take(input_.Byte()))
                          : which >= TheKey ? key
                                            : Words[which % Words.size()]);
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    const CSilence silence;
    const int code = KelvoRegMain(static_cast<int>(arguments.size()), argv.data());
    fuzz::Require(code >= 0 && code <= 2, "a tool ends as it is described");
  }

  // ---- Reading.

  static void CheckExport() {
    platform::registry_node_t node;
    if (World().registry.ReadTree("SOFTWARE", node) != 0)
      return;
    const auto json = tool::KeyToJson(node);
    fuzz::Require(nlohmann::ordered_json::parse(json.dump()) == json, "an export is JSON");
    for (const platform::registry_value_t& value : node.values) {
      const std::string type = json["values"][value.name]["type"].get<std::string>();
      fuzz::Require(tool::DataFromText(type, tool::DataToText(value.data)) == value.data,
                    "what is printed can be set again");
    }
  }

  /// True when there is something to bring back.
  static bool Load() {
    // Their failures are told by log lines alone.
    CRegOptions(true);
    CRegConfigPorts(true);
    CCommonOptions().LoadOptions();
    LoadNfsOptions();
    CRegOptionsCache().Get();
    CNfsParams(true, CCommandLine({"KelvoNfsSvc", "-port", "70000"}));
    fuzz::Try([&] { CAddressCheckerRegistrySynced().AddAddresses("10.0.0.1"); });
    CRegConfig config;
    SRegConfigData loaded;
    config.CreateKeys();
    config.Load(loaded);
    for (const auto& [fid, item] : loaded.items)
      fuzz::Require(item.fid == fid && fid != InvalidFid, "an item has its FID");
    CheckSaved(config, loaded);
    return !loaded.shares.empty() || !loaded.mounts.empty();
  }

  /// What was loaded is stored again as it was.
  static void CheckSaved(CRegConfig& config, const SRegConfigData& loaded) {
    for (const auto& [uid, cfg] : loaded.shares)
      config.SaveShare(uid, *cfg);
    for (const auto& [uid, cfg] : loaded.mounts)
      config.SaveMount(uid, *cfg);
    SRegConfigData again;
    config.Load(again);
    fuzz::Require(again.shares.size() == loaded.shares.size() && again.mounts.size() == loaded.mounts.size() &&
                      again.items.size() == loaded.items.size(),
                  "what is stored can be loaded");
  }

  /// With the root folder in its place, since the service makes it wherever it is told.
  static void Resume() {
    World().registry.SetText(regkeys::Root, "RootFolder", World().Share().string());
    std::optional<CVirtualFs> service;
    // A mount whose folder is not there keeps the service from starting.
    if (!fuzz::Try([&] { service.emplace(); }))
      return;
    std::set<GUID> shares;
    service->ItemsTab()->GetShareUids(shares);
    for (const GUID& share : shares) {
      const std::uint64_t root = service->ItemsTab()->GetShareFid(share);
      READDIRPLUS3res listing;
      service->ReadDirPlus({HandleFromFid(root), 0, {}, 4096, 4096}, test::Client("10.0.0.1"), listing);
      fuzz::Require(listing.status == NFS3_OK && !listing.entries.empty(), "a share that came back shows its folder");
      for (const entryplus3& entry : listing.entries) {
        GETATTR3res attributes;
        service->GetAttrs({*entry.nameHandle}, test::Client("10.0.0.1"), attributes);
        fuzz::Require(attributes.status == NFS3_OK || attributes.status == NFS3ERR_ACCES, "what is listed is there");
      }
    }
    service->EnumLocks();
    service->ClearItemsCache();
  }

  fuzz::CInput input_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  fuzz::StoreInMemory();
  World();
  return 0;
}

/// Rows: what to do, the key, and what that takes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CStored({data, size}).Run();
  return 0;
}
