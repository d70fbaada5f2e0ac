#include "platform/brief_mutex.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <type_traits>

#include "platform/files.h"

namespace {

using mutex_t = platform::brief_mutex_t<std::recursive_mutex>;

platform::error_t LookAtTheRoot() {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  return platform::SystemFiles().GetInfoAt("/", attributes);
}

TEST(BriefMutexTest, FileOperationsAreFreeOnceTheLockIs) {
  mutex_t mutex;
  {
    const std::lock_guard lock(mutex);
    const std::lock_guard again(mutex);
  }
  EXPECT_EQ(LookAtTheRoot(), platform::error::Success);
  ASSERT_TRUE(mutex.try_lock());
  mutex.unlock();
  EXPECT_EQ(LookAtTheRoot(), platform::error::Success);
}

TEST(BriefMutexTest, AnotherThreadsLockIsNoneOfOurs) {
  mutex_t mutex;
  const std::lock_guard lock(mutex);
  std::thread([&mutex] {
    EXPECT_FALSE(mutex.try_lock());
    EXPECT_EQ(LookAtTheRoot(), platform::error::Success);
  }).join();
}

#ifdef KELVO_CHECK_LOCKS

TEST(BriefMutexDeathTest, AFileOperationUnderTheLockIsFound) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  mutex_t mutex;
  EXPECT_DEATH(
      {
        const std::lock_guard lock(mutex);
        LookAtTheRoot();
      },
      "held over an operation that may take its time: GetInfoAt");
  EXPECT_DEATH(
      {
        const std::lock_guard lock(mutex);
        { const std::lock_guard again(mutex); }
        LookAtTheRoot();
      },
      "GetInfoAt");
}

#else

static_assert(std::is_same_v<mutex_t, std::recursive_mutex>, "Only builds for debugging pay for the check.");

#endif

}  // namespace
