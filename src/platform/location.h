// Where a file or folder lies: always some way below a root that nothing escapes.
#pragma once

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/error.h"

namespace platform {

/// An open descriptor, closed with the object.
class descriptor_t {
 public:
  explicit descriptor_t(int fd) noexcept : fd_(fd) {}
  descriptor_t(const descriptor_t&) = delete;
  descriptor_t& operator=(const descriptor_t&) = delete;
  descriptor_t(descriptor_t&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  descriptor_t& operator=(descriptor_t&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~descriptor_t();

  int Get() const noexcept { return fd_; }
  bool IsOpen() const noexcept { return fd_ >= 0; }

 private:
  int fd_;
};

/// What a file is, whatever name leads to it.
struct file_id_t {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  auto operator<=>(const file_id_t&) const = default;
};

/// A host path in the form used everywhere: `/` alone as separator, none doubled, none at the end but of "/".
std::string NormalizePath(std::string_view path);

/// The folder that a share publishes, and that no name below it leads out of. Keeps the folder open, so that a call
/// costs one look at the path and no open; a folder that was deleted, replaced or mounted over is found again by the
/// next call. Any thread.
class root_folder_t {
 public:
  /// The path is normalized; links on the way to the root itself are followed, they are the administrator's.
  explicit root_folder_t(std::string_view path);
  root_folder_t(const root_folder_t&) = delete;
  root_folder_t& operator=(const root_folder_t&) = delete;

  const std::string& Path() const { return path_; }

  /// The folder that now has the path, open for resolving names below it. The caller's share of it stays good when
  /// the folder is replaced meanwhile.
  error_t Acquire(boost::shared_ptr<const descriptor_t>& folder);

 private:
  const std::string path_;

  std::mutex mutex_;  // Guards the rest.
  boost::shared_ptr<const descriptor_t> folder_;
  file_id_t id_;
};

/// A place below a root. A value; the full path is kept whole, so that neither a log line nor a key has to build it.
class location_t {
 public:
  /// The root itself.
  explicit location_t(boost::shared_ptr<root_folder_t> root);
  /// The place of a path below the root's path, or of any path below "/". Names in the path are not checked.
  location_t(boost::shared_ptr<root_folder_t> root, std::string_view relative);
  /// A name in a folder. The name must be one that IsPlainName accepts.
  location_t(const location_t& around, std::string_view name);

  location_t Child(std::string_view name) const { return {*this, name}; }
  /// The folder around it; the root's is the root.
  location_t Parent() const;
  /// The same place, at which and below which no link is followed, unlike on the way to it: for work that must stay in
  /// this very folder, whatever someone puts in its place meanwhile. Children have it from their folder.
  location_t WithoutLinks() const;

  root_folder_t& Root() const { return *root_; }
  const boost::shared_ptr<root_folder_t>& SharedRoot() const { return root_; }
  const std::string& Path() const { return path_; }
  /// Below the root, without a leading separator; empty for the root itself.
  std::string_view Relative() const { return std::string_view(path_).substr(relativeAt_); }
  bool IsRoot() const { return relativeAt_ >= path_.size(); }
  /// The last component; empty for the root.
  std::string_view Name() const;
  /// How much of Relative() may pass links: all of it, but for what comes of WithoutLinks.
  std::size_t LinkedLength() const;

 private:
  boost::shared_ptr<root_folder_t> root_;
  std::string path_;
  std::size_t relativeAt_ = 0;
  std::size_t linkedUntil_ = std::string::npos;  // Where in path_ links end.
};

/// Whether a text can be the name of one entry of a folder: not empty, not "." or "..", no `/`, `\` or zero byte.
bool IsPlainName(std::string_view name) noexcept;

}  // namespace platform
