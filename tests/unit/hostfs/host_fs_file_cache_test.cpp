// Open files kept between calls.
#include "hostfs/host_fs_file_cache.h"

#include <condition_variable>
#include <future>

#include "support/refused_memory.h"
#include "unit/hostfs/host_fs_fixture.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;

class HostFsCache : public test::HostFs {
 protected:
  std::string Add(const std::string& path) { return "[HostFsFileCache] Add record '" + path + "'"; }
  std::string Del(const std::string& path) { return "[HostFsFileCache] Del record '" + path + "'"; }
  platform::location_t At(const std::string& relative) const {
    return {boost::make_shared<platform::root_folder_t>(dir / "share"), relative};
  }
};

TEST_F(HostFsCache, BothSeparatorsAreOneRecord) {
  Put("file", "text");
  const test::CapturedLog log;
  std::string backslashes = Path("file");
  std::replace(backslashes.begin(), backslashes.end(), '/', '\\');
  const auto first = HostFsFileCache::GetFile(Path("file"));
  const auto second = HostFsFileCache::GetFile(backslashes);
  EXPECT_EQ(first, second);
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
  HostFsFileCache::Remove(backslashes);
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
  EXPECT_EQ(log.Count(Add(Path("file"))), 1U);
  EXPECT_EQ(log.Count(Del(Path("file"))), 1U);
}

TEST_F(HostFsCache, AnotherCaseIsAnotherRecordAndMeetsTheShareMode) {
  Put("file", "text");
  const auto first = HostFsFileCache::GetFile(Path("file"));
  EXPECT_EQ(NumberOf([&] { HostFsFileCache::GetFile(Path("FILE")); },
                     "Failed to open existing file [" + Path("FILE") + "] for read/write access."),
            error::SharingViolation);
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
  HostFsFileCache::Remove(Path("FILE"));
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
}

TEST_F(HostFsCache, AbsentFileMakesNoRecord) {
  EXPECT_EQ(NumberOf([&] { HostFsFileCache::GetFile(Path("file")); }), error::FileNotFound);
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
}

TEST_F(HostFsCache, SubtreeGoesByWholeComponentsAndNotByCase) {
  fs::create_directories(Path("a"));
  fs::create_directories(Path("ab"));
  Put("a/x", "");
  Put("ab/x", "");
  HostFsFileCache::GetFile(Path("a/x"));
  HostFsFileCache::GetFile(Path("ab/x"));
  HostFsFileCache::Remove(Path("A/x"));
  EXPECT_EQ(HostFsFileCache::RecordCount(), 2U);
  HostFsFileCache::RemoveSubtree(Path("A"));
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
  HostFsFileCache::RemoveSubtree(Path("ab\\"));
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
}

TEST_F(HostFsCache, AnEntryGoesByItsPathAndByTheFileThatItIs) {
  for (const char* name : {"file", "other", "third"}) {
    Put(name, name);
  }
  fs::create_hard_link(Path("file"), Path("second"));
  // Read alone, so that both names can be open.
  fs::permissions(Path("file"), fs::perms::owner_read);
  const auto id = HostFsFileCache::GetFile(Path("file"))->Id();
  EXPECT_EQ(HostFsFileCache::GetFile(Path("second"))->Id(), id);
  HostFsFileCache::GetFile(Path("other"));
  HostFsFileCache::GetFile(Path("third"));
  EXPECT_EQ(HostFsFileCache::RecordCount(), 4U);
  HostFsFileCache::RemoveEntry(Path("nothing"), {});
  EXPECT_EQ(HostFsFileCache::RecordCount(), 4U);
  const test::CapturedLog log;
  HostFsFileCache::RemoveEntry(Path("other"), id);
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
  EXPECT_FALSE(log.Has(Del(Path("third"))));
  HostFsFileCache::GetFile(Path("second"));
  HostFsFileCache::RemoveAll();
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
}

TEST_F(HostFsCache, IdleLimitIsThreeMinutes) {
  Put("a", "");
  Put("b", "");
  const std::uint64_t start = clock.MonotonicMilliseconds();
  HostFsFileCache::GetFile(Path("a"));
  clock.Set(start + 1000);
  HostFsFileCache::GetFile(Path("b"));
  clock.Set(start + 179999);
  HostFsFileCache::Purge();
  EXPECT_EQ(HostFsFileCache::RecordCount(), 2U);
  clock.Set(start + 180000);
  HostFsFileCache::Purge();
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
  HostFsFileCache::GetFile(Path("b"));
  clock.Set(start + 180000 + 179000);
  HostFsFileCache::Purge();
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
  clock.Set(start);
  HostFsFileCache::Purge();
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
}

TEST_F(HostFsCache, PurgeThreadClosesWhatIsIdle) {
  HostFsFileCache::Init(std::chrono::milliseconds(1));
  Put("file", "");
  std::promise<void> closed;
  files.faults.onClose = [&] { closed.set_value(); };
  HostFsFileCache::GetFile(At("file"), files);
  clock.Set(clock.MonotonicMilliseconds() + 180000);
  closed.get_future().wait();
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
  files.faults.onClose = nullptr;
}

TEST_F(HostFsCache, FileInUseOutlivesItsRecord) {
  Put("file", "text");
  const auto file = HostFsFileCache::GetFile(Path("file"));
  HostFsFileCache::Remove(Path("file"));
  const auto again = HostFsFileCache::GetFile(Path("file"));
  EXPECT_NE(file, again);
  char byte = 0;
  std::size_t done = 0;
  EXPECT_EQ(file->ReadAt(0, &byte, 1, done), error::Success);
  EXPECT_EQ(byte, 't');
}

