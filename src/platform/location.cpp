#include "platform/location.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace platform {

descriptor_t::~descriptor_t() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

std::string NormalizePath(std::string_view path) {
  std::string normalized;
  normalized.reserve(path.size());
  for (const char character : path) {
    const char own = character == '\\' ? '/' : character;
    if (own != '/' || normalized.empty() || normalized.back() != '/') {
      normalized.push_back(own);
    }
  }
  if (normalized.size() > 1 && normalized.back() == '/') {
    normalized.pop_back();
  }
  return normalized;
}

bool IsPlainName(std::string_view name) noexcept {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
}

root_folder_t::root_folder_t(std::string_view path) : path_(NormalizePath(path)) {}

error_t root_folder_t::Acquire(boost::shared_ptr<const descriptor_t>& folder) {
  struct stat present {};
  if (::stat(path_.c_str(), &present) != 0) {
    return LastError();
  }
  // The number of a folder that is kept open is not given to another one, so equal ids mean the same folder.
  const file_id_t presentId{present.st_dev, present.st_ino};
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (folder_ && presentId == id_) {
      folder = folder_;
      return error::Success;
    }
  }
  descriptor_t opened(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened.IsOpen() || ::fstat(opened.Get(), &present) != 0) {
    return LastError();
  }
  folder = boost::make_shared<const descriptor_t>(std::move(opened));
  const std::lock_guard<std::mutex> lock(mutex_);
  folder_ = folder;
  id_ = file_id_t{present.st_dev, present.st_ino};
  return error::Success;
}

location_t::location_t(boost::shared_ptr<root_folder_t> root)
    : root_(std::move(root)), path_(root_->Path()), relativeAt_(path_.size()) {}

location_t::location_t(boost::shared_ptr<root_folder_t> root, std::string_view relative) : location_t(std::move(root)) {
  const std::string normalized = NormalizePath(relative);
  const std::string_view below = normalized.starts_with('/') ? std::string_view(normalized).substr(1) : normalized;
  if (!below.empty()) {
    *this = Child(below);
  }
}

location_t::location_t(const location_t& around, std::string_view name)
    : root_(around.root_), relativeAt_(around.relativeAt_), linkedUntil_(around.linkedUntil_) {
  path_.reserve(around.path_.size() + 1 + name.size());
  path_ = around.path_;
  if (!path_.ends_with('/')) {
    path_ += '/';
  }
  if (around.IsRoot()) {
    relativeAt_ = path_.size();
  }
  path_ += name;
}

location_t location_t::Parent() const {
  if (IsRoot()) {
    return *this;
  }
  const std::size_t separator = Relative().rfind('/');
  if (separator == std::string_view::npos) {
    return location_t(root_);
  }
  location_t parent(*this);
  parent.path_.resize(relativeAt_ + separator);
  return parent;
}

location_t location_t::WithoutLinks() const {
  location_t own(*this);
  own.linkedUntil_ = std::min(linkedUntil_, path_.size() - Name().size());
  return own;
}

std::size_t location_t::LinkedLength() const {
  const std::size_t end = std::min(linkedUntil_, path_.size());
  return end > relativeAt_ ? end - relativeAt_ : 0;
}

std::string_view location_t::Name() const {
  const std::string_view relative = Relative();
  const std::size_t separator = relative.rfind('/');
  return separator == std::string_view::npos ? relative : relative.substr(separator + 1);
}

}  // namespace platform
