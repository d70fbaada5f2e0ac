#include "platform/process.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <thread>

namespace {

TEST(Process, ThreadsHaveIdsAndNames) {
  EXPECT_EQ(platform::ThreadId(), platform::ProcessId());
  std::uint32_t id = 0;
  std::string name;
  std::thread([&] {
    id = platform::ThreadId();
    platform::SetThreadName("a name that is too long");
    std::ifstream file("/proc/self/task/" + std::to_string(id) + "/comm");
    std::getline(file, name);
  }).join();
  EXPECT_NE(id, platform::ThreadId());
  EXPECT_EQ(name, "a name that is ");
}

TEST(Process, KnowsItsProgramAndProcessors) {
  EXPECT_TRUE(platform::ExecutablePath().ends_with("/unit_platform"));
  EXPECT_GE(platform::ProcessorCount(), 1U);
}

TEST(Process, KnowsItsArguments) {
  const std::vector<std::string> arguments = platform::ProcessArguments();
  ASSERT_FALSE(arguments.empty());
  EXPECT_TRUE(arguments.front().ends_with("unit_platform"));
}

}  // namespace
