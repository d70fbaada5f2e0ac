// Reading, writing and describing host files.
#include "hostfs/host_fs_file.h"

#include <sys/stat.h>

#include "config/common_options.h"
#include "unit/hostfs/host_fs_fixture.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;

class HostFsFile : public test::HostFs {
 protected:
  static constexpr std::uint32_t TooMany = 0x2800000;
};

TEST_F(HostFsFile, ReadsWhatIsThereAndTellsTheEnd) {
  Put("file", "0123456789");
  const auto file = File("file");
  ASSERT_TRUE(file);
  SFsReadBuffer buffer;
  file->Read(2, 4, buffer);
  EXPECT_EQ(std::string(buffer.data.begin(), buffer.data.begin() + buffer.length), "2345");
  EXPECT_FALSE(buffer.eof);
  file->Read(6, 4, buffer);
  EXPECT_EQ(buffer.length, 4U);
  EXPECT_FALSE(buffer.eof);
  file->Read(6, 5, buffer);
  EXPECT_EQ(buffer.length, 4U);
  EXPECT_TRUE(buffer.eof);
  file->Read(1000, 5, buffer);
  EXPECT_EQ(buffer.length, 0U);
  EXPECT_TRUE(buffer.eof);
}

TEST_F(HostFsFile, CountOfZeroAsksForTheEnd) {
  Put("file", "0123456789");
  const auto file = File("file");
  SFsReadBuffer buffer;
  for (const auto& [offset, eof] :
       std::vector<std::pair<std::uint64_t, bool>>{{0, false}, {9, false}, {10, true}, {11, true}}) {
    file->Read(offset, 0, buffer);
    EXPECT_EQ(buffer.length, 0U);
    EXPECT_EQ(buffer.eof, eof) << offset;
  }
}

TEST_F(HostFsFile, CountLimitIsExact) {
  Put("file", "text");
  const auto file = File("file");
  SFsReadBuffer buffer;
  const std::string text = TextOf([&] { file->Read(0, TooMany, buffer); });
  EXPECT_EQ(text, "Specified  length of the file buffer is invalid: [41943040].");
  file->Read(0, TooMany - 1, buffer);
  EXPECT_EQ(buffer.length, 4U);
  EXPECT_TRUE(buffer.eof);
  EXPECT_LT(buffer.data.capacity(), 1024U * 1024U);
}

TEST_F(HostFsFile, LargestReadOfAFileThatHoldsIt) {
  Put("file", "");
  fs::resize_file(Path("file"), TooMany);
  SFsReadBuffer buffer;
  File("file")->Read(0, TooMany - 1, buffer);
  EXPECT_EQ(buffer.length, TooMany - 1);
  EXPECT_FALSE(buffer.eof);
}

TEST_F(HostFsFile, ShortReadsAreNotTheEnd) {
  Put("file", "0123456789");
  files.faults.readAtMost = 3;
  const auto file = File("file");
  SFsReadBuffer buffer;
  file->Read(0, 8, buffer);
  EXPECT_EQ(std::string(buffer.data.begin(), buffer.data.begin() + buffer.length), "01234567");
  EXPECT_FALSE(buffer.eof);
}

std::string ContentOf(platform::kernel_pipe_t& pipe) {
  std::string content(pipe.Held(), '\0');
  std::size_t read = 0;
  EXPECT_EQ(pipe.Read({reinterpret_cast<std::uint8_t*>(content.data()), content.size()}, read), 0U);
  EXPECT_EQ(read, content.size());
  return content;
}

