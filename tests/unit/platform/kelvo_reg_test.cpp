// kelvo-reg as people and scripts run it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/sqlite_registry.h"
#include "support/temp_dir.h"

namespace {

struct SOutcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

class KelvoRegTest : public testing::Test {
 protected:
  SOutcome Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KELVO_REG_PROGRAM);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    const std::string out = folder_ / "out";
    const std::string err = folder_ / "err";
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t child = -1;
    EXPECT_EQ(::posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ), 0);
    ::posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    ::waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Content(out), Content(err)};
  }
  static std::string Content(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  test::TempDir folder_;
  test::ScopedEnvironment environment_{"ALLUSERSPROFILE", folder_ / "data"};
};

TEST_F(KelvoRegTest, StoresAndReadsValuesOfEachType) {
  EXPECT_EQ(Run({"set", "SOFTWARE\\KelvO\\Kelvo NFS", "RootFolder", "REG_SZ", "/a b"}).exitCode, 0);
  EXPECT_EQ(Run({"set", "SOFTWARE/KelvO/Kelvo NFS", "NfsPort", "REG_DWORD", "4294967295"}).exitCode, 0);
  EXPECT_EQ(Run({"set", "SOFTWARE/KelvO/Kelvo NFS", "Big", "REG_QWORD", "18446744073709551615"}).exitCode, 0);
  EXPECT_EQ(Run({"set", "SOFTWARE/KelvO/Kelvo NFS", "Hex", "reg_dword", "0x20"}).exitCode, 0);
  EXPECT_EQ(Run({"set", "SOFTWARE/KelvO/Kelvo NFS", "Empty", "REG_SZ", ""}).exitCode, 0);
  EXPECT_EQ(Run({"get", "software/kelvo\\kelvo nfs", "rootfolder"}).out, "/a b\n");
  EXPECT_EQ(Run({"get", "SOFTWARE/KelvO/Kelvo NFS", "NfsPort"}).out, "4294967295\n");
  EXPECT_EQ(Run({"get", "SOFTWARE/KelvO/Kelvo NFS", "Big"}).out, "18446744073709551615\n");
  EXPECT_EQ(Run({"get", "SOFTWARE/KelvO/Kelvo NFS", "Hex"}).out, "32\n");
  EXPECT_EQ(Run({"get", "SOFTWARE/KelvO/Kelvo NFS", "Empty"}).out, "\n");
}

TEST_F(KelvoRegTest, WorksOnTheFileThatTheServiceHasOpen) {
  platform::sqlite_registry_t service(folder_ / "data/Kelvo/registry.db");
  ASSERT_EQ(service.SetDword("A\\B", "x", 1), 0U);
  EXPECT_EQ(Run({"get", "A/B", "x"}).out, "1\n");
  EXPECT_EQ(Run({"set", "A/B", "x", "REG_DWORD", "2"}).exitCode, 0);
  std::uint32_t number = 0;
  EXPECT_EQ(service.GetDword("A\\B", "x", number), 0U);
  EXPECT_EQ(number, 2U);
  EXPECT_EQ(Run({"delete", "A"}).exitCode, 0);
  EXPECT_EQ(service.FindKey("A\\B"), platform::error::FileNotFound);
}

TEST_F(KelvoRegTest, DeletesAValueOrAKey) {
  ASSERT_EQ(Run({"set", "A/B", "x", "REG_SZ", "1"}).exitCode, 0);
  ASSERT_EQ(Run({"set", "A/B", "y", "REG_SZ", "2"}).exitCode, 0);
  EXPECT_EQ(Run({"delete", "A/B", "x"}).exitCode, 0);
  EXPECT_EQ(Run({"get", "A/B", "x"}).exitCode, 1);
  EXPECT_EQ(Run({"get", "A/B", "y"}).exitCode, 0);
  // An empty name is a value's, never the key itself.
  EXPECT_EQ(Run({"delete", "A/B", ""}).exitCode, 1);
  EXPECT_EQ(Run({"get", "A/B", "y"}).exitCode, 0);
  EXPECT_EQ(Run({"delete", "A"}).exitCode, 0);
  EXPECT_EQ(Run({"get", "A/B", "y"}).exitCode, 1);
}

