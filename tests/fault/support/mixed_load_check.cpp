// What must be true of a load's folder after the service was killed and started again.
#include "fault/support/mixed_load.h"

namespace test {
namespace {

constexpr std::size_t MostGone = 500;

}  // namespace

void CMixedLoad::Check() {
  SCOPED_TRACE(name_ + (pending_ ? ": call under way: " + std::to_string(static_cast<int>(pending_->kind)) + " [" +
                                       pending_->folder + "/" + pending_->name + "] -> [" + pending_->target + "]"
                                 : std::string()));
  if (pending_)
    ++figures_.unanswered;
  CNfsClient client;
  CheckHandles(client);
  CheckNames(client);
  pending_.reset();
  // Enough to notice one that comes back, in a long campaign too.
  while (gone_.size() > MostGone)
    gone_.erase(std::next(gone_.begin(), static_cast<std::ptrdiff_t>(random_() % gone_.size())));
}

bool CMixedLoad::IsUncertain(const std::string& folderName, const std::string& name) const {
  if (!pending_ || pending_->folder != folderName)
    return false;
  switch (pending_->kind) {
    case kind_t::RemoveFolder:
      return true;  // Goes file by file.
    case kind_t::Create:
    case kind_t::Remove:
    case kind_t::Rename:
      return name == pending_->name || name == pending_->target;
    case kind_t::RenameFolder:
      return true;
    default:
      return false;
  }
}

std::set<std::string> CMixedLoad::ContentsOf(const std::string& folderName, const std::string& name,
                                             const SFile& file) const {
  std::set<std::string> contents{file.content};
  if (!pending_ || pending_->folder != folderName)
    return contents;
  const bool isIt = pending_->name == name;
  if (isIt && (pending_->kind == kind_t::Write || pending_->kind == kind_t::Resize))
    contents.insert(pending_->content);
  if (isIt && pending_->kind == kind_t::Create)
    contents.insert("");
  return contents;
}

void CMixedLoad::CheckHandle(CNfsClient& client, const bytes_t& handle, std::uint64_t fileid, bool mayBeStale,
                             const std::string& what) {
  SAttributes attributes;
  const std::uint32_t status = client.GetAttr(handle, &attributes);
  ++figures_.handles;
  if (status == Stale && mayBeStale) {
    ++figures_.stale;
    return;
  }
  EXPECT_EQ(status, Ok) << "the handle of " << what;
  if (status == Ok) {
    EXPECT_EQ(attributes.fileid, fileid) << "the handle of " << what;
  }
}

void CMixedLoad::CheckHandles(CNfsClient& client) {
  for (const bytes_t& handle : gone_)
    EXPECT_EQ(client.GetAttr(handle), Stale) << "the handle of something that was answered as removed";
  for (const auto& [folderName, folder] : folders_) {
    const bool isFolderUncertain = IsUncertain(folderName, {}) && folderName == pending_->folder && !folderName.empty();
    CheckHandle(client, folder.handle, folder.fileid, folder.mayBeStale || isFolderUncertain,
                "folder [" + folderName + "]");
    for (const auto& [name, file] : folder.files) {
      const bool mayBeStale = file.mayBeStale || folder.mayBeStale || IsUncertain(folderName, name);
      const std::string what = "[" + folderName + "/" + name + "]";
      CheckHandle(client, file.handle, file.fileid, mayBeStale, what);
      const SReadResult read = client.Read(file.handle, 0, 65536);
      if (read.status == Ok) {
        // A file that a rename under way was to replace is there as it was, or its handle is stale.
        EXPECT_TRUE(ContentsOf(folderName, name, file).contains(read.data))
            << "the handle of " << what << " reads " << read.data.size() << " bytes: " << read.data.substr(0, 40);
      } else {
        EXPECT_TRUE(mayBeStale) << what << ": " << read.status;
        EXPECT_EQ(read.status, NoEntry) << what << ": what READ says of an unknown handle";
      }
    }
  }
}

CMixedLoad::listed_t CMixedLoad::Listed(CNfsClient& client, const bytes_t& folder) {
  listed_t listed;
  for (const SEntry& entry : client.List(folder))
    EXPECT_TRUE(listed.emplace(entry.name, entry).second) << entry.name << " is listed twice";
  return listed;
}

template <typename Item>
void CMixedLoad::Adopt(Item& item, const SEntry& entry, bool isUncertain, const std::string& what) {
  if (!item.mayBeStale && !isUncertain) {
    EXPECT_EQ(entry.handle, item.handle) << what << " has another handle";
    EXPECT_EQ(entry.fileid, item.fileid) << what;
  }
  if (!item.handle.empty() && entry.handle != item.handle)
    gone_.insert(item.handle);
  EXPECT_FALSE(gone_.contains(entry.handle)) << what << " has the handle of something else that was removed";
  item.handle = entry.handle;
  item.fileid = entry.fileid;
  item.mayBeStale = false;
}

void CMixedLoad::CheckNames(CNfsClient& client) {
  bytes_t own;
  ASSERT_EQ(client.Lookup(share_, name_, &own), Ok);
  EXPECT_EQ(own, folders_.at("").handle);
  const listed_t listed = Listed(client, own);
  CheckFolders(listed);
  for (auto& [folderName, folder] : folders_)
    CheckFiles(client, folderName, folder, folderName.empty() ? listed : Listed(client, folder.handle));
}

void CMixedLoad::CheckFolders(const listed_t& listed) {
  if (pending_ && pending_->kind == kind_t::RenameFolder && !listed.contains(pending_->folder)) {
    const auto moved = folders_.extract(pending_->folder);
    ASSERT_TRUE(listed.contains(pending_->target)) << "neither the old nor the new name is there";
    SFolder& folder = folders_[pending_->target];
    folder = moved.mapped();
    folder.mayBeStale = true;
    for (auto& [name, file] : folder.files)
      file.mayBeStale = true;
    pending_.reset();
  }
  if (pending_ && pending_->kind == kind_t::MakeFolder && listed.contains(pending_->folder))
    folders_[pending_->folder].mayBeStale = true;
  if (pending_ && pending_->kind == kind_t::RemoveFolder && !listed.contains(pending_->folder)) {
    const auto removed = folders_.extract(pending_->folder);
    Gone(removed.mapped());
  }
  for (auto& [name, folder] : folders_) {
    if (name.empty())
      continue;
    const auto entry = listed.find(name);
    ASSERT_NE(entry, listed.end()) << "folder [" << name << "] has gone";
    Adopt(folder, entry->second, IsUncertain(name, {}), "folder [" + name + "]");
  }
}

void CMixedLoad::CheckFiles(CNfsClient& client, const std::string& folderName, SFolder& folder,
                            const listed_t& listed) {
  if (pending_ && pending_->folder == folderName && pending_->kind == kind_t::Rename &&
      !listed.contains(pending_->name)) {
    // It happened, and took what stood there away.
    auto moved = folder.files.extract(pending_->name);
    if (const auto replaced = folder.files.find(pending_->target); replaced != folder.files.end()) {
      Gone(replaced->second);
      folder.files.erase(replaced);
    }
    moved.mapped().mayBeStale = true;
    moved.key() = pending_->target;
    folder.files.insert(std::move(moved));
    pending_.reset();
  }
  for (const auto& [name, entry] : listed) {
    if (folderName.empty() && name.front() == 'd') {
      EXPECT_TRUE(folders_.contains(name)) << "folder [" << name << "] has come back";
      continue;
    }
    const bool isNew = IsUncertain(folderName, name) && pending_->kind == kind_t::Create;
    EXPECT_TRUE(isNew || folder.files.contains(name)) << "[" << folderName << "/" << name << "] has come back";
    CheckFile(client, folderName, entry, folder.files[name]);
  }
  std::erase_if(folder.files, [&](const auto& file) {
    if (listed.contains(file.first))
      return false;
    EXPECT_TRUE(IsUncertain(folderName, file.first)) << "[" << folderName << "/" << file.first << "] is lost";
    Gone(file.second);
    return true;
  });
}

void CMixedLoad::CheckFile(CNfsClient& client, const std::string& folderName, const SEntry& entry, SFile& file) {
  const std::string what = "[" + folderName + "/" + entry.name + "]";
  Adopt(file, entry, IsUncertain(folderName, entry.name), what);
  const SReadResult read = client.Read(entry.handle, 0, 65536);
  ASSERT_EQ(read.status, Ok) << what;
  EXPECT_TRUE(ContentsOf(folderName, entry.name, file).contains(read.data))
      << what << " holds " << read.data.size() << " bytes instead of " << file.content.size() << ": "
      << read.data.substr(0, 40);
  file.content = read.data;
}

}  // namespace test
