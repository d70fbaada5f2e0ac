#include "foundation/log_rotation.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "foundation/exc.h"
#include "foundation/zip_writer.h"

namespace logging {

namespace {

constexpr char ArchiveExtension[] = ".log.gz";
constexpr std::uint32_t LargestCount = 1000;

bool Exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

[[noreturn]] void ThrowAgeFailure(const char* action, const std::string& archive, const std::string& logPath,
                                  std::uint32_t limit, int error) {
  exc::win_sys_exc_t failure(exc::FormatText(action, archive), platform::ErrorFromErrno(error));
  failure.AddMessage(exc::FormatText("Cannot age file. File path: [%1]. Extension: [%2]. Ages limit: [%3].", logPath,
                                     ArchiveExtension, limit));
  throw failure;
}

}  // namespace

std::string ArchivePath(const std::string& logPath, std::uint32_t number) {
  std::filesystem::path path(logPath);
  path.replace_extension(number == 0 ? std::string(ArchiveExtension) : "." + std::to_string(number) + ArchiveExtension);
  return path.string();
}

void AgeArchives(const std::string& logPath, std::uint32_t limit) {
  const auto remove = [&](std::uint32_t number) {
    const std::string path = ArchivePath(logPath, number);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
      ThrowAgeFailure("Failed to remove file [%1].", path, logPath, limit, errno);
  };
  // What an earlier, larger limit left behind.
  for (std::uint32_t number = limit; number <= LargestCount; ++number)
    remove(number);

  // Up to the first free number alone: a rotation that failed after it made room would otherwise push good archives
  // out with each further try.
  std::uint32_t free = 0;
  while (Exists(ArchivePath(logPath, free)))
    ++free;
  if (free > 0 && free == limit)
    remove(--free);
  for (; free > 0; --free) {
    const std::string path = ArchivePath(logPath, free - 1);
    if (::rename(path.c_str(), ArchivePath(logPath, free).c_str()) != 0)
      ThrowAgeFailure("Failed to rename file [%1].", path, logPath, limit, errno);
  }
}

namespace {

void CompressLog(receiver::log_file_t& receiver, const std::string& logPath, std::uint32_t limit) {
  AgeArchives(logPath, limit);
  const std::string archive = ArchivePath(logPath, 0);
  util::zip_writer_t writer(archive);
  bool complete = false;
  try {
    receiver.Compress(writer, [&] {
      writer.Close();
      complete = true;
    });
  } catch (...) {
    // Half an archive would take the place of a good one; once it is complete, it stays even if the log could not
    // be emptied.
    if (!complete)
      ::unlink(archive.c_str());
    throw;
  }
}

}  // namespace

void CheckLogSize(receiver::log_file_t& receiver, const rotation_settings_t& settings) {
  const std::string path = receiver.GetPath();
  try {
    if (settings.maxSize == 0 || receiver.GetSize() < settings.maxSize)
      return;
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Unable to validate log size limit. Log path: [%1].", failure, path);
  }
  try {
    CompressLog(receiver, path, settings.maxCount);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Cannot compress log file. Log: [%1].", failure, path);
  }
}

}  // namespace logging