TEST_F(KelvoRegTest, ExportsAsJson) {
  ASSERT_EQ(Run({"set", "A/B", "text", "REG_SZ", "\"quoted\" \xC3\xA4"}).exitCode, 0);
  ASSERT_EQ(Run({"set", "A/B", "dword", "REG_DWORD", "7"}).exitCode, 0);
  ASSERT_EQ(Run({"set", "A/B/C", "qword", "REG_QWORD", "18446744073709551615"}).exitCode, 0);
  const std::string b = R"({
  "values": {
    "dword": {
      "type": "REG_DWORD",
      "data": 7
    },
    "text": {
      "type": "REG_SZ",
      "data": "\"quoted\" )"
                        "\xC3\xA4"
                        R"("
    }
  },
  "keys": {
    "C": {
      "values": {
        "qword": {
          "type": "REG_QWORD",
          "data": 18446744073709551615
        }
      },
      "keys": {}
    }
  }
}
)";
  EXPECT_EQ(Run({"export", "a\\b"}).out, b);
  const SOutcome all = Run({"export"});
  EXPECT_EQ(all.exitCode, 0);
  EXPECT_NE(all.out.find("\"A\": {"), std::string::npos);
  EXPECT_EQ(Run({"export", "no/such"}).exitCode, 1);
}

TEST_F(KelvoRegTest, AnEmptyRegistryIsExportedAndNotMade) {
  EXPECT_EQ(Run({"export"}).out, "{\n  \"values\": {},\n  \"keys\": {}\n}\n");
  EXPECT_EQ(Run({"get", "A", "x"}).exitCode, 1);
  EXPECT_EQ(Run({"delete", "A"}).exitCode, 1);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "data"));
}

TEST_F(KelvoRegTest, FailuresAreOneSentence) {
  const SOutcome missing = Run({"get", "A", "x"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err, "kelvo-reg: Reading [A] value [x] failed. There is no such key or value. Error code: 2\n");
  std::filesystem::create_directories(folder_ / "data/Kelvo");
  std::ofstream(folder_ / "data/Kelvo/registry.db") << std::string(5000, 'x');
  const SOutcome damaged = Run({"set", "A", "x", "REG_DWORD", "1"});
  EXPECT_EQ(damaged.exitCode, 1);
  EXPECT_NE(damaged.err.find("The registry file is damaged or is not a registry."), std::string::npos);
}

TEST_F(KelvoRegTest, BadUsageIsExitCode2) {
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {},
           {"unknown"},
           {"get"},
           {"get", "A"},
           {"get", "A", "x", "more"},
           {"set", "A", "x", "REG_DWORD"},
           {"set", "A", "x", "REG_BINARY", "1"},
           {"set", "A", "x", "REG_DWORD", "4294967296"},
           {"set", "A", "x", "REG_DWORD", "one"},
           {"set", "A", "x", "REG_DWORD", "0x"},
           {"set", "A", "x", "REG_QWORD", "18446744073709551616"},
           {"delete"},
           {"export", "A", "B"},
           {"export", "--no-such"},
       }) {
    const SOutcome outcome = Run(arguments);
    EXPECT_EQ(outcome.exitCode, 2) << testing::PrintToString(arguments);
    EXPECT_NE(outcome.err, "") << testing::PrintToString(arguments);
  }
  EXPECT_FALSE(std::filesystem::exists(folder_ / "data"));
  EXPECT_EQ(Run({"--help"}).exitCode, 0);
  EXPECT_EQ(Run({"--version"}).exitCode, 0);
}

TEST_F(KelvoRegTest, WhatBeginsWithADashStandsBehindTwo) {
  EXPECT_EQ(Run({"set", "A", "x", "REG_SZ", "--", "-verbose"}).exitCode, 0);
  EXPECT_EQ(Run({"get", "A", "x"}).out, "-verbose\n");
}

}  // namespace
