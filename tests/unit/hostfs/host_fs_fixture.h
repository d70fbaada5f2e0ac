// A share in a temporary folder, its files under a fault injector, under a clock of the test.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "config/address_checker_factory.h"
#include "foundation/exc.h"
#include "hostfs/host_fs_file.h"
#include "hostfs/host_fs_file_cache.h"
#include "hostfs/host_fs_folder.h"
#include "platform/clock.h"
#include "support/captured_log.h"
#include "support/forwarding_files.h"
#include "support/temp_dir.h"
#include "vfs/items/async_fs_file_wrapper.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"
#include "vfs/items/virtual_fs_exc.h"

namespace test {

/// Stands still until it is moved; a sleep moves it and is remembered.
class StandingClock : public platform::clock_source_t {
 public:
  StandingClock() : replaced_(platform::SetClock(this)) {}
  ~StandingClock() override { platform::SetClock(replaced_); }

  std::int64_t WallNanoseconds() const override { return platform::SystemClock().WallNanoseconds(); }
  std::uint64_t MonotonicMilliseconds() const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    return now_;
  }
  std::tm LocalTime(std::int64_t seconds) const override { return platform::SystemClock().LocalTime(seconds); }
  void Sleep(std::uint32_t milliseconds) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    now_ += milliseconds;
    sleeps_.push_back(milliseconds);
  }
  void Set(std::uint64_t now) {
    const std::lock_guard<std::mutex> lock(mutex_);
    now_ = now;
  }
  std::vector<std::uint32_t> Sleeps() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sleeps_;
  }

 private:
  platform::clock_source_t* const replaced_;
  mutable std::mutex mutex_;  // Guards the rest.
  std::uint64_t now_ = 10'000'000;
  std::vector<std::uint32_t> sleeps_;
};

class HostFs : public ::testing::Test {
 protected:
  HostFs() {
    std::filesystem::create_directory(dir / "share");
    CAddressCheckerFactory::Install(boost::make_shared<CAddressCheckerFactory>(true));
    HostFsFileCache::Init(std::chrono::hours(1));
    root = MakeRoot(dir / "share");
  }
  ~HostFs() override {
    HostFsFileCache::Deinit();
    CAddressCheckerFactory::Install(nullptr);
  }

  boost::shared_ptr<CHostFsFolder> MakeRoot(const std::string& path, const std::string& addresses = {}) {
    return CHostFsFolder::Create(path, invoker, allocator, addresses, true, files);
  }

  std::string Path(const std::string& name) const { return dir / ("share/" + name); }
  void Put(const std::string& name, const std::string& text) { std::ofstream(Path(name), std::ios::binary) << text; }
  std::string Get(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  bool IsThere(const std::string& name) const {
    return std::filesystem::exists(std::filesystem::symlink_status(Path(name)));
  }

  static boost::shared_ptr<IFsFile> AsFile(const boost::shared_ptr<IFsItem>& item) {
    return boost::dynamic_pointer_cast<IFsFile>(item);
  }
  static boost::shared_ptr<CHostFsFolder> AsFolder(const boost::shared_ptr<IFsItem>& item) {
    return boost::dynamic_pointer_cast<CHostFsFolder>(item);
  }
  boost::shared_ptr<IFsFile> File(const std::string& name) { return AsFile(root->OpenChild(name)); }
  boost::shared_ptr<CHostFsFolder> Folder(const std::string& name) { return AsFolder(root->OpenChild(name)); }

  static std::string Read(IFsFile& file, std::uint64_t offset = 0, std::uint32_t count = 65536) {
    SFsReadBuffer buffer;
    file.Read(offset, count, buffer);
    return {buffer.data.begin(), buffer.data.begin() + buffer.length};
  }
  static void Write(IFsFile& file, const std::string& text, std::uint64_t offset = 0) {
    file.Write(offset, static_cast<std::uint32_t>(text.size()), text.data());
  }
  static std::vector<std::string> Names(IFsFolder& folder) {
    SFsEnumeration enumeration;
    folder.Enumerate(enumeration);
    EXPECT_FALSE(enumeration.unavailable);
    std::sort(enumeration.names.begin(), enumeration.names.end());
    return enumeration.names;
  }

  /// The number of the win_sys_exc_t that the call throws, whose second text must be the given one; 0 for none.
  template <typename Call>
  static platform::error_t NumberOf(const Call& call, const std::string& text = {}) {
    try {
      call();
    } catch (const exc::win_sys_exc_t& exception) {
      if (!text.empty()) {
        EXPECT_EQ(std::next(exception.Messages().begin())->text, text);
      }
      return exception.Code();
    }
    return 0;
  }
  /// The status of the CVirtualFsExc that the call throws; 0 for none.
  template <typename Call>
  static nfsstat3 StatusOf(const Call& call) {
    try {
      call();
    } catch (const CVirtualFsExc& exception) {
      return exception.Status();
    }
    return 0;
  }
  template <typename Call>
  static std::string TextOf(const Call& call) {
    try {
      call();
    } catch (const exc::exc_base_t& exception) {
      return exception.what();
    }
    return {};
  }

  test::TempDir dir;
  test::ScopedEnvironment environment{"ALLUSERSPROFILE", dir / "data"};
  test::StandingClock clock;
  test::FaultyFiles files;
  boost::shared_ptr<CCompletionEventsAllocator> allocator = boost::make_shared<CCompletionEventsAllocator>();
  boost::shared_ptr<CFsProcInvoker> invoker = CFsProcInvoker::Create("hostfs", 1, allocator);
  boost::shared_ptr<CHostFsFolder> root;
};

inline sockaddr_in Address(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, text, &address.sin_addr);
  return address;
}

}  // namespace test
