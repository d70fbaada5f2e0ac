// The three programs over one file system in memory: sequences of calls with handles that earlier replies gave.
#include <arpa/inet.h>

#include <array>
#include <boost/make_shared.hpp>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "config/address_checker_factory.h"
#include "config/nfs_share_cfg.h"
#include "fuzz/fuzz_input.h"
#include "hostfs/host_fs_file_cache.h"
#include "platform/sqlite_registry.h"
#include "programs/ep_mapper_table.h"
#include "programs/mount_rpc_interface.h"
#include "programs/nfs_rpc_interface.h"
#include "programs/portmap_rpc_interface.h"
#include "support/fake_fs_backend.h"
#include "support/forwarding_registry.h"
#include "support/temp_dir.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

/// Takes no more writes once it is quiet, and says that all went well: what is stored is not looked at here, and
/// thousands of inputs a second would be written.
class CQuietRegistry : public test::ForwardingRegistry {
 public:
  using ForwardingRegistry::ForwardingRegistry;

  platform::error_t CreateKey(std::string_view key) override {
    return quiet ? Done : ForwardingRegistry::CreateKey(key);
  }
  platform::error_t DeleteKey(std::string_view key) override {
    return quiet ? Done : ForwardingRegistry::DeleteKey(key);
  }
  platform::error_t SetValues(std::string_view key, const std::vector<platform::registry_value_t>& values) override {
    return quiet ? Done : ForwardingRegistry::SetValues(key, values);
  }
  platform::error_t DeleteValue(std::string_view key, std::string_view name) override {
    return quiet ? Done : ForwardingRegistry::DeleteValue(key, name);
  }
  platform::error_t Begin() override { return quiet ? Done : ForwardingRegistry::Begin(); }
  platform::error_t Commit() override { return quiet ? Done : ForwardingRegistry::Commit(); }
  void Rollback() noexcept override {
    if (!quiet)
      ForwardingRegistry::Rollback();
  }

  bool quiet = false;

 private:
  static constexpr platform::error_t Done = platform::error::Success;
};

/// One file system for all inputs; each input has a share of its own in it.
struct SWorld {
  test::TempDir dir;
  test::ScopedEnvironment appData{"ALLUSERSPROFILE", dir.Path().string()};
  platform::sqlite_registry_t stored{dir / "registry.db"};
  CQuietRegistry registry{stored};
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

/// Bits of the byte after a call's selector.
constexpr std::uint8_t NotAllowed = 0x01;
constexpr std::uint8_t CutCall = 0x02;
constexpr std::uint8_t OtherClient = 0x04;
constexpr std::uint8_t BackendAway = 0x08;
constexpr std::uint8_t BackendFails = 0x10;

class CSession {
 public:
  explicit CSession(fuzz::CInput input) : input_(input) {
    constexpr std::uint64_t LargestFile = 1 << 20;
    backend_->largestFile = LargestFile;
    backend_->Put("folder/file", false, "content");
    backend_->Put("file", false, "more content");
    const auto cfg = boost::make_shared<CNfsShareCfg>();
    cfg->nfsFolderName = "fuzz";
    World().fs->ItemsTab()->RegisterShare(cfg, uid_, test::CFakeFolder::Root(backend_, true), InvalidFid);
    handles_.push_back(World().fs->GetShareHandle("fuzz"));
  }
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;
  ~CSession() {
    World().fs->ItemsTab()->UnregisterShare(uid_);
    for (const PortmapRecord& row : CEpMapperTable::Instance().Dump())
      CEpMapperTable::Instance().Remove(row);
  }

  void Run() {
    constexpr int MostCalls = 64;
    for (int i = 0; i < MostCalls && !input_.IsEmpty(); ++i)
      MakeCall();
  }

 private:
  void MakeCall() {
    constexpr std::uint8_t Mount = 0x40;
    constexpr std::uint8_t Portmap = 0x60;
    constexpr std::uint8_t Raw = 0x80;
    const std::uint8_t selector = input_.Byte();
    marks_ = input_.Byte();
    backend_->isAvailable = (marks_ & BackendAway) == 0;
    backend_->failure = (marks_ & BackendFails) != 0 ? static_cast<int>(platform::error::AccessDenied) : 0;
    CXDRWriter call;
    if (selector >= Raw) {
      const fuzz::bytes_view_t record = input_.Take(input_.Byte());
      Dispatch(selector % 3, record);
      return;
    }
    if (selector >= Portmap) {
      Header(call, CPortmapRpcInterface::Program, CPortmapRpcInterface::Version, selector - Portmap);
      PortmapRecord{input_.Byte(), input_.Byte(), input_.Byte(), input_.Word()}.Encode(call);
      Send(2, call);
      return;
    }
    if (selector >= Mount) {
      Header(call, CMountRpcInterface::Program, CMountRpcInterface::Version, selector - Mount);
      call.String(Name());
      Check<CMountResult>(Send(1, call), selector == Mount + 1);
      return;
    }
    Header(call, CNfsRpcInterface::Program, CNfsRpcInterface::Version, selector);
    CallNfs(selector, call);
  }

