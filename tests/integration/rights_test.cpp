// Who may read and write what the service and an agent leave on the disk. The process's umask, which a unit sets, must
// not be what keeps others out: these run without one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "integration/support/agent.h"
#include "integration/support/crash_fixture.h"
#include "integration/support/wire.h"

namespace {

using namespace test;
using testing::Contains;
using testing::Key;
namespace fs = std::filesystem;

constexpr mode_t OwnerFile = 0600;
constexpr mode_t OwnerFolder = 0700;

class CUmask {
 public:
  explicit CUmask(mode_t mask) : before_(::umask(mask)) {}
  CUmask(const CUmask&) = delete;
  CUmask& operator=(const CUmask&) = delete;
  ~CUmask() { ::umask(before_); }

 private:
  mode_t before_;
};

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

/// Everything below a folder, by its path in it.
std::map<std::string, mode_t> ModesBelow(const std::string& folder) {
  std::map<std::string, mode_t> modes;
  for (const auto& entry : fs::recursive_directory_iterator(folder))
    modes[entry.path().string().substr(folder.size() + 1)] = ModeOf(entry.path().string());
  return modes;
}

class RightsTest : public CCrashTest {
 protected:
  void ExpectForOwnerAlone(const std::string& folder) const {
    for (const auto& [path, mode] : ModesBelow(folder)) {
      const bool isFolder = fs::is_directory(folder + "/" + path);
      EXPECT_EQ(mode, isFolder ? OwnerFolder : OwnerFile) << path;
    }
  }

  CUmask umask_{0};
};

TEST_F(RightsTest, WhatTheServiceStoresIsForItsOwnerAlone) {
  const std::string state = service_.Environment()["ALLUSERSPROFILE"];
  const std::string perfLog = state + "/Kelvo/perf/perf.log";
  service_.SetValue("PerfLogPath", "REG_SZ", perfLog);
  SetOption("AgentMaxLogSize", "REG_DWORD", "1");
  service_.Start();
  ASSERT_TRUE(CNfsClient().Mount());
  ASSERT_EQ(service_.Stop(), 0);
  service_.Start();
  const std::map<std::string, mode_t> modes = ModesBelow(state);
  EXPECT_THAT(modes, Contains(Key("Kelvo/registry.db")));
  EXPECT_THAT(modes, Contains(Key("Kelvo/registry.db-wal")));
  EXPECT_THAT(modes, Contains(Key("Kelvo/Backup/Svc.KelvoNFS.log")));
  EXPECT_THAT(modes, Contains(Key("Kelvo/perf/perf.log")));
  ExpectForOwnerAlone(state);
}

TEST_F(RightsTest, DumpsAreForTheirOwnerAlone) {
  Start();
  Inject(injected_t::NullPointer);
  ExpectEnd(SIGSEGV);
  UseRecorder();
  Start();
  Inject(injected_t::NullPointer);
  ExpectEnd(SIGSEGV);
  UseTextReport();
  SetOption("OutOfProcDumpGen", "REG_DWORD", "0");
  Start();
  Inject(injected_t::NullPointer);
  ExpectEnd(SIGSEGV);
  for (const std::string& path : {DumpPath(1), DumpPath(2), DumpPath(1, "txt")})
    EXPECT_EQ(ModeOf(path), OwnerFile) << path;
  ExpectForOwnerAlone(service_.Environment()["ALLUSERSPROFILE"]);
}

TEST_F(RightsTest, SocketsAreForThoseWhomTheyAreFor) {
  CTempFolder source;
  WriteFile(source.Path() + "/disk.img", "disk");
  service_.Start();
  CMountAgent agent(service_, "vm1", source.Path());
  agent.Start();
  ASSERT_EQ(agent.Ctl({"folder", "create", "/share", "vm1"}).exitCode, 0);
  EXPECT_EQ(ModesBelow(service_.Environment()["KELVO_RUNTIME_DIR"]),
            (std::map<std::string, mode_t>{{"event", 0755},
                                           {"event/KelvoNfsSvcConnection", 0666},
                                           {"event/VFS_on_vm1-0", 0660},
                                           {"management", 0660},
                                           {"pipe", 0770},
                                           {"pipe/vm1-0", 0660}}));
}

TEST_F(RightsTest, WhatGuestsWriteToABackupIsForTheAgentAlone) {
  CTempFolder source;
  WriteFile(source.Path() + "/disk.img", std::string(10000, 'd'));
  service_.Start();
  CMountAgent agent(service_, "vm1", source.Path());
  agent.Start();
  ASSERT_EQ(agent.Ctl({"folder", "create", "/share", "vm1"}).exitCode, 0);
  ASSERT_FALSE(agent.Publish("/share", "vm1").empty());
  CNfsClient client;
  bytes_t folder;
  bytes_t disk;
  ASSERT_EQ(client.Lookup(client.Mount().value(), "vm1", &folder), 0U);
  ASSERT_EQ(client.Lookup(folder, "disk.img", &disk), 0U);
  ASSERT_EQ(client.Write(disk, 5, "written"), 0U);
  EXPECT_EQ(ModeOf(agent.OverlayFolder()), OwnerFolder);
  EXPECT_EQ(ModeOf(agent.OverlayFolder() + "/disk.img.overlay"), OwnerFile);
}

}  // namespace
