#include "kelvo-mount-agent/folder_content.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <memory>

#include "foundation/exc.h"
#include "kelvo-mount-agent/host_io.h"
#include "platform/text.h"

namespace mount_agent {
namespace {

namespace error = platform::error;

platform::descriptor_t OpenFolder(const std::string& path) {
  return platform::descriptor_t(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

bool CanBeServed(std::string_view name) {
  return platform::IsPlainName(name) && platform::IsValidUtf8(name);
}

}  // namespace

/// A file as it is.
class CFolderContent::CSourceItem final : public IMountedItem {
 public:
  CSourceItem(platform::descriptor_t file, bool writable) : file_(std::move(file)), writable_(writable) {}

  platform::error_t Read(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) override {
    return ReadFully(file_.Get(), offset, data, length, outRead);
  }
  bool Locate(std::uint64_t offset, std::size_t length, std::vector<platform::file_part_t>& parts) override {
    parts.push_back({file_.Get(), offset, length});
    return true;
  }
  platform::error_t Write(std::uint64_t offset, const void* data, std::size_t length) override {
    return writable_ ? WriteFully(file_.Get(), offset, data, length) : error::AccessDenied;
  }
  platform::error_t GetSize(std::uint64_t& size) override {
    struct stat status {};
    if (::fstat(file_.Get(), &status) != 0)
      return platform::LastError();
    size = static_cast<std::uint64_t>(status.st_size);
    return error::Success;
  }

 private:
  const platform::descriptor_t file_;
  const bool writable_;
};

/// A file with its overlay, which is made by the first write.
class CFolderContent::COverlaidItem final : public IMountedItem {
 public:
  COverlaidItem(const SFolderOptions& options, platform::descriptor_t file, SSourceIdentity identity)
      : folder_(options.overlay),
        use_(options.writes == writes_t::ToOverlay       ? overlay_use_t::Write
             : options.writes == writes_t::ToOverlaySync ? overlay_use_t::WriteSync
                                                         : overlay_use_t::ReadOnly),
        file_(std::move(file)),
        identity_(std::move(identity)),
        overlay_(COverlayFile::OpenExisting(folder_, identity_, use_)) {}

  platform::error_t Read(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) override {
    if (const auto overlay = Overlay())
      return overlay->Read(file_.Get(), offset, data, length, outRead);
    return ReadFully(file_.Get(), offset, data, length, outRead);
  }
  bool Locate(std::uint64_t offset, std::size_t length, std::vector<platform::file_part_t>& parts) override {
    if (const auto overlay = Overlay())
      return overlay->Locate(file_.Get(), offset, length, parts);
    parts.push_back({file_.Get(), offset, length});
    return true;
  }
  platform::error_t Write(std::uint64_t offset, const void* data, std::size_t length) override {
    if (use_ == overlay_use_t::ReadOnly)
      return error::AccessDenied;
    boost::shared_ptr<COverlayFile> overlay;
    try {
      const std::lock_guard lock(mutex_);
      if (!overlay_)
        overlay_ = COverlayFile::OpenOrCreate(folder_, identity_, use_);
      overlay = overlay_;
    } catch (const std::exception&) {
      return error::IoDevice;
    }
    return overlay->Write(file_.Get(), offset, data, length);
  }
  platform::error_t GetSize(std::uint64_t& size) override {
    const auto overlay = Overlay();
    size = overlay ? overlay->Size() : identity_.size;
    return error::Success;
  }
  platform::error_t Flush() {
    const auto overlay = Overlay();
    return overlay ? overlay->Flush() : error::Success;
  }

 private:
  boost::shared_ptr<COverlayFile> Overlay() {
    const std::lock_guard lock(mutex_);
    return overlay_;
  }

  const std::string folder_;
  const overlay_use_t use_;
  const platform::descriptor_t file_;
  const SSourceIdentity identity_;

  std::mutex mutex_;  // Guards the pointer.
  boost::shared_ptr<COverlayFile> overlay_;
};

CFolderContent::CFolderContent(const SFolderOptions& options) : options_(options) {
  OpenFolders();
  OpenOverlays();
}

void CFolderContent::OpenFolders() {
  source_ = OpenFolder(options_.source);
  if (!source_.IsOpen())
    throw exc::win_sys_exc_t(exc::FormatText("The source folder [%1] cannot be opened.", options_.source),
                             platform::LastError());
  if (options_.overlay.empty())
    return;
  // What guests write is the agent's alone. One that is there, or cannot be made, is told by the open.
  if (options_.writes != writes_t::Refused)
    ::mkdir(options_.overlay.c_str(), 0700);
  overlay_ = OpenFolder(options_.overlay);
  if (!overlay_.IsOpen())
    throw exc::win_sys_exc_t(exc::FormatText("The overlay folder [%1] cannot be opened.", options_.overlay),
                             platform::LastError());
  struct stat source {};
  struct stat overlay {};
  if (::fstat(source_.Get(), &source) == 0 && ::fstat(overlay_.Get(), &overlay) == 0 &&
      source.st_dev == overlay.st_dev && source.st_ino == overlay.st_ino)
    throw exc::runtime_exc_t("The overlay folder [%1] is the source folder: nothing may be written there.",
                             options_.overlay);
  const bool reads = options_.writes == writes_t::Refused;
  if (::flock(overlay_.Get(), (reads ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0)
    throw exc::runtime_exc_t("The overlay folder [%1] is used by another agent.", options_.overlay);
}

void CFolderContent::OpenOverlays() {
  std::vector<std::string> names;
  if (const platform::error_t failure = ReadNames(names); failure != error::Success)
    throw exc::win_sys_exc_t(exc::FormatText("The source folder [%1] cannot be read.", options_.source), failure);
  if (options_.overlay.empty())
    return;
  for (const std::string& name : names) {
    struct stat status {};
    if (::fstatat(overlay_.Get(), COverlayFile::FileNameOf(name).c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
      continue;
    boost::shared_ptr<COverlaidItem> item;
    const platform::error_t failure = OpenOverlaid(name, item);
    if (failure != error::Success && failure != error::FileNotFound)
      throw exc::win_sys_exc_t(exc::FormatText("The file [%1] cannot be opened.", name), failure);
  }
}

platform::error_t CFolderContent::ReadNames(std::vector<std::string>& names) const {
  // A stream of its own: the position in the folder is not shared between threads.
  const int folder = ::openat(source_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0)
    return platform::LastError();
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(folder), ::closedir);
  if (!stream) {
    ::close(folder);
    return error::NotEnoughMemory;
  }
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());
    if (entry == nullptr)
      break;
    if (CanBeServed(entry->d_name))
      names.emplace_back(entry->d_name);
  }
  if (errno != 0)
    return platform::LastError();
  std::sort(names.begin(), names.end());
  return error::Success;
}

platform::error_t CFolderContent::Find(const std::string& name, platform::descriptor_t& place,
                                       struct stat& status) const {
  // Looked at before it is opened: opening a device can act on it.
  platform::error_t failure = platform::OpenBelow(source_.Get(), name, O_PATH, 0, place, platform::links_t::Refused);
  if (failure == error::TooManyLinks) {
    failure = platform::OpenBelow(source_.Get(), name, O_PATH, 0, place);
    // A link that leads out of the folder, or round in a circle, is as good as none.
    if (failure == error::AccessDenied || failure == error::TooManyLinks)
      return error::FileNotFound;
  }
  if (failure != error::Success)
    return failure;
  if (::fstat(place.Get(), &status) != 0)
    return platform::LastError();
  return S_ISREG(status.st_mode) ? error::Success : error::FileNotFound;
}

platform::error_t CFolderContent::OpenSource(const std::string& name, platform::descriptor_t& file,
                                             struct stat& status) const {
  platform::descriptor_t place(-1);
  if (const platform::error_t failure = Find(name, place, status); failure != error::Success)
    return failure;
  const int flags = O_CLOEXEC | (options_.writes == writes_t::ToSource ? O_RDWR : O_RDONLY);
  file = platform::descriptor_t(::open(("/proc/self/fd/" + std::to_string(place.Get())).c_str(), flags));
  return file.IsOpen() ? error::Success : platform::LastError();
}

platform::error_t CFolderContent::List(const path_t& path, std::vector<SListedItem>& items) {
  items.clear();
  if (!path.empty())
    return error::PathNotFound;
  std::vector<std::string> names;
  if (const platform::error_t failure = ReadNames(names); failure != error::Success)
    return failure;
  for (std::string& name : names) {
    platform::descriptor_t place(-1);
    struct stat status {};
    const platform::error_t failure = Find(name, place, status);
    if (failure == error::FileNotFound || failure == error::PathNotFound)
      continue;
    // The service would forget for good what it does not find in a listing.
    if (failure != error::Success)
      return failure;
    auto size = static_cast<std::uint64_t>(status.st_size);
    {
      const std::lock_guard lock(mutex_);
      const auto overlaid = overlaid_.find(name);
      if (overlaid != overlaid_.end())
        overlaid->second->GetSize(size);
    }
    items.push_back({0, size, std::move(name)});
  }
  return error::Success;
}

platform::error_t CFolderContent::Open(const path_t& path, boost::shared_ptr<IMountedItem>& item) {
  item.reset();
  if (path.size() != 1 || !CanBeServed(path.front()))
    return error::FileNotFound;
  const std::string name(path.front());
  try {
    if (!options_.overlay.empty()) {
      boost::shared_ptr<COverlaidItem> overlaid;
      const platform::error_t failure = OpenOverlaid(name, overlaid);
      item = overlaid;
      return failure;
    }
    platform::descriptor_t file(-1);
    struct stat status {};
    const platform::error_t failure = OpenSource(name, file, status);
    if (failure == error::Success)
      item = boost::make_shared<CSourceItem>(std::move(file), options_.writes == writes_t::ToSource);
    return failure;
  } catch (const std::exception&) {
    return error::IoDevice;
  }
}

platform::error_t CFolderContent::OpenOverlaid(const std::string& name, boost::shared_ptr<COverlaidItem>& item) {
  const std::lock_guard lock(mutex_);
  const auto known = overlaid_.find(name);
  if (known != overlaid_.end()) {
    item = known->second;
    return error::Success;
  }
  platform::descriptor_t file(-1);
  struct stat status {};
  if (const platform::error_t failure = OpenSource(name, file, status); failure != error::Success)
    return failure;
  item = boost::make_shared<COverlaidItem>(
      options_, std::move(file), SSourceIdentity{name, static_cast<std::uint64_t>(status.st_size), status.st_mtim});
  overlaid_.emplace(name, item);
  return error::Success;
}

platform::error_t CFolderContent::Flush() {
  const std::lock_guard lock(mutex_);
  platform::error_t first = error::Success;
  for (const auto& [name, item] : overlaid_) {
    const platform::error_t failure = item->Flush();
    if (first == error::Success)
      first = failure;
  }
  return first;
}

}  // namespace mount_agent
