#include "platform/environment.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace {

using platform::ExpandEnvironment;
using test::ScopedEnvironment;

TEST(Environment, VariablesAreFoundInAnyCaseTheExactOneFirst) {
  const ScopedEnvironment mixed("KELVO_Test_Variable", "mixed");
  EXPECT_EQ(platform::EnvironmentVariable("kelvo_test_VARIABLE"), "mixed");
  const ScopedEnvironment upper("KELVO_TEST_VARIABLE", "upper");
  EXPECT_EQ(platform::EnvironmentVariable("KELVO_TEST_VARIABLE"), "upper");
  EXPECT_EQ(platform::EnvironmentVariable("KELVO_Test_Variable"), "mixed");
  EXPECT_FALSE(platform::EnvironmentVariable("KELVO_TEST_NO_SUCH"));
}

TEST(Environment, NamesBetweenPercentSignsAreReplaced) {
  const ScopedEnvironment common("ALLUSERSPROFILE", "/data");
  const ScopedEnvironment nested("KELVO_TEST_NESTED", "%ALLUSERSPROFILE%");
  EXPECT_EQ(ExpandEnvironment("%ALLUSERSPROFILE%\\Kelvo\\Backup"), "/data\\Kelvo\\Backup");
  EXPECT_EQ(ExpandEnvironment("%allusersprofile%%ALLUSERSPROFILE%"), "/data/data");
  EXPECT_EQ(ExpandEnvironment("a%KELVO_TEST_NESTED%b"), "a%ALLUSERSPROFILE%b");
}

TEST(Environment, WhatIsUnknownStays) {
  const ScopedEnvironment common("ALLUSERSPROFILE", "/data");
  for (const char* text : {"", "plain", "%", "%%", "100%", "%KELVO_TEST_NO_SUCH%", "a%%b"})
    EXPECT_EQ(ExpandEnvironment(text), text);
  // The sign that ends an unknown name may begin a known one.
  EXPECT_EQ(ExpandEnvironment("%no such%ALLUSERSPROFILE%"), "%no such/data");
  EXPECT_EQ(ExpandEnvironment("50%%ALLUSERSPROFILE%"), "50%/data");
}

TEST(Environment, FoldersHaveDefaults) {
  const ScopedEnvironment common("ALLUSERSPROFILE", "");
  const ScopedEnvironment runtime("KELVO_RUNTIME_DIR", "");
  EXPECT_EQ(platform::CommonAppDataFolder(), "/var/lib");
  EXPECT_EQ(platform::RuntimeFolder(), "/run/kelvo");
  EXPECT_EQ(ExpandEnvironment("%ALLUSERSPROFILE%/x"), "/var/lib/x");
}

TEST(Environment, FoldersFollowTheirVariables) {
  const ScopedEnvironment common("ALLUSERSPROFILE", "/data/");
  const ScopedEnvironment runtime("KELVO_RUNTIME_DIR", "/tmp/run//");
  EXPECT_EQ(platform::CommonAppDataFolder(), "/data");
  EXPECT_EQ(platform::RuntimeFolder(), "/tmp/run");
  const ScopedEnvironment root("ALLUSERSPROFILE", "/");
  EXPECT_EQ(platform::CommonAppDataFolder(), "/");
}

}  // namespace
