// What a hostile or broken client sends: it costs that client its call or its connection, and nobody else anything.
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "integration/support/footprint.h"
#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

class BadInputTest : public CWireTest {
 protected:
  void SetUp() override {
    CWireTest::SetUp();
    WriteFile(HostPath("file"), "content");
    fs::create_directory(HostPath("folder"));
    WriteFile(Outside(), "outside");
  }

  /// A file beside the share's folder.
  std::string Outside() const { return service_.Root() + "/../outside"; }

  void TearDown() override {
    if (!service_.IsRunning()) {
      ADD_FAILURE() << "the service has died";
      return;
    }
    // The next good client is served, and what lies outside was not touched.
    CNfsClient good;
    bytes_t handle;
    const auto root = good.Mount();
    ASSERT_TRUE(root);
    EXPECT_EQ(good.Lookup(*root, "file", &handle), Ok);
    EXPECT_EQ(good.Read(handle, 0, 100).data, "content");
    EXPECT_EQ(ReadFile(Outside()), "outside");
  }

  std::size_t ResidentKiB() {
    std::ifstream status("/proc/" + std::to_string(service_.Process().Pid()) + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("VmRSS:", 0) == 0)
        return std::stoul(line.substr(6));
    }
    return 0;
  }
};
KELVO_WIRE_SUITE(BadInputTest);

/// Whole arguments of each NFS procedure that reads some.
std::vector<std::pair<std::uint32_t, bytes_t>> WholeArguments(const bytes_t& folder, const bytes_t& file) {
  const bytes_t attributes = SSetAttributes{0600, 1, 1, 3, 2, {1, 2}, 2, {3, 4}}.Encode();
  return {{test::GetAttr, CEncoder().Opaque(file)},
          {test::SetAttr, CEncoder().Opaque(file).Raw(SSetAttributes{}.Encode()).U32(1).U32(5).U32(6)},
          {test::Lookup, CEncoder().Opaque(folder).Opaque("file")},
          {test::Access, CEncoder().Opaque(file).U32(1)},
          {test::Read, CEncoder().Opaque(file).U64(0).U32(10)},
          {test::Write, CEncoder().Opaque(file).U64(0).U32(7).U32(2).Opaque("content")},
          {test::Create, CEncoder().Opaque(folder).Opaque("made").U32(0).Raw(attributes)},
          {test::MkDir, CEncoder().Opaque(folder).Opaque("made-folder").Raw(attributes)},
          {test::Remove, CEncoder().Opaque(folder).Opaque("nothing")},
          {test::RmDir, CEncoder().Opaque(folder).Opaque("nothing")},
          {test::Rename, CEncoder().Opaque(folder).Opaque("nothing").Opaque(folder).Opaque("else")},
          {test::ReadDirPlus, CEncoder().Opaque(folder).U64(0).U64(0).U32(100).U32(1000)},
          {test::FsStat, CEncoder().Opaque(folder)}};
}

TEST_P(BadInputTest, ArgumentsCutAtEveryLengthEndThatConnectionAlone) {
  const bytes_t file = HandleOf("file");
  for (const auto& [procedure, arguments] : WholeArguments(root_, file)) {
    for (std::size_t length = 0; length < arguments.size(); ++length) {
      CConnection connection(2049);
      connection.SendRecord(CallMessage(1, NfsProgram, 3, procedure, arguments.substr(0, length)));
      EXPECT_TRUE(connection.IsClosedByServer()) << "procedure " << procedure << " cut at " << length;
    }
  }
  EXPECT_FALSE(fs::exists(HostPath("made")));
  EXPECT_FALSE(fs::exists(HostPath("made-folder")));
}

TEST_P(BadInputTest, WholeArgumentsAreAnswered) {
  // The counterpart of the cut ones: it is the cut that ends the connection.
  for (const auto& [procedure, arguments] : WholeArguments(root_, HandleOf("file"))) {
    EXPECT_TRUE(Client().Nfs().Call(NfsProgram, procedure, arguments).IsSuccess()) << procedure;
  }
}

