#include "platform/folder_names.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

#include "platform/text.h"

namespace platform {
namespace {

// Most folders are done with the first; to allocate the other costs more than to read a small folder.
constexpr std::size_t FirstReadBytes = 8 * 1024;
constexpr std::size_t ReadAheadBytes = 256 * 1024;
constexpr std::size_t MaxFolders = 256;
constexpr std::size_t MaxNames = 4'000'000;
// Reading again then costs at most a twentieth of the time, and less for a small folder.
constexpr int BelievedReads = 20;
constexpr std::chrono::milliseconds ShortestBelief{2};
// Longer than the tick that stamps files on any kernel configuration, and than the whole seconds (two on FAT) of file
// systems without fractions.
constexpr std::int64_t FineTickNanoseconds = 20'000'000;
constexpr std::int64_t CoarseTickNanoseconds = 2'100'000'000;

// FNV-1a. Names that collide on purpose cost a reading of the folder each, and nothing else.
std::uint64_t FoldedHash(std::string_view name) noexcept {
  std::uint64_t hash = 14695981039346656037ULL;
  for (const char character : name) {
    hash = (hash ^ static_cast<unsigned char>(FoldAscii(character))) * 1099511628211ULL;
  }
  return hash;
}

std::chrono::steady_clock::duration Belief(std::chrono::steady_clock::duration cost) noexcept {
  return std::max<std::chrono::steady_clock::duration>(BelievedReads * cost, ShortestBelief);
}

bool IsSame(const timespec& left, const timespec& right) noexcept {
  return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool ReadIdentity(int folder, file_id_t& id, timespec& modified) {
  struct stat status {};
  if (::fstat(folder, &status) != 0) {
    return false;
  }
  id = file_id_t{status.st_dev, status.st_ino};
  modified = status.st_mtim;
  return true;
}

std::int64_t NanosecondsBetween(const timespec& from, const timespec& to) noexcept {
  // Far apart is as good as settled; the sum must not overflow for a time that someone set.
  const std::int64_t seconds = std::clamp<std::int64_t>(static_cast<std::int64_t>(to.tv_sec) - from.tv_sec, -10, 10);
  return seconds * 1'000'000'000 + (to.tv_nsec - from.tv_nsec);
}

}  // namespace

bool IsSettled(const timespec& changed, const timespec& now) noexcept {
  return NanosecondsBetween(changed, now) > (changed.tv_nsec == 0 ? CoarseTickNanoseconds : FineTickNanoseconds);
}

error_t ReadFolder(int folder, std::vector<std::string>& names) {
  // A descriptor of its own: the position is the open file's, and a path descriptor cannot be read.
  const descriptor_t opened(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened.IsOpen()) {
    return LastError();
  }
  alignas(dirent64) std::array<char, FirstReadBytes> first;
  std::unique_ptr<char[]> further;
  std::span<char> buffer = first;
  for (;;) {
    const long length = ::syscall(SYS_getdents64, opened.Get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length < 0) {
      return LastError();
    }
    if (length == 0) {
      return error::Success;
    }
    for (long at = 0; at < length;) {
      // inode 8, offset 8, record length 2, type 1, name: the kernel's layout.
      const char* const record = buffer.data() + at;
      std::uint16_t recordLength = 0;
      std::memcpy(&recordLength, record + offsetof(dirent64, d_reclen), sizeof(recordLength));
      const char* const name = record + offsetof(dirent64, d_name);
      if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) {
        names.emplace_back(name);
      }
      at += recordLength;
    }
    if (further == nullptr && static_cast<std::size_t>(length) > FirstReadBytes / 2) {
      further = std::make_unique_for_overwrite<char[]>(ReadAheadBytes);
      buffer = {further.get(), ReadAheadBytes};
    }
  }
}

void HideCaseVariants(std::vector<std::string>& names, std::vector<std::string>& hidden) {
  std::vector<std::pair<std::uint64_t, std::size_t>> order;
  order.reserve(names.size());
  for (std::size_t index = 0; index < names.size(); ++index) {
    order.emplace_back(FoldedHash(names[index]), index);
  }
  // By hash first, so that names are compared only where they may be equal.
  std::sort(order.begin(), order.end(), [&names](const auto& left, const auto& right) {
    if (left.first != right.first) {
      return left.first < right.first;
    }
    const std::string& leftName = names[left.second];
    const std::string& rightName = names[right.second];
    const int folded = CompareIgnoringCase(leftName, rightName);
    return folded != 0 ? folded < 0 : leftName < rightName;
  });
  std::vector<std::size_t> losers;
  for (std::size_t at = 1; at < order.size(); ++at) {
    if (order[at - 1].first == order[at].first &&
        EqualIgnoringCase(names[order[at - 1].second], names[order[at].second])) {
      losers.push_back(order[at].second);
    }
  }
  if (losers.empty()) {
    return;
  }
  std::sort(losers.begin(), losers.end());
  std::vector<std::string> seen;
  seen.reserve(names.size() - losers.size());
  auto loser = losers.begin();
  for (std::size_t index = 0; index < names.size(); ++index) {
    const bool isHidden = loser != losers.end() && *loser == index;
    (isHidden ? hidden : seen).push_back(std::move(names[index]));
    loser += isHidden ? 1 : 0;
  }
  names = std::move(seen);
}

folder_names_t::folder_names_t() : folder_names_t(clocks_t{}) {}

folder_names_t::folder_names_t(clocks_t clocks)
    : clocks_{clocks.wall ? std::move(clocks.wall) : std::function<timespec()>([] {
                timespec now{};
                ::clock_gettime(CLOCK_REALTIME, &now);
                return now;
              }),
              clocks.elapsed ? std::move(clocks.elapsed)
                             : std::function<std::chrono::steady_clock::time_point()>(std::chrono::steady_clock::now)} {
}

bool folder_names_t::KnowsAbsent(const file_id_t& id, const timespec& modified, std::uint64_t name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = memories_.find(id);
  if (found == memories_.end() || !IsSame(found->second.modified, modified)) {
    return false;
  }
  memory_t& memory = found->second;
  if (!memory.isSettled && clocks_.elapsed() >= memory.believedUntil) {
    return false;
  }
  memory.lastUse = ++uses_;
  return !memory.names.contains(name);
}

void folder_names_t::Remember(const file_id_t& id, memory_t memory) {
  const std::lock_guard<std::mutex> lock(mutex_);
  memory.reading = ++reads_;
  memory.lastUse = ++uses_;
  if (const auto old = memories_.find(id); old != memories_.end()) {
    rememberedNames_ -= old->second.names.size();
    memories_.erase(old);
  }
  if (memory.names.size() > MaxNames) {
    return;
  }
  const auto added = memories_.emplace(id, std::move(memory)).first;
  rememberedNames_ += added->second.names.size();
  while (memories_.size() > MaxFolders || rememberedNames_ > MaxNames) {
    const auto oldest = std::min_element(memories_.begin(), memories_.end(), [](const auto& left, const auto& right) {
      return left.second.lastUse < right.second.lastUse;
    });
    rememberedNames_ -= oldest->second.names.size();
    memories_.erase(oldest);
  }
}

error_t folder_names_t::Find(int folder, std::string_view name, std::string& spelling) {
  spelling.clear();
  file_id_t id;
  memory_t memory;
  if (!ReadIdentity(folder, id, memory.modified)) {
    return LastError();
  }
  const std::uint64_t wanted = FoldedHash(name);
  if (KnowsAbsent(id, memory.modified, wanted)) {
    return error::Success;
  }
  const timespec start = clocks_.wall();
  const auto started = clocks_.elapsed();
  std::vector<std::string> names;
  if (const error_t failure = ReadFolder(folder, names); failure != error::Success) {
    return failure;
  }
  bool isThere = false;
  memory.names.reserve(names.size());
  for (const std::string& present : names) {
    const std::uint64_t hash = FoldedHash(present);
    ++memory.names[hash];
    if (hash == wanted && EqualIgnoringCase(present, name)) {
      isThere = isThere || present == name;
      if (spelling.empty() || present < spelling) {
        spelling = present;
      }
    }
  }
  if (isThere) {
    spelling.clear();
  }
  memory.isSettled = IsSettled(memory.modified, start);
  const auto now = clocks_.elapsed();
  memory.cost = now - started;
  memory.believedUntil = now + Belief(memory.cost);
  Remember(id, std::move(memory));
  return error::Success;
}

folder_names_t::change_t folder_names_t::BeginChange(int folder) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (memories_.empty()) {
      return {};
    }
  }
  change_t change;
  timespec modified{};
  if (!ReadIdentity(folder, change.id, modified)) {
    return {};
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = memories_.find(change.id);
  if (found == memories_.end()) {
    return {};
  }
  memory_t& memory = found->second;
  change.reading = memory.reading;
  // While changes of ours overlap, a time that is not the remembered one is taken for theirs.
  change.isCurrent = IsSame(memory.modified, modified) || memory.changesUnderWay > 0;
  ++memory.changesUnderWay;
  return change;
}

