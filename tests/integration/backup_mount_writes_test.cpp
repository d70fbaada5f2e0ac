// What becomes of what guests write to a backup.
#include <random>

#include "integration/support/backup_fixture.h"
#include "integration/support/block_writer.h"
#include "integration/support/small_disk.h"

namespace {

using namespace test;
using testing::IsEmpty;

class BackupMountWritesTest : public CBackupTest {};
KELVO_WIRE_SUITE(BackupMountWritesTest);

TEST_P(BackupMountWritesTest, AnAnsweredWriteOutlivesEveryKill) {
  constexpr std::size_t Blocks = 2048;
  // Data of this size takes another way through the service.
  constexpr std::size_t LargeWrite = 16;
  constexpr int Rounds = 5;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::printf("seed %u\n", seed);
  std::mt19937 random(seed);
  const std::string source(Blocks * BlockSize, 's');
  const CBackupFolder backup{{"disk.img", source}, {"data.img", source}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  const writers_t writers = StartWriters({HandleOf("disk.img"), HandleOf("data.img")}, Blocks, LargeWrite,
                                         [&random] { return static_cast<unsigned>(random()); });
  const auto pause = [&random] { std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300)); };
  for (int round = 0; round < 2 * Rounds; ++round) {
    ASSERT_NO_FATAL_FAILURE(WaitForProgress(writers, 20));
    pause();
    if (round % 2 == 0) {
      agent.Kill();
      pause();
      ASSERT_NO_FATAL_FAILURE(agent.Start());
      pause();
    }
    // A new service connects at once; the old one would find the new agent within half a minute.
    service_.Kill();
    pause();
    ASSERT_NO_FATAL_FAILURE(service_.Start());
  }
  WaitForProgress(writers, 20);
  StopAfterFailures(writers);

  // Out of the overlay alone.
  agent.Kill();
  service_.Kill();
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  ASSERT_NO_FATAL_FAILURE(service_.Start());
  for (const auto& writer : writers)
    ASSERT_NO_FATAL_FAILURE(writer->Check(NewClient(), source));
  EXPECT_TRUE(ReadFile(backup.File("disk.img")) == source);
  EXPECT_TRUE(ReadFile(backup.File("data.img")) == source);
}

TEST_P(BackupMountWritesTest, AgentsThatTakeNoWritesSaySo) {
  const CBackupFolder backup{{"disk.img", "disk"}};
  CTempFolder overlay;
  std::vector<std::vector<std::string>> kinds{{}, {"--read-only"}, {"--read-only", "--overlay", overlay.Path()}};
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    const std::string name = "vm" + std::to_string(i);
    CMountAgent agent(service_, name, backup.Path(), kinds[i]);
    ASSERT_NO_FATAL_FAILURE(agent.Start());
    const bytes_t folder = MakeFolder(name);
    const std::string id = Publish(name, name);
    const bytes_t disk = HandleOf("disk.img", folder);
    EXPECT_EQ(Client().Write(disk, 0, "DISK"), ServerFault);
    EXPECT_EQ(Client().Write(disk, 100, "DISK"), ServerFault);
    // That was an answer: the mount is as well as before.
    EXPECT_EQ(ContentOf(disk), "disk");
    EXPECT_EQ(Locks(), std::set<std::string>{name});
    Withdraw(id);
    EXPECT_EQ(agent.Stop(), 0) << agent.Output();
  }
  EXPECT_EQ(ReadFile(backup.File("disk.img")), "disk");
}

