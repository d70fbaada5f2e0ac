// A virtual file system with a registry and a root folder of its own, and calls on it as a client makes them.
#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/address_checker_factory.h"
#include "config/nfs_share_cfg.h"
#include "config/reg_config_root_folder.h"
#include "hostfs/host_fs_file_cache.h"
#include "platform/registry.h"
#include "platform/sqlite_registry.h"
#include "support/fake_fs_backend.h"
#include "support/temp_dir.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace test {

inline GUID Guid(std::uint8_t number) {
  GUID guid;
  guid.bytes[15] = number;
  return guid;
}

class VirtualFsFixture : public ::testing::Test {
 public:
  VirtualFsFixture() : environment_("ALLUSERSPROFILE", temp.Path().string()), registry(temp / "registry.db") {
    previousRegistry_ = platform::registry_t::SetInstance(&registry);
    CAddressCheckerFactory::Install(boost::make_shared<CAddressCheckerFactory>(true));
    HostFsFileCache::Init();
    fs = std::make_unique<CVirtualFs>();
    local = CRegConfigRootFolder(true).Get();
    shareUid = CreateShare("vol");
    root = fs->ItemsTab()->GetShareFid(shareUid);
  }
  ~VirtualFsFixture() override {
    fs.reset();
    HostFsFileCache::Deinit();
    CAddressCheckerFactory::Install({});
    platform::registry_t::SetInstance(previousRegistry_);
  }

  /// As after the process was ended and started again.
  void Restart() {
    fs.reset();
    fs = std::make_unique<CVirtualFs>();
  }

  GUID CreateShare(const std::string& alias) {
    auto cfg = boost::make_shared<CNfsShareCfg>();
    cfg->nfsFolderName = alias;
    cfg->localPath = local.string();
    return fs->CreateShare(cfg);
  }

  /// A share on a fake backend, which the registry does not know. Gives its root's FID.
  std::uint64_t PublishFake(const boost::shared_ptr<SFakeBackend>& backend, const std::string& alias = "fake") {
    auto cfg = boost::make_shared<CNfsShareCfg>();
    cfg->nfsFolderName = alias;
    fs->ItemsTab()->RegisterShare(cfg, platform::NewGuid(), CFakeFolder::Root(backend, true), InvalidFid);
    return fs->ItemsTab()->GetShareFidByAlias(alias);
  }

