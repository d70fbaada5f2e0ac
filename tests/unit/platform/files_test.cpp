// Files of the host: sharing, attributes, times, sizes, renames.
#include "platform/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/open_files.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using platform::file_access_t;
using platform::file_disposition_t;
using platform::file_request_t;
using platform::file_share_t;
using platform::location_t;
using file_ptr_t = boost::shared_ptr<platform::file_t>;

constexpr file_request_t Create{file_access_t::ReadWrite, file_share_t::Read, file_disposition_t::CreateAlways};
constexpr file_request_t OpenExclusive{file_access_t::ReadWrite, file_share_t::Read, file_disposition_t::OpenExisting};
constexpr file_request_t OpenShared{file_access_t::ReadWrite, file_share_t::ReadWrite,
                                    file_disposition_t::OpenExisting};
constexpr file_request_t OpenToRead{file_access_t::Read, file_share_t::Read, file_disposition_t::OpenExisting};
constexpr file_request_t OpenToReadShared{file_access_t::Read, file_share_t::ReadWrite,
                                          file_disposition_t::OpenExisting};

class Files : public ::testing::Test {
 protected:
  Files() : root(boost::make_shared<platform::root_folder_t>(dir.Path().string())) {}
  location_t At(const std::string& relative) const { return {root, relative}; }
  void Put(const std::string& name, const std::string& text) { std::ofstream(dir / name, std::ios::binary) << text; }
  std::string Get(const std::string& name) {
    std::ifstream file(dir / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  platform::error_t Open(const std::string& name, const file_request_t& request, file_ptr_t& file) {
    return files.Open(At(name), request, file);
  }

  test::TempDir dir;
  platform::files_t& files = platform::SystemFiles();
  boost::shared_ptr<platform::root_folder_t> root;
  platform::file_info_t info;
};

TEST_F(Files, AFolderTellsItsStateOnceItsLastChangeIsPast) {
  fs::create_directory(dir / "folder");
  Put("folder/a", "");
  platform::folder_listing_t listing;
  while (!listing.state) {
    ASSERT_EQ(files.List(At("folder"), listing), error::Success);
  }
  platform::folder_state_t state;
  ASSERT_EQ(files.GetFolderState(At("folder"), state), error::Success);
  EXPECT_TRUE(state == *listing.state);
  // What is in the files is no matter.
  Put("folder/a", "text");
  ASSERT_EQ(files.GetFolderState(At("folder"), state), error::Success);
  EXPECT_TRUE(state == *listing.state);

  const auto modified = fs::last_write_time(dir / "folder");
  Put("folder/b", "");
  fs::last_write_time(dir / "folder", modified);  // As who copies folders does.
  ASSERT_EQ(files.GetFolderState(At("folder"), state), error::Success);
  EXPECT_FALSE(state == *listing.state);
  EXPECT_EQ(files.GetFolderState(At("nowhere"), state), error::FileNotFound);
}

TEST_F(Files, ListsEachNameOnceHoweverManyThereAre) {
  constexpr int Counts[] = {0, 1, 100, 200, 400, 10000};
  fs::create_directory(dir / "folder");
  std::set<std::string> names;
  for (const int count : Counts) {
    for (int i = static_cast<int>(names.size()); i < count; ++i) {
      names.insert("a file with the number " + std::to_string(i));
      Put("folder/a file with the number " + std::to_string(i), "");
    }
    platform::folder_listing_t listing;
    ASSERT_EQ(files.List(At("folder"), listing), error::Success);
    EXPECT_EQ(listing.names.size(), names.size());
    EXPECT_TRUE(std::set<std::string>(listing.names.begin(), listing.names.end()) == names) << count;
  }
}

TEST_F(Files, WriterExcludesAnotherWriterUntilItIsClosed) {
  Put("file", "text");
  file_ptr_t first;
  file_ptr_t second;
  ASSERT_EQ(Open("file", OpenExclusive, first), error::Success);
  EXPECT_EQ(Open("file", OpenExclusive, second), error::SharingViolation);
  EXPECT_EQ(Open("file", OpenShared, second), error::SharingViolation);
  EXPECT_EQ(Open("file", OpenToRead, second), error::SharingViolation);
  EXPECT_FALSE(second);
  EXPECT_EQ(Open("file", OpenToReadShared, second), error::Success);
  second.reset();
  first.reset();
  EXPECT_EQ(Open("file", OpenExclusive, second), error::Success);
}

TEST_F(Files, SharingGoesByTheFileNotByItsName) {
  Put("file", "text");
  fs::create_hard_link(dir / "file", dir / "other");
  fs::create_symlink("file", dir / "link");
  file_ptr_t first;
  file_ptr_t second;
  ASSERT_EQ(Open("file", OpenExclusive, first), error::Success);
  for (const std::string name : {"other", "link", "FILE", "./file"}) {
    EXPECT_EQ(Open(name, OpenExclusive, second), error::SharingViolation) << name;
  }
  EXPECT_EQ(Open("file", {file_access_t::Attributes, file_share_t::Read, file_disposition_t::OpenExisting}, second),
            error::Success);
}

TEST_F(Files, ReadersAgreeAndSharedWritersAgree) {
  Put("file", "text");
  file_ptr_t first;
  file_ptr_t second;
  ASSERT_EQ(Open("file", OpenToRead, first), error::Success);
  EXPECT_EQ(Open("file", OpenToRead, second), error::Success);
  EXPECT_EQ(Open("file", OpenShared, second), error::SharingViolation);
  first.reset();
  second.reset();
  ASSERT_EQ(Open("file", OpenShared, first), error::Success);
  EXPECT_EQ(Open("file", OpenShared, second), error::Success);
}

TEST_F(Files, ConflictDoesNotEmptyTheFile) {
  Put("file", "text");
  file_ptr_t holder;
  file_ptr_t creator;
  ASSERT_EQ(Open("file", OpenExclusive, holder), error::Success);
  EXPECT_EQ(Open("file", Create, creator), error::SharingViolation);
  EXPECT_EQ(Get("file"), "text");
}

TEST_F(Files, ShareThatIsGivenBackLetsOthersInWhileTheFileStaysUsable) {
  Put("file", "text");
  file_ptr_t first;
  file_ptr_t second;
  ASSERT_EQ(Open("file", OpenExclusive, first), error::Success);
  first->ReleaseShare();
  first->ReleaseShare();
  ASSERT_EQ(Open("file", OpenExclusive, second), error::Success);
  char byte = 0;
  std::size_t done = 0;
  EXPECT_EQ(first->ReadAt(1, &byte, 1, done), error::Success);
  EXPECT_EQ(byte, 'e');
  first.reset();
  EXPECT_EQ(Open("file", OpenExclusive, first), error::SharingViolation);
}

TEST_F(Files, TableForgetsWhatIsClosed) {
  const std::size_t before = platform::open_files_t::Instance().Count();
  file_ptr_t file;
  ASSERT_EQ(Open("file", Create, file), error::Success);
  EXPECT_EQ(platform::open_files_t::Instance().Count(), before + 1);
  file.reset();
  EXPECT_EQ(platform::open_files_t::Instance().Count(), before);
}

TEST_F(Files, CreateNewIsRefusedForANameThatIsTakenInAnyCase) {
  constexpr file_request_t CreateNew{file_access_t::ReadWrite, file_share_t::Read, file_disposition_t::CreateNew};
  file_ptr_t file;
  ASSERT_EQ(Open("New", CreateNew, file), error::Success);
  file.reset();
  Put("New", "text");
  fs::create_directory(dir / "folder");
  fs::create_symlink("nowhere", dir / "link");
  for (const char* name : {"New", "nEW", "folder", "FOLDER", "link"}) {
    EXPECT_EQ(Open(name, CreateNew, file), error::AlreadyExists) << name;
  }
  EXPECT_EQ(Get("New"), "text");
  EXPECT_EQ(Open("none/new", CreateNew, file), error::FileNotFound);
}

TEST_F(Files, CreateAlwaysEmptiesOrCreates) {
  Put("file", "text");
  file_ptr_t file;
  EXPECT_EQ(Open("file", Create, file), error::Success);
  EXPECT_EQ(Get("file"), "");
  file.reset();
  EXPECT_EQ(Open("new", Create, file), error::Success);
  EXPECT_TRUE(fs::is_regular_file(dir / "new"));
  EXPECT_EQ(Open("absent", OpenExclusive, file), error::FileNotFound);
  fs::create_directory(dir / "folder");
  EXPECT_EQ(Open("folder", Create, file), error::AccessDenied);
  EXPECT_EQ(Open("no/file", Create, file), error::FileNotFound);
  EXPECT_EQ(Open("new/file", Create, file), error::PathNotFound);
}

TEST_F(Files, OpenAlwaysTakesWhatIsThereAsItIs) {
  constexpr file_request_t Always{file_access_t::ReadWrite, file_share_t::Read, file_disposition_t::OpenAlways};
  Put("file", "text");
  file_ptr_t file;
  EXPECT_EQ(Open("file", Always, file), error::Success);
  EXPECT_EQ(Open("FILE", Always, file), error::SharingViolation);
  EXPECT_EQ(Open("new", Always, file), error::Success);
  EXPECT_EQ(Get("file"), "text");
  EXPECT_TRUE(fs::exists(dir / "new"));
}

TEST_F(Files, WhatIsNoRegularFileIsNotEvenOpened) {
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
  // Whoever opens the other end for reading lets this open succeed.
  std::atomic<bool> stop{false};
  std::atomic<bool> wasOpened{false};
  std::thread watcher([&] {
    while (!stop) {
      const int writer = ::open((dir / "pipe").c_str(), O_WRONLY | O_NONBLOCK);
      if (writer >= 0) {
        wasOpened = true;
        ::close(writer);
      }
    }
  });
  file_ptr_t file;
  for (int round = 0; round < 2000; ++round) {
    EXPECT_EQ(Open("pipe", OpenToRead, file), error::AccessDenied);
    EXPECT_EQ(Open("pipe", OpenExclusive, file), error::AccessDenied);
  }
  stop = true;
  watcher.join();
  EXPECT_FALSE(wasOpened);
}

TEST_F(Files, LackOfDescriptorsIsNotAbsence) {
  Put("File", "text");
  EXPECT_EQ(files.GetInfo(At("File"), info), error::Success);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  // The number that a descriptor would get is the first that is not allowed.
  const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(next, 0);
  ::close(next);
  rlimit tight = limit;
  tight.rlim_cur = static_cast<rlim_t>(next);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  const platform::error_t exact = files.GetInfo(At("File"), info);
  const platform::error_t variant = files.GetInfo(At("FILE"), info);
  file_ptr_t file;
  const platform::error_t opened = Open("File", OpenExclusive, file);
  const platform::error_t created = Open("new", Create, file);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(exact, error::Success);  // Needs none.
  EXPECT_EQ(variant, error::TooManyOpenFiles);
  EXPECT_EQ(opened, error::TooManyOpenFiles);
  EXPECT_EQ(created, error::TooManyOpenFiles);
  EXPECT_FALSE(fs::exists(dir / "new"));
  EXPECT_EQ(files.GetInfo(At("FILE"), info), error::Success);
}

TEST_F(Files, OnlyRegularFilesOpen) {
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
  fs::create_directory(dir / "folder");
  file_ptr_t file;
  for (const std::string name : {"pipe", "folder"}) {
    EXPECT_EQ(Open(name, OpenExclusive, file), error::AccessDenied) << name;
    EXPECT_EQ(Open(name, OpenToRead, file), error::AccessDenied) << name;
  }
}

TEST_F(Files, FileWithoutWriteBitOpensForReadingOnly) {
  Put("file", "text");
  ASSERT_EQ(files.SetReadOnly(At("file"), true), error::Success);
  ASSERT_EQ(files.GetInfo(At("file"), info), error::Success);
  EXPECT_EQ(info.attributes.attributes, platform::FileAttributeReadOnly);
  file_ptr_t file;
  EXPECT_EQ(Open("file", OpenExclusive, file), error::AccessDenied);
  EXPECT_EQ(Open("file", Create, file), error::AccessDenied);
  ASSERT_EQ(Open("file", OpenToRead, file), error::Success);
  std::size_t done = 0;
  EXPECT_EQ(file->WriteAt(0, "x", 1, done), error::AccessDenied);
  EXPECT_EQ(file->SetSize(0), error::AccessDenied);
  EXPECT_EQ(Get("file"), "text");
  file.reset();
  ASSERT_EQ(files.SetReadOnly(At("file"), false), error::Success);
  EXPECT_EQ(Open("file", OpenExclusive, file), error::Success);
}

TEST_F(Files, ReadOnlyKeepsTheOtherBits) {
  Put("file", "text");
  ASSERT_EQ(::chmod((dir / "file").c_str(), 0664), 0);
  struct stat status {};
  ASSERT_EQ(files.SetReadOnly(At("file"), false), error::Success);
  ASSERT_EQ(::stat((dir / "file").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0664U);
  ASSERT_EQ(files.SetReadOnly(At("file"), true), error::Success);
  ASSERT_EQ(::stat((dir / "file").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0444U);
  ASSERT_EQ(files.SetReadOnly(At("file"), false), error::Success);
  ASSERT_EQ(::stat((dir / "file").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(Files, ReadsAndWritesHaveNoPosition) {
  file_ptr_t file;
  ASSERT_EQ(Open("file", Create, file), error::Success);
  std::size_t done = 0;
  EXPECT_EQ(file->WriteAt(4, "text", 4, done), error::Success);
  EXPECT_EQ(done, 4U);
  char buffer[16] = {};
  EXPECT_EQ(file->ReadAt(2, buffer, sizeof(buffer), done), error::Success);
  EXPECT_EQ(done, 6U);
  EXPECT_EQ(std::string(buffer, 6), std::string("\0\0text", 6));
  EXPECT_EQ(file->ReadAt(8, buffer, sizeof(buffer), done), error::Success);
  EXPECT_EQ(done, 0U);
  std::uint64_t size = 0;
  EXPECT_EQ(file->SetSize(5), error::Success);
  EXPECT_EQ(file->GetSize(size), error::Success);
  EXPECT_EQ(size, 5U);
}

TEST_F(Files, OffsetsPastTheLastAreInvalid) {
  file_ptr_t file;
  ASSERT_EQ(Open("file", Create, file), error::Success);
  std::size_t done = 1;
  char byte = 0;
  EXPECT_EQ(file->ReadAt(1ULL << 63, &byte, 1, done), error::InvalidParameter);
  EXPECT_EQ(file->WriteAt(1ULL << 63, &byte, 1, done), error::InvalidParameter);
  EXPECT_EQ(file->SetSize(1ULL << 63), error::InvalidParameter);
  EXPECT_EQ(file->ReadAt((1ULL << 63) - 1, &byte, 1, done), error::Success);
  EXPECT_EQ(done, 0U);
}

TEST_F(Files, AttributesTellKindSizeAndTimes) {
  Put("file", "text");
  fs::create_directory(dir / "folder");
  struct timespec times[2] = {{1000000000, 100}, {1100000000, 200}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (dir / "file").c_str(), times, 0), 0);
  ASSERT_EQ(files.GetInfo(At("file"), info), error::Success);
  EXPECT_EQ(info.attributes.attributes, platform::FileAttributeNormal);
  EXPECT_EQ(info.attributes.Size(), 4U);
  EXPECT_EQ(info.attributes.lastAccessTime, platform::FiletimeFromTimespec(times[0]));
  EXPECT_EQ(info.attributes.lastWriteTime, platform::FiletimeFromTimespec(times[1]));
  EXPECT_GT(info.attributes.creationTime, 0U);
  ASSERT_EQ(files.GetInfo(At("folder"), info), error::Success);
  EXPECT_EQ(info.attributes.attributes, platform::FileAttributeDirectory);
  EXPECT_EQ(info.attributes.Size(), 0U);
  EXPECT_EQ(files.GetInfo(At("absent"), info), error::FileNotFound);
  EXPECT_EQ(files.GetInfo(At("file/below"), info), error::PathNotFound);
}

TEST_F(Files, TimesAreSetOneByOneAlsoOnReadOnlyFiles) {
  Put("file", "text");
  ASSERT_EQ(files.SetReadOnly(At("file"), true), error::Success);
  file_ptr_t file;
  ASSERT_EQ(Open("file", {file_access_t::Attributes, file_share_t::Read, file_disposition_t::OpenExisting}, file),
            error::Success);
  const FILETIME written = platform::FiletimeFromTimespec({1200000000, 300});
  const FILETIME read = platform::FiletimeFromTimespec({1300000000, 400});
  EXPECT_EQ(file->SetTimes(nullptr, nullptr, &written), error::Success);
  EXPECT_EQ(file->SetTimes(nullptr, &read, nullptr), error::Success);
  EXPECT_EQ(file->SetTimes(&written, nullptr, nullptr), error::Success);
  ASSERT_EQ(files.GetInfo(At("file"), info), error::Success);
  EXPECT_EQ(info.attributes.lastWriteTime, written);
  EXPECT_EQ(info.attributes.lastAccessTime, read);
}

TEST_F(Files, RenameReplacesInWhateverCase) {
  Put("source", "source");
  Put("target", "target");
  EXPECT_EQ(files.Rename(At("source"), At("TARGET")), error::Success);
  EXPECT_FALSE(fs::exists(dir / "source"));
  EXPECT_FALSE(fs::exists(dir / "target"));
  EXPECT_EQ(Get("TARGET"), "source");
  EXPECT_EQ(files.Rename(At("TARGET"), At("target")), error::Success);
  EXPECT_FALSE(fs::exists(dir / "TARGET"));
  EXPECT_EQ(Get("target"), "source");
  EXPECT_EQ(files.Rename(At("absent"), At("target")), error::FileNotFound);
  EXPECT_EQ(Get("target"), "source");
}

TEST_F(Files, RenameOntoAnotherNameOfTheFileLeavesOne) {
  Put("a", "text");
  fs::create_hard_link(dir / "a", dir / "b");
  EXPECT_EQ(files.Rename(At("a"), At("B")), error::Success);
  EXPECT_FALSE(fs::exists(dir / "a"));
  EXPECT_FALSE(fs::exists(dir / "b"));
  EXPECT_EQ(Get("B"), "text");
  EXPECT_EQ(files.Rename(At("B"), At("B")), error::Success);
  EXPECT_EQ(Get("B"), "text");
}

TEST_F(Files, FoldersAreMadeAndRemoved) {
  EXPECT_EQ(files.CreateFolder(At("folder")), error::Success);
  EXPECT_EQ(files.CreateFolder(At("folder")), error::AlreadyExists);
  EXPECT_EQ(files.CreateFolder(At("FOLDER")), error::AlreadyExists);
  EXPECT_EQ(files.CreateFolder(At("no/folder")), error::FileNotFound);
  Put("folder/file", "text");
  EXPECT_EQ(files.RemoveFolder(At("folder")), error::DirNotEmpty);
  EXPECT_EQ(files.DeleteFile(At("folder/FILE")), error::FileNotFound);
  EXPECT_EQ(files.DeleteFile(At("folder/file")), error::Success);
  EXPECT_EQ(files.RemoveFolder(At("folder")), error::Success);
  EXPECT_EQ(files.RemoveFolder(At("folder")), error::FileNotFound);
}

TEST_F(Files, DiskSpaceIsThatOfTheFileSystem) {
  platform::disk_space_t space;
  ASSERT_EQ(files.GetDiskSpace(At(""), space), error::Success);
  struct statvfs status {};
  ASSERT_EQ(::statvfs(dir.Path().c_str(), &status), 0);
  EXPECT_EQ(space.totalBytes, static_cast<std::uint64_t>(status.f_blocks) * status.f_frsize);
  EXPECT_LE(space.freeBytes, space.totalBytes);
  EXPECT_GT(space.freeBytes, 0U);
}

TEST_F(Files, NameThatIsTooLongIsToldSo) {
  const std::string name(300, 'x');
  EXPECT_EQ(files.GetInfo(At(name), info), error::FilenameExceedsRange);
  EXPECT_EQ(files.CreateFolder(At(name)), error::FilenameExceedsRange);
}

}  // namespace