TEST_P(BadInputTest, ArgumentsOfPortmapperAndMountCutAtEveryLength) {
  const bytes_t row = CEncoder().U32(300000).U32(1).U32(6).U32(99);
  const bytes_t path = CEncoder().Opaque("/share");
  for (std::size_t length = 0; length < row.size(); ++length) {
    for (const std::uint32_t procedure : {1U, 2U, 3U}) {
      CConnection connection(111);
      connection.SendRecord(CallMessage(1, PortmapProgram, 2, procedure, row.substr(0, length)));
      EXPECT_TRUE(connection.IsClosedByServer());
    }
  }
  for (std::size_t length = 0; length < path.size(); ++length) {
    CConnection connection(1058);
    connection.SendRecord(CallMessage(1, MountProgram, 3, 1, path.substr(0, length)));
    EXPECT_TRUE(connection.IsClosedByServer());
  }
}

TEST_P(BadInputTest, AHeaderCutAtEveryLengthEndsTheConnection) {
  const bytes_t message = CallMessage(1, NfsProgram, 3, 0, {});
  for (const std::uint16_t port : {std::uint16_t{111}, std::uint16_t{1058}, std::uint16_t{2049}}) {
    for (std::size_t length = 0; length < message.size(); length += port == 2049 ? 1 : 7) {
      CConnection connection(port);
      connection.SendRecord(message.substr(0, length));
      EXPECT_TRUE(connection.IsClosedByServer()) << length;
    }
  }
}

TEST_P(BadInputTest, ACredentialWithALyingLengthEndsTheConnection) {
  for (const std::uint32_t length : {8U, 400U, 0x7FFFFFFFU, 0xFFFFFFFCU, 0xFFFFFFFDU, 0xFFFFFFFFU}) {
    CConnection connection(2049);
    connection.SendRecord(CEncoder().U32(1).U32(0).U32(2).U32(NfsProgram).U32(3).U32(0).U32(1).U32(length));
    EXPECT_TRUE(connection.IsClosedByServer()) << length;
  }
}

TEST_P(BadInputTest, AMarkWithoutTheLastFragmentBitEndsTheConnectionWithoutAReply) {
  CConnection connection(2049);
  const bytes_t message = CallMessage(1, NfsProgram, 3, 0, {});
  connection.SendRaw(Mark(message.size(), false) + message);
  EXPECT_TRUE(connection.IsClosedByServer());
}

TEST_P(BadInputTest, AMarkOf2GiBCostsNothingUntilTheBytesCome) {
  const std::size_t before = ResidentKiB();
  std::vector<std::unique_ptr<CConnection>> connections;
  for (int i = 0; i < 100; ++i) {
    connections.push_back(std::make_unique<CConnection>(2049));
    connections.back()->SendRaw(Mark(0x7FFFFFFF) + bytes_t(1000, 'x'));
  }
  CNfsClient good;
  EXPECT_TRUE(good.Mount());
  EXPECT_LT(ResidentKiB(), before + 256 * 1024);
}

