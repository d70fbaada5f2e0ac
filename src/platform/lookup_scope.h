// Folders that stay open while a thread works on what it was asked at one time.
#pragma once

#include <boost/container/static_vector.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/location.h"

namespace platform {

/// While one lives, the folders that its thread comes through on the way to entries stay open, so that the next entry
/// of such a folder costs no search for the folder: who looks up two names of a folder, or one of them twice, resolves
/// the folder once.
///
/// What others do to the tree meanwhile may go unseen, which is why a scope must not be older than the requests that
/// are served in it: they could as well have been served before. For the same reason a folder is looked for anew a few
/// milliseconds after the scope began. What the thread itself renames, and folders that it removes, are forgotten at
/// once. A scope inside another one joins it. On one thread's stack; no scope, no memory.
class lookup_scope_t {
 public:
  lookup_scope_t() noexcept;
  lookup_scope_t(const lookup_scope_t&) = delete;
  lookup_scope_t& operator=(const lookup_scope_t&) = delete;
  ~lookup_scope_t();

  static constexpr std::uint64_t LimitMilliseconds = 5;

  using folder_ptr_t = boost::shared_ptr<const descriptor_t>;

  /// Whether the calling thread has a scope that is young enough; asked before each of the two below.
  static bool IsOpen() noexcept;
  /// The folder at a path below a root (relative, without a separator at either end; empty for the root itself), or
  /// null when it was not met.
  static folder_ptr_t Find(const root_folder_t& root, std::string_view relative) noexcept;
  static void Remember(const boost::shared_ptr<root_folder_t>& root, std::string_view relative,
                       const folder_ptr_t& folder);
  /// Forgets all that the calling thread has met.
  static void Forget() noexcept;

 private:
  // Calls that arrive together mostly share their folder; a few more for those of several clients.
  static constexpr std::size_t MostFolders = 8;

  struct met_t {
    boost::shared_ptr<root_folder_t> root;
    std::string relative;
    folder_ptr_t folder;
  };

  // Here, and not in something thread_local with a destructor: noting one takes memory at the thread's first call, and
  // the C library ends the process where there is none.
  boost::container::static_vector<met_t, MostFolders> met_;
  std::uint64_t end_ = 0;  // Milliseconds of Clock().
};

}  // namespace platform
