// A thousand mounts, and mounts that come and go under load.
#include <cstdlib>
#include <filesystem>

#include "integration/support/backup_fixture.h"
#include "integration/support/dce_wire.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

constexpr const char* ShareId = "{3f1c9a52-0b7d-4f6e-9a61-5d2e8c4b7a10}";

std::string MountId(std::size_t number) {
  std::string digits = std::to_string(number + 1);
  return "{00000000-0000-0000-0000-" + std::string(12 - digits.size(), '0') + digits + "}";
}

/// Publishes and withdraws over one connection, as an orchestrating program does.
class CMountCaller {
 public:
  explicit CMountCaller(const CService& service)
      : connection_(service.Environment().at("KELVO_RUNTIME_DIR") + "/management") {
    connection_.Bind();
  }

  void Publish(std::size_t number, const std::string& pipe, const std::string& folder) {
    Call("MountBackup", Value("mountId", MountId(number)) + Value("shareId", ShareId) +
                            Value("nfsRelativePath", folder) + Value("vmName", pipe) + Value("description", "") +
                            Value("pipeName", pipe));
  }
  void Withdraw(std::size_t number) { Call("DismountBackup", Value("mountId", MountId(number))); }

 private:
  static std::string Value(const std::string& name, const std::string& value) {
    return "<" + name + " value=\"" + value + "\"/>";
  }
  void Call(const std::string& command, const std::string& arguments) {
    const SRpcResult result =
        connection_.DoRpc(Wide(command), Wide("<InputArguments>" + arguments + "</InputArguments>"));
    const std::u16string message = result.message.value_or(u"");
    EXPECT_TRUE(result.success) << command << arguments << std::string(message.begin(), message.end());
  }

  CDceConnection connection_;
};

class BackupMountManyTest : public CBackupTest {
 protected:
  /// What the log of a failure shows must be readable.
  void TearDown() override {
    constexpr std::uintmax_t Readable = std::uintmax_t{1} << 20;
    if (fs::file_size(service_.LogPath()) > Readable)
      fs::resize_file(service_.LogPath(), Readable);
  }
};
KELVO_WIRE_SUITE(BackupMountManyTest);

TEST_P(BackupMountManyTest, AThousandMountsAtOnce) {
  constexpr std::size_t Count = 1000;
  const bytes_t common = MakeFolder("common");
  std::vector<bytes_t> folders;
  for (std::size_t i = 0; i < Count; i += 2)
    folders.push_back(MakeFolder("machine" + std::to_string(i)));
  std::vector<std::unique_ptr<FakeMountAgent>> agents;
  std::vector<std::string> names;
  for (std::size_t i = 0; i < Count; ++i) {
    names.push_back("vm" + std::to_string(i));
    agents.push_back(std::make_unique<FakeMountAgent>(names[i]));
    agents[i]->SetFile(names[i] + ".img", WireBytes("content of " + names[i]));
  }
  for (const bytes_t& folder : folders)
    NamesIn(folder);
  NamesIn(common);
  const SFootprint before = SettledFootprint();
  CMountCaller caller(service_);
  // Half of them in a folder each, half in one.
  for (std::size_t i = 0; i < Count; ++i)
    caller.Publish(i, names[i], i % 2 == 0 ? "machine" + std::to_string(i) : "common");
  EXPECT_EQ(Locks().size(), Count);
  const SFootprint full = SettledFootprint();
  std::printf("MEASURE %zu threads and %zu descriptors for %zu mounts\n", full.threads - before.threads,
              full.descriptors - before.descriptors, Count);
  EXPECT_LE(full.threads, before.threads + Count + 10);

  EXPECT_EQ(NamesIn(common).size(), Count / 2);
  std::vector<bytes_t> files;
  for (std::size_t i = 0; i < Count; ++i) {
    files.push_back(HandleOf(names[i] + ".img", i % 2 == 0 ? folders[i / 2] : common));
    EXPECT_EQ(ContentOf(files[i]), "content of " + names[i]);
    EXPECT_EQ(Client().Write(files[i], 0, "written"), Ok);
  }
  for (std::size_t i = 0; i < Count; ++i)
    EXPECT_EQ(agents[i]->FileContent(names[i] + ".img"), WireBytes("written of " + names[i]));
  // They outlive the service, all with their handles.
  service_.Kill();
  ASSERT_NO_FATAL_FAILURE(service_.Start());
  NewClient();
  CMountCaller again(service_);
  for (std::size_t i = 0; i < Count; ++i)
    EXPECT_EQ(ContentOf(files[i]), "written of " + names[i]);
  EXPECT_EQ(Locks().size(), Count);
  for (std::size_t i = 0; i < Count; ++i)
    again.Withdraw(i);
  EXPECT_TRUE(NamesIn(common).empty());
  EXPECT_EQ(Client().GetAttr(files[0]), Stale);
  EXPECT_TRUE(Locks().empty());
  SFootprint after;
  EXPECT_TRUE(WaitUntil([&] {
    after = Footprint();
    return after.threads <= before.threads + 1 && after.descriptors <= before.descriptors + 1;
  })) << after.threads
      << " threads, " << before.threads << " before; " << after.descriptors << " descriptors, " << before.descriptors
      << " before";
}

