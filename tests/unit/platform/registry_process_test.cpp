// What several processes do to one registry, and what is left when one of them dies.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <vector>

#include "registry_fixture.h"

namespace {

using platform::registry_node_t;
using platform::registry_transaction_t;
using platform::sqlite_registry_t;
namespace error = platform::error;

/// A copy of this process that runs a function and exits with what it returns.
class Child {
 public:
  explicit Child(const std::function<int()>& body) : pid_(::fork()) {
    if (pid_ == 0)
      ::_exit(body());
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  Child(Child&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
  ~Child() {
    if (pid_ > 0)
      Kill();
  }

  int Wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void Kill() {
    ::kill(pid_, SIGKILL);
    Wait();
  }

 private:
  pid_t pid_;
};

class RegistryProcessTest : public test::RegistryFixture {
 protected:
  static std::string ItemKey(int number) { return "Items\\" + std::to_string(number); }

  /// Writes an item as the catalogue does: a key and its backing in one transaction.
  static bool WriteItem(sqlite_registry_t& registry, int number) {
    const std::string text = std::to_string(number);
    registry_transaction_t transaction(registry);
    return registry.SetValues(ItemKey(number), {{"itemName", "name " + text}, {"parentItemFID", text}}) == 0 &&
           registry.SetValues(ItemKey(number) + "\\{a}", {{"isFolder", 1U}, {"path", "path " + text}}) == 0 &&
           transaction.Commit() == 0;
  }
  static bool IsWhole(const registry_node_t& node) {
    return node.values.size() == 2 && node.values[0].data == platform::registry_data_t("name " + node.name) &&
           node.keys.size() == 1 && node.keys[0].values.size() == 2 &&
           node.keys[0].values[1].data == platform::registry_data_t("path " + node.name);
  }
};

TEST_F(RegistryProcessTest, AKilledWriterLeavesWholeItems) {
  for (int round = 0; round < 8; ++round) {
    std::array<int, 2> progress{};
    ASSERT_EQ(::pipe(progress.data()), 0);
    Child writer([&] {
      sqlite_registry_t registry(path_);
      for (int number = round * 100000; WriteItem(registry, number); ++number) {
        if (::write(progress[1], &number, sizeof(number)) != sizeof(number))
          return 1;
      }
      return 1;
    });
    ::close(progress[1]);
    // Somewhere in the middle of a later write, each round elsewhere.
    int told = -1;
    for (int i = 0; i <= round * 37; ++i)
      ASSERT_EQ(::read(progress[0], &told, sizeof(told)), static_cast<ssize_t>(sizeof(told)));
    writer.Kill();
    while (::read(progress[0], &told, sizeof(told)) == static_cast<ssize_t>(sizeof(told))) {
    }
    ::close(progress[0]);

    sqlite_registry_t registry(path_);
    int items = 0;
    ASSERT_EQ(registry.VisitKeys("Items", platform::registry_t::visit_order_t::ByName,
                                 [&](const registry_node_t& node) {
                                   const int number = std::stoi(node.name);
                                   items += number >= round * 100000 ? 1 : 0;
                                   EXPECT_TRUE(IsWhole(node)) << node.name;
                                 }),
              0U);
    // All that was told is there, and at most the one whose telling was cut off.
    const int written = told - round * 100000 + 1;
    EXPECT_GE(items, written);
    EXPECT_LE(items, written + 1);
  }
}

TEST_F(RegistryProcessTest, AKilledBatchLeavesNothing) {
  ASSERT_TRUE(WriteItem(registry_, 1));
  std::array<int, 2> progress{};
  ASSERT_EQ(::pipe(progress.data()), 0);
  Child writer([&] {
    sqlite_registry_t registry(path_);
    const registry_transaction_t batch(registry);
    // More than the page cache holds, so that unfinished pages reach the log.
    for (int number = 1000; number < 30000; ++number) {
      if (!WriteItem(registry, number))
        return 1;
    }
    const bool told = ::write(progress[1], "x", 1) == 1;
    ::pause();
    return told ? 0 : 1;
  });
  ::close(progress[1]);
  char byte = 0;
  ASSERT_EQ(::read(progress[0], &byte, 1), 1);
  ::close(progress[0]);
  writer.Kill();
  std::vector<std::string> names;
  EXPECT_EQ(registry_.EnumerateKeys("Items", names), 0U);
  EXPECT_EQ(names, std::vector<std::string>{"1"});
  EXPECT_TRUE(WriteItem(registry_, 2));
}

TEST_F(RegistryProcessTest, ProcessesCountTogether) {
  constexpr std::uint32_t Rounds = 100;
  std::vector<Child> children;
  children.reserve(3);
  for (int c = 0; c < 3; ++c) {
    children.emplace_back([&] {
      // All of them find no file, and one makes it.
      sqlite_registry_t registry(path_);
      for (std::uint32_t i = 0; i < Rounds; ++i) {
        registry_transaction_t transaction(registry);
        std::uint32_t count = 0;
        registry.GetDword("A\\B", "count", count);
        if (registry.SetDword("A\\B", "count", count + 1) != 0 || transaction.Commit() != 0)
          return 1;
      }
      return 0;
    });
  }
  for (Child& child : children)
    EXPECT_EQ(child.Wait(), 0);
  std::uint32_t count = 0;
  EXPECT_EQ(registry_.GetDword("A\\B", "count", count), 0U);
  EXPECT_EQ(count, 3 * Rounds);
}

TEST_F(RegistryProcessTest, AFullDiskLosesNothingAndHealsItself) {
  ASSERT_TRUE(WriteItem(registry_, 1));
  Child writer([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    sqlite_registry_t registry(path_);
    if (!WriteItem(registry, 2))
      return 1;
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    const rlim_t whole = limit.rlim_cur;
    limit.rlim_cur = 400000;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    int number = 1000;
    while (number < 100000 && WriteItem(registry, number))
      ++number;
    if (number == 100000)
      return 2;
    // More than the page cache holds: a failure in the middle of a batch takes the batch alone, and no later part of it
    // gets through.
    {
      registry_transaction_t batch(registry);
      bool failed = false;
      for (int i = 200000; i < 300000 && !failed; ++i)
        failed = !WriteItem(registry, i);
      if (!failed || registry.SetDword("Late", "x", 1) == 0 || batch.Commit() == 0)
        return 3;
    }
    limit.rlim_cur = whole;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    return WriteItem(registry, 3) ? 0 : 4;
  });
  ASSERT_EQ(writer.Wait(), 0);
  for (const int number : {1, 2, 3, 1000})
    EXPECT_EQ(registry_.FindKey(ItemKey(number)), 0U) << number;
  EXPECT_EQ(registry_.FindKey(ItemKey(200000)), error::FileNotFound);
  EXPECT_EQ(registry_.FindKey("Late"), error::FileNotFound);
  EXPECT_EQ(registry_.VisitKeys("Items", platform::registry_t::visit_order_t::ByName,
                                [](const registry_node_t& node) { EXPECT_TRUE(IsWhole(node)) << node.name; }),
            0U);
}

}  // namespace
