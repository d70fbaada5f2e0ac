#include "fault/support/mixed_load.h"

#include <utility>

namespace test {
namespace {

constexpr std::size_t BlockSize = 1024;  // Within a page, so that a kill leaves all of a block or nothing.
constexpr unsigned MostBlocks = 12;
constexpr unsigned FileNames = 12;  // Few, so that names come again.
constexpr unsigned FolderNames = 3;

}  // namespace

CMixedLoad::CMixedLoad(bytes_t share, std::string name, unsigned seed)
    : share_(std::move(share)), name_(std::move(name)), random_(seed) {
  CNfsClient client;
  SFolder own;
  SAttributes attributes;
  EXPECT_EQ(client.MkDir(share_, name_, &own.handle), Ok);
  EXPECT_EQ(client.GetAttr(own.handle, &attributes), Ok);
  own.fileid = attributes.fileid;
  folders_.emplace("", std::move(own));
}

void CMixedLoad::Start() {
  stop_ = false;
  isRunning_ = true;
  thread_ = std::thread([this] {
    Run();
    isRunning_ = false;
  });
}

void CMixedLoad::Stop() {
  stop_ = true;
  if (thread_.joinable())
    thread_.join();
  figures_.answered = answered_;
}

void CMixedLoad::Run() {
  try {
    CNfsClient client;
    while (!stop_)
      Step(client);
  } catch (const std::exception&) {
    // Whether the end was expected is for the test to say.
  }
}

void CMixedLoad::Step(CNfsClient& client) {
  const auto place = std::next(folders_.begin(), static_cast<std::ptrdiff_t>(random_() % folders_.size()));
  const std::string& folderName = place->first;
  SFolder& folder = place->second;
  const auto dice = random_() % 100;
  if (dice < 4)
    return MakeFolder(client);
  if (dice < 5)
    return RemoveFolder(client);
  if (dice < 7)
    return RenameFolder(client);
  if (dice < 25 || folder.files.empty())
    return MakeFile(client, folderName, folder);
  if (dice < 65)
    return WriteFile(client, folderName, folder);
  if (dice < 73)
    return ResizeFile(client, folderName, folder);
  if (dice < 82)
    return RemoveFile(client, folderName, folder);
  if (dice < 92)
    return RenameFile(client, folderName, folder);
  ListFolder(client, folder);
}

std::string CMixedLoad::NewContent() {
  const std::string mark = name_ + ":" + std::to_string(++number_) + ";";
  std::string content;
  while (content.size() < BlockSize)
    content += mark;
  return content.substr(0, BlockSize);
}

std::map<std::string, CMixedLoad::SFile>::iterator CMixedLoad::SomeFile(SFolder& folder) {
  return std::next(folder.files.begin(), static_cast<std::ptrdiff_t>(random_() % folder.files.size()));
}

void CMixedLoad::Gone(const SFolder& folder) {
  gone_.insert(folder.handle);
  for (const auto& [name, file] : folder.files)
    Gone(file);
}

void CMixedLoad::MakeFile(CNfsClient& client, const std::string& folderName, SFolder& folder) {
  const std::string name = "f" + std::to_string(random_() % FileNames);
  Begin(kind_t::Create, folderName, name);
  SFile made;
  SAttributes attributes;
  EXPECT_EQ(client.Create(folder.handle, name, &made.handle), Ok);
  EXPECT_EQ(client.GetAttr(made.handle, &attributes), Ok);
  made.fileid = attributes.fileid;
  EXPECT_EQ(attributes.size, 0U);
  if (const auto old = folder.files.find(name); old != folder.files.end()) {
    // It was emptied and kept its handle.
    EXPECT_EQ(made.handle, old->second.handle);
    made.mayBeStale = old->second.mayBeStale;
  } else {
    made.mayBeStale = folder.mayBeStale;
  }
  folder.files.insert_or_assign(name, std::move(made));
  Done();
}

void CMixedLoad::WriteFile(CNfsClient& client, const std::string& folderName, SFolder& folder) {
  const auto file = SomeFile(folder);
  const std::size_t offset = random_() % MostBlocks * BlockSize;
  const std::string block = NewContent();
  std::string content = file->second.content;
  if (content.size() < offset + BlockSize)
    content.resize(offset + BlockSize);
  content.replace(offset, BlockSize, block);
  Begin(kind_t::Write, folderName, file->first, {}, content);
  EXPECT_EQ(client.Write(file->second.handle, offset, block), Ok);
  file->second.content = std::move(content);
  ++figures_.writes;
  Done();
}

void CMixedLoad::ResizeFile(CNfsClient& client, const std::string& folderName, SFolder& folder) {
  const auto file = SomeFile(folder);
  std::string content = file->second.content;
  content.resize(random_() % (MostBlocks * BlockSize));
  Begin(kind_t::Resize, folderName, file->first, {}, content);
  SSetAttributes values;
  values.size = content.size();
  EXPECT_EQ(client.SetAttr(file->second.handle, values), Ok);
  file->second.content = std::move(content);
  Done();
}

void CMixedLoad::RemoveFile(CNfsClient& client, const std::string& folderName, SFolder& folder) {
  const auto file = SomeFile(folder);
  Begin(kind_t::Remove, folderName, file->first);
  EXPECT_EQ(client.Remove(folder.handle, file->first), Ok);
  Gone(file->second);
  folder.files.erase(file);
  Done();
}

void CMixedLoad::RenameFile(CNfsClient& client, const std::string& folderName, SFolder& folder) {
  const auto file = SomeFile(folder);
  const std::string target = "f" + std::to_string(random_() % FileNames);
  if (target == file->first)
    return;
  Begin(kind_t::Rename, folderName, file->first, target);
  EXPECT_EQ(client.Rename(folder.handle, file->first, folder.handle, target), Ok);
  if (const auto replaced = folder.files.find(target); replaced != folder.files.end())
    Gone(replaced->second);
  SFile moved = std::move(file->second);
  moved.mayBeStale = true;
  folder.files.erase(file);
  folder.files.insert_or_assign(target, std::move(moved));
  Done();
}

void CMixedLoad::ListFolder(CNfsClient& client, const SFolder& folder) {
  std::map<std::string, bytes_t> expected;
  for (const auto& [name, file] : folder.files)
    expected.emplace(name, file.handle);
  if (folder.handle == folders_.at("").handle) {
    for (const auto& [name, below] : folders_) {
      if (!name.empty())
        expected.emplace(name, below.handle);
    }
  }
  std::map<std::string, bytes_t> listed;
  for (const SEntry& entry : client.List(folder.handle)) {
    EXPECT_TRUE(listed.emplace(entry.name, entry.handle).second) << entry.name << " is listed twice";
  }
  EXPECT_EQ(listed, expected);
  ++answered_;
}

void CMixedLoad::MakeFolder(CNfsClient& client) {
  const std::string name = "d" + std::to_string(random_() % FolderNames);
  if (folders_.contains(name))
    return;
  Begin(kind_t::MakeFolder, name);
  SFolder made;
  SAttributes attributes;
  EXPECT_EQ(client.MkDir(folders_.at("").handle, name, &made.handle), Ok);
  EXPECT_EQ(client.GetAttr(made.handle, &attributes), Ok);
  made.fileid = attributes.fileid;
  folders_.emplace(name, std::move(made));
  Done();
}

void CMixedLoad::RemoveFolder(CNfsClient& client) {
  const std::string name = "d" + std::to_string(random_() % FolderNames);
  const auto folder = folders_.find(name);
  if (folder == folders_.end())
    return;
  Begin(kind_t::RemoveFolder, name);
  EXPECT_EQ(client.RmDir(folders_.at("").handle, name), Ok);
  Gone(folder->second);
  folders_.erase(folder);
  Done();
}

void CMixedLoad::RenameFolder(CNfsClient& client) {
  const std::string name = "d" + std::to_string(random_() % FolderNames);
  const std::string target = "d" + std::to_string(random_() % FolderNames);
  const auto folder = folders_.find(name);
  if (folder == folders_.end() || folders_.contains(target))
    return;
  Begin(kind_t::RenameFolder, name, {}, target);
  const bytes_t& own = folders_.at("").handle;
  EXPECT_EQ(client.Rename(own, name, own, target), Ok);
  SFolder moved = std::move(folder->second);
  moved.mayBeStale = true;
  for (auto& [fileName, file] : moved.files)
    file.mayBeStale = true;
  folders_.erase(folder);
  folders_.emplace(target, std::move(moved));
  Done();
}

}  // namespace test