  GETATTR3res GetAttrs(std::uint64_t fid) {
    GETATTR3res result;
    fs->GetAttrs({.object = HandleFromFid(fid)}, client, result);
    return result;
  }
  SETATTR3res SetAttrs(std::uint64_t fid, const sattr3& attributes, std::optional<nfstime3> guard = {}) {
    SETATTR3res result;
    fs->SetAttrs({.object = HandleFromFid(fid), .newAttributes = attributes, .guard = guard}, client, result);
    return result;
  }
  LOOKUP3res Lookup(std::uint64_t dir, const std::string& name) {
    LOOKUP3res result;
    fs->Lookup({.what = {HandleFromFid(dir), name}}, client, result);
    return result;
  }
  /// The FID behind a name; fails the test when there is none.
  std::uint64_t Find(std::uint64_t dir, const std::string& name) {
    const auto result = Lookup(dir, name);
    EXPECT_EQ(result.status, NFS3_OK) << name;
    return result.status == NFS3_OK ? FidFromHandle(result.object) : InvalidFid;
  }
  CREATE3res Create(std::uint64_t dir, const std::string& name, std::uint32_t how = UNCHECKED,
                    const sattr3& attributes = {}) {
    CREATE3res result;
    fs->CreateFile({.where = {HandleFromFid(dir), name}, .how = how, .attributes = attributes, .verifier = {}}, client,
                   result);
    return result;
  }
  std::uint64_t MakeFile(std::uint64_t dir, const std::string& name) {
    const auto result = Create(dir, name);
    EXPECT_EQ(result.status, NFS3_OK) << name;
    return result.object ? FidFromHandle(*result.object) : InvalidFid;
  }
  MKDIR3res MakeDir(std::uint64_t dir, const std::string& name) {
    MKDIR3res result;
    fs->CreateDir({.where = {HandleFromFid(dir), name}, .attributes = {}}, client, result);
    return result;
  }
  std::uint64_t MakeFolder(std::uint64_t dir, const std::string& name) {
    const auto result = MakeDir(dir, name);
    EXPECT_EQ(result.status, NFS3_OK) << name;
    return result.object ? FidFromHandle(*result.object) : InvalidFid;
  }
  nfsstat3 Remove(std::uint64_t dir, const std::string& name) {
    REMOVE3res result;
    fs->Remove({.object = {HandleFromFid(dir), name}}, client, result);
    return result.status;
  }
  nfsstat3 RemoveDir(std::uint64_t dir, const std::string& name) {
    RMDIR3res result;
    fs->RemoveDir({.object = {HandleFromFid(dir), name}}, client, result);
    return result.status;
  }
  nfsstat3 Rename(std::uint64_t fromDir, const std::string& from, std::uint64_t toDir, const std::string& to) {
    RENAME3res result;
    fs->Rename({.from = {HandleFromFid(fromDir), from}, .to = {HandleFromFid(toDir), to}}, client, result);
    return result.status;
  }
  READDIRPLUS3res ReadDirPlus(std::uint64_t dir, std::uint64_t cookie, const sockaddr_in& from) {
    READDIRPLUS3res result;
    fs->ReadDirPlus({.dir = HandleFromFid(dir), .cookie = cookie, .cookieVerifier = {}, .dirCount = 0, .maxCount = 0},
                    from, result);
    return result;
  }
  READDIRPLUS3res ReadDirPlus(std::uint64_t dir, std::uint64_t cookie = 0) { return ReadDirPlus(dir, cookie, client); }
  /// All names, page by page.
  std::vector<std::string> List(std::uint64_t dir) { return List(dir, client); }
  std::vector<std::string> List(std::uint64_t dir, const sockaddr_in& from) {
    std::vector<std::string> names;
    for (std::uint64_t cookie = 0;;) {
      const auto page = ReadDirPlus(dir, cookie, from);
      EXPECT_EQ(page.status, NFS3_OK);
      for (const auto& entry : page.entries) {
        names.push_back(entry.name);
        cookie = entry.cookie;
      }
      if (page.eof || page.entries.empty())
        return names;
    }
  }
  nfsstat3 Write(std::uint64_t fid, std::uint64_t offset, const std::string& data) {
    const std::vector<std::uint8_t> bytes(data.begin(), data.end());
    WRITE3args args;
    args.file = HandleFromFid(fid);
    args.offset = offset;
    args.count = static_cast<std::uint32_t>(bytes.size());
    args.data = bytes;
    WRITE3res result;
    fs->Write(args, result);
    return result.status;
  }
  /// The content as READ gives it; "status N" when it fails.
  std::string Read(std::uint64_t fid, std::uint64_t offset = 0, std::uint32_t count = 1000) {
    SFsReadBuffer buffer;
    const auto status = fs->Read(HandleFromFid(fid), offset, count, buffer);
    if (status != NFS3_OK)
      return "status " + std::to_string(status);
    return std::string(buffer.data.begin(), buffer.data.begin() + buffer.length);
  }

  /// Behind the server's back.
  void PutLocal(const std::string& path, const std::string& content = {}) {
    std::filesystem::create_directories((local / path).parent_path());
    std::ofstream(local / path, std::ios::binary) << content;
  }
  std::string GetLocal(const std::string& path) {
    std::ifstream file(local / path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  bool IsStored(std::uint64_t fid) {
    return registry.FindKey("SOFTWARE\\KelvO\\Kelvo NFS\\ItemsCache\\" + std::to_string(fid)) == 0;
  }

  const TempDir temp;
  const ScopedEnvironment environment_;
  platform::sqlite_registry_t registry;
  std::unique_ptr<CVirtualFs> fs;
  std::filesystem::path local;  ///< The host folder of the share "vol".
  GUID shareUid;
  std::uint64_t root = InvalidFid;
  sockaddr_in client = Client("10.0.0.1");

 private:
  platform::registry_t* previousRegistry_ = nullptr;
};

/// The texts of what the call throws.
template <typename Exception = std::exception, typename Call>
std::string ThrownText(const Call& call) {
  try {
    call();
  } catch (const Exception& failure) {
    return failure.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

}  // namespace test
