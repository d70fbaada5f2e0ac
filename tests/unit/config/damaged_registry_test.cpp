// A registry of which one page is damaged: a start refuses it, however little of it makes no sense.
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>

#include "unit/config/reg_config_fixture.h"

namespace test {
namespace {

constexpr std::size_t PageSize = 1024;

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

struct SDamage {
  const char* name;
  /// Of a page, and the one before it.
  std::function<void(std::string& page, const std::string& before)> make;
};

void PrintTo(const SDamage& damage, std::ostream* out) {
  *out << damage.name;
}

const SDamage Damages[] = {
    {"Zeros", [](std::string& page, const std::string&) { page.assign(page.size(), '\0'); }},
    {"Garbage",
     [](std::string& page, const std::string&) {
       for (std::size_t i = 0; i < page.size(); ++i)
         page[i] = static_cast<char>(i * 37 + 11);
     }},
    {"HalfWritten",
     [](std::string& page, const std::string&) { page.replace(page.size() / 2, page.size(), page.size() / 2, '\0'); }},
    {"ItsNeighbour", [](std::string& page, const std::string& before) { page = before; }},
};

class DamagedRegistryTest : public RegConfigTest, public testing::WithParamInterface<SDamage> {
 protected:
  /// What a start reads; nothing of a damaged one.
  std::optional<SRegConfigData> LoadFrom(const std::string& path) {
    platform::sqlite_registry_t damaged(path);
    platform::registry_t* const replaced = platform::registry_t::SetInstance(&damaged);
    std::optional<SRegConfigData> data;
    try {
      config.Check();
      data = Load();
    } catch (const exc::win_sys_exc_t& failure) {
      EXPECT_EQ(failure.Code(), platform::error::BadDatabase) << failure.what();
    }
    platform::registry_t::SetInstance(replaced);
    return data;
  }
};

INSTANTIATE_TEST_SUITE_P(Page, DamagedRegistryTest, testing::ValuesIn(Damages),
                         [](const testing::TestParamInfo<SDamage>& damage) { return std::string(damage.param.name); });

TEST_P(DamagedRegistryTest, IsRefusedWhicheverItIs) {
  constexpr std::uint64_t Items = 100;
  const std::string path = folder / "good.db";
  {
    platform::sqlite_registry_t good(path);
    platform::registry_t* const replaced = platform::registry_t::SetInstance(&good);
    for (std::uint64_t fid = 1; fid <= Items; ++fid)
      config.SaveItem(NoFid, "file" + std::to_string(fid), fid, HostFile("/srv/share/file" + std::to_string(fid)));
    platform::registry_t::SetInstance(replaced);
  }
  const std::string bytes = ReadFile(path);
  ASSERT_GT(bytes.size(), 20 * PageSize);
  ASSERT_EQ(bytes.size() % PageSize, 0U);
  const std::optional<SRegConfigData> all = LoadFrom(path);
  ASSERT_TRUE(all);
  ASSERT_EQ(all->items.size(), Items);

  for (std::size_t at = PageSize; at < bytes.size(); at += PageSize) {
    std::string page = bytes.substr(at, PageSize);
    GetParam().make(page, bytes.substr(at - PageSize, PageSize));
    std::string damaged = bytes;
    damaged.replace(at, PageSize, page);
    const std::string copy = folder / ("damaged" + std::to_string(at / PageSize) + ".db");
    std::ofstream(copy, std::ios::binary) << damaged;
    EXPECT_FALSE(LoadFrom(copy)) << "page " << at / PageSize;
    EXPECT_TRUE(ReadFile(copy) == damaged) << "page " << at / PageSize << " was written";
  }
}

}  // namespace
}  // namespace test
