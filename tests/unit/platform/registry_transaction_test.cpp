#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "platform/registry_file.h"
#include "platform/registry_tables.h"
#include "registry_fixture.h"

namespace {

using platform::registry_transaction_t;
using platform::sqlite_registry_t;
namespace error = platform::error;

class RegistryTransactionTest : public test::RegistryFixture {
 protected:
  bool Has(const std::string& key) { return registry_.FindKey(key) == error::Success; }
};

TEST_F(RegistryTransactionTest, KeysMadeWithinOneAreFoundByIt) {
  std::string text;
  {
    registry_transaction_t transaction(registry_);
    ASSERT_EQ(registry_.SetText("a\\b", "name", "first"), 0U);
    ASSERT_EQ(registry_.SetText("A\\B", "name", "second"), 0U);
    ASSERT_EQ(registry_.SetText("a\\b\\c", "name", "below"), 0U);
    ASSERT_EQ(registry_.SetText("a\\b\\d", "name", "beside"), 0U);
    ASSERT_EQ(registry_.SetText("a\\B\\C", "name", "again"), 0U);
    EXPECT_EQ(registry_.GetText("a\\b\\c", "name", text), 0U);
    EXPECT_EQ(text, "again");
    ASSERT_EQ(registry_.DeleteKey("a\\b"), 0U);
    EXPECT_EQ(registry_.FindKey("a\\b\\d"), error::FileNotFound);
    ASSERT_EQ(registry_.SetText("a\\b\\d", "name", "new"), 0U);
    ASSERT_EQ(transaction.Commit(), 0U);
  }
  std::vector<std::string> names;
  EXPECT_EQ(registry_.EnumerateKeys("a\\b", names), 0U);
  EXPECT_EQ(names, std::vector<std::string>{"d"});
  EXPECT_EQ(registry_.EnumerateKeys("a", names), 0U);
  EXPECT_EQ(names, std::vector<std::string>{"b"});
}

TEST_F(RegistryTransactionTest, AKeyThatWasTakenBackIsMadeAnew) {
  {
    registry_transaction_t transaction(registry_);
    ASSERT_EQ(registry_.SetText("a", "name", "text"), 0U);
  }
  EXPECT_EQ(registry_.SetText("a\\b", "name", "text"), 0U);
  std::vector<std::string> names;
  EXPECT_EQ(registry_.EnumerateKeys("", names), 0U);
  EXPECT_EQ(names, std::vector<std::string>{"a"});
  std::string text;
  EXPECT_EQ(registry_.GetText("a", "name", text), error::FileNotFound);
}

TEST_F(RegistryTransactionTest, WhatAnotherConnectionPutsBelowAKeyOfOursIsFound) {
  ASSERT_EQ(registry_.SetText("a", "name", "text"), 0U);
  sqlite_registry_t other(path_);
  ASSERT_EQ(other.SetText("a\\b", "name", "theirs"), 0U);
  ASSERT_EQ(registry_.SetText("a\\b", "more", "ours"), 0U);
  std::string text;
  EXPECT_EQ(registry_.GetText("a\\b", "name", text), 0U);
  EXPECT_EQ(text, "theirs");
}

TEST_F(RegistryTransactionTest, WhatItHoldsIsSeenAtItsEnd) {
  sqlite_registry_t other(path_);
  ASSERT_EQ(other.CreateKey("before"), 0U);
  registry_transaction_t transaction(registry_);
  ASSERT_EQ(registry_.CreateKey("A"), 0U);
  ASSERT_EQ(registry_.DeleteKey("before"), 0U);
  EXPECT_TRUE(Has("A"));
  EXPECT_EQ(other.FindKey("A"), error::FileNotFound);
  EXPECT_EQ(other.FindKey("before"), 0U);
  ASSERT_EQ(transaction.Commit(), 0U);
  EXPECT_EQ(other.FindKey("A"), 0U);
  EXPECT_EQ(other.FindKey("before"), error::FileNotFound);
  EXPECT_EQ(transaction.Commit(), error::InvalidParameter);
}

TEST_F(RegistryTransactionTest, AnExceptionUndoesIt) {
  ASSERT_EQ(registry_.SetDword("kept", "x", 1), 0U);
  try {
    registry_transaction_t transaction(registry_);
    ASSERT_EQ(registry_.SetDword("A\\B", "x", 1), 0U);
    ASSERT_EQ(registry_.SetDword("kept", "x", 2), 0U);
    throw std::runtime_error("on the way");
  } catch (const std::runtime_error&) {
  }
  EXPECT_FALSE(Has("A"));
  std::uint32_t number = 0;
  EXPECT_EQ(registry_.GetDword("kept", "x", number), 0U);
  EXPECT_EQ(number, 1U);
  // Keys that never came to be are not remembered.
  EXPECT_EQ(registry_.SetDword("A\\B", "x", 3), 0U);
  EXPECT_EQ(registry_.GetDword("A\\B", "x", number), 0U);
  EXPECT_EQ(number, 3U);
}

TEST_F(RegistryTransactionTest, InnerOnesJoinTheOutermost) {
  sqlite_registry_t other(path_);
  {
    registry_transaction_t outer(registry_);
    {
      registry_transaction_t inner(registry_);
      ASSERT_EQ(registry_.CreateKey("A"), 0U);
      ASSERT_EQ(inner.Commit(), 0U);
    }
    EXPECT_EQ(other.FindKey("A"), error::FileNotFound);
  }
  EXPECT_FALSE(Has("A"));
}

TEST_F(RegistryTransactionTest, AnInnerRollbackMakesTheWholeFail) {
  registry_transaction_t outer(registry_);
  ASSERT_EQ(registry_.CreateKey("A"), 0U);
  { const registry_transaction_t inner(registry_); }
  EXPECT_EQ(registry_.CreateKey("B"), error::OperationAborted);
  EXPECT_EQ(outer.Commit(), error::OperationAborted);
  EXPECT_FALSE(Has("A"));
  EXPECT_FALSE(Has("B"));
  EXPECT_EQ(registry_.CreateKey("C"), 0U);
}

TEST_F(RegistryTransactionTest, OneWhoseEndFailedEndsBeforeTheNext) {
  platform::registry_tables_t tables;
  ASSERT_EQ(platform::OpenRegistryFile(path_, true, true, tables.Db()), 0U);
  const auto create = [&](const char* key) {
    platform::registry_path_t path;
    std::int64_t id = 0;
    ASSERT_EQ(path.Parse(key), 0U);
    ASSERT_EQ(tables.FindOrCreate(path, id), 0U);
  };
  ASSERT_EQ(tables.BeginWrite(), 0U);
  create("A");
  ASSERT_EQ(tables.BeginWrite(), 0U);
  create("B");
  ASSERT_EQ(tables.Commit(), 0U);
  ASSERT_EQ(tables.BeginWrite(), 0U);
  create("C");
  ASSERT_EQ(tables.BeginRead(), 0U);
  tables.Rollback();
  EXPECT_FALSE(Has("A"));
  EXPECT_TRUE(Has("B"));
  EXPECT_FALSE(Has("C"));
}

TEST_F(RegistryTransactionTest, WhatIsNotThereDoesNotMakeItFail) {
  registry_transaction_t transaction(registry_);
  EXPECT_EQ(registry_.DeleteKey("A"), error::FileNotFound);
  EXPECT_EQ(registry_.FindKey("A"), error::FileNotFound);
  ASSERT_EQ(registry_.CreateKey("B"), 0U);
  EXPECT_EQ(transaction.Commit(), 0U);
  EXPECT_TRUE(Has("B"));
}

TEST_F(RegistryTransactionTest, WhatIsRefusedDoesNotMakeItFail) {
  ASSERT_EQ(registry_.CreateKey("a"), 0U);
  registry_transaction_t transaction(registry_);
  EXPECT_EQ(registry_.SetText("b", "name", "text"), 0U);
  EXPECT_EQ(registry_.DeleteKey(""), error::AccessDenied);
  EXPECT_EQ(registry_.SetText("b", "name", "\xff"), error::NoUnicodeTranslation);
  EXPECT_EQ(transaction.Commit(), 0U);
  EXPECT_TRUE(Has("a"));
  EXPECT_TRUE(Has("b"));
}

TEST_F(RegistryTransactionTest, OtherThreadsWait) {
  std::atomic<bool> started = false;
  std::atomic<bool> wrote = false;
  std::thread other;
  {
    registry_transaction_t transaction(registry_);
    other = std::thread([&] {
      started = true;
      EXPECT_EQ(registry_.SetDword("A", "x", 2), 0U);
      wrote = true;
    });
    while (!started)
      std::this_thread::yield();
    ASSERT_EQ(registry_.SetDword("A", "x", 1), 0U);
    EXPECT_FALSE(wrote);
    ASSERT_EQ(transaction.Commit(), 0U);
  }
  other.join();
  std::uint32_t number = 0;
  EXPECT_EQ(registry_.GetDword("A", "x", number), 0U);
  EXPECT_EQ(number, 2U);
}

TEST_F(RegistryTransactionTest, ThreadsDoNotDisturbEachOther) {
  constexpr std::uint32_t Rounds = 200;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this] {
      for (std::uint32_t i = 0; i < Rounds; ++i) {
        registry_transaction_t transaction(registry_);
        std::uint32_t count = 0;
        registry_.GetDword("A", "count", count);
        EXPECT_EQ(registry_.SetDword("A", "count", count + 1), 0U);
        EXPECT_EQ(transaction.Commit(), 0U);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::uint32_t count = 0;
  EXPECT_EQ(registry_.GetDword("A", "count", count), 0U);
  EXPECT_EQ(count, 4 * Rounds);
}

TEST_F(RegistryTransactionTest, AManyTimesLargerBatchIsOneTransaction) {
  constexpr int Count = 5000;
  {
    registry_transaction_t batch(registry_);
    for (int i = 0; i < Count; ++i) {
      registry_transaction_t item(registry_);
      const std::string key = "Items\\" + std::to_string(i);
      ASSERT_EQ(registry_.SetValues(key, {{"name", "item" + std::to_string(i)}}), 0U);
      ASSERT_EQ(registry_.SetValues(key + "\\{a}", {{"isFolder", 1U}}), 0U);
      ASSERT_EQ(item.Commit(), 0U);
    }
    ASSERT_EQ(batch.Commit(), 0U);
  }
  int seen = 0;
  sqlite_registry_t other(path_);
  ASSERT_EQ(other.VisitKeys("Items", platform::registry_t::visit_order_t::ByName,
                            [&](const platform::registry_node_t& node) {
                              ++seen;
                              EXPECT_EQ(node.values.size(), 1U);
                              EXPECT_EQ(node.keys.size(), 1U);
                            }),
            0U);
  EXPECT_EQ(seen, Count);
}

}  // namespace