TEST_P(BackupMountWritesTest, WritesOfAllSizesInFlightArriveInOrderAndWhole) {
  constexpr std::uint32_t Calls = 400;
  constexpr std::size_t FileSize = 1 << 20;
  const CBackupFolder backup{{"disk.img", std::string(FileSize, 's')}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  WriteFile(HostPath("host.img"), std::string(FileSize, 's'));
  const std::vector<bytes_t> handles{HandleOf("disk.img"), HandleOf("host.img")};
  std::vector<std::string> expected(2, std::string(FileSize, 's'));
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::vector<bytes_t> calls;
  for (std::uint32_t i = 0; i < Calls; ++i) {
    static constexpr std::size_t Sizes[] = {65536, 65536, 65536, 16384, 16383, 20001, 131072, 5, 4096};
    // Mostly the same file as before: the service gets used to where the data of a client goes.
    const std::size_t file = i / 40 % 2 == 0 ? std::min<std::size_t>(random() % 8, 1) ^ 1 : random() % 2;
    const std::size_t size = Sizes[random() % std::size(Sizes)];
    const std::size_t offset = random() % (FileSize - size);
    std::string data(size, '\0');
    for (std::size_t at = 0; at < size; ++at)
      data[at] = static_cast<char>(at * 7 + at / 251 + i);
    expected[file].replace(offset, size, data);
    calls.push_back(CallMessage(
        i, NfsProgram, 3, test::Write,
        CEncoder().Opaque(handles[file]).U64(offset).U32(static_cast<std::uint32_t>(size)).U32(0).Opaque(data)));
  }
  CConnection connection(2049);
  std::thread asking([&] {
    for (const bytes_t& call : calls)
      connection.SendRecord(call);
  });
  for (std::uint32_t i = 0; i < Calls; ++i) {
    const SReply reply = ParseReply(connection.ReceiveRecord().value());
    EXPECT_EQ(reply.xid, i);
    EXPECT_EQ(CDecoder(reply.body).U32(), Ok) << i;
  }
  asking.join();
  for (std::size_t file = 0; file < 2; ++file) {
    for (std::uint32_t at = 0; at < FileSize; at += 65536)
      EXPECT_TRUE(Client().Read(handles[file], at, 65536).data == expected[file].substr(at, 65536))
          << file << " " << at;
  }
}

TEST_P(BackupMountWritesTest, WriteThroughChangesTheSource) {
  const CBackupFolder backup{{"disk.img", "disk"}};
  CMountAgent agent(service_, "vm1", backup.Path(), {{"--write-through"}});
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  EXPECT_EQ(Client().Write(HandleOf("disk.img"), 0, "DI"), Ok);
  EXPECT_EQ(ReadFile(backup.File("disk.img")), "DIsk");
}

TEST_P(BackupMountWritesTest, AFullDiskIsAnErrorAndLosesNothing) {
  constexpr std::size_t Blocks = 512;
  const std::string source(Blocks * BlockSize, 's');
  const CBackupFolder backup{{"disk.img", source}};
  CMountAgent agent(service_, "vm1", backup.Path());
  CSmallDisk small(agent.OverlayFolder(), "1m");
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  const bytes_t disk = HandleOf("disk.img");
  std::vector<bool> answered(Blocks);
  std::size_t refused = 0;
  for (std::size_t block = 0; block < Blocks; ++block) {
    const std::uint32_t status = Client().Write(disk, block * BlockSize, BlockOf(block, 1));
    answered[block] = status == Ok;
    if (status != Ok) {
      EXPECT_EQ(status, ServerFault);
      ++refused;
    }
  }
  EXPECT_GT(refused, 0U);
  EXPECT_LT(refused, Blocks);
  const auto check = [&] {
    for (std::size_t block = 0; block < Blocks; ++block) {
      const SReadResult read = Client().Read(disk, block * BlockSize, BlockSize);
      ASSERT_EQ(read.status, Ok);
      const std::string before = source.substr(0, BlockSize);
      EXPECT_EQ(read.data, answered[block] ? BlockOf(block, 1) : before) << "block " << block;
    }
  };
  ASSERT_NO_FATAL_FAILURE(check());
  // What is there can be written over: it takes no more room.
  EXPECT_EQ(Client().Write(disk, 0, BlockOf(0, 1)), Ok);
  service_.Kill();
  agent.Kill();
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  ASSERT_NO_FATAL_FAILURE(service_.Start());
  NewClient();
  ASSERT_NO_FATAL_FAILURE(check());

  small.Resize("16m");
  for (std::size_t block = 0; block < Blocks; ++block) {
    EXPECT_EQ(Client().Write(disk, block * BlockSize, BlockOf(block, 1)), Ok);
    answered[block] = true;
  }
  ASSERT_NO_FATAL_FAILURE(check());
  EXPECT_TRUE(ReadFile(backup.File("disk.img")) == source);
  agent.Kill();
}

}  // namespace