TEST_P(BadInputTest, AMarkThatArrivesByteByByteIsNoError) {
  CConnection connection(2049);
  const bytes_t message = CallMessage(9, NfsProgram, 3, 0, {});
  for (const char byte : Mark(message.size()) + message) {
    connection.SendRaw(bytes_t(1, byte));
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(ParseReply(connection.ReceiveRecord().value()).xid, 9U);
}

TEST_P(BadInputTest, APeerThatLeavesInTheMiddleOfARecordIsForgotten) {
  for (int i = 0; i < 50; ++i) {
    CConnection connection(2049);
    connection.SendRaw(Mark(1000) + bytes_t(static_cast<std::size_t>(i), 'x'));
    if (i % 2 == 0) {
      const linger reset{1, 0};
      setsockopt(connection.Socket(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
  }
}

TEST_P(BadInputTest, AClientThatNeverReadsIsBoundedAndHoldsNobodyUp) {
  WriteFile(HostPath("big"), std::string(1 << 20, 'b'));
  const bytes_t handle = HandleOf("big");
  const std::size_t before = ResidentKiB();
  CConnection deaf(2049);
  const bytes_t message = CallMessage(1, NfsProgram, 3, test::Read, CEncoder().Opaque(handle).U64(0).U32(1 << 20));
  const bytes_t call = Mark(message.size()) + message;
  // 20,000 replies would be 20 GB. Send without waiting until the server stops reading, or all are sent.
  std::size_t sent = 0;
  bytes_t calls;
  for (int i = 0; i < 20000; ++i)
    calls += call;
  int idle = 0;
  while (sent < calls.size() && idle < 100) {
    const ssize_t count = send(deaf.Socket(), calls.data() + sent, calls.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) {
      sent += static_cast<std::size_t>(count);
      idle = 0;
    } else {
      ++idle;
      ASSERT_EQ(Client().GetAttr(handle), Ok);
    }
  }
  EXPECT_EQ(Client().Read(handle, 0, 100).data, std::string(100, 'b'));
  EXPECT_LT(ResidentKiB(), before + 512 * 1024);
}

TEST_P(BadInputTest, HandlesOfAnyLengthAreAnswered) {
  const bytes_t file = HandleOf("file");
  EXPECT_EQ(Client().GetAttr(bytes_t()), ServerFault);
  EXPECT_EQ(Client().GetAttr(file.substr(0, 7)), ServerFault);
  EXPECT_EQ(Client().GetAttr(file.substr(0, 8)), Ok);
  EXPECT_EQ(Client().GetAttr(file + bytes_t(41, '\xff')), Ok);
  EXPECT_EQ(Client().GetAttr(bytes_t(64, '\xff')), Stale);
  EXPECT_EQ(Client().Lookup(bytes_t(), "file"), ServerFault);
  EXPECT_EQ(Client().Read(bytes_t(3, 'x'), 0, 1).status, ServerFault);
  EXPECT_EQ(Client().Write(bytes_t(3, 'x'), 0, "x"), ServerFault);
  EXPECT_EQ(Client().ReadDirPlus(bytes_t(3, 'x'), 0).status, ServerFault);
  EXPECT_EQ(Client().Create(bytes_t(3, 'x'), "n"), ServerFault);
  EXPECT_EQ(Client().Remove(bytes_t(3, 'x'), "n"), ServerFault);
}

TEST_P(BadInputTest, NamesWithSeparatorsOrZeroBytesNeverReachTheHost) {
  fs::create_directory(HostPath("folder/inner"));
  WriteFile(HostPath("folder/inner/deep"), "deep");
  for (const std::string& name :
       {std::string("folder/inner"), std::string("folder\\inner"), std::string("/etc/passwd"),
        std::string("../outside"), std::string("..\\outside"), std::string("file\0x", 6), std::string("\0", 1),
        std::string("/"), std::string("folder/../../outside"), std::string("./file")}) {
    EXPECT_EQ(Client().Lookup(root_, name), NoEntry) << name;
    EXPECT_EQ(Client().Create(root_, name), Invalid) << name;
    EXPECT_EQ(Client().Create(root_, name, nullptr, 1), Invalid) << name;
    EXPECT_EQ(Client().MkDir(root_, name), Invalid) << name;
    EXPECT_EQ(Client().Remove(root_, name), Ok) << name;
    EXPECT_EQ(Client().RmDir(root_, name), Ok) << name;
    EXPECT_EQ(Client().Rename(root_, "file", root_, name), Invalid) << name;
    EXPECT_EQ(Client().Rename(root_, name, root_, "target"), NoEntry) << name;
  }
  EXPECT_TRUE(fs::exists(HostPath("folder/inner/deep")));
  EXPECT_TRUE(fs::exists(HostPath("file")));
  EXPECT_FALSE(fs::exists(HostPath("target")));
}

TEST_P(BadInputTest, NamesThatAreNotUtf8AreTheConversionError) {
  for (const std::string& name :
       {std::string("\xff\xfe"), std::string("a\xc3"), std::string("\xed\xa0\x80"), std::string("\xc0\xaf")}) {
    EXPECT_EQ(Client().Create(root_, name), NoTranslation);
    EXPECT_EQ(Client().MkDir(root_, name), NoTranslation);
    EXPECT_EQ(Client().Lookup(root_, name), NoTranslation);
    EXPECT_EQ(Client().Rename(root_, "file", root_, name), NoTranslation);
  }
}

TEST_P(BadInputTest, NamesOf64KiBFailAndNothingIsMade) {
  const std::string name(65536, 'n');
  EXPECT_EQ(Client().Lookup(root_, name), NoEntry);
  EXPECT_NE(Client().Create(root_, name), Ok);
  EXPECT_NE(Client().MkDir(root_, name), Ok);
  EXPECT_NE(Client().Rename(root_, "file", root_, name), Ok);
  EXPECT_EQ(Client().List(root_).size(), 2U);
}

TEST_P(BadInputTest, SymbolicLinksDoNotLeadOutOfTheShare) {
  fs::create_directory(HostPath("../outside-folder"));
  WriteFile(HostPath("../outside-folder/secret"), "secret");
  const std::string absolute = fs::canonical(HostPath("../outside")).string();
  const std::string absoluteFolder = fs::canonical(HostPath("../outside-folder")).string();
  fs::create_symlink(absolute, HostPath("absolute"));
  fs::create_symlink("../outside", HostPath("relative"));
  fs::create_symlink(absoluteFolder, HostPath("absolute-folder"));
  fs::create_symlink("../outside-folder", HostPath("relative-folder"));
  for (const char* name : {"absolute", "relative", "absolute-folder", "relative-folder"}) {
    bytes_t handle;
    const std::uint32_t status = Client().Lookup(root_, name, &handle);
    if (status == Ok) {
      EXPECT_NE(Client().Read(handle, 0, 100).data, "outside") << name;
      EXPECT_NE(Client().Write(handle, 0, "attack!"), Ok) << name;
      EXPECT_NE(Client().Lookup(handle, "secret"), Ok) << name;
      EXPECT_NE(Client().Create(handle, "planted"), Ok) << name;
      SSetAttributes values;
      values.size = 0;
      values.mode = 0400;
      EXPECT_NE(Client().SetAttr(handle, values), Ok) << name;
    }
    EXPECT_NE(Client().Create(root_, name), Ok) << name;
  }
  EXPECT_EQ(ReadFile(absolute), "outside");
  EXPECT_EQ(ReadFile(absoluteFolder + "/secret"), "secret");
  EXPECT_FALSE(fs::exists(absoluteFolder + "/planted"));
  // Removing a link removes the link.
  for (const char* name : {"absolute", "relative"})
    Client().Remove(root_, name);
  for (const char* name : {"absolute-folder", "relative-folder"})
    Client().RmDir(root_, name);
  EXPECT_EQ(ReadFile(absolute), "outside");
  EXPECT_EQ(ReadFile(absoluteFolder + "/secret"), "secret");
}

TEST_P(BadInputTest, AFolderThatBecomesALinkUnderAHandleDoesNotLeadOut) {
  fs::create_directory(HostPath("../elsewhere"));
  WriteFile(HostPath("../elsewhere/file"), "elsewhere");
  WriteFile(HostPath("folder/file"), "inside");
  const bytes_t folder = HandleOf("folder");
  const bytes_t file = HandleOf("file", folder);
  fs::remove_all(HostPath("folder"));
  fs::create_symlink("../elsewhere", HostPath("folder"));
  EXPECT_NE(Client().Read(file, 0, 100).data, "elsewhere");
  EXPECT_NE(Client().Write(file, 0, "attack!!!"), Ok);
  EXPECT_NE(Client().Create(folder, "planted"), Ok);
  EXPECT_NE(Client().Remove(folder, "file"), 99U);
  EXPECT_EQ(ReadFile(HostPath("../elsewhere/file")), "elsewhere");
  EXPECT_FALSE(fs::exists(HostPath("../elsewhere/planted")));
}

TEST_P(BadInputTest, FiveHundredConnectionsThatComeAndGoLeaveNoDescriptorBehind) {
  const auto descriptors = [this] { return FootprintOf(service_.Process().Pid()).descriptors; };
  const auto before = descriptors();
  for (int i = 0; i < 500; ++i) {
    CConnection connection(2049);
    EXPECT_TRUE(connection.Call(NfsProgram, 0).IsSuccess());
  }
  EXPECT_TRUE(WaitUntil([&] { return descriptors() <= before + 5; })) << descriptors() << " from " << before;
}

}  // namespace
