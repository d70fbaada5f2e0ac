// A folder of a backup, as a mount agent serves it.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <string>

#include "remotefs/items/remote_fs_item.h"
#include "vfs/items/fs_item.h"

/// Lists and opens; its entries cannot be made, removed or renamed. A mount is published as the one with an empty path.
/// Any thread.
class CRemoteFsFolder : public CRemoteFsItem<IFsFolder> {
 public:
  /// Asks the agent nothing.
  CRemoteFsFolder(boost::shared_ptr<CRemoteFsConnector> connector, std::string path, const GUID& mountUid);

  void GetItemSpec(SFsItemSpec& spec) override;
  /// Without the agent.
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) override;
  /// An agent that does not answer leaves the listing unavailable.
  bool IsAvailable() override;
  void Enumerate(SFsEnumeration& enumeration) override;
  boost::shared_ptr<IFsItem> CreateFile(const std::string& name, const std::string& allowedHostAddr) override;
  boost::shared_ptr<IFsItem> CreateSubfolder(const std::string& name, const std::string& allowedHostAddr) override;
  /// A file: agents open nothing else. Empty also when the agent does not answer; the log is told of a name once in
  /// half an hour.
  boost::shared_ptr<IFsItem> OpenChild(const std::string& name) override;
  /// While the agent is away, the item as it is stored, to be connected when the agent is back.
  boost::shared_ptr<IFsItem> ResumeChild(const std::string& name, const SFsItemSpec& spec) override;
  void DeleteChild(const std::string& name) override;
  void RenameChild(const std::string& oldName, const std::string& newName) override;
  bool IsAddressListEmpty() override { return access_.IsEmpty(); }
  bool IsRootFolder() override { return false; }

  /// As of a file: but agents keep no folders open, and so none is ever lost.
  void Reopen(bool& notFound) const { notFound = false; }

 private:
  /// More names than this are forgotten and told again: clients choose them.
  static constexpr std::size_t MaxLookupFailures = 10000;

  std::string ChildPath(const std::string& name) const;
  /// Throws what went wrong; empty when the agent has no such file.
  boost::shared_ptr<IFsItem> OpenFile(const std::string& name);
  /// Empty also after a failure, which is noted.
  boost::shared_ptr<IFsItem> TryOpen(const std::string& name, bool& hasFailed);
  boost::shared_ptr<IFsItem> Wrap(const boost::shared_ptr<IFsFile>& file) const;
  boost::shared_ptr<IFsItem> MakePlaceholder(const SFsItemSpec& spec) const;
  void ProcessLookupFail(const std::string& name, const std::exception& failure) noexcept;

  std::mutex lookupLock_;  // Guards the rest.
  std::map<std::string, std::uint32_t> lookupFailTicks_;
};
