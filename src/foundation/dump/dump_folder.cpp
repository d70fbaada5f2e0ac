#include "foundation/dump/dump_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/dump/folder_reader.h"

namespace crash {

bool dump_folder_t::IsOlder(const dump_t& left, const dump_t& right) noexcept {
  if (left.time.tv_sec != right.time.tv_sec)
    return left.time.tv_sec < right.time.tv_sec;
  if (left.time.tv_nsec != right.time.tv_nsec)
    return left.time.tv_nsec < right.time.tv_nsec;
  return left.number < right.number;
}

void dump_folder_t::PathOf(std::uint32_t number, text_t& path) const noexcept {
  path.Clear();
  path.Add(folder_).Add('/').Add(stem_).AddDecimal(number).Add('.').Add(extension_);
}

bool dump_folder_t::NumberOf(std::string_view name, std::uint32_t& number) const noexcept {
  if (!name.starts_with(stem_) || !name.ends_with(extension_))
    return false;
  name.remove_prefix(stem_.size());
  if (name.size() < extension_.size() + 1)
    return false;
  name.remove_suffix(extension_.size());
  if (name.back() != '.')
    return false;
  name.remove_suffix(1);
  return ParseNumber(name, number);
}

bool dump_folder_t::Create(failure_t& failure) const noexcept {
  path_text_t made;
  std::string_view left = folder_;
  while (!left.empty()) {
    const std::size_t end = left.find('/', 1);
    made.Add(left.substr(0, end));
    left = end == std::string_view::npos ? std::string_view() : left.substr(end);
    if (::mkdir(made.CStr(), 0700) != 0 && errno != EEXIST && ::access(made.CStr(), F_OK) != 0) {
      failure.AddSystem("Failed to create folder [%1].", {made.View()}, errno);
      return false;
    }
  }
  return true;
}

bool dump_folder_t::Scan(const dump_t* bound, found_t& found, failure_t& failure) const noexcept {
  found = {};
  folder_reader_t reader(folder_);
  std::string_view name;
  while (reader.Next(name)) {
    dump_t dump;
    struct stat status {};
    if (!NumberOf(name, dump.number) ||
        ::fstatat(reader.Descriptor(), name.data(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode))
      continue;
    dump.time = status.st_mtim;
    ++found.count;
    if (dump.number > found.highest)
      found.highest = dump.number;
    if ((bound == nullptr || IsOlder(*bound, dump)) && (!found.hasOldest || IsOlder(dump, found.oldest))) {
      found.hasOldest = true;
      found.oldest = dump;
    }
  }
  if (reader.Failure() == 0)
    return true;
  failure.AddSystem("Unable to enumerate dumps stored in a folder. Folder: [%1]. Dump extension: [%2]",
                    {folder_, extension_}, reader.Failure());
  return false;
}

dump_folder_t::result_t dump_folder_t::CleanUp(old_dump_sink_t& sink, std::uint32_t& highest,
                                               failure_t& failure) const noexcept {
  dump_t refused;
  const dump_t* bound = nullptr;
  path_text_t path;
  for (;;) {
    found_t found;
    if (!Scan(bound, found, failure))
      return result_t::NoFolder;
    highest = found.highest;
    if (found.count < MaxDumps)
      return result_t::Ok;
    if (!found.hasOldest) {
      failure.Add("Cannot cleanup out of date dumps. There are [%1] dumps stored. Maximum allowed dumps number: [%2].",
                  {decimal_t(found.count), decimal_t(MaxDumps)});
      return result_t::TooMany;
    }
    PathOf(found.oldest.number, path);
    if (::unlink(path.CStr()) == 0) {
      sink.Deleted(path.View());
    } else {
      sink.NotDeleted(path.View());
      refused = found.oldest;
      bound = &refused;
    }
  }
}

dump_folder_t::result_t dump_folder_t::NextPath(old_dump_sink_t& sink, text_t& path,
                                                failure_t& failure) const noexcept {
  std::uint32_t highest = 0;
  result_t result = Create(failure) ? CleanUp(sink, highest, failure) : result_t::NoFolder;
  if (result == result_t::Ok) {
    result = result_t::NoName;
    for (std::uint32_t number = highest + 1; number <= MaxNumber; ++number) {
      PathOf(number, path);
      struct stat status {};
      // What is no file may have the name as well.
      if (::lstat(path.CStr(), &status) != 0 && errno == ENOENT) {
        result = path.IsFull() ? result_t::NoName : result_t::Ok;
        break;
      }
    }
    if (result == result_t::NoName)
      failure.Add("All dump identifiers are reserved.");
  }
  if (result != result_t::Ok)
    failure.Add("Cannot define the name of the next crash dump. Dumps folder: [%1].", {folder_});
  return result;
}

}  // namespace crash
