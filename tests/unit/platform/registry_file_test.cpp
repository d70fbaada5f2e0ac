#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>

#include "registry_fixture.h"

namespace {

namespace fs = std::filesystem;
using platform::registry_transaction_t;
using platform::sqlite_registry_t;
namespace error = platform::error;

class RegistryFileTest : public test::RegistryFixture {
 protected:
  static mode_t ModeOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
  }

  /// Runs SQL on the file, past the registry.
  static void Sql(const std::string& path, const char* sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
  }

  void Write(const std::string& bytes) {
    fs::create_directories(fs::path(path_).parent_path());
    std::ofstream(path_, std::ios::binary) << bytes;
  }

  /// Every operation gives the number, and the file stays as it is.
  void ExpectRefused(platform::error_t expected) {
    const std::string before = BytesOf(path_);
    platform::registry_data_t data;
    std::vector<std::string> names;
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(registry_.FindKey("A"), expected);
      EXPECT_EQ(registry_.GetValue("A", "x", data), expected);
      EXPECT_EQ(registry_.EnumerateKeys("", names), expected);
      EXPECT_EQ(registry_.SetDword("A", "x", 1), expected);
      EXPECT_EQ(registry_.DeleteKey("A"), expected);
      registry_transaction_t transaction(registry_);
      EXPECT_EQ(registry_.SetDword("A", "x", 1), expected);
      EXPECT_EQ(transaction.Commit(), expected);
    }
    EXPECT_EQ(BytesOf(path_), before);
  }
};

TEST_F(RegistryFileTest, IsItsOwnersAlone) {
  const mode_t old = ::umask(0);
  sqlite_registry_t registry(folder_ / "all/Kelvo/registry.db");
  EXPECT_EQ(registry.CreateKey("A"), 0U);
  ::umask(old);
  EXPECT_EQ(ModeOf(folder_ / "all"), 0755U);
  EXPECT_EQ(ModeOf(folder_ / "all/Kelvo"), 0700U);
  EXPECT_EQ(ModeOf(folder_ / "all/Kelvo/registry.db"), 0600U);
  EXPECT_EQ(ModeOf(folder_ / "all/Kelvo/registry.db-wal"), 0600U);
}

TEST_F(RegistryFileTest, ReadingMakesNone) {
  std::vector<std::string> names;
  EXPECT_EQ(registry_.EnumerateKeys("", names), 0U);
  EXPECT_EQ(registry_.FindKey("A"), error::FileNotFound);
  EXPECT_EQ(registry_.DeleteKey("A"), error::FileNotFound);
  EXPECT_EQ(registry_.DeleteValue("A", "x"), error::FileNotFound);
  EXPECT_FALSE(fs::exists(fs::path(path_).parent_path()));
  // Once another has made it, it is read.
  EXPECT_EQ(sqlite_registry_t(path_).CreateKey("A"), 0U);
  EXPECT_EQ(registry_.FindKey("A"), 0U);
}

TEST_F(RegistryFileTest, KeepsWhatWasWritten) {
  ASSERT_EQ(sqlite_registry_t(path_).SetText("A\\B", "x", "text"), 0U);
  std::string text;
  EXPECT_EQ(sqlite_registry_t(path_).GetText("A\\B", "x", text), 0U);
  EXPECT_EQ(text, "text");
}

TEST_F(RegistryFileTest, TheSchemaIsTheDocumentedOne) {
  ASSERT_EQ(registry_.SetDword("A\\B", "x", 5), 0U);
  Sql(path_,
      "CREATE TABLE seen AS SELECT p.name AS parent, k.name AS key, v.name, v.type, v.data FROM keys p "
      "JOIN keys k ON k.parent = p.id JOIN vals v ON v.key = k.id");
  Sql(path_, "UPDATE vals SET data = 6 WHERE (SELECT parent || key || name || type FROM seen) = 'ABx4'");
  std::uint32_t number = 0;
  EXPECT_EQ(registry_.GetDword("A\\B", "x", number), 0U);
  EXPECT_EQ(number, 6U);
}

TEST_F(RegistryFileTest, ADamagedOneIsRefusedAndKept) {
  Write(std::string(10000, 'x'));
  ExpectRefused(error::BadDatabase);
}

TEST_F(RegistryFileTest, AnotherDatabaseIsRefusedAndKept) {
  fs::create_directories(fs::path(path_).parent_path());
  Sql(path_, "CREATE TABLE theirs(x); INSERT INTO theirs VALUES(1)");
  ExpectRefused(error::BadDatabase);
}

