// Descriptors and memory that are used up.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>

#include "fault/support/fault_fixture.h"

namespace test {
namespace {

constexpr std::uint32_t RegistryFailed = 1009;

class ExhaustionTest : public CFaultTest {
 protected:
  void Limit(__rlimit_resource what, rlim_t limit) {
    rlimit old{};
    ASSERT_EQ(prlimit(service_.Process().Pid(), what, nullptr, &old), 0);
    const rlimit wanted{std::min(limit, old.rlim_max), old.rlim_max};
    ASSERT_EQ(prlimit(service_.Process().Pid(), what, &wanted, nullptr), 0);
  }
  /// From which on there is none: no number below it is free.
  rlim_t FirstFreeDescriptor() {
    const std::string folder = "/proc/" + std::to_string(service_.Process().Pid()) + "/fd/";
    rlim_t number = 0;
    while (std::filesystem::is_symlink(folder + std::to_string(number)))
      ++number;
    return number;
  }
  /// Connections of others that are still open, or were closed by their peers alone, take descriptors and give them
  /// back at any time.
  void AwaitNoOtherConnections() {
    constexpr std::size_t EndsOfOurs = 2;  // Both are in the test's network.
    EXPECT_TRUE(WaitUntil([&] {
      std::ifstream table("/proc/" + std::to_string(service_.Process().Pid()) + "/net/tcp");
      std::size_t established = 0;
      std::size_t halfClosed = 0;
      std::string line;
      for (std::getline(table, line); std::getline(table, line);) {
        std::string number, local, remote, state;
        std::istringstream(line) >> number >> local >> remote >> state;
        established += state == "01";
        halfClosed += state == "08";
      }
      return established == EndsOfOurs && halfClosed == 0;
    }));
  }
  std::size_t AddressSpace() {
    std::ifstream status("/proc/" + std::to_string(service_.Process().Pid()) + "/statm");
    std::size_t pages = 0;
    status >> pages;
    return pages * 4096;
  }
  /// The names in the share are those of its folder on the host, and each has the handle that it is listed with.
  void ExpectWhatTheHostHas() {
    std::vector<std::string> onHost;
    for (const auto& entry : std::filesystem::directory_iterator(HostPath("")))
      onHost.push_back(entry.path().filename());
    std::vector<std::string> listed;
    for (const SEntry& entry : Client().List(root_)) {
      listed.push_back(entry.name);
      bytes_t handle;
      SAttributes attributes;
      EXPECT_EQ(Client().Lookup(root_, entry.name, &handle), Ok) << entry.name;
      EXPECT_EQ(handle, entry.handle) << entry.name;
      EXPECT_EQ(Client().GetAttr(handle, &attributes), Ok) << entry.name;
      EXPECT_EQ(attributes.fileid, entry.fileid) << entry.name;
    }
    EXPECT_THAT(listed, testing::UnorderedElementsAreArray(onHost));
  }
  /// A call from a connection of its own: answered with a defined status, or the connection is closed. Nothing else.
  void CallAtRandom(unsigned number, std::size_t& answered, std::size_t& refused) {
    try {
      CNfsClient client;
      const std::string name = "memory" + std::to_string(number % 5);
      const std::string moved = "moved" + std::to_string(number % 3);
      const std::string folder = "folder" + std::to_string(number % 3);
      SSetAttributes mode;
      mode.mode = 0640;
      bytes_t file;
      bytes_t movedFile;
      const auto rename = [&] {
        const std::uint32_t status = client.Rename(root_, name, root_, moved);
        if (status == Ok && !file.empty() && client.Lookup(root_, moved, &movedFile) == Ok) {
          EXPECT_EQ(movedFile, file);
        }
        return status;
      };
      for (const std::uint32_t status :
           {client.GetAttr(known_), client.Lookup(root_, "known"), client.Read(known_, 0, 65536).status,
            client.Create(root_, name, &file), client.Write(known_, 0, "k"), client.ReadDirPlus(root_, 0).status,
            client.SetAttr(known_, mode), client.MkDir(root_, folder), rename(), client.Remove(root_, name),
            client.Remove(root_, moved), client.RmDir(root_, folder)}) {
        // The registry's library does not always say that it was memory that it lacked.
        EXPECT_TRUE(status == Ok || status == NotEnoughMemory || status == ServerFault || status == NoEntry ||
                    status == RegistryFailed)
            << status;
        ++(status == Ok ? answered : refused);
      }
    } catch (const std::exception& failure) {
      EXPECT_STRNE(failure.what(), "no reply in time");
      ++refused;
    }
  }
};
KELVO_WIRE_SUITE(ExhaustionTest);
class MemoryFaultsTest : public ExhaustionTest {};
KELVO_WIRE_SUITE(MemoryFaultsTest);

TEST_P(ExhaustionTest, WithoutDescriptorsFilesCannotBeOpenedAndConnectionsWait) {
  WriteFile(HostPath("closed"), "closed");
  ASSERT_NO_FATAL_FAILURE(Begin());
  const bytes_t closed = HandleOf("closed");
  AwaitNoOtherConnections();
  const std::size_t before = Descriptors();
  Limit(RLIMIT_NOFILE, FirstFreeDescriptor());
  EXPECT_EQ(Client().Read(closed, 0, 10).status, TooManyOpenFiles);
  EXPECT_EQ(Client().Create(root_, "new"), TooManyOpenFiles);
  EXPECT_EQ(Client().ReadDirPlus(root_, 0).status, TooManyOpenFiles);
  ExpectServing();
  EXPECT_EQ(Client().Write(known_, 0, "k"), Ok);
  // It is connected, by the kernel, and answered once there is a descriptor.
  CConnection waiting(2049);
  waiting.SendRecord(CallMessage(7, NfsProgram, 3, GetAttr, CEncoder().Opaque(known_)));
  EXPECT_THROW(waiting.ReceiveRecord(300ms), std::exception);
  ExpectServing();
  ExpectDescriptors(before);

  Limit(RLIMIT_NOFILE, RLIM_INFINITY);
  EXPECT_TRUE(waiting.ReceiveRecord().has_value());
  EXPECT_EQ(Client().Read(closed, 0, 10).data, "closed");
  EXPECT_EQ(HandleOf("closed"), closed);
  ExpectWell();
  EXPECT_EQ(service_.Stop(), 0);
}

TEST_P(ExhaustionTest, WithoutMemoryCallsAreRefusedAndTheServiceLives) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  ExpectWell();
  const std::size_t before = Descriptors();
  // No room for what a thread or a large reply takes.
  Limit(RLIMIT_AS, AddressSpace());
  std::size_t answered = 0;
  std::size_t refused = 0;
  for (unsigned i = 0; i < 50; ++i)
    CallAtRandom(i, answered, refused);
  EXPECT_TRUE(service_.IsRunning());
  std::printf("%zu calls answered, %zu refused\n", answered, refused);
  Limit(RLIMIT_AS, RLIM_INFINITY);
  client_.reset();
  NewClient();
  ExpectWell();
  ExpectDescriptors(before + 5);
  EXPECT_EQ(service_.Stop(), 0);
}

TEST_P(MemoryFaultsTest, MemoryThatIsRefusedAtAnyPlaceCostsACallOrItsConnection) {
  UseFaults();
  ASSERT_NO_FATAL_FAILURE(Begin());
  ExpectWell();
  const std::size_t before = Descriptors();
  std::size_t answered = 0;
  std::size_t refused = 0;
  // To where hardly anything succeeds.
  for (const std::uint32_t oneIn : {3000U, 300U, 60U, 12U}) {
    faults_->memoryOneIn = oneIn;
    for (unsigned i = 0; i < 40; ++i)
      CallAtRandom(i, answered, refused);
    ASSERT_TRUE(service_.IsRunning()) << "one in " << oneIn;
  }
  faults_.Clear();
  std::printf("%zu calls answered, %zu refused, %lu requests for memory failed\n", answered, refused,
              static_cast<unsigned long>(faults_->failed.load()));
  EXPECT_GT(answered, 0U);
  EXPECT_GT(refused, 0U);
  EXPECT_GT(faults_->failed.load(), 0U);
  client_.reset();
  NewClient();
  ExpectWell();
  ExpectWhatTheHostHas();
  ExpectDescriptors(before + 5);
  EXPECT_EQ(service_.Stop(), 0);
}

}  // namespace
}  // namespace test
