// One open file of the host.
#pragma once

#include <boost/shared_ptr.hpp>

#include "platform/files.h"
#include "platform/open_files.h"

namespace platform {

/// file_t over a descriptor. Holds its place among the open files until it is destroyed or gives it back.
class system_file_t : public file_t {
 public:
  system_file_t(descriptor_t file, const file_id_t& id, file_access_t access);

  /// Takes the place among the open files; 32 when someone does not agree. Once, before the file is shared.
  error_t Reserve(file_share_t share);

  error_t ReadAt(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) override;
  error_t ReadIntoPipe(std::uint64_t offset, std::size_t length, kernel_pipe_t& pipe, std::size_t& outRead) override;
  error_t WriteAt(std::uint64_t offset, const void* data, std::size_t length, std::size_t& outWritten) override;
  error_t GetSize(std::uint64_t& size) override;
  error_t SetSize(std::uint64_t size) override;
  error_t SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override;
  file_id_t Id() const override { return id_; }
  void ReleaseShare() noexcept override { reservation_.Release(); }

 private:
  const descriptor_t file_;
  const file_id_t id_;
  const file_access_t access_;
  open_files_t::reservation_t reservation_;
};

}  // namespace platform