TEST_F(RegistryFileTest, ANewerVersionIsRefusedAndKept) {
  ASSERT_EQ(sqlite_registry_t(path_).CreateKey("A"), 0U);
  Sql(path_, "PRAGMA user_version = 2");
  ExpectRefused(error::RevisionMismatch);
  // With the version it can read again, everything is there.
  Sql(path_, "PRAGMA user_version = 1");
  EXPECT_EQ(registry_.FindKey("A"), 0U);
}

TEST_F(RegistryFileTest, AFileWithoutItsTablesIsRefused) {
  ASSERT_EQ(sqlite_registry_t(path_).CreateKey("A"), 0U);
  Sql(path_, "DROP TABLE keys");
  EXPECT_EQ(registry_.FindKey("A"), error::BadDatabase);
  EXPECT_EQ(registry_.CreateKey("A"), error::BadDatabase);
}

TEST_F(RegistryFileTest, DamagedPagesAreTold) {
  {
    sqlite_registry_t registry(path_);
    for (int i = 0; i < 500; ++i)
      ASSERT_EQ(registry.SetText("Items\\" + std::to_string(i), "name", std::string(100, 'n')), 0U);
  }
  const auto size = static_cast<std::streamoff>(fs::file_size(path_));
  ASSERT_GT(size, 4 * 4096);
  {
    std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096);
    file << std::string(static_cast<std::size_t>(size - 4096), '\xA5');
  }
  EXPECT_EQ(registry_.VisitKeys("Items", platform::registry_t::visit_order_t::ByName,
                                [](const platform::registry_node_t&) {}),
            error::BadDatabase);
  EXPECT_EQ(registry_.SetText("Items\\7", "name", "x"), error::BadDatabase);
  registry_transaction_t transaction(registry_);
  EXPECT_EQ(registry_.CreateKey("Items\\8"), error::BadDatabase);
  EXPECT_EQ(transaction.Commit(), error::BadDatabase);
}

TEST_F(RegistryFileTest, ValuesThatDoNotFitTheirTypeAreLeftOut) {
  ASSERT_EQ(registry_.SetValues(
                "A", {{"a", 1U}, {"b", 2U}, {"c", std::string("x")}, {"d", 4U}, {"e", 5U}, {"f", std::string("x")}}),
            0U);
  Sql(path_,
      "UPDATE vals SET data = 4294967296 WHERE name = 'a'; UPDATE vals SET data = -1 WHERE name = 'b';"
      "UPDATE vals SET data = 7 WHERE name = 'c'; UPDATE vals SET type = 3 WHERE name = 'd';"
      "UPDATE vals SET data = CAST(x'61C3' AS TEXT) WHERE name = 'f'");
  std::vector<platform::registry_value_t> values;
  ASSERT_EQ(registry_.EnumerateValues("A", values), 0U);
  EXPECT_THAT(values, testing::ElementsAre(platform::registry_value_t{"e", 5U}));
  platform::registry_data_t data;
  for (const char* name : {"a", "b", "c", "d", "f"})
    EXPECT_EQ(registry_.GetValue("A", name, data), error::FileNotFound) << name;
}

TEST_F(RegistryFileTest, APlaceWhereNoFileCanBeIsAFailure) {
  fs::create_directories(path_);
  EXPECT_NE(registry_.CreateKey("A"), 0U);
  sqlite_registry_t below(path_ + "/file/registry.db");
  std::ofstream(path_ + "/file") << "x";
  EXPECT_EQ(below.CreateKey("A"), error::PathNotFound);
}

TEST_F(RegistryFileTest, OthersChangesAreSeenAtOnce) {
  sqlite_registry_t other(path_);
  ASSERT_EQ(registry_.SetDword("A\\B", "x", 1), 0U);
  // The keys get other ids, which this one must not go by any more.
  ASSERT_EQ(other.DeleteKey("A"), 0U);
  EXPECT_EQ(registry_.FindKey("A\\B"), error::FileNotFound);
  ASSERT_EQ(other.SetDword("Z\\Y", "x", 2), 0U);
  ASSERT_EQ(other.SetDword("A\\B", "x", 3), 0U);
  std::uint32_t number = 0;
  EXPECT_EQ(registry_.GetDword("A\\B", "x", number), 0U);
  EXPECT_EQ(number, 3U);
  ASSERT_EQ(other.DeleteKey("A"), 0U);
  ASSERT_EQ(registry_.SetDword("A\\B", "x", 4), 0U);
  EXPECT_EQ(other.GetDword("A\\B", "x", number), 0U);
  EXPECT_EQ(number, 4U);
  EXPECT_EQ(other.GetDword("Z\\Y", "x", number), 0U);
  EXPECT_EQ(number, 2U);
}

}  // namespace
