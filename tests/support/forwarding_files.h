// Host files that fail on demand.
#pragma once

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdint>
#include <functional>
#include <utility>

#include "platform/files.h"

namespace test {

/// Passes every call on. What a test wants to be different it overrides.
class ForwardingFiles : public platform::files_t {
 public:
  explicit ForwardingFiles(platform::files_t& target = platform::SystemFiles()) : target_(target) {}

  platform::error_t GetInfo(const platform::location_t& where, platform::file_info_t& info) override {
    return target_.GetInfo(where, info);
  }
  platform::error_t FindEntry(const platform::location_t& where, platform::file_info_t& info) override {
    return target_.FindEntry(where, info);
  }
  platform::error_t Open(const platform::location_t& where, const platform::file_request_t& request,
                         boost::shared_ptr<platform::file_t>& file) override {
    return target_.Open(where, request, file);
  }
  bool PassesLink(const platform::location_t& where) override { return target_.PassesLink(where); }
  platform::error_t SetReadOnly(const platform::location_t& where, bool readOnly) override {
    return target_.SetReadOnly(where, readOnly);
  }
  platform::error_t CreateFolder(const platform::location_t& where) override { return target_.CreateFolder(where); }
  platform::error_t DeleteFile(const platform::location_t& where) override { return target_.DeleteFile(where); }
  platform::error_t RemoveFolder(const platform::location_t& where) override { return target_.RemoveFolder(where); }
  platform::error_t Rename(const platform::location_t& from, const platform::location_t& to) override {
    return target_.Rename(from, to);
  }
  platform::error_t List(const platform::location_t& where, platform::folder_listing_t& listing) override {
    return target_.List(where, listing);
  }
  platform::error_t GetFolderState(const platform::location_t& where, platform::folder_state_t& state) override {
    return target_.GetFolderState(where, state);
  }
  platform::error_t GetDiskSpace(const platform::location_t& where, platform::disk_space_t& space) override {
    return target_.GetDiskSpace(where, space);
  }
  platform::error_t CreateFolderAt(const std::string& path) override { return target_.CreateFolderAt(path); }
  platform::error_t GetInfoAt(const std::string& path, WIN32_FILE_ATTRIBUTE_DATA& attributes) override {
    return target_.GetInfoAt(path, attributes);
  }

 private:
  platform::files_t& target_;
};

/// An open file that passes every call on.
class ForwardingFile : public platform::file_t {
 public:
  explicit ForwardingFile(boost::shared_ptr<platform::file_t> target) : target_(std::move(target)) {}

  platform::error_t ReadAt(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) override {
    return target_->ReadAt(offset, data, length, outRead);
  }
  platform::error_t WriteAt(std::uint64_t offset, const void* data, std::size_t length,
                            std::size_t& outWritten) override {
    return target_->WriteAt(offset, data, length, outWritten);
  }
  platform::error_t GetSize(std::uint64_t& size) override { return target_->GetSize(size); }
  platform::error_t SetSize(std::uint64_t size) override { return target_->SetSize(size); }
  platform::error_t SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override {
    return target_->SetTimes(creation, lastAccess, lastWrite);
  }
  platform::file_id_t Id() const override { return target_->Id(); }
  void ReleaseShare() noexcept override { target_->ReleaseShare(); }

 private:
  boost::shared_ptr<platform::file_t> target_;
};

/// What FaultyFiles does to the calls that pass through it; the calling threads read it, the test sets it before.
/// A hook that is empty, or answers 0, lets the call through.
struct Faults {
  using Number = platform::error_t;

  std::function<Number(const platform::location_t&)> onGetInfo;
  std::function<Number(const platform::location_t&)> onFindEntry;
  std::function<Number(const platform::location_t&, const platform::file_request_t&)> onOpen;
  std::function<Number(const platform::location_t&)> onSetReadOnly;
  std::function<Number(const platform::location_t&)> onDeleteFile;
  std::function<void(const platform::location_t&)> afterDeleteFile;  ///< That went well.
  std::function<Number(const platform::location_t&)> onRemoveFolder;
  std::function<void(const platform::location_t&)> afterRemoveFolder;  ///< That went well.
  std::function<Number(const platform::location_t&)> onList;
  std::function<Number(const platform::location_t&)> beforeRename;
  std::function<Number(std::uint64_t offset, std::size_t length)> onRead;
  std::function<Number(std::uint64_t offset, std::size_t length)> onWrite;
  std::function<Number()> onGetSize;
  std::function<Number()> onSetSize;
  std::function<Number()> onSetTimes;
  std::function<void()> onClose;
  std::size_t readAtMost = SIZE_MAX;   ///< Bytes that one read gives.
  std::size_t writeAtMost = SIZE_MAX;  ///< Bytes that one write takes.
};

/// An open file under the faults.
class FaultyFile : public ForwardingFile {
 public:
  FaultyFile(boost::shared_ptr<platform::file_t> target, Faults& faults)
      : ForwardingFile(std::move(target)), faults_(faults) {}
  ~FaultyFile() override {
    if (faults_.onClose) {
      faults_.onClose();
    }
  }

