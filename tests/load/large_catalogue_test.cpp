// A catalogue of many items: what each costs in memory, and that all come back. KELVO_LOAD_ITEMS=1000000 is the
// campaign.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "load/load_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

constexpr std::size_t InFolder = 1000;

class LoadCatalogueTest : public CLoadTest {
 protected:
  std::string FolderName(std::size_t folder) { return "folder" + std::to_string(folder); }
  static std::string FileName(std::size_t file) { return "a file with some name " + std::to_string(file) + ".dat"; }
  /// The first page brings the whole folder into the catalogue.
  void ListFolder(std::size_t folder) { EXPECT_EQ(Client().ReadDirPlus(HandleOf(FolderName(folder)), 0).status, Ok); }
};
INSTANTIATE_TEST_SUITE_P(Server, LoadCatalogueTest, testing::Values(AsyncServer), ServerName);

TEST_P(LoadCatalogueTest, AnItemTakesLessThanAKibibyte) {
  const std::size_t folders = std::max<std::size_t>(1, Setting("KELVO_LOAD_ITEMS", 10000) / InFolder);
  const std::size_t items = folders * InFolder;
  const SFootprint empty = Footprint();
  for (std::size_t folder = 0; folder < folders; ++folder) {
    fs::create_directory(HostPath(FolderName(folder)));
    for (std::size_t file = 0; file < InFolder; ++file)
      std::ofstream(HostPath(FolderName(folder) + "/" + FileName(file)));
    ListFolder(folder);
  }
  const auto growth = [&] { return Footprint().residentKiB - std::min(Footprint().residentKiB, empty.residentKiB); };
  const std::size_t listed = growth();
  // The last of each folder keeps its handle.
  std::vector<bytes_t> handles;
  for (std::size_t folder = 0; folder < folders; ++folder)
    handles.push_back(HandleOf(FileName(InFolder - 1), HandleOf(FolderName(folder))));
  client_.reset();
  EXPECT_EQ(service_.Stop(), 0);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_NO_FATAL_FAILURE(service_.Start());
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  const std::size_t resumed = growth();
  std::printf("MEASURE %zu items: %zu KiB when listed, %zu when resumed, start in %.1f s\n", items, listed, resumed,
              taken.count());
  // Besides the items there are pages of the registry and locations of files, some MiB however many items there are.
  constexpr std::size_t OtherKiB = 12 * 1024;
  EXPECT_LT(listed, items + OtherKiB);
  EXPECT_LT(resumed, items + OtherKiB);
  for (std::size_t folder = 0; folder < folders; ++folder) {
    EXPECT_EQ(Client().GetAttr(handles[folder]), Ok);
    EXPECT_EQ(HandleOf(FileName(InFolder - 1), HandleOf(FolderName(folder))), handles[folder]);
  }
}

}  // namespace
