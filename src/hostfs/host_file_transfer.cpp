#include "hostfs/host_file_transfer.h"

#include <algorithm>
#include <limits>

#include "config/common_options.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/clock.h"

namespace {

constexpr std::uint64_t MaxOffset = std::numeric_limits<std::int64_t>::max();
// Larger buffers are worth asking first what the file holds.
constexpr std::uint32_t UnaskedReadCount = 1024 * 1024;
constexpr std::uint32_t RetryStepMilliseconds = 100;

std::uint64_t SizeOf(platform::file_t& file, const std::string& path) {
  std::uint64_t size = 0;
  if (const platform::error_t failure = file.GetSize(size); failure != platform::error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("WINAPI: Cannot get file size. File: [%1].", path), failure);
  }
  return size;
}

/// How large the buffer of a read must be for what the file holds, and a byte more to find out whether it ends there.
std::uint32_t Room(platform::file_t& file, const std::string& path, std::uint64_t offset, std::uint32_t count,
                   std::uint32_t done) {
  const std::uint64_t size = SizeOf(file, path);
  const std::uint64_t there = size > offset ? size - offset : 0;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(count, std::max<std::uint64_t>(there, done) + 1));
}

/// Writes on behind a short write. Gives the failure that stopped it; `done` counts what was written before.
platform::error_t WriteRest(platform::file_t& file, const std::string& path, std::uint64_t offset, std::uint32_t count,
                            const char* data, std::uint32_t& done) {
  do {
    std::size_t written = 0;
    const platform::error_t failure = file.WriteAt(offset + done, data + done, count - done, written);
    if (failure != platform::error::Success) {
      return failure;
    }
    if (written == 0 && done < count) {
      throw exc::runtime_exc_t("Failed to write %1 bytes to the file '%2': %3 bytes were written instead", count, path,
                               done);
    }
    done += static_cast<std::uint32_t>(std::min<std::size_t>(written, count - done));
  } while (done < count);
  return platform::error::Success;
}

[[noreturn]] void ThrowReadFailure(const std::string& path, platform::error_t failure) {
  throw exc::win_sys_exc_t(exc::FormatText("Failed to read data from the file [%1].", path), failure);
}

/// Reads into the pipe that the reader lends. False when the bytes have to be read into memory, which has no more than
/// those that are there already.
bool ReadIntoPipe(platform::file_t& file, const std::string& path, std::uint64_t offset, std::uint32_t count,
                  SFsReadBuffer& buffer) {
  if (buffer.pipe == nullptr || count < platform::kernel_pipe_t::Least || count > platform::kernel_pipe_t::Largest) {
    return false;
  }
  while (buffer.length < count) {
    std::size_t done = 0;
    const platform::error_t failure =
        file.ReadIntoPipe(offset + buffer.length, count - buffer.length, *buffer.pipe, done);
    if (failure == platform::error::PipeBusy || failure == platform::error::CallNotImplemented) {
      buffer.data.resize(buffer.length);
      std::size_t moved = 0;
      if (buffer.pipe->Read(buffer.data, moved) != platform::error::Success) {
        throw exc::runtime_exc_t("Failed to read data from the file [%1].", path);
      }
      return false;
    }
    if (failure != platform::error::Success) {
      ThrowReadFailure(path, failure);
    }
    if (done == 0) {
      break;
    }
    buffer.length += static_cast<std::uint32_t>(done);
  }
  buffer.isInPipe = true;
  return true;
}

}  // namespace

void ReadHostFile(platform::file_t& file, const std::string& path, std::uint64_t offset, std::uint32_t count,
                  SFsReadBuffer& buffer) {
  buffer.length = 0;
  buffer.eof = false;
  buffer.isInPipe = false;
  if (count >= InvalidReadCount) {
    throw exc::runtime_exc_t("Specified  length of the file buffer is invalid: [%1].", count);
  }
  if (count == 0) {
    if (offset > MaxOffset) {
      throw exc::win_sys_exc_t(exc::FormatText("Unable to retrieve current position of the file pointer ([%1]).", path),
                               platform::error::InvalidParameter);
    }
    buffer.data.clear();
    buffer.eof = offset >= SizeOf(file, path);
    return;
  }
  if (ReadIntoPipe(file, path, offset, count, buffer)) {
    buffer.eof = buffer.length < count;
    return;
  }
  const bool isWorthAsking = count > UnaskedReadCount;
  while (buffer.length < count) {
    const std::uint32_t room = isWorthAsking ? Room(file, path, offset, count, buffer.length) : count;
    buffer.data.resize(room);
    std::size_t done = 0;
    const platform::error_t failure =
        file.ReadAt(offset + buffer.length, buffer.data.data() + buffer.length, room - buffer.length, done);
    if (failure != platform::error::Success) {
      ThrowReadFailure(path, failure);
    }
    if (done == 0) {
      break;
    }
    buffer.length += static_cast<std::uint32_t>(done);
  }
  buffer.eof = buffer.length < count;
}

void WriteHostFile(platform::file_t& file, const std::string& path, std::uint64_t offset, std::uint32_t count,
                   const void* data) {
  const CCommonOptions& options = CCommonOptions::Instance();
  const std::uint32_t rounds = std::max<std::uint32_t>(options.winFileWriteRetryCount, 1);
  const std::string text = "Failed to write data to the file [%1].";
  const std::uint64_t end = offset + count;
  if (end < offset || end > MaxOffset) {
    throw exc::win_sys_exc_t(exc::FormatText(text, path), platform::error::InvalidParameter);
  }
  std::uint32_t done = 0;
  std::uint32_t delay = 0;
  for (std::uint32_t round = 1;; ++round) {
    const platform::error_t failure = WriteRest(file, path, offset, count, static_cast<const char*>(data), done);
    if (failure == platform::error::Success) {
      return;
    }
    const exc::win_sys_exc_t exception(exc::FormatText(text, path), failure);
    const bool isTransient = failure == platform::error::LockViolation || failure == platform::error::InvalidUserBuffer;
    if (!isTransient || round >= rounds) {
      throw exception;
    }
    g_nfs_log.Exception(logging::level_t::Error, exc::FormatText(text, path), exception);
    g_nfs_log.Warning("Retry.");
    delay = std::min(delay, options.winFileWriteRetryMaxTimeoutMsec);
    platform::Clock().Sleep(delay);
    delay += RetryStepMilliseconds;
  }
}

void ResizeHostFile(platform::file_t& file, const std::string& path, std::uint64_t newSize) {
  if (newSize > MaxOffset) {
    throw exc::win_sys_exc_t(exc::FormatText("Unable to reset file size: move operation has failed. Specified file "
                                             "size: [%1]. File: [%2].",
                                             newSize, path),
                             platform::error::InvalidParameter);
  }
  if (const platform::error_t failure = file.SetSize(newSize); failure != platform::error::Success) {
    throw exc::win_sys_exc_t(
        exc::FormatText("Unable to reset file size: trunk operation has failed. File: [%1].", path), failure);
  }
}