  platform::error_t ReadAt(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) override {
    outRead = 0;
    const platform::error_t failure = faults_.onRead ? faults_.onRead(offset, length) : 0;
    return failure != 0 ? failure : ForwardingFile::ReadAt(offset, data, std::min(length, faults_.readAtMost), outRead);
  }
  platform::error_t WriteAt(std::uint64_t offset, const void* data, std::size_t length,
                            std::size_t& outWritten) override {
    outWritten = 0;
    const platform::error_t failure = faults_.onWrite ? faults_.onWrite(offset, length) : 0;
    return failure != 0 ? failure
                        : ForwardingFile::WriteAt(offset, data, std::min(length, faults_.writeAtMost), outWritten);
  }
  platform::error_t GetSize(std::uint64_t& size) override {
    const platform::error_t failure = faults_.onGetSize ? faults_.onGetSize() : 0;
    return failure != 0 ? failure : ForwardingFile::GetSize(size);
  }
  platform::error_t SetSize(std::uint64_t size) override {
    const platform::error_t failure = faults_.onSetSize ? faults_.onSetSize() : 0;
    return failure != 0 ? failure : ForwardingFile::SetSize(size);
  }
  platform::error_t SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override {
    const platform::error_t failure = faults_.onSetTimes ? faults_.onSetTimes() : 0;
    return failure != 0 ? failure : ForwardingFile::SetTimes(creation, lastAccess, lastWrite);
  }

 private:
  Faults& faults_;
};

/// The fault injector of host files.
class FaultyFiles : public ForwardingFiles {
 public:
  using ForwardingFiles::ForwardingFiles;

  Faults faults;

  platform::error_t GetInfo(const platform::location_t& where, platform::file_info_t& info) override {
    const platform::error_t failure = Ask(faults.onGetInfo, where);
    return failure != 0 ? failure : ForwardingFiles::GetInfo(where, info);
  }
  platform::error_t FindEntry(const platform::location_t& where, platform::file_info_t& info) override {
    const platform::error_t failure = Ask(faults.onFindEntry, where);
    return failure != 0 ? failure : ForwardingFiles::FindEntry(where, info);
  }
  platform::error_t Open(const platform::location_t& where, const platform::file_request_t& request,
                         boost::shared_ptr<platform::file_t>& file) override {
    platform::error_t failure = faults.onOpen ? faults.onOpen(where, request) : 0;
    boost::shared_ptr<platform::file_t> opened;
    if (failure == 0) {
      failure = ForwardingFiles::Open(where, request, opened);
    }
    if (failure == 0) {
      file = boost::make_shared<FaultyFile>(opened, faults);
    }
    return failure;
  }
  platform::error_t SetReadOnly(const platform::location_t& where, bool readOnly) override {
    const platform::error_t failure = Ask(faults.onSetReadOnly, where);
    return failure != 0 ? failure : ForwardingFiles::SetReadOnly(where, readOnly);
  }
  platform::error_t DeleteFile(const platform::location_t& where) override {
    platform::error_t failure = Ask(faults.onDeleteFile, where);
    if (failure == 0) {
      failure = ForwardingFiles::DeleteFile(where);
    }
    if (failure == 0 && faults.afterDeleteFile) {
      faults.afterDeleteFile(where);
    }
    return failure;
  }
  platform::error_t RemoveFolder(const platform::location_t& where) override {
    platform::error_t failure = Ask(faults.onRemoveFolder, where);
    if (failure == 0) {
      failure = ForwardingFiles::RemoveFolder(where);
    }
    if (failure == 0 && faults.afterRemoveFolder) {
      faults.afterRemoveFolder(where);
    }
    return failure;
  }
  platform::error_t Rename(const platform::location_t& from, const platform::location_t& to) override {
    const platform::error_t failure = Ask(faults.beforeRename, from);
    return failure != 0 ? failure : ForwardingFiles::Rename(from, to);
  }
  platform::error_t List(const platform::location_t& where, platform::folder_listing_t& listing) override {
    const platform::error_t failure = Ask(faults.onList, where);
    return failure != 0 ? failure : ForwardingFiles::List(where, listing);
  }

 private:
  template <typename Hook>
  static platform::error_t Ask(const Hook& hook, const platform::location_t& where) {
    return hook ? hook(where) : 0;
  }
};

}  // namespace test