/// A client that looks at everything in a folder, again and again, and knows what one file there holds.
class CBusyClient {
 public:
  CBusyClient(const bytes_t& folder, const bytes_t& steadyFile)
      : thread_([this, folder, steadyFile] {
          try {
            while (!stop_)
              Look(folder, steadyFile);
          } catch (const std::exception& failure) {
            ADD_FAILURE() << "A call got no answer: " << failure.what();
          }
        }) {}
  CBusyClient(const CBusyClient&) = delete;
  CBusyClient& operator=(const CBusyClient&) = delete;
  ~CBusyClient() { Stop(); }

  void Stop() {
    stop_ = true;
    if (thread_.joinable())
      thread_.join();
  }
  std::size_t Calls() const { return calls_; }
  std::size_t Contents() const { return contents_; }

 private:
  void Look(const bytes_t& folder, const bytes_t& steadyFile) {
    for (const SEntry& entry : client_.List(folder)) {
      client_.Lookup(folder, entry.name);
      client_.GetAttr(entry.handle);
      const SReadResult read = client_.Read(entry.handle, 0, 64);
      if (read.status == Ok) {
        EXPECT_EQ(read.data.substr(0, 8), entry.name.substr(0, 8));
        ++contents_;
      }
      client_.Write(entry.handle, 64, "written");
      calls_ += 5;
    }
    EXPECT_EQ(client_.Read(steadyFile, 0, 64).data.substr(0, 8), "steady.i");
    ++calls_;
  }

  CNfsClient client_;
  std::atomic<bool> stop_ = false;
  std::atomic<std::size_t> calls_ = 0;
  std::atomic<std::size_t> contents_ = 0;
  std::thread thread_;
};

/// KELVO_MOUNT_LOOP_SECONDS makes it as long as one likes.
TEST_P(BackupMountManyTest, MountsComeAndGoUnderLoad) {
  const char* const given = std::getenv("KELVO_MOUNT_LOOP_SECONDS");
  const std::chrono::seconds length(given != nullptr ? std::atoi(given) : 10);
  constexpr std::size_t Mounts = 4;
  const bytes_t folder = MakeFolder("common");
  MakeFolder("other");
  CMountCaller caller(service_);
  std::vector<std::unique_ptr<FakeMountAgent>> agents;
  const auto addAgent = [&](const std::string& name) {
    agents.push_back(std::make_unique<FakeMountAgent>(name));
    // Each file begins with its name.
    const std::string file = name + ".img";
    agents.back()->SetFile(file, WireBytes(file + std::string(200, '.')));
  };
  addAgent("steady");
  caller.Publish(1000, "steady", "common");
  const bytes_t steadyFile = HandleOf("steady.img", folder);
  for (std::size_t i = 0; i < Mounts; ++i)
    addAgent("coming" + std::to_string(i));
  NamesIn(folder);
  NewClient();
  const SFootprint before = SettledFootprint();
  std::size_t rounds = 0;
  std::size_t calls = 0;
  {
    std::vector<std::unique_ptr<CBusyClient>> clients;
    for (int i = 0; i < 4; ++i)
      clients.push_back(std::make_unique<CBusyClient>(folder, steadyFile));
    const auto end = std::chrono::steady_clock::now() + length;
    while (std::chrono::steady_clock::now() < end) {
      for (std::size_t i = 0; i < Mounts; ++i)
        caller.Publish(i, "coming" + std::to_string(i), "common");
      // One moves away and back while it is in use.
      caller.Publish(0, "coming0", "other");
      caller.Publish(0, "coming0", "common");
      for (std::size_t i = 0; i < Mounts; ++i)
        caller.Withdraw(i);
      ++rounds;
    }
    for (const auto& client : clients) {
      client->Stop();
      EXPECT_GT(client->Calls(), 0U);
      EXPECT_GT(client->Contents(), 0U);
      calls += client->Calls();
    }
  }
  std::printf("MEASURE %zu rounds of %zu mounts, %zu calls\n", rounds, Mounts, calls);
  EXPECT_EQ(NamesIn(folder), std::set<std::string>{"steady.img"});
  EXPECT_EQ(Locks(), std::set<std::string>{"steady"});
  ExpectFootprint(before);
  EXPECT_LT(Footprint().residentKiB, before.residentKiB + std::size_t{64} * 1024);
  EXPECT_EQ(service_.Stop(), 0);
}

}  // namespace