TEST_F(HostFsFile, LargeReadsLeaveTheBytesInAPipeThatIsLent) {
  std::string content(100000, 'a');
  for (std::size_t i = 0; i < content.size(); i += 7)
    content[i] = static_cast<char>('b' + i % 20);
  Put("file", content);
  // A file as the system gives it: injected faults read into memory.
  const auto file = AsFile(CHostFsFolder::Create(dir / "share", invoker, allocator, {}, true)->OpenChild("file"));
  ASSERT_TRUE(file);
  SFsReadBuffer buffer;
  buffer.pipe = platform::kernel_pipe_t::Acquire();
  for (const auto& [offset, count] :
       {std::pair<std::uint64_t, std::uint32_t>{0, 65536}, {4095, 16384}, {50000, 50001}}) {
    file->Read(offset, count, buffer);
    EXPECT_TRUE(buffer.isInPipe);
    EXPECT_EQ(buffer.length, std::min<std::size_t>(count, content.size() - offset));
    EXPECT_EQ(buffer.eof, count == 50001);
    EXPECT_EQ(ContentOf(*buffer.pipe), content.substr(offset, count));
  }
  for (const auto& [offset, count] : {std::pair<std::uint64_t, std::uint32_t>{0, 16383}, {0, 196609}}) {
    file->Read(offset, count, buffer);
    EXPECT_FALSE(buffer.isInPipe) << count;
    EXPECT_EQ(std::string(buffer.data.begin(), buffer.data.begin() + buffer.length), content.substr(offset, count));
    EXPECT_EQ(buffer.pipe->Held(), 0U);
  }
  file->Read(100000, 65536, buffer);
  EXPECT_EQ(buffer.length, 0U);
  EXPECT_TRUE(buffer.eof);
}

TEST_F(HostFsFile, FilesWhoseBytesCannotBeLeftAreReadIntoMemory) {
  Put("file", std::string(70000, 'x'));
  const auto file = File("file");
  SFsReadBuffer buffer;
  buffer.pipe = platform::kernel_pipe_t::Acquire();
  file->Read(0, 65536, buffer);
  EXPECT_FALSE(buffer.isInPipe);
  EXPECT_EQ(std::string(buffer.data.begin(), buffer.data.begin() + buffer.length), std::string(65536, 'x'));
}

TEST_F(HostFsFile, LargeReadOfAFileThatGrowsMeanwhile) {
  Put("file", "0123456789");
  bool hasGrown = false;
  files.faults.onRead = [&](std::uint64_t, std::size_t) {
    if (!std::exchange(hasGrown, true)) {
      fs::resize_file(Path("file"), 5000000);
    }
    return 0U;
  };
  SFsReadBuffer buffer;
  File("file")->Read(0, 4000000, buffer);
  EXPECT_EQ(buffer.length, 4000000U);
  EXPECT_FALSE(buffer.eof);
}

TEST_F(HostFsFile, FullReadOfACachedFileIsOneCall) {
  Put("file", std::string(8192, 'x'));
  const auto file = File("file");
  SFsReadBuffer buffer;
  file->Read(0, 4096, buffer);
  int calls = 0;
  const auto count = [&](const auto&...) {
    ++calls;
    return 0U;
  };
  files.faults.onRead = count;
  files.faults.onGetInfo = count;
  files.faults.onFindEntry = count;
  files.faults.onOpen = count;
  files.faults.onGetSize = count;
  file->Read(4096, 4096, buffer);
  EXPECT_EQ(calls, 1);
}

TEST_F(HostFsFile, ReadFailures) {
  Put("file", "text");
  const auto file = File("file");
  SFsReadBuffer buffer;
  files.faults.onRead = [](std::uint64_t, std::size_t) { return error::IoDevice; };
  EXPECT_EQ(NumberOf([&] { file->Read(0, 4, buffer); }, "Failed to read data from the file [" + Path("file") + "]."),
            error::IoDevice);
  files.faults.onGetSize = [] { return error::IoDevice; };
  EXPECT_EQ(NumberOf([&] { file->Read(0, 0, buffer); }, "WINAPI: Cannot get file size. File: [" + Path("file") + "]."),
            error::IoDevice);
  EXPECT_EQ(NumberOf([&] { file->Read(1ULL << 63, 0, buffer); },
                     "Unable to retrieve current position of the file pointer ([" + Path("file") + "])."),
            error::InvalidParameter);
  files.faults.onRead = nullptr;
  EXPECT_EQ(NumberOf([&] { file->Read(1ULL << 63, 1, buffer); }), error::InvalidParameter);
}

TEST_F(HostFsFile, WritesAllAlsoWhenTheHostTakesLittle) {
  Put("file", "");
  files.faults.writeAtMost = 3;
  const auto file = File("file");
  Write(*file, "0123456789", 2);
  EXPECT_EQ(Get("file"), std::string("\0\0", 2) + "0123456789");
  Write(*file, "");
  file->Write(0, 0, nullptr);
}

