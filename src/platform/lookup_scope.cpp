#include "platform/lookup_scope.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace platform {
namespace {

// Calls that arrive together mostly share their folder; a few more for those of several clients.
constexpr std::size_t MostFolders = 8;

struct met_t {
  boost::shared_ptr<root_folder_t> root;
  std::string relative;
  lookup_scope_t::folder_ptr_t folder;
};

struct thread_scope_t {
  unsigned depth = 0;
  std::uint64_t end = 0;  // Milliseconds of Clock().
  std::vector<met_t> met;
};

thread_scope_t& Own() noexcept {
  thread_local thread_scope_t own;
  return own;
}

}  // namespace

lookup_scope_t::lookup_scope_t() noexcept {
  thread_scope_t& own = Own();
  if (own.depth++ == 0) {
    own.end = Clock().MonotonicMilliseconds() + LimitMilliseconds;
  }
}

lookup_scope_t::~lookup_scope_t() {
  thread_scope_t& own = Own();
  if (--own.depth == 0) {
    own.met.clear();
  }
}

bool lookup_scope_t::IsOpen() noexcept {
  thread_scope_t& own = Own();
  if (own.depth == 0) {
    return false;
  }
  if (Clock().MonotonicMilliseconds() < own.end) {
    return true;
  }
  own.met.clear();
  return false;
}

lookup_scope_t::folder_ptr_t lookup_scope_t::Find(const root_folder_t& root, std::string_view relative) noexcept {
  for (const met_t& met : Own().met) {
    if (met.root.get() == &root && met.relative == relative) {
      return met.folder;
    }
  }
  return nullptr;
}

void lookup_scope_t::Remember(const boost::shared_ptr<root_folder_t>& root, std::string_view relative,
                              const folder_ptr_t& folder) {
  thread_scope_t& own = Own();
  if (own.met.size() >= MostFolders) {
    own.met.erase(own.met.begin());
  }
  own.met.push_back({root, std::string(relative), folder});
}

void lookup_scope_t::Forget() noexcept {
  Own().met.clear();
}

}  // namespace platform
