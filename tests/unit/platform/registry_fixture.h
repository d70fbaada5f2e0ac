// A registry in a folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "platform/sqlite_registry.h"
#include "support/temp_dir.h"

namespace test {

class RegistryFixture : public testing::Test {
 protected:
  /// What the file holds, to see that nothing changed it.
  static std::string BytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  TempDir folder_;
  const std::string path_ = folder_ / "store/registry.db";
  platform::sqlite_registry_t registry_{path_};
};

}  // namespace test