TEST_F(HostFsFile, FailureAfterAShortWriteTellsItsNumber) {
  Put("file", "");
  files.faults.writeAtMost = 4;
  files.faults.onWrite = [](std::uint64_t offset, std::size_t) { return offset >= 8 ? error::DiskFull : 0U; };
  const auto file = File("file");
  EXPECT_EQ(NumberOf([&] { Write(*file, "0123456789"); }, "Failed to write data to the file [" + Path("file") + "]."),
            error::DiskFull);
  EXPECT_EQ(Get("file"), "01234567");
  EXPECT_TRUE(clock.Sleeps().empty());
}

TEST_F(HostFsFile, WriteThatTakesNothingIsTold) {
  Put("file", "");
  files.faults.writeAtMost = 0;
  const auto file = File("file");
  EXPECT_EQ(TextOf([&] { Write(*file, "0123456789"); }),
            "Failed to write 10 bytes to the file '" + Path("file") + "': 0 bytes were written instead");
}

TEST_F(HostFsFile, LockedFileIsTriedAgainWithGrowingDelays) {
  Put("file", "");
  int rounds = 0;
  files.faults.onWrite = [&](std::uint64_t, std::size_t) {
    ++rounds;
    return rounds == 14 ? 0U : (rounds % 2 == 0 ? error::LockViolation : error::InvalidUserBuffer);
  };
  const test::CapturedLog log;
  Write(*File("file"), "text");
  EXPECT_EQ(Get("file"), "text");
  EXPECT_EQ(clock.Sleeps(),
            (std::vector<std::uint32_t>{0, 100, 200, 300, 400, 500, 600, 700, 800, 900, 1000, 1000, 1000}));
  EXPECT_EQ(log.Count("Retry."), 13U);
  EXPECT_EQ(log.Texts("Warning"), std::vector<std::string>(13, "Retry."));
}

TEST_F(HostFsFile, LockedFileIsGivenUpAfterTheLastRound) {
  Put("file", "");
  int rounds = 0;
  files.faults.onWrite = [&](std::uint64_t, std::size_t) {
    ++rounds;
    return error::LockViolation;
  };
  CCommonOptions& options = CCommonOptions::Instance();
  const auto file = File("file");
  EXPECT_EQ(NumberOf([&] { Write(*file, "text"); }), error::LockViolation);
  EXPECT_EQ(rounds, 50);
  options.winFileWriteRetryCount = 3;
  options.winFileWriteRetryMaxTimeoutMsec = 40;
  rounds = 0;
  EXPECT_EQ(NumberOf([&] { Write(*file, "text"); }), error::LockViolation);
  EXPECT_EQ(rounds, 3);
  EXPECT_EQ(clock.Sleeps().back(), 40U);
  options.winFileWriteRetryCount = 0;
  rounds = 0;
  EXPECT_EQ(NumberOf([&] { Write(*file, "text"); }), error::LockViolation);
  EXPECT_EQ(rounds, 1);
  options = CCommonOptions();
}

TEST_F(HostFsFile, WritePastTheLastOffsetIsRefused) {
  Put("file", "");
  const auto file = File("file");
  EXPECT_EQ(NumberOf([&] { Write(*file, "text", (1ULL << 63) - 2); }), error::InvalidParameter);
  EXPECT_EQ(NumberOf([&] { Write(*file, "text", ~0ULL); }), error::InvalidParameter);
}

TEST_F(HostFsFile, ResizesBothWays) {
  Put("file", "0123456789");
  const auto file = File("file");
  file->Resize(4);
  EXPECT_EQ(Get("file"), "0123");
  file->Resize(6);
  EXPECT_EQ(Get("file"), std::string("0123\0\0", 6));
  EXPECT_EQ(NumberOf([&] { file->Resize(1ULL << 63); },
                     "Unable to reset file size: move operation has failed. Specified file size: "
                     "[9223372036854775808]. File: [" +
                         Path("file") + "]."),
            error::InvalidParameter);
  files.faults.onSetSize = [] { return error::DiskFull; };
  EXPECT_EQ(NumberOf([&] { file->Resize(1); },
                     "Unable to reset file size: trunk operation has failed. File: [" + Path("file") + "]."),
            error::DiskFull);
}