void folder_names_t::EndChange(int folder, const change_t& change, std::string_view added, std::string_view removed) {
  file_id_t id;
  timespec after{};
  if (change.reading == 0 || !ReadIdentity(folder, id, after)) {
    return;
  }
  const auto now = clocks_.elapsed();
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = memories_.find(change.id);
  if (found == memories_.end()) {
    return;
  }
  memory_t& memory = found->second;
  // A name too many costs a reading, a name too few would hide an entry: what was read meanwhile only gains names.
  if (!added.empty() && ++memory.names[FoldedHash(added)] == 1) {
    ++rememberedNames_;
  }
  if (memory.reading != change.reading) {
    return;
  }
  --memory.changesUnderWay;
  if (!change.isCurrent) {
    return;
  }
  if (memory.isSettled) {
    memory.isSettled = false;
    memory.believedUntil = now + Belief(memory.cost);
  }
  if (!removed.empty()) {
    const auto name = memory.names.find(FoldedHash(removed));
    if (name != memory.names.end() && --name->second == 0) {
      memory.names.erase(name);
      --rememberedNames_;
    }
  }
  if (NanosecondsBetween(memory.modified, after) > 0) {
    memory.modified = after;
  }
}

std::uint64_t folder_names_t::ReadCount() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return reads_;
}

}  // namespace platform
