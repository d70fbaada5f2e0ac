// A registry's file that is damaged, of a newer version, or in somebody else's hands.
#include <gmock/gmock.h>

#include <functional>

#include "fault/support/fault_fixture.h"
#include "fault/support/stored_registry.h"

namespace test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

/// One way in which the file can be unfit, and what is said of it.
struct SUnfit {
  const char* name;
  std::function<void(const CService& service)> make;
  const char* words;
  /// Else only the whole check of a start finds it.
  bool isFoundByAll = true;
};

void PrintTo(const SUnfit& unfit, std::ostream* out) {
  *out << unfit.name;
}

/// With all that it holds in its one file.
void Settle(const CService& service) {
  CStoredRegistry(service).Run("PRAGMA wal_checkpoint(TRUNCATE)");
}

void Overwrite(const CService& service, std::size_t from, std::size_t count) {
  std::string bytes = ReadFile(RegistryPath(service));
  for (std::size_t i = from; i < from + count && i < bytes.size(); ++i)
    bytes[i] = static_cast<char>(i * 37 + 11);
  WriteFile(RegistryPath(service), bytes);
}

constexpr const char* Damaged = "The registry file is damaged or is not a registry.";
constexpr std::size_t Page = 1024;

const SUnfit Unfit[] = {
    {"Head", [](const CService& service) { Overwrite(service, 0, 100); }, Damaged},
    {"Middle", [](const CService& service) { Overwrite(service, Page, 1U << 20); }, Damaged},
    {"HalfAPage",
     [](const CService& service) {
       std::string bytes = ReadFile(RegistryPath(service));
       bytes.replace(bytes.size() - Page / 2, Page / 2, Page / 2, '\0');
       WriteFile(RegistryPath(service), bytes);
     },
     Damaged, false},
    {"Truncated",
     [](const CService& service) {
       const std::string bytes = ReadFile(RegistryPath(service));
       WriteFile(RegistryPath(service), bytes.substr(0, 2 * Page + 300));
     },
     Damaged},
    {"Foreign",
     [](const CService& service) {
       std::filesystem::remove(RegistryPath(service));
       WriteFile(RegistryPath(service), {});
       CStoredRegistry(service).Run("CREATE TABLE notes(text); INSERT INTO notes VALUES('of another program')");
       Settle(service);
     },
     Damaged},
    {"Newer",
     [](const CService& service) {
       CStoredRegistry(service).Run("PRAGMA user_version = 2");
       Settle(service);
     },
     "The registry file was written by a newer version."},
};

class UnfitRegistryTest : public testing::TestWithParam<SUnfit> {
 protected:
  void ExpectRefused(const std::vector<std::string>& arguments, const std::string& file) {
    const SResult result = service_.Reg(arguments);
    EXPECT_EQ(result.exitCode, 1) << arguments[0];
    EXPECT_THAT(result.err, HasSubstr(GetParam().words)) << arguments[0];
    EXPECT_TRUE(ReadFile(RegistryPath(service_)) == file) << arguments[0] << " changed the file";
  }

  CService service_;
};
INSTANTIATE_TEST_SUITE_P(Registry, UnfitRegistryTest, testing::ValuesIn(Unfit),
                         [](const testing::TestParamInfo<SUnfit>& unfit) { return std::string(unfit.param.name); });

TEST_P(UnfitRegistryTest, IsRefusedInPlainWordsAndLeftAsItIs) {
  WriteFile(service_.Root() + "/file", "content");
  service_.Start();
  bytes_t handle;
  {
    CNfsClient client;
    const bytes_t root = client.Mount().value();
    ASSERT_EQ(client.Lookup(root, "file", &handle), Ok);
    for (int i = 0; i < 50; ++i)
      ASSERT_EQ(client.Create(root, "file" + std::to_string(i)), Ok);
  }
  EXPECT_EQ(service_.Stop(), 0);
  Settle(service_);
  const std::string good = ReadFile(RegistryPath(service_));
  ASSERT_GT(good.size(), 4 * Page);
  GetParam().make(service_);
  const std::string bad = ReadFile(RegistryPath(service_));
  ASSERT_NE(good, bad);

  const std::string output = service_.Environment().at("ALLUSERSPROFILE") + "/start";
  CProcess process({Program("KelvoNfsSvc")}, service_.Environment(), output);
  ASSERT_TRUE(process.WaitForExit(30s).has_value()) << "it must not serve what it cannot read";
  EXPECT_EQ(process.EndSignal(), 0);
  EXPECT_THAT(ReadFile(output), HasSubstr("Failed to start NFS service."));
  EXPECT_THAT(ReadFile(output), HasSubstr(GetParam().words));
  EXPECT_THAT(ReadFile(output), HasSubstr(RegistryPath(service_))) << "which file it is";
  EXPECT_THAT(service_.LogText(), HasSubstr(GetParam().words));
  EXPECT_TRUE(ReadFile(RegistryPath(service_)) == bad) << "the service changed the file";

  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"export"}, {"set", "SOFTWARE/KelvO/Kelvo NFS", "Test", "REG_SZ", "x"}}) {
    if (GetParam().isFoundByAll)
      ExpectRefused(arguments, bad);
  }

  WriteFile(RegistryPath(service_), good);
  service_.Start();
  CNfsClient client;
  EXPECT_EQ(client.Read(handle, 0, 100).data, "content");
  EXPECT_EQ(service_.Stop(), 0);
}

