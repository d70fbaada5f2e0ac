#include "platform/registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "registry_fixture.h"
#include "support/forwarding_registry.h"

namespace {

using platform::registry_data_t;
using platform::registry_node_t;
using platform::registry_value_t;
using testing::ElementsAre;
using testing::IsEmpty;
namespace error = platform::error;

class RegistryTest : public test::RegistryFixture {
 protected:
  registry_data_t Read(const std::string& key, const std::string& name) {
    registry_data_t data;
    EXPECT_EQ(registry_.GetValue(key, name, data), 0U) << key << ' ' << name;
    return data;
  }
  std::vector<std::string> Keys(const std::string& key) {
    std::vector<std::string> names;
    EXPECT_EQ(registry_.EnumerateKeys(key, names), 0U);
    return names;
  }
};

TEST_F(RegistryTest, KeepsValuesOfEachType) {
  const std::vector<registry_value_t> values{{"dword", 4294967295U},
                                             {"empty", std::string()},
                                             {"qword", std::uint64_t{18446744073709551615U}},
                                             {"text", std::string("\xC3\xA4 \xF0\x9F\x98\x80")},
                                             {"zero byte", std::string("a\0b", 3)}};
  ASSERT_EQ(registry_.SetValues("A\\B", values), 0U);
  std::vector<registry_value_t> read;
  ASSERT_EQ(registry_.EnumerateValues("A\\B", read), 0U);
  EXPECT_EQ(read, values);
  for (const registry_value_t& value : values)
    EXPECT_EQ(Read("A\\B", value.name), value.data);
}

TEST_F(RegistryTest, NamesKeepTheirCaseAndCompareWithoutIt) {
  ASSERT_EQ(registry_.SetDword("SOFTWARE\\KelvO\\Kelvo NFS", "NfsPort", 1), 0U);
  ASSERT_EQ(registry_.SetDword("software\\kelvo\\KELVO nfs", "NFSPORT", 2), 0U);
  EXPECT_EQ(Read("Software\\Kelvo\\Kelvo Nfs", "nfsport"), registry_data_t(2U));
  EXPECT_THAT(Keys("SOFTWARE"), ElementsAre("KelvO"));
  EXPECT_THAT(Keys("SOFTWARE\\KELVO"), ElementsAre("Kelvo NFS"));
  std::vector<registry_value_t> values;
  ASSERT_EQ(registry_.EnumerateValues("SOFTWARE\\KelvO\\Kelvo NFS", values), 0U);
  EXPECT_THAT(values, ElementsAre(registry_value_t{"NfsPort", 2U}));
  // Other letters are different letters.
  ASSERT_EQ(registry_.CreateKey("\xC3\x84"), 0U);
  EXPECT_EQ(registry_.FindKey("\xC3\xA4"), error::FileNotFound);
}

TEST_F(RegistryTest, BothSeparatorsDivideAndEmptyComponentsDrop) {
  ASSERT_EQ(registry_.CreateKey("/A\\\\B/C\\"), 0U);
  for (const char* key : {"A", "A/B", "A\\B\\C", "\\A//B\\C/", ""})
    EXPECT_EQ(registry_.FindKey(key), 0U) << key;
  EXPECT_EQ(registry_.FindKey("A/C"), error::FileNotFound);
  EXPECT_THAT(Keys("A/B"), ElementsAre("C"));
}

TEST_F(RegistryTest, WhatIsNotThereIsNumber2) {
  registry_data_t data;
  ASSERT_EQ(registry_.CreateKey("A"), 0U);
  EXPECT_EQ(registry_.GetValue("A", "x", data), error::FileNotFound);
  EXPECT_EQ(registry_.GetValue("B", "x", data), error::FileNotFound);
  EXPECT_EQ(registry_.GetValue("", "x", data), error::FileNotFound);
  EXPECT_EQ(registry_.DeleteValue("A", "x"), error::FileNotFound);
  EXPECT_EQ(registry_.DeleteValue("B", "x"), error::FileNotFound);
  EXPECT_EQ(registry_.DeleteKey("B"), error::FileNotFound);
  EXPECT_EQ(registry_.DeleteKey("A\\B"), error::FileNotFound);
  std::vector<std::string> names{"old"};
  EXPECT_EQ(registry_.EnumerateKeys("B", names), error::FileNotFound);
  EXPECT_THAT(names, IsEmpty());
  registry_node_t node;
  EXPECT_EQ(registry_.ReadTree("B", node), error::FileNotFound);
  EXPECT_EQ(
      registry_.VisitKeys("B", platform::registry_t::visit_order_t::ByName, [](const registry_node_t&) { FAIL(); }),
      error::FileNotFound);
}

TEST_F(RegistryTest, TypedReadsTakeAnotherTypeAsAbsent) {
  ASSERT_EQ(registry_.SetText("A", "text", "5"), 0U);
  ASSERT_EQ(registry_.SetDword("A", "dword", 5), 0U);
  ASSERT_EQ(registry_.SetQword("A", "qword", 5), 0U);
  std::string text = "old";
  std::uint32_t dword = 1;
  std::uint64_t qword = 1;
  EXPECT_EQ(registry_.GetText("A", "dword", text), error::FileNotFound);
  EXPECT_EQ(registry_.GetDword("A", "text", dword), error::FileNotFound);
  EXPECT_EQ(registry_.GetDword("A", "qword", dword), error::FileNotFound);
  EXPECT_EQ(registry_.GetQword("A", "dword", qword), error::FileNotFound);
  EXPECT_EQ(text, "old");
  EXPECT_EQ(dword, 1U);
  EXPECT_EQ(qword, 1U);
  EXPECT_EQ(registry_.GetText("A", "text", text), 0U);
  EXPECT_EQ(registry_.GetDword("A", "dword", dword), 0U);
  EXPECT_EQ(registry_.GetQword("A", "qword", qword), 0U);
  EXPECT_EQ(text, "5");
  EXPECT_EQ(dword, 5U);
  EXPECT_EQ(qword, 5U);
}

TEST_F(RegistryTest, DeletingAKeyTakesWhatIsBelowAlong) {
  ASSERT_EQ(registry_.SetDword("A\\B\\C", "x", 1), 0U);
  ASSERT_EQ(registry_.SetDword("A\\BB", "x", 2), 0U);
  ASSERT_EQ(registry_.DeleteKey("a/b"), 0U);
  EXPECT_EQ(registry_.FindKey("A\\B\\C"), error::FileNotFound);
  EXPECT_THAT(Keys("A"), ElementsAre("BB"));
  // Nothing of the old key is in one of the same name.
  ASSERT_EQ(registry_.CreateKey("A\\B\\C"), 0U);
  std::vector<registry_value_t> values;
  ASSERT_EQ(registry_.EnumerateValues("A\\B\\C", values), 0U);
  EXPECT_THAT(values, IsEmpty());
  EXPECT_EQ(Read("A\\BB", "x"), registry_data_t(2U));
}

TEST_F(RegistryTest, TheRootStays) {
  ASSERT_EQ(registry_.CreateKey("A"), 0U);
  EXPECT_EQ(registry_.DeleteKey("\\"), error::AccessDenied);
  EXPECT_EQ(registry_.FindKey("A"), 0U);
}

TEST_F(RegistryTest, DeletingAValueLeavesTheOthers) {
  ASSERT_EQ(registry_.SetValues("A", {{"x", 1U}, {"y", 2U}}), 0U);
  ASSERT_EQ(registry_.DeleteValue("A", "X"), 0U);
  std::vector<registry_value_t> values;
  ASSERT_EQ(registry_.EnumerateValues("A", values), 0U);
  EXPECT_THAT(values, ElementsAre(registry_value_t{"y", 2U}));
}

TEST_F(RegistryTest, KeysAreEnumeratedInTheOrderOfTheirNames) {
  for (const char* name : {"b", "C", "a", "10", "9"})
    ASSERT_EQ(registry_.CreateKey(std::string("A\\") + name), 0U);
  EXPECT_THAT(Keys("A"), ElementsAre("10", "9", "a", "b", "C"));
}

TEST_F(RegistryTest, NamesThatCannotBeAreRefused) {
  const std::string zero("a\0b", 3);
  EXPECT_EQ(registry_.CreateKey("\xFF"), error::NoUnicodeTranslation);
  EXPECT_EQ(registry_.CreateKey(zero), error::InvalidParameter);
  EXPECT_EQ(registry_.SetDword("A", "\xFF", 1), error::NoUnicodeTranslation);
  EXPECT_EQ(registry_.SetDword("A", zero, 1), error::InvalidParameter);
  EXPECT_EQ(registry_.SetText("A", "x", "\xE4"), error::NoUnicodeTranslation);
  registry_data_t data;
  EXPECT_EQ(registry_.GetValue("A", "\xFF", data), error::NoUnicodeTranslation);
  std::string deep;
  for (int i = 0; i < 513; ++i)
    deep += "k\\";
  EXPECT_EQ(registry_.CreateKey(deep), error::FilenameExceedsRange);
  EXPECT_EQ(registry_.FindKey("A"), error::FileNotFound);
}

TEST_F(RegistryTest, TheDeepestKeyCanBeReadAndDeleted) {
  std::string deep = "top";
  for (int i = 1; i < 512; ++i)
    deep += "\\k";
  ASSERT_EQ(registry_.SetDword(deep, "x", 7), 0U);
  EXPECT_EQ(Read(deep, "x"), registry_data_t(7U));
  registry_node_t node;
  ASSERT_EQ(registry_.ReadTree("", node), 0U);
  int levels = 0;
  for (const registry_node_t* at = &node; !at->keys.empty(); at = &at->keys[0])
    ++levels;
  EXPECT_EQ(levels, 512);
  EXPECT_EQ(registry_.DeleteKey("top"), 0U);
  EXPECT_THAT(Keys(""), IsEmpty());
}

TEST_F(RegistryTest, AVisitReadsKeysWithTheirSubKeys) {
  ASSERT_EQ(registry_.SetValues("Items\\2", {{"name", std::string("two")}, {"parent", std::string("1")}}), 0U);
  ASSERT_EQ(registry_.SetValues("Items\\2\\{b}", {{"isFolder", 1U}}), 0U);
  ASSERT_EQ(registry_.SetValues("Items\\2\\{a}", {{"path", std::string("p")}, {"isFolder", 0U}}), 0U);
  ASSERT_EQ(registry_.SetValues("Items\\2\\{a}\\deeper", {{"unseen", 1U}}), 0U);
  ASSERT_EQ(registry_.CreateKey("Items\\1"), 0U);
  ASSERT_EQ(registry_.CreateKey("Items\\3\\{c}"), 0U);
  ASSERT_EQ(registry_.SetDword("Items", "own", 1), 0U);
  ASSERT_EQ(registry_.SetDword("Other\\4", "x", 1), 0U);
  for (const auto order :
       {platform::registry_t::visit_order_t::ByName, platform::registry_t::visit_order_t::AsStored}) {
    std::vector<registry_node_t> nodes;
    ASSERT_EQ(registry_.VisitKeys("items", order, [&](const registry_node_t& node) { nodes.push_back(node); }), 0U);
    if (order == platform::registry_t::visit_order_t::AsStored)
      std::sort(nodes.begin(), nodes.end(), [](const auto& left, const auto& right) { return left.name < right.name; });
    ASSERT_EQ(nodes.size(), 3U);
    EXPECT_EQ(nodes[0].name, "1");
    EXPECT_THAT(nodes[0].values, IsEmpty());
    EXPECT_THAT(nodes[0].keys, IsEmpty());
    EXPECT_EQ(nodes[1].name, "2");
    EXPECT_THAT(nodes[1].values, ElementsAre(registry_value_t{"name", std::string("two")},
                                             registry_value_t{"parent", std::string("1")}));
    ASSERT_EQ(nodes[1].keys.size(), 2U);
    EXPECT_EQ(nodes[1].keys[0].name, "{a}");
    EXPECT_THAT(nodes[1].keys[0].values,
                ElementsAre(registry_value_t{"isFolder", 0U}, registry_value_t{"path", std::string("p")}));
    EXPECT_THAT(nodes[1].keys[0].keys, IsEmpty());
    EXPECT_EQ(nodes[1].keys[1].name, "{b}");
    EXPECT_THAT(nodes[1].keys[1].values, ElementsAre(registry_value_t{"isFolder", 1U}));
    ASSERT_EQ(nodes[2].keys.size(), 1U);
    EXPECT_EQ(nodes[2].keys[0].name, "{c}");
    EXPECT_THAT(nodes[2].keys[0].values, IsEmpty());
  }
}

TEST_F(RegistryTest, WhatAVisitorThrowsEndsTheVisitAlone) {
  ASSERT_EQ(registry_.CreateKey("A\\1"), 0U);
  ASSERT_EQ(registry_.CreateKey("A\\2"), 0U);
  int seen = 0;
  EXPECT_THROW(registry_.VisitKeys("A", platform::registry_t::visit_order_t::ByName,
                                   [&](const registry_node_t&) {
                                     ++seen;
                                     throw std::runtime_error("enough");
                                   }),
               std::runtime_error);
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(registry_.SetDword("A", "x", 1), 0U);
  EXPECT_THAT(Keys("A"), ElementsAre("1", "2"));
}

TEST_F(RegistryTest, AVisitorThatTurnsToTheRegistryIsRefused) {
  ASSERT_EQ(registry_.CreateKey("A\\1"), 0U);
  for (const bool inTransaction : {false, true}) {
    std::optional<platform::registry_transaction_t> outer;
    if (inTransaction)
      outer.emplace(registry_);
    ASSERT_EQ(registry_.VisitKeys("A", platform::registry_t::visit_order_t::ByName,
                                  [&](const registry_node_t&) {
                                    EXPECT_EQ(registry_.FindKey("A"), error::Busy);
                                    EXPECT_EQ(registry_.SetDword("A", "x", 1), error::Busy);
                                    platform::registry_transaction_t inner(registry_);
                                    EXPECT_EQ(inner.Commit(), error::Busy);
                                  }),
              0U);
  }
  registry_data_t data;
  EXPECT_EQ(registry_.GetValue("A", "x", data), error::FileNotFound);
  EXPECT_EQ(registry_.SetDword("A", "x", 1), 0U);
}

TEST_F(RegistryTest, ATreeIsReadWhole) {
  ASSERT_EQ(registry_.SetDword("A\\B\\C", "x", 1), 0U);
  ASSERT_EQ(registry_.SetDword("A", "y", 2), 0U);
  registry_node_t node;
  ASSERT_EQ(registry_.ReadTree("a", node), 0U);
  EXPECT_THAT(node.values, ElementsAre(registry_value_t{"y", 2U}));
  ASSERT_EQ(node.keys.size(), 1U);
  EXPECT_EQ(node.keys[0].name, "B");
  ASSERT_EQ(node.keys[0].keys.size(), 1U);
  EXPECT_THAT(node.keys[0].keys[0].values, ElementsAre(registry_value_t{"x", 1U}));
}

TEST_F(RegistryTest, AFailingOneIsThereForTests) {
  test::FailingRegistry failing(registry_);
  failing.failure = error::DiskFull;
  EXPECT_EQ(failing.CreateKey("A"), error::DiskFull);
  {
    platform::registry_transaction_t transaction(failing);
    EXPECT_EQ(failing.SetDword("A", "x", 1), 0U);
    EXPECT_EQ(transaction.Commit(), error::DiskFull);
  }
  EXPECT_EQ(registry_.FindKey("A"), error::FileNotFound);
  failing.failure = 0;
  EXPECT_EQ(failing.SetDword("A", "x", 1), 0U);
  EXPECT_EQ(Read("A", "x"), registry_data_t(1U));
}

TEST_F(RegistryTest, TheProcessHasOneThatATestMayReplace) {
  const test::ScopedRegistry scope(registry_);
  EXPECT_EQ(&platform::registry_t::Instance(), &registry_);
}

}  // namespace