TEST_F(HostFsFile, RefusedFileIsOpenedForReadingOnly) {
  Put("file", "text");
  std::vector<platform::file_access_t> accesses;
  files.faults.onOpen = [&](const platform::location_t&, const platform::file_request_t& request) {
    accesses.push_back(request.access);
    return request.access == platform::file_access_t::ReadWrite ? error::AccessDenied : 0U;
  };
  const auto file = File("file");
  EXPECT_EQ(Read(*file), "text");
  EXPECT_EQ(accesses,
            (std::vector<platform::file_access_t>{platform::file_access_t::ReadWrite, platform::file_access_t::Read}));
  EXPECT_EQ(NumberOf([&] { Write(*file, "x"); }), error::AccessDenied);
  EXPECT_EQ(NumberOf([&] { file->Write(0, 0, nullptr); }), error::AccessDenied);
  EXPECT_EQ(NumberOf([&] { file->Resize(0); }), error::AccessDenied);
  EXPECT_EQ(Get("file"), "text");
}

TEST_F(HostFsFile, FileThatBecomesWritableIsWrittenThoughItWasReadBefore) {
  Put("file", "text");
  const auto file = File("file");
  file->SetPermissions(true, false);
  EXPECT_EQ(Read(*file), "text");
  EXPECT_EQ(NumberOf([&] { Write(*file, "x"); }), error::AccessDenied);
  EXPECT_EQ(Read(*file), "text");
  file->SetPermissions(true, true);
  Write(*file, "T");
  EXPECT_EQ(Get("file"), "Text");
  file->SetPermissions(true, false);
  EXPECT_EQ(Read(*file), "Text");
  file->Resize(2);  // The handle is open for writing.
  EXPECT_EQ(Get("file"), "Te");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
}

TEST_F(HostFsFile, HandleForReadingServesOnWhenItsFileHasGone) {
  Put("file", "text");
  const auto file = File("file");
  file->SetPermissions(true, false);
  EXPECT_EQ(Read(*file), "text");
  fs::remove(Path("file"));
  Put("file", "another");
  EXPECT_EQ(NumberOf([&] { Write(*file, "x"); }), error::AccessDenied);
  EXPECT_EQ(Read(*file), "text");
  EXPECT_EQ(Get("file"), "another");
}

TEST_F(HostFsFile, FileThatCannotBeReadEitherTellsTheSecondFailure) {
  Put("file", "text");
  files.faults.onOpen = [&](const platform::location_t&, const platform::file_request_t& request) {
    return request.access == platform::file_access_t::ReadWrite ? error::AccessDenied : error::TooManyOpenFiles;
  };
  const auto file = File("file");
  EXPECT_EQ(
      NumberOf([&] { Read(*file); }, "Failed to open existing file [" + Path("file") + "] for read/write access."),
      error::TooManyOpenFiles);
}

TEST_F(HostFsFile, AttributesAndTheirFailure) {
  Put("file", "text");
  const auto file = File("file");
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  file->GetAttributes(attributes);
  EXPECT_FALSE(attributes.IsDirectory());
  EXPECT_EQ(attributes.Size(), 4U);
  EXPECT_TRUE(file->Exists());
  fs::remove(Path("file"));
  EXPECT_FALSE(file->Exists());
  EXPECT_EQ(NumberOf([&] { file->GetAttributes(attributes); },
                     "Failed to retrieve attributes of the file [" + Path("file") + "]"),
            error::FileNotFound);
}

TEST_F(HostFsFile, ExhaustionDoesNotPassForAbsence) {
  Put("file", "text");
  const auto file = File("file");
  constexpr platform::error_t Unnamed = 31;  // As of a damaged file system.
  for (const platform::error_t failure : {error::TooManyOpenFiles, error::NotEnoughMemory, error::IoDevice, Unnamed,
                                          error::SemaphoreTimeout, error::InvalidFunctionHandle}) {
    files.faults.onGetInfo = [failure](const platform::location_t&) { return failure; };
    EXPECT_EQ(NumberOf([&] { file->Exists(); }), failure);
    EXPECT_EQ(NumberOf([&] { root->OpenChild("file"); }), failure);
  }
  files.faults.onGetInfo = [](const platform::location_t&) { return error::AccessDenied; };
  EXPECT_FALSE(file->Exists());
}

