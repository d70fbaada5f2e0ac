#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/log_rotation.h"
#include "foundation/win_log_file.h"
#include "foundation/zip_writer.h"
#include "support/temp_dir.h"

namespace {

using logging::AgeArchives;
using logging::ArchivePath;
using test::TempDir;
using win::win_log_file_t;

std::string Content(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void Put(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

bool Exists(const std::string& path) {
  return std::filesystem::exists(path);
}

std::string Unzipped(const std::string& path) {
  std::string content;
  gzFile file = ::gzopen(path.c_str(), "rb");
  if (file == nullptr)
    return "no archive";
  char block[65536];
  for (int count = 0; (count = ::gzread(file, block, sizeof(block))) > 0;) {
    content.append(block, static_cast<std::size_t>(count));
  }
  ::gzclose(file);
  return content;
}

::mode_t Mode(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

std::string TextOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& failure) {
    return failure.what();
  }
  return "nothing was thrown";
}

TEST(WinLogFile, AppendsToWhatIsThereAndEachLineIsThereAtOnce) {
  const TempDir folder;
  Put(folder / "a.log", "before\n");
  win_log_file_t file(folder / "a.log");
  file.Write("line\n");
  EXPECT_EQ(Content(folder / "a.log"), "before\nline\n");
  EXPECT_EQ(file.GetSize(), 12U);
  EXPECT_EQ(file.GetPath(), folder / "a.log");
  EXPECT_EQ(file.GetName(), "a.log");
}

TEST(WinLogFile, NewFileIsPrivate) {
  const TempDir folder;
  const win_log_file_t file(folder / "a.log", true);
  EXPECT_EQ(Mode(folder / "a.log"), 0600U);
}

TEST(WinLogFile, SecondHolderIsToldThatItIsLocked) {
  const TempDir folder;
  {
    const win_log_file_t file(folder / "a.log");
    try {
      const win_log_file_t second(folder / "a.log");
      FAIL() << "opened twice";
    } catch (const exc::file_locked_exc_t& locked) {
      EXPECT_EQ(locked.Path(), folder / "a.log");
    }
  }
  EXPECT_NO_THROW(win_log_file_t(folder / "a.log"));
}

TEST(WinLogFile, OtherFailuresTellThePath) {
  const TempDir folder;
  const std::string path = folder / "missing/a.log";
  try {
    const win_log_file_t file(path);
    FAIL() << "opened";
  } catch (const exc::win_sys_exc_t& failure) {
    EXPECT_EQ(failure.Messages().size(), 3U);
    EXPECT_THAT(failure.what(), testing::HasSubstr("\nFailed to create or open file [" + path + "].\n"));
  }
}

TEST(WinLogFile, FullDiskIsAnErrorOfTheLineAlone) {
  const boost::shared_ptr<win_log_file_t> file(new win_log_file_t("/dev/full"));
  EXPECT_THROW(file->Write("line\n"), exc::win_sys_exc_t);
  logging::log_t log;
  log.SetReceiver(file);
  logging::log_handle_t("", log).Error("goes on");
}

TEST(WinLogFile, RemovedOrRenamedFileIsFollowedByANewOneUnderTheName) {
  const TempDir folder;
  const std::string path = folder / "a.log";
  win_log_file_t file(path, false, 0);
  file.Write("first\n");
  ASSERT_EQ(::unlink(path.c_str()), 0);
  file.Write("second\n");
  EXPECT_EQ(Content(path), "second\n");
  EXPECT_EQ(file.GetSize(), 7U);
  EXPECT_THROW(win_log_file_t other(path), exc::file_locked_exc_t);
  std::filesystem::rename(path, folder / "moved.log");
  file.Write("third\n");
  EXPECT_EQ(Content(folder / "moved.log"), "second\n");
  EXPECT_EQ(Content(path), "third\n");
  // What was given up is free for others.
  const win_log_file_t moved(folder / "moved.log");
}

TEST(WinLogFile, FolderThatComesBackHasALogAgain) {
  const TempDir folder;
  std::filesystem::create_directory(folder / "sub");
  const std::string path = folder / "sub/a.log";
  win_log_file_t file(path, false, 0);
  std::filesystem::remove_all(folder / "sub");
  file.Write("lost\n");
  std::filesystem::create_directory(folder / "sub");
  {
    const win_log_file_t faster(path);
    file.Write("lost too\n");
    EXPECT_EQ(Content(path), "");
  }
  file.Write("written\n");
  EXPECT_EQ(Content(path), "written\n");
}

TEST(ZipWriter, FollowsNoLink) {
  const TempDir folder;
  std::ofstream(folder / "other") << "stays";
  std::filesystem::create_symlink("other", folder / "a.gz");
  EXPECT_EQ(TextOf([&] { util::zip_writer_t(folder / "a.gz"); }),
            "Failed to open GZ archive [" + folder / "a.gz" + "].");
  EXPECT_EQ(Content(folder / "other"), "stays");
}

TEST(ZipWriter, TellsWhatFailed) {
  const TempDir folder;
  EXPECT_EQ(TextOf([&] { util::zip_writer_t(folder / "no/a.gz"); }),
            "Failed to open GZ archive [" + folder / "no/a.gz" + "].");
  const std::string block(4000000, 'x');
  std::string noise(4000000, '\0');
  std::uint32_t state = 1;
  for (char& byte : noise)
    byte = static_cast<char>((state = state * 1664525U + 1013904223U) >> 24);
  util::zip_writer_t adding("/dev/full");
  EXPECT_EQ(TextOf([&] { adding.Add(noise.data(), noise.size()); }), "Cannot add data to the GZ archive [/dev/full].");
  util::zip_writer_t closing("/dev/full");
  closing.Add(block.data(), 10);
  EXPECT_THAT(TextOf([&] { closing.Close(); }),
              testing::MatchesRegex("Error code: -?[0-9]+\nCannot close GZ archive \\[/dev/full\\]\\."));
  EXPECT_NO_THROW(closing.Close());
  EXPECT_EQ(TextOf([&] { closing.Add("x", 1); }), "Cannot add data to the GZ archive [/dev/full].");
}

TEST(ZipWriter, ArchiveIsPrivateAndReadable) {
  const TempDir folder;
  util::zip_writer_t writer(folder / "a.gz");
  writer.Add("text", 4);
  writer.Close();
  EXPECT_EQ(Mode(folder / "a.gz"), 0600U);
  EXPECT_EQ(Unzipped(folder / "a.gz"), "text");
}

TEST(ArchivePath, ReplacesTheExtension) {
  EXPECT_EQ(ArchivePath("/l/Svc.KelvoNFS.log", 0), "/l/Svc.KelvoNFS.log.gz");
  EXPECT_EQ(ArchivePath("/l/Svc.KelvoNFS.log", 3), "/l/Svc.KelvoNFS.3.log.gz");
  EXPECT_EQ(ArchivePath("/l.d/log", 0), "/l.d/log.log.gz");
  EXPECT_EQ(ArchivePath("/l/a.txt", 12), "/l/a.12.log.gz");
}

TEST(AgeArchives, EachMovesUpAndTheOldestGoes) {
  const TempDir folder;
  const std::string log = folder / "a.log";
  for (std::uint32_t number = 0; number < 3; ++number)
    Put(ArchivePath(log, number), std::to_string(number));
  AgeArchives(log, 3);
  EXPECT_FALSE(Exists(ArchivePath(log, 0)));
  EXPECT_EQ(Content(ArchivePath(log, 1)), "0");
  EXPECT_EQ(Content(ArchivePath(log, 2)), "1");
  EXPECT_FALSE(Exists(ArchivePath(log, 3)));
}

TEST(AgeArchives, ASmallerLimitRemovesWhatIsBeyond) {
  const TempDir folder;
  const std::string log = folder / "a.log";
  for (std::uint32_t number = 0; number < 6; ++number)
    Put(ArchivePath(log, number), std::to_string(number));
  AgeArchives(log, 2);
  EXPECT_EQ(Content(ArchivePath(log, 1)), "0");
  for (const std::uint32_t number : {0U, 2U, 3U, 4U, 5U})
    EXPECT_FALSE(Exists(ArchivePath(log, number))) << number;
  AgeArchives(log, 0);
  EXPECT_FALSE(Exists(ArchivePath(log, 1)));
}

TEST(AgeArchives, FreeNumberStopsTheMove) {
  const TempDir folder;
  const std::string log = folder / "a.log";
  Put(ArchivePath(log, 1), "1");
  AgeArchives(log, 2);
  EXPECT_EQ(Content(ArchivePath(log, 1)), "1");
}

TEST(AgeArchives, FailureTellsPathExtensionAndLimit) {
  const TempDir folder;
  const std::string log = folder / "a.log";
  std::filesystem::create_directories(ArchivePath(log, 2) + "/x");
  EXPECT_THAT(TextOf([&] { AgeArchives(log, 2); }),
              testing::EndsWith("\nFailed to remove file [" + ArchivePath(log, 2) +
                                "].\nError code: 5\nCannot age file. File path: [" + log +
                                "]. Extension: [.log.gz]. Ages limit: [2]."));
}

TEST(Rotation, ArchiveHoldsAllAndTheLogIsEmpty) {
  const TempDir folder;
  win_log_file_t file(folder / "a.log");
  const std::string big = std::string(3000000, 'x') + "\n";
  file.Write(big);
  logging::CheckLogSize(file, {big.size(), 10});
  EXPECT_EQ(Unzipped(folder / "a.log.gz"), big);
  EXPECT_EQ(file.GetSize(), 0U);
  file.Write("next\n");
  EXPECT_EQ(Content(folder / "a.log"), "next\n");
  logging::CheckLogSize(file, {1, 10});
  EXPECT_EQ(Unzipped(folder / "a.log.gz"), "next\n");
  EXPECT_EQ(Unzipped(folder / "a.1.log.gz"), big);
}

TEST(Rotation, SmallFileAndLimitZeroAreLeftAlone) {
  const TempDir folder;
  win_log_file_t file(folder / "a.log");
  file.Write("12345");
  logging::CheckLogSize(file, {6, 10});
  logging::CheckLogSize(file, {0, 10});
  EXPECT_FALSE(Exists(folder / "a.log.gz"));
  EXPECT_EQ(file.GetSize(), 5U);
}

/// Stands for a disk that fills up in the middle of an archive.
class FailingReceiver : public win_log_file_t {
 public:
  using win_log_file_t::win_log_file_t;
  void Compress(util::zip_writer_t& writer, const std::function<void()>&) override {
    writer.Add("half", 4);
    throw exc::runtime_exc_t("The disk is full.");
  }
};

TEST(Rotation, FailureLosesNeitherTheLogNorAnArchiveHoweverOften) {
  const TempDir folder;
  FailingReceiver file(folder / "a.log");
  file.Write("content\n");
  Put(folder / "a.log.gz", "newest");
  Put(folder / "a.1.log.gz", "older");
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(TextOf([&] {
                logging::CheckLogSize(file, {1, 3});
              }),
              "The disk is full.\nCannot compress log file. Log: [" + folder / "a.log" + "].");
    EXPECT_EQ(Content(folder / "a.log"), "content\n");
    EXPECT_FALSE(Exists(folder / "a.log.gz"));
    EXPECT_EQ(Content(folder / "a.1.log.gz"), "newest");
    EXPECT_EQ(Content(folder / "a.2.log.gz"), "older");
  }
}

class UnsizedReceiver : public logging::receiver::log_file_t {
 public:
  void Write(std::string_view line) override { lines.emplace_back(line); }
  std::string GetPath() const override { return "/l/a.log"; }
  std::string GetName() const override { return ""; }
  std::uint64_t GetSize() const override {
    ++asked;
    throw exc::runtime_exc_t("Gone.");
  }
  void Compress(util::zip_writer_t&, const std::function<void()>&) override {}
  std::vector<std::string> lines;
  mutable int asked = 0;
};

TEST(Rotation, IsTestedAtOpeningAndAfterEveryThousandLines) {
  const auto receiver = boost::shared_ptr<UnsizedReceiver>(new UnsizedReceiver);
  logging::log_t log;
  log.SetMode(logging::format_mode_t::Bare);
  log.SetReceiver(receiver, {});
  EXPECT_EQ(receiver->asked, 1);
  EXPECT_THAT(
      receiver->lines,
      testing::ElementsAre("Error    Gone.\n", "Error    Unable to validate log size limit. Log path: [/l/a.log].\n"));
  const logging::log_handle_t handle("", log);
  for (int count = 0; count < 997; ++count)
    handle.Info("x");
  EXPECT_EQ(receiver->asked, 1);
  handle.Info("x");
  EXPECT_EQ(receiver->asked, 2);
  handle.Info("still writes");
  EXPECT_EQ(receiver->lines.back(), "Info     still writes\n");
}

TEST(Rotation, HappensWhileTheLogIsWritten) {
  const TempDir folder;
  logging::log_t log;
  log.SetMode(logging::format_mode_t::Bare);
  log.SetReceiver(boost::shared_ptr<logging::receiver::log_file_t>(new win_log_file_t(folder / "a.log")), {100, 2});
  const logging::log_handle_t handle("", log);
  for (int count = 0; count < 2500; ++count)
    handle.Info("%1", count);
  const std::string newest = Unzipped(folder / "a.log.gz");
  const std::string older = Unzipped(folder / "a.1.log.gz");
  std::string expected;
  for (int count = 0; count < 2500; ++count)
    expected += "Info     " + std::to_string(count) + "\n";
  EXPECT_EQ(older + newest + Content(folder / "a.log"), expected);
  EXPECT_FALSE(Exists(folder / "a.2.log.gz"));
}

TEST(Rotation, VanishedFolderDoesNotStopTheLog) {
  logging::log_t log;
  const TempDir folder;
  std::filesystem::create_directory(folder / "sub");
  log.SetReceiver(boost::shared_ptr<logging::receiver::log_file_t>(new win_log_file_t(folder / "sub/a.log")), {1, 2});
  std::filesystem::remove_all(folder / "sub");
  const logging::log_handle_t handle("", log);
  for (int count = 0; count < 2000; ++count)
    handle.Info("line");
  EXPECT_TRUE(handle.IsOpen());
}

}  // namespace
