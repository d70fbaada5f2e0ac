// The calls on a file as objects, one for each operation.
#pragma once

#include <netinet/in.h>

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <utility>

#include "vfs/items/fs_item.h"
#include "vfs/items/fs_proc.h"

/// What all calls on an item share. Results are read after Execute, by whoever waited for it; what the caller lends
/// (records, buffers, times) must live until then.
template <typename Item>
class CFsItemProc : public IFsProc {
 protected:
  explicit CFsItemProc(boost::shared_ptr<Item> item) : item_(std::move(item)) {}

  const boost::shared_ptr<Item> item_;
};

class CCheckExistsProc final : public CFsItemProc<IFsItem> {
 public:
  explicit CCheckExistsProc(boost::shared_ptr<IFsItem> item) : CFsItemProc(std::move(item)) {}
  void Execute() override { exists_ = item_->Exists(); }
  bool Result() const noexcept { return exists_; }

 private:
  bool exists_ = false;
};

class CChmodProc final : public CFsItemProc<IFsItem> {
 public:
  CChmodProc(boost::shared_ptr<IFsItem> item, bool read, bool write)
      : CFsItemProc(std::move(item)), read_(read), write_(write) {}
  void Execute() override { item_->SetPermissions(read_, write_); }

 private:
  const bool read_;
  const bool write_;
};

class CGetAllowedAddrListProc final : public CFsItemProc<IFsItem> {
 public:
  explicit CGetAllowedAddrListProc(boost::shared_ptr<IFsItem> item) : CFsItemProc(std::move(item)) {}
  void Execute() override { addresses_ = item_->GetAllowedHostAddr(); }
  const std::string& Result() const noexcept { return addresses_; }

 private:
  std::string addresses_;
};

/// Fills the caller's record.
class CGetAttrsProc final : public CFsItemProc<IFsItem> {
 public:
  CGetAttrsProc(boost::shared_ptr<IFsItem> item, WIN32_FILE_ATTRIBUTE_DATA* attributes)
      : CFsItemProc(std::move(item)), attributes_(attributes) {}
  void Execute() override { item_->GetAttributes(*attributes_); }

 private:
  WIN32_FILE_ATTRIBUTE_DATA* const attributes_;
};

class CGetRestoreInfoProc final : public CFsItemProc<IFsItem> {
 public:
  explicit CGetRestoreInfoProc(boost::shared_ptr<IFsItem> item) : CFsItemProc(std::move(item)) {}
  void Execute() override { item_->GetItemSpec(spec_); }
  const SFsItemSpec& Result() const noexcept { return spec_; }

 private:
  SFsItemSpec spec_;
};

/// Fills the caller's GUID.
class CGetRfsIdProc final : public CFsItemProc<IFsItem> {
 public:
  CGetRfsIdProc(boost::shared_ptr<IFsItem> item, GUID* mountUid) : CFsItemProc(std::move(item)), mountUid_(mountUid) {}
  void Execute() override { found_ = item_->GetMountUid(*mountUid_); }
  bool Result() const noexcept { return found_; }

 private:
  GUID* const mountUid_;
  bool found_ = false;
};

class CIsAccessAllowedProc final : public CFsItemProc<IFsItem> {
 public:
  CIsAccessAllowedProc(boost::shared_ptr<IFsItem> item, const sockaddr_in& address)
      : CFsItemProc(std::move(item)), address_(address) {}
  void Execute() override { allowed_ = item_->IsAddressAllowed(address_); }
  bool Result() const noexcept { return allowed_; }

 private:
  const sockaddr_in address_;
  bool allowed_ = false;
};

/// offset and count in bytes; fills the caller's buffer.
class CReadFileProc final : public CFsItemProc<IFsFile> {
 public:
  CReadFileProc(boost::shared_ptr<IFsFile> file, std::uint64_t offset, std::uint32_t count, SFsReadBuffer* buffer)
      : CFsItemProc(std::move(file)), offset_(offset), count_(count), buffer_(buffer) {}
  void Execute() override { item_->Read(offset_, count_, *buffer_); }

 private:
  const std::uint64_t offset_;
  const std::uint32_t count_;
  SFsReadBuffer* const buffer_;
};

/// newSize in bytes.
class CResizeProc final : public CFsItemProc<IFsFile> {
 public:
  CResizeProc(boost::shared_ptr<IFsFile> file, std::uint64_t newSize)
      : CFsItemProc(std::move(file)), newSize_(newSize) {}
  void Execute() override { item_->Resize(newSize_); }

 private:
  const std::uint64_t newSize_;
};

/// The times are the caller's; null leaves a time alone.
class CSetTimeProc final : public CFsItemProc<IFsItem> {
 public:
  CSetTimeProc(boost::shared_ptr<IFsItem> item, const FILETIME* creation, const FILETIME* lastAccess,
               const FILETIME* lastWrite)
      : CFsItemProc(std::move(item)), creation_(creation), lastAccess_(lastAccess), lastWrite_(lastWrite) {}
  void Execute() override { item_->SetTimes(creation_, lastAccess_, lastWrite_); }

 private:
  const FILETIME* const creation_;
  const FILETIME* const lastAccess_;
  const FILETIME* const lastWrite_;
};

/// offset and count in bytes; data is the caller's, and so is the pipe that holds what follows it, if there is one.
class CWriteFileProc final : public CFsItemProc<IFsFile> {
 public:
  CWriteFileProc(boost::shared_ptr<IFsFile> file, std::uint64_t offset, std::uint32_t count, const void* data,
                 platform::kernel_pipe_t* rest = nullptr)
      : CFsItemProc(std::move(file)), offset_(offset), count_(count), data_(data), rest_(rest) {}
  void Execute() override {
    rest_ == nullptr ? item_->Write(offset_, count_, data_) : item_->WritePipe(offset_, count_, data_, *rest_);
  }

 private:
  const std::uint64_t offset_;
  const std::uint32_t count_;
  const void* const data_;
  platform::kernel_pipe_t* const rest_;
};
