// The table of items when it is refused memory on the way.
#include <gtest/gtest.h>

#include <new>

#include "support/refused_memory.h"
#include "table_fixture.h"

namespace test {
namespace {

const std::string Long = "a name that is longer than a text keeps in itself";
const std::string Longer = "another one, and it is longer still than the first one was";

class RefusedMemory : public TableFixture {
 protected:
  /// Runs the call with one request refused; whether that came to it.
  template <typename Call>
  static bool Refuse(std::size_t granted, const Call& call) {
    const RefusedRequest refusal(granted);
    try {
      call();
    } catch (const std::exception&) {
    }
    return refusal.HasHappened();
  }
  /// What the registry has is what the table has, if not now, then when the next item comes.
  void ExpectStored() {
    table.AddItem(root, "next", MakeFile("next"));
    for (const auto& [name, fid] : Children(root)) {
      EXPECT_NO_THROW(table.RequireStored(fid));
      EXPECT_TRUE(sink->records.contains(fid)) << name;
    }
    EXPECT_EQ(sink->records.size(), Children(root).size() + 1);
    table.RemoveChild(root, "next");
  }
};

TEST_F(RefusedMemory, AnItemIsAddedWithItsRecordOrNotedToHaveNone) {
  const auto file = MakeFile(Long);
  UntilNoneIsRefused([&](std::size_t granted) {
    SCOPED_TRACE(granted);
    const bool isRefused = Refuse(granted, [&] { table.AddItem(root, Long, file); });
    ExpectStored();
    EXPECT_EQ(Children(root).size(), table.LookupChild(root, Long) == InvalidFid ? 0U : 1U);
    EXPECT_TRUE(isRefused || table.LookupChild(root, Long) != InvalidFid);
    table.RemoveChild(root, Long);
    ExpectStored();
    return isRefused;
  });
}

TEST_F(RefusedMemory, AnItemIsRemovedWithItsRecordOrNotedToHaveOne) {
  const auto file = MakeFile(Long);
  UntilNoneIsRefused([&](std::size_t granted) {
    SCOPED_TRACE(granted);
    const std::uint64_t fid = table.AddItem(root, Long, file);
    const bool isRefused = Refuse(granted, [&] { table.RemoveItem(fid); });
    EXPECT_TRUE(isRefused || !table.GetItem(fid));
    ExpectStored();
    table.RemoveChild(root, Long);
    ExpectStored();
    return isRefused;
  });
}

TEST_F(RefusedMemory, APreparedMoveNeedsNone) {
  const std::uint64_t folder = table.AddItem(root, "folder", MakeFolder("folder"));
  const std::uint64_t fid = table.AddItem(root, Long, MakeFile(Long));
  for (const auto& [parent, name] :
       {std::pair{root, Longer}, {root, Long}, {folder, Longer}, {folder, Long}, {root, Longer}}) {
    auto move = table.PrepareMove(fid, name);
    EXPECT_FALSE(Refuse(0, [&, to = parent] { table.MoveItem(fid, to, std::move(move)); })) << name;
    EXPECT_EQ(table.LookupChild(parent, name), fid);
    EXPECT_EQ(Children(root).size() + Children(folder).size(), 2U);
  }
}

TEST_F(RefusedMemory, AMoveThatWasPreparedBeforeAnotherOneIsMade) {
  const std::uint64_t fid = table.AddItem(root, Long, MakeFile(Long));
  auto move = table.PrepareMove(fid, "last");
  table.MoveItem(fid, root, "between");
  table.MoveItem(fid, root, Long);
  table.MoveItem(fid, root, std::move(move));
  EXPECT_EQ(table.LookupChild(root, "last"), fid);
  EXPECT_EQ(Children(root).size(), 1U);
  // Its stored place is the first one still, and is freed for what comes there.
  table.AddItem(root, Long, MakeFile(Long));
  EXPECT_EQ(sink->records.at(fid).name, "last");
}

}  // namespace
}  // namespace test
