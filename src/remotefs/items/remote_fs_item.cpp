#include "remotefs/items/remote_fs_item.h"

#include "config/address_checker.h"
#include "config/address_checker_factory.h"
#include "platform/clock.h"

namespace {

FILETIME Now() {
  constexpr std::int64_t NanosecondsPerSecond = 1000000000;
  const std::int64_t now = platform::Clock().WallNanoseconds();
  return platform::FiletimeFromTimespec({now / NanosecondsPerSecond, now % NanosecondsPerSecond});
}

}  // namespace

CRemoteFsTimes::CRemoteFsTimes() : creation_(Now()), lastAccess_(creation_), lastWrite_(creation_) {}

void CRemoteFsTimes::SetGiven(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) {
  const std::lock_guard lock(lock_);
  if (creation != nullptr)
    creation_ = *creation;
  if (lastAccess != nullptr)
    lastAccess_ = *lastAccess;
  if (lastWrite != nullptr)
    lastWrite_ = *lastWrite;
}

void CRemoteFsTimes::NoteRead() {
  const FILETIME now = Now();
  const std::lock_guard lock(lock_);
  lastAccess_ = now;
}

void CRemoteFsTimes::NoteWrite() {
  const FILETIME now = Now();
  const std::lock_guard lock(lock_);
  lastAccess_ = now;
  lastWrite_ = now;
}

void CRemoteFsTimes::CopyTo(WIN32_FILE_ATTRIBUTE_DATA& attributes) const {
  const std::lock_guard lock(lock_);
  attributes.creationTime = creation_;
  attributes.lastAccessTime = lastAccess_;
  attributes.lastWriteTime = lastWrite_;
}

CRemoteFsAccess::CRemoteFsAccess(const CBackupMountCfg& config)
    : checker_(config.allowedHostAddr.empty()
                   ? nullptr
                   : CAddressCheckerFactory::Get()->CreateItemChecker(config.allowedHostAddr)) {}

bool CRemoteFsAccess::IsAddressAllowed(const sockaddr_in& address) const {
  return !checker_ || checker_->IsAllowed(reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

std::string CRemoteFsAccess::Text() const {
  return checker_ ? checker_->ToString() : std::string();
}

bool CRemoteFsAccess::IsEmpty() const {
  return !checker_ || checker_->IsEmpty();
}