  static void Header(CXDRWriter& call, std::uint32_t program, std::uint32_t version, std::uint32_t procedure) {
    for (const std::uint32_t word : {0x11223344U, 0U, 2U, program, version, procedure, 0U, 0U, 0U, 0U})
      call.UInt(word);
  }

  void CallNfs(std::uint8_t procedure, CXDRWriter& call) {
    switch (procedure) {
      case 1:
        return Exchange<GETATTR3res>(call, GETATTR3args{Handle()});
      case 2:
        return Exchange<SETATTR3res>(call, SETATTR3args{Handle(), Attributes(), Guard()});
      case 3:
        return Exchange<LOOKUP3res>(call, LOOKUP3args{Place()});
      case 4:
        return Exchange<ACCESS3res>(call, ACCESS3args{Handle(), input_.Byte()});
      case 6:
        return Exchange<READ3res>(call, READ3args{Handle(), Offset(), Count()});
      case 7:
        return Write(call);
      case 8:
        return Exchange<CREATE3res>(call, CREATE3args{Place(), input_.Byte(), Attributes(), {}});
      case 9:
        return Exchange<MKDIR3res>(call, MKDIR3args{Place(), Attributes()});
      case 12:
        return Exchange<REMOVE3res>(call, REMOVE3args{Place()});
      case 13:
        return Exchange<RMDIR3res>(call, RMDIR3args{Place()});
      case 14:
        return Exchange<RENAME3res>(call, RENAME3args{Place(), Place()});
      case 17:
        return List(call);
      case 18:
        return Exchange<FSSTAT3res>(call, FSSTAT3args{Handle()});
      case 19:
        return Exchange<FSINFO3res>(call, FSINFO3args{Handle()});
      default:
        // Nothing is served there: arguments are not read.
        Send(0, call);
    }
  }

  void Write(CXDRWriter& call) {
    WRITE3args args{Handle(), Offset(), Count(), input_.Byte(), {}};
    const fuzz::bytes_view_t data = input_.Take(input_.Byte());
    args.data = data;
    Exchange<WRITE3res>(call, args);
  }

  void List(CXDRWriter& call) {
    Exchange<READDIRPLUS3res>(
        call, READDIRPLUS3args{Handle(), input_.Byte() == 0 ? 0 : lastCookie_, cookieVerifier_, Count(), Count()});
  }

  template <typename Result>
  void Exchange(CXDRWriter& call, const auto& args) {
    args.Encode(call);
    Check<Result>(Send(0, call), true);
  }

  static fuzz::bytes_t BytesOf(const CXDRWriter& writer) {
    constexpr std::size_t MarkSize = 4;
    io::byte_buffer_t out;
    writer.Finish(out, true);
    return {out.begin() + MarkSize, out.end()};
  }

  std::optional<fuzz::bytes_t> Send(int program, const CXDRWriter& call) {
    fuzz::bytes_t record = BytesOf(call);
    const bool isCut = (marks_ & CutCall) != 0;
    if (isCut)
      record.resize(std::min<std::size_t>(record.size(), input_.Word() % 256));
    const std::optional<fuzz::bytes_t> reply = Dispatch(program, record);
    // A service that is not there cannot be asked for its exports.
    fuzz::Require(reply.has_value() || isCut || program == 1, "a whole call has a reply");
    return isCut ? std::nullopt : reply;
  }

  std::optional<fuzz::bytes_t> Dispatch(int program, fuzz::bytes_view_t record) {
    constexpr std::array Programs{DispatchNfsCall, DispatchMountCall, DispatchPortmapCall};
    const sockaddr_in peer = test::Client((marks_ & OtherClient) != 0 ? "10.0.0.9" : "10.0.0.1");
    CXDRReader reader(boost::make_shared<io::byte_buffer_t>(record.begin(), record.end()));
    CXDRWriter writer;
    if (!fuzz::Try([&] {
          Programs.at(static_cast<std::size_t>(program))((marks_ & NotAllowed) == 0, peer, reader, writer, *World().fs);
        }))
      return std::nullopt;
    return BytesOf(writer);
  }

