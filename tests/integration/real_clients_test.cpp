// Clients that were written by others: the programs of libnfs-utils, libnfs's raw calls, and tshark as a judge.
#include <poll.h>
// The headers of libnfs need this order.
#include <nfsc/libnfs.h>

#include <nfsc/libnfs-raw.h>

#include <nfsc/libnfs-raw-nfs.h>

#include <csignal>
#include <filesystem>
#include <sstream>

#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

class RealClientsTest : public CWireTest {};
KELVO_WIRE_SUITE(RealClientsTest);

std::string Pattern(std::size_t length) {
  std::string data(length, '\0');
  unsigned seed = 7;
  for (char& byte : data) {
    seed = seed * 1664525U + 1013904223U;
    byte = static_cast<char>(seed >> 24);
  }
  return data;
}

TEST_P(RealClientsTest, NfsLsShowsTheFiles) {
  WriteFile(HostPath("one"), "1");
  fs::create_directory(HostPath("two"));
  for (int i = 0; i < 30; ++i)
    WriteFile(HostPath("many" + std::to_string(i)), "");
  const SResult result = RunProgram({"nfs-ls", "nfs://127.0.0.1/share"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_NE(result.out.find(" one\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(" two\n"), std::string::npos);
  EXPECT_NE(result.out.find(" many29\n"), std::string::npos);
}

TEST_P(RealClientsTest, NfsCatAndNfsCpCarryFilesWhole) {
  const std::string content = Pattern(5 << 20);
  WriteFile(HostPath("file"), content);
  const SResult cat = RunProgram({"nfs-cat", "nfs://127.0.0.1/share/file"});
  EXPECT_EQ(cat.exitCode, 0) << cat.err;
  EXPECT_TRUE(cat.out == content);

  CTempFolder folder;
  WriteFile(folder.Path() + "/in", content);
  const SResult in = RunProgram({"nfs-cp", folder.Path() + "/in", "nfs://127.0.0.1/share/copy"});
  EXPECT_EQ(in.exitCode, 0) << in.err << in.out;
  EXPECT_TRUE(ReadFile(HostPath("copy")) == content);
  const SResult out = RunProgram({"nfs-cp", "nfs://127.0.0.1/share/copy", folder.Path() + "/out"});
  EXPECT_EQ(out.exitCode, 0) << out.err << out.out;
  EXPECT_TRUE(ReadFile(folder.Path() + "/out") == content);
}

/// One raw libnfs call, run to its reply.
struct SRawCall {
  bool done = false;
  int status = 0;
  std::function<void(void*)> take;

  static void OnReply(rpc_context*, int status, void* data, void* context) {
    auto* call = static_cast<SRawCall*>(context);
    call->done = true;
    call->status = status;
    if (status == RPC_STATUS_SUCCESS && call->take)
      call->take(data);
  }
};

void Finish(rpc_context* rpc, const SRawCall& call) {
  while (!call.done) {
    pollfd poll{rpc_get_fd(rpc), static_cast<short>(rpc_which_events(rpc)), 0};
    ASSERT_GT(::poll(&poll, 1, 30000), 0);
    ASSERT_EQ(rpc_service(rpc, poll.revents), 0) << rpc_get_error(rpc);
  }
}

TEST_P(RealClientsTest, LibnfsRawCallsSeeFilesHandlesAndListings) {
  WriteFile(HostPath("file"), "raw content");
  nfs_context* nfs = nfs_init_context();
  ASSERT_EQ(nfs_mount(nfs, "127.0.0.1", "/share"), 0) << nfs_get_error(nfs);
  rpc_context* rpc = nfs_get_rpc_context(nfs);
  std::string mounted = root_;
  nfs_fh3 root{{static_cast<u_int>(mounted.size()), mounted.data()}};

  std::string handle;
  {
    SRawCall call;
    call.take = [&](void* data) {
      auto* result = static_cast<LOOKUP3res*>(data);
      ASSERT_EQ(result->status, NFS3_OK);
      const nfs_fh3& found = result->LOOKUP3res_u.resok.object;
      handle.assign(found.data.data_val, found.data.data_len);
      EXPECT_EQ(result->LOOKUP3res_u.resok.obj_attributes.post_op_attr_u.attributes.size, 11U);
    };
    LOOKUP3args arguments{};
    arguments.what.dir = root;
    arguments.what.name = const_cast<char*>("file");
    ASSERT_EQ(rpc_nfs3_lookup_async(rpc, SRawCall::OnReply, &arguments, &call), 0);
    Finish(rpc, call);
    EXPECT_EQ(call.status, RPC_STATUS_SUCCESS);
  }
  EXPECT_EQ(handle, HandleOf("file"));
  {
    SRawCall call;
    call.take = [&](void* data) {
      auto* result = static_cast<READ3res*>(data);
      ASSERT_EQ(result->status, NFS3_OK);
      const READ3resok& read = result->READ3res_u.resok;
      EXPECT_EQ(std::string(read.data.data_val, read.data.data_len), "raw content");
      EXPECT_TRUE(read.eof);
    };
    READ3args arguments{};
    arguments.file.data.data_val = handle.data();
    arguments.file.data.data_len = static_cast<u_int>(handle.size());
    arguments.count = 4096;
    ASSERT_EQ(rpc_nfs3_read_async(rpc, SRawCall::OnReply, &arguments, &call), 0);
    Finish(rpc, call);
    EXPECT_EQ(call.status, RPC_STATUS_SUCCESS);
  }
  {
    SRawCall call;
    call.take = [&](void* data) {
      auto* result = static_cast<READDIRPLUS3res*>(data);
      ASSERT_EQ(result->status, NFS3_OK);
      const dirlistplus3& list = result->READDIRPLUS3res_u.resok.reply;
      ASSERT_NE(list.entries, nullptr);
      EXPECT_STREQ(list.entries->name, "file");
      EXPECT_EQ(list.entries->nextentry, nullptr);
      EXPECT_TRUE(list.eof);
    };
    READDIRPLUS3args arguments{};
    arguments.dir = root;
    arguments.dircount = 8192;
    arguments.maxcount = 8192;
    ASSERT_EQ(rpc_nfs3_readdirplus_async(rpc, SRawCall::OnReply, &arguments, &call), 0);
    Finish(rpc, call);
    EXPECT_EQ(call.status, RPC_STATUS_SUCCESS);
  }
  nfs_destroy_context(nfs);
}

TEST_P(RealClientsTest, LibnfsWorksThroughItsOwnFileCalls) {
  nfs_context* nfs = nfs_init_context();
  ASSERT_EQ(nfs_mount(nfs, "127.0.0.1", "/share"), 0) << nfs_get_error(nfs);
  ASSERT_EQ(nfs_mkdir(nfs, "/folder"), 0) << nfs_get_error(nfs);
  nfsfh* file = nullptr;
  ASSERT_EQ(nfs_creat(nfs, "/folder/file", 0644, &file), 0) << nfs_get_error(nfs);
  std::string data = Pattern(200000);
  std::size_t written = 0;
  while (written < data.size()) {
    const int count = nfs_pwrite(nfs, file, written, data.size() - written, data.data() + written);
    ASSERT_GT(count, 0) << nfs_get_error(nfs);
    written += static_cast<std::size_t>(count);
  }
  // Its close commits what it wrote, and COMMIT is not served: what was answered is stored already.
  nfs_close(nfs, file);
  EXPECT_TRUE(ReadFile(HostPath("folder/file")) == data);
  EXPECT_EQ(nfs_truncate(nfs, "/folder/file", 10), 0) << nfs_get_error(nfs);
  EXPECT_EQ(ReadFile(HostPath("folder/file")), data.substr(0, 10));
  EXPECT_EQ(nfs_rename(nfs, "/folder/file", "/folder/renamed"), 0) << nfs_get_error(nfs);
  EXPECT_TRUE(fs::exists(HostPath("folder/renamed")));
  EXPECT_EQ(nfs_unlink(nfs, "/folder/renamed"), 0) << nfs_get_error(nfs);
  EXPECT_EQ(nfs_rmdir(nfs, "/folder"), 0) << nfs_get_error(nfs);
  EXPECT_FALSE(fs::exists(HostPath("folder")));
  nfs_destroy_context(nfs);
}

TEST_P(RealClientsTest, TsharkDecodesTheWholeConversationWithoutAMalformedPacket) {
  CTempFolder folder;
  const std::string capture = folder.Path() + "/capture.pcap";
  CProcess dumpcap({"dumpcap", "-q", "-i", "lo", "-w", capture, "-P"}, {});
  // The file header stands when the capture runs.
  ASSERT_TRUE(WaitUntil([&] { return fs::exists(capture) && fs::file_size(capture) >= 24; }));

  WriteFile(HostPath("file"), Pattern(100000));
  bytes_t handle;
  bytes_t sub;
  CNfsClient client;
  ASSERT_TRUE(client.Mount());
  GetPort(NfsProgram);
  CConnection(111).Call(PortmapProgram, 4);
  ASSERT_EQ(client.Lookup(root_, "file", &handle), Ok);
  ASSERT_EQ(client.Lookup(root_, "missing"), NoEntry);
  ASSERT_EQ(client.GetAttr(handle), Ok);
  ASSERT_EQ(client.Access(handle, 0x1F), Ok);
  ASSERT_EQ(client.Read(handle, 0, 100000).status, Ok);
  ASSERT_EQ(client.Read(root_, 0, 10).status, NotSupported);
  ASSERT_EQ(client.Write(handle, 5, Pattern(1001)), Ok);
  ASSERT_EQ(client.Create(root_, "created", nullptr), Ok);
  ASSERT_EQ(client.Create(root_, "created", nullptr, 1), Exists);
  ASSERT_EQ(client.MkDir(root_, "sub", &sub), Ok);
  ASSERT_EQ(client.Rename(root_, "created", root_, "renamed"), Ok);
  SSetAttributes values;
  values.size = 10;
  values.mtimeHow = 1;
  ASSERT_EQ(client.SetAttr(handle, values), Ok);
  ASSERT_EQ(client.SetAttr(root_, values), Invalid);
  client.List(root_);
  client.Nfs().Call(NfsProgram, test::FsInfo, CEncoder().Opaque(root_));
  client.Nfs().Call(NfsProgram, test::FsStat, CEncoder().Opaque(root_));
  ASSERT_EQ(client.Remove(root_, "renamed"), Ok);
  ASSERT_EQ(client.RmDir(root_, "sub"), Ok);

  // All is captured when the last reply is: RMDIR is procedure 13.
  const auto decode = [&](const std::string& filter) {
    const SResult result =
        RunProgram({"tshark", "-r", capture, "-d", "tcp.port==2049,rpc", "-d", "tcp.port==1058,rpc", "-Y", filter, "-T",
                    "fields", "-e", "frame.number", "-e", "nfs.procedure_v3", "-e", "_ws.col.Info"});
    return result.out;
  };
  EXPECT_TRUE(WaitUntil([&] { return !decode("nfs.procedure_v3 == 13 && rpc.msgtyp == 1").empty(); }));
  dumpcap.Signal(SIGINT);
  dumpcap.WaitForExit();

  EXPECT_EQ(decode("_ws.malformed && (nfs || mount || portmap || rpc)"), "");
  EXPECT_EQ(decode("_ws.unreassembled"), "");
  for (const int procedure : {1, 2, 3, 4, 6, 7, 8, 9, 12, 13, 14, 17, 18, 19}) {
    const std::string number = std::to_string(procedure);
    EXPECT_NE(decode("rpc.msgtyp == 1 && nfs.procedure_v3 == " + number), "") << "no reply decoded: " << number;
  }
  EXPECT_NE(decode("mount.procedure_v3 == 1 && rpc.msgtyp == 1"), "");
  EXPECT_NE(decode("portmap.procedure_v2 == 4 && rpc.msgtyp == 1"), "");
}

}  // namespace
