// What becomes of what guests write to a backup.
#include <sys/mount.h>

#include <array>
#include <atomic>
#include <mutex>
#include <random>

#include "integration/support/backup_fixture.h"

namespace {

using namespace test;
using testing::IsEmpty;

constexpr std::size_t BlockSize = 4096;

std::string BlockOf(std::size_t block, std::uint32_t number) {
  std::string data;
  while (data.size() < BlockSize)
    data += std::to_string(block) + ":" + std::to_string(number) + ";";
  return data.substr(0, BlockSize);
}

/// Writes block after block of a part of a file that is its own, again and again with rising numbers, and remembers
/// what was answered. Calls that fail and connections that end are what it lives with.
class CWriter {
 public:
  CWriter(const bytes_t& handle, std::size_t firstBlock, std::size_t blocks, unsigned seed)
      : handle_(handle), firstBlock_(firstBlock), blocks_(blocks), random_(seed), thread_([this] { Run(); }) {}
  CWriter(const CWriter&) = delete;
  CWriter& operator=(const CWriter&) = delete;
  ~CWriter() { Stop(); }

  void Stop() {
    stop_ = true;
    if (thread_.joinable())
      thread_.join();
  }
  std::size_t Answered() const { return answered_; }
  std::size_t Failed() const { return failed_; }

  /// After Stop. A block holds the last number that was answered, or one that was tried after it.
  void Check(CNfsClient& client, const std::string& source) const {
    for (const auto& [block, state] : written_) {
      const SReadResult read = client.Read(handle_, block * BlockSize, BlockSize);
      ASSERT_EQ(read.status, Ok);
      std::vector<std::string> allowed;
      allowed.push_back(state.answered ? BlockOf(block, *state.answered) : source.substr(block * BlockSize, BlockSize));
      for (const std::uint32_t number : state.unanswered)
        allowed.push_back(BlockOf(block, number));
      EXPECT_NE(std::find(allowed.begin(), allowed.end(), read.data), allowed.end())
          << "block " << block << " holds " << read.data.substr(0, 20) << " and was answered "
          << state.answered.value_or(0) << ", unanswered since: " << state.unanswered.size();
    }
  }

 private:
  struct SState {
    std::optional<std::uint32_t> answered;
    std::vector<std::uint32_t> unanswered;  ///< Tried after that; whether they are there is not known.
  };

  void Run() {
    std::unique_ptr<CNfsClient> client;
    while (!stop_) {
      const std::size_t block = firstBlock_ + random_() % blocks_;
      SState& state = written_[block];
      const std::uint32_t number = ++number_;
      state.unanswered.push_back(number);
      try {
        if (!client)
          client = std::make_unique<CNfsClient>();
        if (client->Write(handle_, block * BlockSize, BlockOf(block, number)) == Ok) {
          state = {number, {}};
          ++answered_;
          continue;
        }
      } catch (const std::exception&) {
        client.reset();
      }
      ++failed_;
      std::this_thread::sleep_for(5ms);
    }
  }

  const bytes_t handle_;
  const std::size_t firstBlock_;
  const std::size_t blocks_;
  std::mt19937 random_;
  std::uint32_t number_ = 0;
  std::map<std::size_t, SState> written_;
  std::atomic<bool> stop_ = false;
  std::atomic<std::size_t> answered_ = 0;
  std::atomic<std::size_t> failed_ = 0;
  std::thread thread_;
};

class BackupMountWritesTest : public CBackupTest {
 protected:
  /// Waits until every writer has got so many answers more.
  static void WaitForProgress(const std::vector<std::unique_ptr<CWriter>>& writers, std::size_t answers) {
    std::vector<std::size_t> goals;
    for (const auto& writer : writers)
      goals.push_back(writer->Answered() + answers);
    EXPECT_TRUE(WaitUntil(
        [&] {
          for (std::size_t i = 0; i < writers.size(); ++i) {
            if (writers[i]->Answered() < goals[i])
              return false;
          }
          return true;
        },
        60s));
  }
};
KELVO_WIRE_SUITE(BackupMountWritesTest);

TEST_P(BackupMountWritesTest, AnAnsweredWriteOutlivesEveryKill) {
  constexpr std::size_t Blocks = 2048;
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
  std::vector<std::unique_ptr<CWriter>> writers;
  for (const char* name : {"disk.img", "data.img"}) {
    const bytes_t handle = HandleOf(name);
    for (std::size_t part = 0; part < 2; ++part)
      writers.push_back(
          std::make_unique<CWriter>(handle, part * Blocks / 2, Blocks / 2, static_cast<unsigned>(random())));
  }
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
  std::size_t answered = 0;
  std::size_t failed = 0;
  for (const auto& writer : writers) {
    writer->Stop();
    answered += writer->Answered();
    failed += writer->Failed();
  }
  std::printf("%zu writes were answered, %zu were not\n", answered, failed);
  EXPECT_GT(failed, 0U);

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

TEST_P(BackupMountWritesTest, WriteThroughChangesTheSource) {
  const CBackupFolder backup{{"disk.img", "disk"}};
  CMountAgent agent(service_, "vm1", backup.Path(), {{"--write-through"}});
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  EXPECT_EQ(Client().Write(HandleOf("disk.img"), 0, "DI"), Ok);
  EXPECT_EQ(ReadFile(backup.File("disk.img")), "DIsk");
}

/// A small disk for an overlay, which goes with its owner.
class CSmallDisk {
 public:
  explicit CSmallDisk(std::string path) : path_(std::move(path)) {
    if (mount("tmpfs", path_.c_str(), "tmpfs", 0, "size=1m") != 0)
      throw std::runtime_error("a tmpfs cannot be mounted");
  }
  CSmallDisk(const CSmallDisk&) = delete;
  CSmallDisk& operator=(const CSmallDisk&) = delete;
  ~CSmallDisk() { umount2(path_.c_str(), MNT_DETACH); }
  void Grow() { ASSERT_EQ(mount("tmpfs", path_.c_str(), "tmpfs", MS_REMOUNT, "size=16m"), 0); }

 private:
  const std::string path_;
};

TEST_P(BackupMountWritesTest, AFullDiskIsAnErrorAndLosesNothing) {
  constexpr std::size_t Blocks = 512;
  const std::string source(Blocks * BlockSize, 's');
  const CBackupFolder backup{{"disk.img", source}};
  CMountAgent agent(service_, "vm1", backup.Path());
  CSmallDisk small(agent.OverlayFolder());
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

  ASSERT_NO_FATAL_FAILURE(small.Grow());
  for (std::size_t block = 0; block < Blocks; ++block) {
    EXPECT_EQ(Client().Write(disk, block * BlockSize, BlockOf(block, 1)), Ok);
    answered[block] = true;
  }
  ASSERT_NO_FATAL_FAILURE(check());
  EXPECT_TRUE(ReadFile(backup.File("disk.img")) == source);
  agent.Kill();
}

}  // namespace
