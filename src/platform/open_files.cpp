#include "platform/open_files.h"

#include <algorithm>

namespace platform {

open_files_t& open_files_t::Instance() {
  static open_files_t* const table = new open_files_t;  // Outlives every file, also those of other statics.
  return *table;
}

error_t open_files_t::Reserve(const file_id_t& id, file_access_t access, file_share_t share,
                              reservation_t& reservation) {
  if (access == file_access_t::Attributes) {
    return error::Success;
  }
  const holder_t added{&reservation, access == file_access_t::ReadWrite, share == file_share_t::ReadWrite};
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<holder_t>& holders = holders_[id];
  // Everyone reads and shares reading; writing is all there is to disagree about.
  const bool conflicts = std::any_of(holders.begin(), holders.end(), [&added](const holder_t& present) {
    return (added.writes && !present.sharesWriting) || (present.writes && !added.sharesWriting);
  });
  if (conflicts) {
    return error::SharingViolation;
  }
  holders.push_back(added);
  reservation.isHeld_ = true;
  reservation.id_ = id;
  return error::Success;
}

std::size_t open_files_t::Count() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return holders_.size();
}

void open_files_t::reservation_t::Release() noexcept {
  Instance().Release(*this);
}

void open_files_t::Release(reservation_t& reservation) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!reservation.isHeld_) {
    return;
  }
  reservation.isHeld_ = false;
  const auto found = holders_.find(reservation.id_);
  std::erase_if(found->second, [&reservation](const holder_t& holder) { return holder.owner == &reservation; });
  if (found->second.empty()) {
    holders_.erase(found);
  }
}

}  // namespace platform
