// The host's files as the system has them.
#pragma once

#include "platform/below_root.h"
#include "platform/files.h"
#include "platform/folder_names.h"

namespace platform {

class system_files_t : public files_t {
 public:
  error_t GetInfo(const location_t& where, file_info_t& info) override;
  error_t FindEntry(const location_t& where, file_info_t& info) override;
  error_t Open(const location_t& where, const file_request_t& request, boost::shared_ptr<file_t>& file) override;
  bool PassesLink(const location_t& where) override;
  error_t SetReadOnly(const location_t& where, bool readOnly) override;
  error_t CreateFolder(const location_t& where) override;
  error_t DeleteFile(const location_t& where) override;
  error_t RemoveFolder(const location_t& where) override;
  error_t Rename(const location_t& from, const location_t& to) override;
  error_t List(const location_t& where, folder_listing_t& listing) override;
  error_t GetFolderState(const location_t& where, folder_state_t& state) override;
  error_t GetDiskSpace(const location_t& where, disk_space_t& space) override;
  error_t CreateFolderAt(const std::string& path) override;
  error_t GetInfoAt(const std::string& path, WIN32_FILE_ATTRIBUTE_DATA& attributes) override;

  /// What is remembered of folders' names.
  const folder_names_t& Names() const { return names_; }

 private:
  struct entry_t {
    int folder;
    const std::string& name;
  };

  error_t OpenFound(const location_t& where, int flags, descriptor_t& opened);
  error_t Look(const location_t& where, host_status_t& status, std::string& spelling);
  error_t ReadFound(const location_t& where, host_status_t& status);
  error_t FindEntryIn(const parent_t& parent, host_status_t& status, std::string& spelling);
  error_t OpenExisting(const location_t& where, const file_request_t& request, boost::shared_ptr<file_t>& file);
  error_t CreateNew(const parent_t& parent, const file_request_t& request, boost::shared_ptr<file_t>& file);
  error_t Unlink(const location_t& where, int flags);
  error_t MoveEntry(const entry_t& from, const entry_t& to);

  folder_names_t names_;
};

}  // namespace platform
