#include "config/reg_config_update_sink.h"

#include <chrono>

#include "unit/config/reg_config_fixture.h"

namespace {

using test::Mount1;
using test::NoFid;
using test::RegConfigTest;
using testing::ElementsAre;

/// Answers for its spec alone.
class SpecItem : public IFsItem {
 public:
  explicit SpecItem(SFsItemSpec spec) : spec_(std::move(spec)) {}
  void GetItemSpec(SFsItemSpec& spec) override { spec = spec_; }
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA&) override {}
  void SetPermissions(bool, bool) override {}
  void SetTimes(const FILETIME*, const FILETIME*, const FILETIME*) override {}
  bool Exists() override { return true; }
  bool GetMountUid(GUID&) override { return false; }
  bool IsAddressAllowed(const sockaddr_in&) override { return true; }
  std::string GetAllowedHostAddr() override { return {}; }

 private:
  const SFsItemSpec spec_;
};

class UpdateSinkTest : public RegConfigTest {
 protected:
  CRegConfigUpdateSink sink{boost::shared_ptr<CRegConfig>(new CRegConfig)};
};

TEST_F(UpdateSinkTest, TheCatalogueFollowsTheTable) {
  SpecItem item(RemoteFile(Mount1, "d", 9));
  sink.OnItemAdded(1, "disk", 2, item);
  EXPECT_THAT(Load().items.at(2).instances, ElementsAre(RemoteFile(Mount1, "d", 9)));
  sink.OnItemMoved(2, 3, "disk2");
  EXPECT_EQ(Load().items.at(2).itemName, "disk2");
  sink.OnItemDeleted(2, &Mount1);
  EXPECT_TRUE(Load().items.empty());
  sink.OnItemAdded(1, "file", 4, HostFile("/f"));
  sink.OnItemDeleted(4, nullptr);
  EXPECT_TRUE(Load().items.empty());
}

TEST_F(UpdateSinkTest, ABatchIsWrittenWholeOrNotAtAll) {
  {
    CRegConfigUpdateSink::CBatch batch(sink);
    sink.OnItemAdded(1, "a", 2, HostFile("/a"));
    {
      CRegConfigUpdateSink::CBatch inner(sink);
      sink.OnItemAdded(1, "b", 3, HostFile("/b"));
      inner.Commit();
    }
  }
  EXPECT_TRUE(Load().items.empty());
  {
    CRegConfigUpdateSink::CBatch batch(sink);
    sink.OnItemAdded(1, "a", 2, HostFile("/a"));
    sink.OnItemAdded(1, "b", 3, HostFile("/b"));
    batch.Commit();
  }
  EXPECT_EQ(Load().items.size(), 2U);
}

TEST_F(UpdateSinkTest, ABatchWithAFailedCallCannotBeCommitted) {
  CRegConfigUpdateSink::CBatch batch(sink);
  sink.OnItemAdded(1, "a", 2, HostFile("/a"));
  registry.FailAfter("SetValues", 1, 112);
  EXPECT_THROW(sink.OnItemAdded(1, "b", 3, HostFile("/b")), exc::win_sys_exc_t);
  registry.fault = {};
  EXPECT_THROW(batch.Commit(), exc::win_sys_exc_t);
  EXPECT_TRUE(Load().items.empty());
}

TEST_F(UpdateSinkTest, ABatchThatCannotBeginOrEndThrowsAndLeavesTheRegistryUsable) {
  registry.Fail("Begin", 33);
  EXPECT_THROW(CRegConfigUpdateSink::CBatch{sink}, exc::win_sys_exc_t);
  registry.Fail("Commit", 112);
  {
    CRegConfigUpdateSink::CBatch batch(sink);
    EXPECT_THROW(batch.Commit(), exc::win_sys_exc_t);
  }
  registry.fault = {};
  EXPECT_NO_THROW(sink.OnItemAdded(1, "a", 2, HostFile("/a")));
  EXPECT_EQ(Load().items.size(), 1U);
}

TEST_F(UpdateSinkTest, ALargeCatalogueComesBackWhole) {
  constexpr std::uint64_t Count = 100000;
  const auto start = std::chrono::steady_clock::now();
  {
    CRegConfigUpdateSink::CBatch batch(sink);
    sink.OnItemAdded(NoFid, "share", 1, HostFolder("/srv"));
    for (std::uint64_t fid = 2; fid < Count + 2; ++fid)
      sink.OnItemAdded(1, "file" + std::to_string(fid), fid, HostFile("/srv/file" + std::to_string(fid)));
    batch.Commit();
  }
  const auto written = std::chrono::steady_clock::now();
  const SRegConfigData data = Load();
  const auto read = std::chrono::steady_clock::now();
  ASSERT_EQ(data.items.size(), Count + 1);
  EXPECT_EQ(data.items.at(1).children.size(), Count);
  const auto milliseconds = [](auto time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
  };
  RecordProperty("write_ms", std::to_string(milliseconds(written - start)));
  RecordProperty("read_ms", std::to_string(milliseconds(read - written)));
}

}  // namespace
