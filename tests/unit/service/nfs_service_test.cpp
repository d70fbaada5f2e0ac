#include "service/nfs_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "config/reg_keys.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/log_setup.h"
#include "platform/sqlite_registry.h"
#include "service/context/svc_context_holder.h"
#include "service/crash_sinks.h"
#include "support/temp_dir.h"
#include "unit/transports/client.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class NfsService : public testing::Test {
 protected:
  NfsService() {
    platform::registry_t::SetInstance(&registry_);
    registry_.SetText(regkeys::Root, "RootFolder", folder_ / "root");
    logging::InitLog("own.log", CCommandLine({"x", "-log", folder_ / "own.log"}));
  }
  ~NfsService() override {
    logging::CloseLog();
    platform::registry_t::SetInstance(nullptr);
  }

  std::string Log() const {
    std::ifstream stream(folder_ / "own.log");
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  }

  /// True when the texts stand in the log in this order.
  testing::AssertionResult InOrder(const std::vector<std::string>& texts) const {
    const std::string log = Log();
    std::size_t from = 0;
    for (const std::string& text : texts) {
      const std::size_t found = log.find(text, from);
      if (found == std::string::npos)
        return testing::AssertionFailure() << "missing or out of order: " << text << "\n" << log;
      from = found + text.size();
    }
    return testing::AssertionSuccess();
  }

  test::TempDir folder_;
  test::ScopedEnvironment data_{"ALLUSERSPROFILE", folder_.Path().string()};
  test::ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", folder_ / "run"};
  platform::sqlite_registry_t registry_{folder_ / "registry.db"};
};

TEST_F(NfsService, StopToleratesWhatNeverStarted) {
  CNfsService service;
  service.Stop();
  EXPECT_TRUE(InOrder({"NFS server is stopped."}));
  EXPECT_THAT(Log(), Not(HasSubstr("ERR |")));
}

TEST_F(NfsService, SynchronousServerThatFindsNoPortLeavesTheServiceUpWithoutIt) {
  registry_.SetDword(regkeys::Root, "AsyncTcp", 0);
  registry_.SetDword(regkeys::Root, "MountPort", 65535);
  CNfsService service;
  EXPECT_TRUE(service.Start());
  EXPECT_TRUE(test::Eventually([this] { return Log().find("No port found.") != std::string::npos; }));
  EXPECT_NO_THROW(CSvcContextHolder::Get());
  service.Stop();
  EXPECT_THROW(CSvcContextHolder::Get(), exc::runtime_exc_t);
  EXPECT_TRUE(InOrder({"Loading options.", "[HostFsFileCache] Cache initialized",
                       "NFS Server options:", "Starting server in synchronous mode.",
                       "Try load default mount port from Registry.", "ERR |Fatal error of the dispatcher thread.",
                       "[HostFsFileCache] Cache deinitialized", "NFS server is stopped."}));
  EXPECT_TRUE(InOrder({"Starting server in synchronous mode.", "Protocol handlers were started.",
                       "NFS server is ready to process incoming calls."}));
  EXPECT_THAT(Log(), Not(HasSubstr("asynchronous")));
}

TEST_F(NfsService, RootFolderThatCannotBeMadeLeavesNoContext) {
  std::ofstream(folder_ / "root") << "in the way";
  CNfsService service;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(service.Start());
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Failed to start NFS service.\n"));
  EXPECT_THROW(CSvcContextHolder::Get(), exc::runtime_exc_t);
  service.Stop();
  EXPECT_TRUE(InOrder({"Failed to start NFS service.", "Failed to initialize", "NFS server is stopped."}));
}

TEST_F(NfsService, DebugModeRunsTheSynchronousServerOnItsThreadAndPublishesNothing) {
  registry_.SetDword(regkeys::Root, "NfsPort", 65535);
  CNfsService service;
  try {
    service.RunDebug(CCommandLine({"x", "-debug", "-SYNC"}));
    FAIL() << "it runs";
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "No port found.");
  }
  EXPECT_TRUE(InOrder(
      {"NFS Server options:", "Launched with standard protocol server.", "Try load default NFS port from Registry."}));
  EXPECT_THAT(Log(), Not(HasSubstr("Loading options.")));
  EXPECT_THAT(Log(), Not(HasSubstr("[HostFsFileCache]")));
  EXPECT_THROW(CSvcContextHolder::Get(), exc::runtime_exc_t);
}

TEST_F(NfsService, CrashIsToldByTheServicesSinkAlone) {
  CSilentNFSCrashSink().OnCrash(std::runtime_error("lost"));
  EXPECT_THAT(Log(), Not(HasSubstr("Posting")));
  CNFSCrashSink sink(42);
  sink.OnCrash(std::runtime_error("lost"));
  EXPECT_EQ(sink.ThreadId(), 42U);
  EXPECT_THAT(Log(), HasSubstr("> WARN|! Posting VM_QUIT message...\n"));
}

}  // namespace