TEST_F(HostFsFile, PermissionsAreTheReadOnlyAttribute) {
  Put("file", "text");
  const auto file = File("file");
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  for (const bool read : {false, true}) {
    file->SetPermissions(read, false);
    file->GetAttributes(attributes);
    EXPECT_NE(attributes.attributes & platform::FileAttributeReadOnly, 0U);
    EXPECT_EQ(Get("file"), "text");
    file->SetPermissions(read, true);
    file->GetAttributes(attributes);
    EXPECT_EQ(attributes.attributes & platform::FileAttributeReadOnly, 0U);
  }
  files.faults.onSetReadOnly = [](const platform::location_t&) { return error::IoDevice; };
  EXPECT_EQ(StatusOf([&] { file->SetPermissions(true, true); }), 2U);
  EXPECT_EQ(TextOf([&] { file->SetPermissions(true, true); }),
            "Failed to change file permissions (" + Path("file") + ")");
}

TEST_F(HostFsFile, TimesAreSetPastTheCache) {
  Put("file", "text");
  const auto file = File("file");
  EXPECT_EQ(Read(*file), "text");
  const FILETIME written = platform::FiletimeFromTimespec({1200000000, 0});
  const FILETIME read = platform::FiletimeFromTimespec({1300000000, 0});
  file->SetTimes(nullptr, nullptr, &written);
  file->SetTimes(nullptr, &read, nullptr);
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  file->GetAttributes(attributes);
  EXPECT_EQ(attributes.lastWriteTime, written);
  EXPECT_EQ(attributes.lastAccessTime, read);
  files.faults.onSetTimes = [] { return error::IoDevice; };
  EXPECT_EQ(NumberOf([&] { file->SetTimes(nullptr, nullptr, &written); },
                     "Failed to update timestamps of the file [" + Path("file") + "]."),
            error::IoDevice);
}

TEST_F(HostFsFile, NoTimesOpenNothing) {
  Put("file", "text");
  const auto file = File("file");
  int opens = 0;
  files.faults.onOpen = [&](const platform::location_t&, const platform::file_request_t&) {
    ++opens;
    return error::AccessDenied;
  };
  file->SetTimes(nullptr, nullptr, nullptr);
  EXPECT_EQ(opens, 0);
  const FILETIME time = 1;
  EXPECT_EQ(NumberOf([&] { file->SetTimes(&time, nullptr, nullptr); },
                     "Failed to open file [" + Path("file") + "] for timestamps update."),
            error::AccessDenied);
  EXPECT_EQ(opens, 1);
}

TEST_F(HostFsFile, SpecAndAddressesOfAFile) {
  Put("file", "text");
  const auto open = root->ResumeChild("file", SFsItemSpec{.path = {},
                                                          .isFolder = false,
                                                          .isRfsItem = false,
                                                          .mountUid = {},
                                                          .rfsSize = 0,
                                                          .allowedHostAddr = "10.0.0.5"});
  ASSERT_TRUE(boost::dynamic_pointer_cast<CAsyncFsFileWrapper>(open));
  SFsItemSpec spec;
  open->GetItemSpec(spec);
  EXPECT_EQ(spec.path, Path("file"));
  EXPECT_FALSE(spec.isFolder);
  EXPECT_FALSE(spec.isRfsItem);
  EXPECT_TRUE(spec.mountUid.IsNil());
  EXPECT_EQ(spec.allowedHostAddr, "10.0.0.5");
  EXPECT_TRUE(open->IsAddressAllowed(test::Address("10.0.0.5")));
  EXPECT_FALSE(open->IsAddressAllowed(test::Address("10.0.0.6")));
  GUID uid = platform::NewGuid();
  const GUID before = uid;
  EXPECT_FALSE(open->GetMountUid(uid));
  EXPECT_EQ(uid, before);
  const auto free = root->OpenChild("file");
  EXPECT_TRUE(free->IsAddressAllowed(test::Address("10.0.0.6")));
  EXPECT_EQ(free->GetAllowedHostAddr(), "");
}

}  // namespace
