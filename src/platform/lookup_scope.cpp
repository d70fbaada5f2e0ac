#include "platform/lookup_scope.h"

#include "platform/clock.h"

namespace platform {
namespace {

/// The calling thread's outermost.
thread_local constinit lookup_scope_t* outermost = nullptr;

}  // namespace

lookup_scope_t::lookup_scope_t() noexcept {
  if (outermost == nullptr) {
    outermost = this;
    end_ = Clock().MonotonicMilliseconds() + LimitMilliseconds;
  }
}

lookup_scope_t::~lookup_scope_t() {
  if (outermost == this) {
    outermost = nullptr;
  }
}

bool lookup_scope_t::IsOpen() noexcept {
  if (outermost == nullptr) {
    return false;
  }
  if (Clock().MonotonicMilliseconds() < outermost->end_) {
    return true;
  }
  outermost->met_.clear();
  return false;
}

lookup_scope_t::folder_ptr_t lookup_scope_t::Find(const root_folder_t& root, std::string_view relative) noexcept {
  if (outermost != nullptr) {
    for (const met_t& met : outermost->met_) {
      if (met.root.get() == &root && met.relative == relative) {
        return met.folder;
      }
    }
  }
  return nullptr;
}

void lookup_scope_t::Remember(const boost::shared_ptr<root_folder_t>& root, std::string_view relative,
                              const folder_ptr_t& folder) {
  if (outermost == nullptr) {
    return;
  }
  auto& met = outermost->met_;
  if (met.size() >= MostFolders) {
    met.erase(met.begin());
  }
  met.push_back({root, std::string(relative), folder});
}

void lookup_scope_t::Forget() noexcept {
  if (outermost != nullptr) {
    outermost->met_.clear();
  }
}

}  // namespace platform