TEST_F(HostFsCache, FileThatGoesFromTheHostStaysOpen) {
  Put("file", "text");
  const auto item = File("file");
  EXPECT_EQ(Read(*item), "text");
  fs::remove(Path("file"));
  EXPECT_EQ(Read(*item), "text");
  HostFsFileCache::Remove(Path("file"));
  EXPECT_EQ(NumberOf([&] { Read(*item); }), error::FileNotFound);
}

TEST_F(HostFsCache, NothingWorksOutsideItsSpan) {
  Put("file", "text");
  const auto item = File("file");
  const test::CapturedLog log;
  HostFsFileCache::GetFile(Path("file"));
  HostFsFileCache::Deinit();
  EXPECT_TRUE(log.Has(Del(Path("file"))));
  EXPECT_TRUE(log.Has("[HostFsFileCache] Purge thread terminated"));
  std::vector<std::string> texts = log.Texts();
  // The invoker's thread may tell of its start as late as here.
  std::erase_if(texts, [](const std::string& text) { return !text.starts_with("[HostFsFileCache]"); });
  EXPECT_EQ(texts.back(), "[HostFsFileCache] Cache deinitialized");
  const std::string text = "Failed to synchronize {null} object";
  EXPECT_EQ(TextOf([&] { HostFsFileCache::GetFile(Path("file")); }), text);
  EXPECT_EQ(TextOf([&] { HostFsFileCache::Remove(Path("file")); }), text);
  EXPECT_EQ(TextOf([&] { HostFsFileCache::RemoveSubtree(Path("file")); }), text);
  EXPECT_EQ(TextOf([&] { HostFsFileCache::RemoveEntry(Path("file"), {}); }), text);
  EXPECT_EQ(TextOf([&] { HostFsFileCache::RemoveAll(); }), text);
  EXPECT_EQ(TextOf([&] { Read(*item); }), text);
  HostFsFileCache::Deinit();
  HostFsFileCache::Init();
  EXPECT_TRUE(log.Has("[HostFsFileCache] Cache initialized"));
  EXPECT_EQ(Read(*item), "text");
}

TEST_F(HostFsCache, DeinitGoesOnWhenThePurgeThreadIsStuck) {
  HostFsFileCache::Init(std::chrono::milliseconds(1), std::chrono::milliseconds(20));
  Put("file", "");
  std::promise<void> isStuck;
  std::promise<void> release;
  std::promise<void> isReleased;
  files.faults.onClose = [&] {
    isStuck.set_value();
    release.get_future().wait();
    isReleased.set_value();
  };
  HostFsFileCache::GetFile(At("file"), files);
  clock.Set(clock.MonotonicMilliseconds() + 180000);
  isStuck.get_future().wait();
  HostFsFileCache::Deinit();
  EXPECT_EQ(TextOf([] { HostFsFileCache::RecordCount(); }), "Failed to synchronize {null} object");
  release.set_value();
  isReleased.get_future().wait();
}

TEST_F(HostFsCache, ManyThreadsShareOneHandle) {
  Put("file", std::string(4096, 'x'));
  int opens = 0;
  files.faults.onOpen = [&](const platform::location_t&, const platform::file_request_t&) {
    ++opens;  // Under the cache's lock.
    return 0U;
  };
  std::vector<std::future<bool>> readers;
  for (int number = 0; number < 4; ++number) {
    readers.push_back(std::async(std::launch::async, [this] {
      char byte = 0;
      std::size_t done = 0;
      for (std::uint64_t round = 0; round < 500; ++round) {
        const auto file = HostFsFileCache::GetFile(At("file"), files);
        if (file->ReadAt(round, &byte, 1, done) != error::Success || done != 1 || byte != 'x') {
          return false;
        }
      }
      return true;
    }));
  }
  for (auto& reader : readers) {
    EXPECT_TRUE(reader.get());
  }
  EXPECT_EQ(opens, 1);
}

// What was renamed or deleted must not stay open under its old path.
TEST_F(HostFsCache, RecordsGoWithoutMemory) {
  fs::create_directories(Path("folder"));
  const std::vector<std::string> names{"file", "folder/a file whose path is long enough"};
  const auto open = [&] {
    for (const std::string& name : names) {
      Put(name, "text");
      HostFsFileCache::GetFile(Path(name));
    }
  };
  // Without lines of the log, which may take some.
  const auto expectGone = [](const std::function<void()>& remove, std::size_t left) {
    const test::RefusedRequest refusal(0);
    EXPECT_NO_THROW(remove());
    EXPECT_FALSE(refusal.HasHappened());
    EXPECT_EQ(HostFsFileCache::RecordCount(), left);
  };
  const std::string file = Path("file");
  const std::string folder = Path("folder");
  platform::file_info_t info;
  open();
  ASSERT_EQ(platform::SystemFiles().GetInfo(At("file"), info), error::Success);
  const platform::file_id_t id = info.id;
  expectGone([&] { HostFsFileCache::RemoveEntry(file, id); }, 1);
  expectGone([&] { HostFsFileCache::RemoveSubtree(folder); }, 0);
  open();
  expectGone([] { HostFsFileCache::RemoveAll(); }, 0);
}

}  // namespace