  /// A reply holds its result, whole and with nothing after it; the handles in it are used from then on.
  template <typename Result>
  void Check(const std::optional<fuzz::bytes_t>& reply, bool isServed) {
    constexpr int HeaderWords = 6;
    if (!reply || !isServed || (marks_ & NotAllowed) != 0)
      return;
    CXDRReader reader(boost::make_shared<io::byte_buffer_t>(reply->begin(), reply->end()));
    Result result;
    fuzz::Require(fuzz::Try([&] {
                    for (int i = 0; i < HeaderWords; ++i)
                      reader.UInt();
                    result.Decode(reader);
                  }) &&
                      reader.Remaining() == 0,
                  "a reply can be decoded");
    Keep(result);
  }

  void Keep(const auto&) {}
  void Keep(const LOOKUP3res& result) {
    if (result.status == NFS3_OK)
      handles_.push_back(result.object);
  }
  void Keep(const CREATE3res& result) {
    if (result.object)
      handles_.push_back(*result.object);
  }
  void Keep(const MKDIR3res& result) {
    if (result.object)
      handles_.push_back(*result.object);
  }
  void Keep(const READDIRPLUS3res& result) {
    cookieVerifier_ = result.cookieVerifier;
    for (const entryplus3& entry : result.entries) {
      lastCookie_ = entry.cookie;
      if (entry.nameHandle)
        handles_.push_back(*entry.nameHandle);
    }
  }

  /// One that a reply gave, or one of the input's.
  nfs_fh3 Handle() {
    constexpr std::uint8_t Own = 0xf0;
    const std::uint8_t selector = input_.Byte();
    if (selector < Own)
      return handles_[selector % handles_.size()];
    nfs_fh3 handle;
    const fuzz::bytes_view_t bytes = input_.Take(input_.Byte() % (nfs_fh3::MaxSize + 1));
    std::copy(bytes.begin(), bytes.end(), handle.data.begin());
    handle.size = static_cast<std::uint32_t>(bytes.size());
    return handle;
  }

  std::string Name() {
    static const std::array<std::string, 16> Names{
        "file", "folder", "FILE", "a",     "b",        "A",        ".",      "..",
        "",     "a/b",    "fuzz", "/fuzz", "\xff\xfe", "\xc3\xa4", "a.vmdk", std::string(300, 'n')};
    constexpr std::uint8_t Own = 0xf0;
    const std::uint8_t selector = input_.Byte();
    return selector < Own ? Names[selector % Names.size()] : fuzz::TextOf(input_.Take(input_.Byte()));
  }

  diropargs3 Place() {
    nfs_fh3 dir = Handle();
    return {dir, Name()};
  }

  /// Small ones, and those at the ends of the range.
  std::uint64_t Offset() {
    const std::uint16_t number = input_.Word();
    constexpr std::uint16_t Small = 0xff00;
    return number < Small ? number : std::uint64_t{0} - (number - Small);
  }
  std::uint32_t Count() {
    const std::uint16_t number = input_.Word();
    constexpr std::uint16_t Small = 0xff00;
    return number < Small ? number : 0U - (number - Small);
  }

  sattr3 Attributes() {
    sattr3 attributes;
    const std::uint8_t which = input_.Byte();
    if (which == 0)
      return attributes;
    attributes.setMode = (which & 1) != 0;
    attributes.mode = input_.Word();
    attributes.setSize = (which & 2) != 0;
    attributes.size = Offset();
    attributes.atimeHow = which >> 2 & 3;
    attributes.atime = {Count(), Count()};
    attributes.mtimeHow = which >> 4 & 3;
    attributes.mtime = {Count(), Count()};
    return attributes;
  }
  std::optional<nfstime3> Guard() {
    if (input_.Byte() % 2 == 0)
      return std::nullopt;
    return nfstime3{Count(), Count()};
  }

  fuzz::CInput input_;
  const boost::shared_ptr<test::SFakeBackend> backend_ = boost::make_shared<test::SFakeBackend>();
  const GUID uid_ = platform::NewGuid();
  std::vector<nfs_fh3> handles_;
  std::uint64_t lastCookie_ = 0;
  nfs_verifier_t cookieVerifier_{};
  std::uint8_t marks_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  World();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CSession({data, size}).Run();
  return 0;
}
