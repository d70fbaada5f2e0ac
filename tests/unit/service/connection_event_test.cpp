#include "service/connection_event.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "support/temp_dir.h"

namespace {

class ConnectionEvent : public testing::Test {
 protected:
  test::TempDir folder_;
  test::ScopedEnvironment environment_{"KELVO_RUNTIME_DIR", folder_.Path().string()};
};

TEST_F(ConnectionEvent, WithoutAServerVerificationFailsAtOnce) {
  EXPECT_EQ(VerifyConnection(), -1);
}

TEST_F(ConnectionEvent, ServerThatIsNotRegisteredRunsIntoTheLimit) {
  const CConnectionEvent event;
  EXPECT_EQ(VerifyConnection(1), -1);
}

TEST_F(ConnectionEvent, VerificationSucceedsOnceSignalledAndAgain) {
  const CConnectionEvent event;
  int result = -2;
  std::thread verifier([&] { result = VerifyConnection(); });
  SignalConnectionEvent();
  verifier.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(VerifyConnection(0), 0);
}

TEST_F(ConnectionEvent, EndsWithItsOwner) {
  {
    const CConnectionEvent event;
    SignalConnectionEvent();
  }
  EXPECT_EQ(VerifyConnection(), -1);
  const CConnectionEvent next;
  EXPECT_EQ(VerifyConnection(0), -1);
}

TEST_F(ConnectionEvent, AnyAccountMayWait) {
  const CConnectionEvent event;
  struct stat status {};
  ASSERT_EQ(::stat((folder_ / "event/KelvoNfsSvcConnection").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666U);
}

TEST_F(ConnectionEvent, SignallingWithoutAnEventIsSilent) {
  SignalConnectionEvent();
  EXPECT_EQ(VerifyConnection(), -1);
}

TEST_F(ConnectionEvent, FolderThatCannotBeMadeIsBorne) {
  const test::ScopedEnvironment nowhere("KELVO_RUNTIME_DIR", "/proc/nowhere");
  const CConnectionEvent event;
  SignalConnectionEvent();
  EXPECT_EQ(VerifyConnection(), -1);
}

}  // namespace
