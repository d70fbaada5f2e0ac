// Calls of the programs in memory, over a real file system in a temporary folder.
#pragma once

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "config/nfs_share_cfg.h"
#include "rpc/rpc_message.h"
#include "support/captured_log.h"
#include "support/xdr_record.h"
#include "unit/programs/service_home.h"
#include "vfs/nfs3/nfs_handle.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace test {

using bytes_t = std::vector<std::uint8_t>;
using dispatch_t = void (*)(bool, const sockaddr_in&, CXDRReader&, CXDRWriter&, CVirtualFs&);

/// One program under test; each test has a file system of its own with the share "/share" in it.
class CProgramTest : public testing::Test {
 protected:
  static constexpr std::uint32_t Xid = 0xA1B2C3D4;

  CProgramTest(dispatch_t dispatch, std::uint32_t program, std::uint32_t version)
      : dispatch_(dispatch), header_{Xid, 0, 2, program, version, 0} {
    peer_.sin_family = AF_INET;
    peer_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    peer_.sin_port = htons(700);
    const auto cfg = boost::make_shared<CNfsShareCfg>();
    std::filesystem::create_directory(dir_.Path() / "share");
    cfg->localPath = dir_ / "share";
    cfg->nfsFolderName = "/share";
    fs_->CreateShare(cfg);
  }

  bytes_t CallBytes(std::uint32_t procedure, std::span<const std::uint8_t> arguments) const {
    bytes_t call = Words({header_.xid, header_.messageType, header_.rpcVersion, header_.program, header_.programVersion,
                          procedure, 0, 0, 0, 0});
    call.insert(call.end(), arguments.begin(), arguments.end());
    return call;
  }

  /// The reply's bytes behind the record mark. Throws what the dispatch throws.
  bytes_t Send(std::span<const std::uint8_t> call, bool isClientAllowed = true) {
    CXDRReader reader = ReaderOf(call);
    CXDRWriter writer;
    dispatch_(isClientAllowed, peer_, reader, writer, *fs_);
    return MessageOf(writer);
  }

  std::vector<std::uint32_t> Call(std::uint32_t procedure, std::span<const std::uint8_t> arguments = {},
                                  bool isClientAllowed = true) {
    return WordsOf(Send(CallBytes(procedure, arguments), isClientAllowed));
  }

  /// The result of an accepted call; the reply header is checked on the way.
  template <typename Result, typename Args>
  Result Run(std::uint32_t procedure, const Args& args) {
    CXDRReader reader = ReaderOf(Send(CallBytes(procedure, BytesOf(args))));
    for (const std::uint32_t word : Accepted())
      EXPECT_EQ(reader.UInt(), word);
    Result result;
    result.Decode(reader);
    EXPECT_EQ(reader.Remaining(), 0U);
    return result;
  }

  /// Cuts the call at each byte: nothing short of the whole is answered.
  void CheckCuts(std::uint32_t procedure, std::span<const std::uint8_t> arguments) {
    const bytes_t call = CallBytes(procedure, arguments);
    for (std::size_t cut = 0; cut < call.size(); ++cut) {
      EXPECT_THROW(Send(std::span(call).first(cut)), std::exception) << "procedure " << procedure << " cut at " << cut;
    }
  }

  /// The lines by which the programs trace their calls.
  static std::vector<std::string> Traced(const CapturedLog& log) {
    std::vector<std::string> traced = log.Texts();
    std::erase_if(traced, [](const std::string& line) { return !line.starts_with("==="); });
    return traced;
  }

  std::string SharePath(const std::string& name) const { return dir_ / ("share/" + name); }
  nfs_fh3 Root() { return fs_->GetShareHandle("/share"); }

  static std::vector<std::uint32_t> Accepted(std::vector<std::uint32_t> result = {}) {
    std::vector<std::uint32_t> words{Xid, 1, 0, 0, 0, 0};
    words.insert(words.end(), result.begin(), result.end());
    return words;
  }
  static std::vector<std::uint32_t> Unavailable() { return {Xid, 1, 0, 3, 0, 0}; }

  SServiceHome home_;
  const TempDir& dir_ = home_.surroundings.dir;
  dispatch_t dispatch_;
  RpcCallHeader header_;
  sockaddr_in peer_{};
  boost::shared_ptr<CVirtualFs> fs_ = home_.context->GetFs();
};

}  // namespace test