class RegistryLogTest : public CFaultTest {};
KELVO_WIRE_SUITE(RegistryLogTest);

/// As after a power failure, from which such a log cannot be told apart.
TEST_P(RegistryLogTest, ADamagedLogIsBelievedUpToTheDamage) {
  constexpr int Files = 60;
  ASSERT_NO_FATAL_FAILURE(Begin());
  EXPECT_EQ(service_.Stop(), 0);  // What is there so far is in the file, not in its log.
  service_.Start();
  NewClient();
  std::vector<bytes_t> handles(Files);
  for (int i = 0; i < Files; ++i) {
    const std::string name = "file" + std::to_string(i);
    ASSERT_EQ(Client().Create(root_, name), Ok);
    ASSERT_EQ(Client().Lookup(root_, name, &handles[i]), Ok);
  }
  service_.Kill();
  const std::string path = RegistryPath(service_) + "-wal";
  std::string log = ReadFile(path);
  ASSERT_GT(log.size(), 20 * Page);
  for (std::size_t i = log.size() / 2; i < log.size() / 2 + Page; ++i)
    log[i] = static_cast<char>(~log[i]);
  WriteFile(path, log);

  service_.Start();
  NewClient();
  EXPECT_EQ(Client().GetAttr(known_), Ok);
  int kept = 0;
  while (kept < Files && Client().GetAttr(handles[kept]) == Ok)
    ++kept;
  EXPECT_GT(kept, 0);
  EXPECT_LT(kept, Files);
  for (int i = kept; i < Files; ++i) {
    EXPECT_EQ(Client().GetAttr(handles[i]), Stale) << i;
    bytes_t handle;
    EXPECT_EQ(Client().Lookup(root_, "file" + std::to_string(i), &handle), Ok);
    EXPECT_THAT(handles, Not(Contains(handle))) << "a handle came to mean another file";
  }
  ExpectWell();
}

class LockedRegistryTest : public CFaultTest {};
KELVO_WIRE_SUITE(LockedRegistryTest);

TEST_P(LockedRegistryTest, AChangeWaitsForAnotherProcessAndIsRefusedWhenThatTakesTooLong) {
  constexpr std::uint32_t LockViolation = 33;
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::size_t before = Descriptors();
  CStoredRegistry other(service_);
  other.Run("BEGIN IMMEDIATE");
  std::thread release([&] {
    // The call is on its way, which nothing tells of; were it later, it would not have to wait.
    std::this_thread::sleep_for(300ms);
    other.Run("ROLLBACK");
  });
  EXPECT_EQ(Client().Create(root_, "waits"), Ok);
  release.join();

  other.Run("BEGIN IMMEDIATE");
  EXPECT_EQ(Client().Create(root_, "refused"), LockViolation);
  ExpectServing();
  EXPECT_EQ(Client().Write(known_, 0, "k"), Ok);
  other.Run("ROLLBACK");
  EXPECT_EQ(Client().Lookup(root_, "refused"), Ok);
  ExpectWell();
  ExpectDescriptors(before);
}

TEST_P(LockedRegistryTest, AStartWithoutTheRegistryIsRefusedInPlainWords) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  EXPECT_EQ(service_.Stop(), 0);
  auto other = std::make_unique<CStoredRegistry>(service_);
  other->Run("PRAGMA locking_mode = EXCLUSIVE; BEGIN IMMEDIATE; CREATE TABLE held(x); DROP TABLE held");
  const std::string output = StateFolder() + "/start";
  CProcess process({Program("KelvoNfsSvc")}, service_.Environment(), output);
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(process.WaitForExit(60s).has_value());
  // Once, and not with everything that is read of it in the start.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
  EXPECT_THAT(ReadFile(output), HasSubstr("Failed to start NFS service."));
  EXPECT_THAT(ReadFile(output), HasSubstr("Another process has locked a part of the file."));
  EXPECT_THAT(ReadFile(output), HasSubstr(RegistryPath(service_)));
  other.reset();
  service_.Start();
  NewClient();
  ExpectWell();
}

}  // namespace
}  // namespace test
