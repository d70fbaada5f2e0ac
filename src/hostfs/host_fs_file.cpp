#include "hostfs/host_fs_file.h"

#include "config/address_checker.h"
#include "foundation/exc.h"
#include "hostfs/files_access_permissions.h"
#include "hostfs/host_file_transfer.h"
#include "hostfs/host_fs_item.h"

namespace error = platform::error;

CHostFsFile::CHostFsFile(CHostFsNodePtr node, boost::shared_ptr<IAddressChecker> addressChecker)
    : node_(std::move(node)), addressChecker_(std::move(addressChecker)) {}

void CHostFsFile::GetItemSpec(SFsItemSpec& spec) {
  spec = SFsItemSpec{};
  spec.path = node_->Path();
  spec.allowedHostAddr = GetAllowedHostAddr();
}

void CHostFsFile::GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) {
  if (const platform::error_t failure = host_fs_item::TryGetAttributes(*node_, attributes); failure != error::Success) {
    host_fs_item::ThrowNoAttributes(*node_, failure);
  }
}

void CHostFsFile::SetPermissions(bool /*read*/, bool write) {
  host_fs_item::SetPermissions(*node_, write);
}

void CHostFsFile::SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) {
  if (creation == nullptr && lastAccess == nullptr && lastWrite == nullptr) {
    return;
  }
  boost::shared_ptr<platform::file_t> file;
  platform::error_t failure = node_->AtSettledLocation([&](const boost::shared_ptr<const platform::location_t>& where) {
    security::FilesAccessPermissions().CheckAccess(where->Path());
    const platform::file_request_t request{platform::file_access_t::Attributes, platform::file_share_t::Read,
                                           platform::file_disposition_t::OpenExisting};
    return node_->Files().Open(*where, request, file);
  });
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to open file [%1] for timestamps update.", node_->Path()),
                             failure);
  }
  failure = file->SetTimes(creation, lastAccess, lastWrite);
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to update timestamps of the file [%1].", node_->Path()), failure);
  }
}

bool CHostFsFile::Exists() {
  return host_fs_item::Exists(*node_);
}

bool CHostFsFile::GetMountUid(GUID& /*mountUid*/) {
  return false;
}

bool CHostFsFile::IsAddressAllowed(const sockaddr_in& address) {
  return host_fs_item::IsAddressAllowed(addressChecker_.get(), address);
}

std::string CHostFsFile::GetAllowedHostAddr() {
  return host_fs_item::AddressText(addressChecker_.get());
}

CHostFsFile::SOpenFile CHostFsFile::CachedFile(HostFsFileCache::use_t use) const {
  SOpenFile open;
  const platform::error_t failure =
      node_->AtSettledLocation([&](const boost::shared_ptr<const platform::location_t>& where) {
        open.where = where;
        return HostFsFileCache::TryGetFile(*where, node_->Files(), use, open.file);
      });
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to open existing file [%1] for read/write access.", node_->Path()),
                             failure);
  }
  return open;
}

void CHostFsFile::Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) {
  const SOpenFile open = CachedFile(HostFsFileCache::use_t::Read);
  ReadHostFile(*open.file, open.where->Path(), offset, count, buffer);
}

void CHostFsFile::Write(std::uint64_t offset, std::uint32_t count, const void* data) {
  const SOpenFile open = CachedFile(HostFsFileCache::use_t::Write);
  WriteHostFile(*open.file, open.where->Path(), offset, count, data);
}

void CHostFsFile::Resize(std::uint64_t newSize) {
  const SOpenFile open = CachedFile(HostFsFileCache::use_t::Write);
  ResizeHostFile(*open.file, open.where->Path(), newSize);
}
