// A backend in memory, standing for any that is not the host: it can be away, refuse addresses and fail.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/exc.h"
#include "vfs/items/fs_item.h"

namespace test {

inline sockaddr_in Client(const char* address) {
  sockaddr_in client{};
  client.sin_family = AF_INET;
  client.sin_port = htons(700);
  inet_pton(AF_INET, address, &client.sin_addr);
  return client;
}

/// An entry of the backend's tree. Guarded by the backend's lock.
struct SFakeNode {
  bool isFolder = false;
  bool isDeleted = false;
  std::string movedTo;  ///< Its path after a rename.
  bool isMute = false;  ///< Questions about it throw, as while its mount is withdrawn.
  std::string allowedHostAddr;
  std::set<std::uint32_t> refused;  ///< Clients that may not touch it, as in sin_addr.
  std::string content;
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  std::map<std::string, std::shared_ptr<SFakeNode>> children;
};

/// What the items of one backend share. Any thread.
struct SFakeBackend {
  std::mutex mutex;
  GUID mountUid;                          ///< Nil for a backend that is no mount.
  std::atomic<bool> isAvailable{true};    ///< False: listing tells so, opening finds nothing, transfers fail.
  std::atomic<int> enumerations{0};       ///< Calls of Enumerate.
  std::atomic<int> opens{0};              ///< Calls of OpenChild.
  std::atomic<int> specQuestions{0};      ///< Calls of GetItemSpec and GetMountUid of files.
  std::atomic<bool> takesPipes{false};    ///< Whether files are written from pipes.
  std::atomic<int> pipeWrites{0};         ///< Calls of WritePipe.
  std::atomic<int> foreseen{0};           ///< Calls of Foresee of files.
  std::atomic<int> state{0};              ///< Not 0: folders tell it as what they list from.
  std::uint64_t largestFile{1ULL << 40};  ///< Bytes; what would make a larger file fails, as on a full disk.
  std::atomic<int> failure{0};            ///< Not 0: the next change of a folder throws win_sys_exc_t with it.
  std::shared_ptr<SFakeNode> root = std::make_shared<SFakeNode>();
  /// Set before it is used: puts each file that is opened behind another one.
  std::function<boost::shared_ptr<IFsItem>(const boost::shared_ptr<IFsFile>& file)> wrapFile;

  /// Called once, after the next operation of the name: what other clients do just then.
  void After(std::string operation, std::function<void()> meanwhile) {
    const std::lock_guard<std::mutex> lock(mutex);
    interrupted = std::move(operation);
    interruption = std::move(meanwhile);
  }
  /// Without the lock.
  void Ended(std::string_view operation) {
    std::function<void()> due;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (operation == interrupted)
        due = std::exchange(interruption, nullptr);
    }
    if (due)
      due();
  }
  std::string interrupted;
  std::function<void()> interruption;

  SFakeBackend() { root->isFolder = true; }
  explicit SFakeBackend(const GUID& uid) : SFakeBackend() { mountUid = uid; }

  /// Makes an entry, and the folders above it, without telling anyone.
  std::shared_ptr<SFakeNode> Put(const std::string& path, bool isFolder, const std::string& content = {}) {
    const std::lock_guard<std::mutex> lock(mutex);
    auto node = root;
    for (std::size_t begin = 0; begin <= path.size();) {
      const std::size_t end = std::min(path.find('/', begin), path.size());
      auto& child = node->children[path.substr(begin, end - begin)];
      if (!child) {
        child = std::make_shared<SFakeNode>();
        child->isFolder = true;
      }
      node = child;
      begin = end + 1;
    }
    node->isFolder = isFolder;
    node->content = content;
    return node;
  }
  void Drop(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto child = root->children.find(name);
    if (child == root->children.end())
      return;
    child->second->isDeleted = true;
    root->children.erase(child);
  }
};

/// What files and folders have in common.
template <typename Base>
class CFakeItem : public Base {
 public:
  CFakeItem(boost::shared_ptr<SFakeBackend> backend, std::shared_ptr<SFakeNode> node, std::string path)
      : backend_(std::move(backend)), node_(std::move(node)), path_(std::move(path)) {}

  void GetItemSpec(SFsItemSpec& spec) override {
    const auto lock = Lock();
    CheckNotMute();
    if (!node_->isFolder)
      ++backend_->specQuestions;
    spec = SFsItemSpec{};
    spec.path = node_->movedTo.empty() ? path_ : node_->movedTo;
    spec.isFolder = node_->isFolder;
    spec.isRfsItem = !backend_->mountUid.IsNil();
    spec.mountUid = backend_->mountUid;
    if (spec.isRfsItem && !spec.isFolder)
      spec.rfsSize = node_->content.size();
    if (!spec.isRfsItem)
      spec.allowedHostAddr = node_->allowedHostAddr;
  }
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) override {
    const auto lock = Lock();
    CheckThere();
    attributes = node_->attributes;
    attributes.attributes = node_->isFolder ? platform::FileAttributeDirectory : platform::FileAttributeNormal;
    attributes.SetSize(node_->content.size());
  }
  void SetPermissions(bool, bool) override {
    const auto lock = Lock();
    CheckThere();
  }
  void SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override {
    const auto lock = Lock();
    CheckThere();
    if (creation != nullptr)
      node_->attributes.creationTime = *creation;
    if (lastAccess != nullptr)
      node_->attributes.lastAccessTime = *lastAccess;
    if (lastWrite != nullptr)
      node_->attributes.lastWriteTime = *lastWrite;
  }
  bool Exists() override {
    const bool isThere = [this] {
      const auto lock = Lock();
      CheckNotMute();
      return !node_->isDeleted;
    }();
    backend_->Ended("Exists");
    return isThere;
  }
  bool GetMountUid(GUID& mountUid) override {
    if (!node_->isFolder)
      ++backend_->specQuestions;
    if (backend_->mountUid.IsNil())
      return false;
    mountUid = backend_->mountUid;
    return true;
  }
  bool IsAddressAllowed(const sockaddr_in& address) override {
    const auto lock = Lock();
    CheckNotMute();
    return !node_->refused.contains(address.sin_addr.s_addr);
  }
  std::string GetAllowedHostAddr() override {
    const auto lock = Lock();
    return node_->allowedHostAddr;
  }

 protected:
  std::unique_lock<std::mutex> Lock() const { return std::unique_lock<std::mutex>(backend_->mutex); }
  void CheckNotMute() const {
    if (node_->isMute)
      throw exc::runtime_exc_t("Procedure is cancelled.");
  }
  void CheckThere() const {
    if (node_->isDeleted)
      throw exc::win_sys_exc_t("The entry has gone.", platform::error::FileNotFound);
  }
  void CheckAvailable() const {
    if (!backend_->isAvailable)
      throw exc::runtime_exc_t("The backend is away.");
  }

  const boost::shared_ptr<SFakeBackend> backend_;
  const std::shared_ptr<SFakeNode> node_;
  const std::string path_;
};

class CFakeFile : public CFakeItem<IFsFile> {
 public:
  using CFakeItem::CFakeItem;

  void Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) override {
    const auto lock = Lock();
    CheckAvailable();
    CheckThere();
    const std::string& content = node_->content;
    const std::uint64_t begin = std::min<std::uint64_t>(offset, content.size());
    const std::uint64_t length = std::min<std::uint64_t>(count, content.size() - begin);
    buffer.data.resize(length);
    if (length != 0)
      std::memcpy(buffer.data.data(), content.data() + begin, length);
    buffer.length = static_cast<std::uint32_t>(length);
    buffer.eof = length < count;
  }
  void Write(std::uint64_t offset, std::uint32_t count, const void* data) override {
    const auto lock = Lock();
    CheckAvailable();
    CheckThere();
    CheckRoom(count <= backend_->largestFile && offset <= backend_->largestFile - count);
    if (node_->content.size() < offset + count)
      node_->content.resize(offset + count);
    if (count != 0)
      std::memcpy(node_->content.data() + offset, data, count);
  }
  void Foresee() const noexcept override { ++backend_->foreseen; }
  bool TakesPipes() const noexcept override { return backend_->takesPipes; }
  void WritePipe(std::uint64_t offset, std::uint32_t count, const void* data, platform::kernel_pipe_t& rest) override {
    ++backend_->pipeWrites;
    std::vector<std::uint8_t> all(count);
    const std::size_t first = count - rest.Held();
    std::copy_n(static_cast<const std::uint8_t*>(data), first, all.begin());
    std::size_t read = 0;
    if (rest.Read(std::span(all).subspan(first), read) != platform::error::Success)
      throw exc::runtime_exc_t("The pipe cannot be read.");
    Write(offset, count, all.data());
  }
  void Resize(std::uint64_t newSize) override {
    const auto lock = Lock();
    CheckRoom(newSize <= backend_->largestFile);
    node_->content.resize(newSize);
  }

 private:
  static void CheckRoom(bool isThere) {
    if (!isThere)
      throw exc::win_sys_exc_t("The backend is full.", platform::error::DiskFull);
  }
};

class CFakeFolder : public CFakeItem<IFsFolder> {
 public:
  using CFakeItem::CFakeItem;

  /// The backend's root.
  static boost::shared_ptr<CFakeFolder> Root(const boost::shared_ptr<SFakeBackend>& backend,
                                             bool isRootFolder = false) {
    auto root = boost::make_shared<CFakeFolder>(backend, backend->root, "");
    root->isRootFolder_ = isRootFolder;
    return root;
  }

  void Enumerate(SFsEnumeration& enumeration) override {
    const auto lock = Lock();
    ++backend_->enumerations;
    enumeration.mountUid = backend_->mountUid;
    if (!backend_->isAvailable) {
      enumeration.unavailable = true;
      return;
    }
    for (const auto& child : node_->children)
      enumeration.names.push_back(child.first);
    enumeration.state = GetState();
  }
  bool IsAvailable() override { return backend_->isAvailable; }
  std::optional<SFsFolderState> GetState() override {
    const int state = backend_->state;
    return state == 0 ? std::nullopt : std::optional(SFsFolderState{0, 0, state, 0});
  }
  boost::shared_ptr<IFsItem> CreateFile(const std::string& name, const std::string& allowedHostAddr) override {
    auto item = Create(name, allowedHostAddr, false);
    backend_->Ended("CreateFile");
    return item;
  }
  boost::shared_ptr<IFsItem> CreateSubfolder(const std::string& name, const std::string& allowedHostAddr) override {
    auto item = Create(name, allowedHostAddr, true);
    backend_->Ended("CreateSubfolder");
    return item;
  }
  boost::shared_ptr<IFsItem> OpenChild(const std::string& name) override {
    ++backend_->opens;
    auto item = Open(name);
    backend_->Ended("OpenChild");
    return item;
  }
  /// A backend that is away makes a placeholder from the record.
  boost::shared_ptr<IFsItem> ResumeChild(const std::string& name, const SFsItemSpec& spec) override {
    if (backend_->isAvailable)
      return Open(name);
    auto placeholder = std::make_shared<SFakeNode>();
    placeholder->isFolder = spec.isFolder;
    placeholder->content.resize(spec.rfsSize);
    return MakeItem(name, placeholder);
  }
  void DeleteChild(const std::string& name) override {
    Delete(name);
    backend_->Ended("DeleteChild");
  }
  void RenameChild(const std::string& oldName, const std::string& newName) override {
    const auto lock = Lock();
    ThrowFailure();
    const auto child = node_->children.find(oldName);
    if (child == node_->children.end()) {
      throw exc::win_sys_exc_t("There is nothing to rename.", platform::error::FileNotFound);
    }
    const auto node = child->second;
    node_->children.erase(child);
    auto& place = node_->children[newName];
    if (place)
      place->isDeleted = true;
    place = node;
    node->movedTo = path_.empty() ? newName : path_ + "//" + newName;
  }
  bool IsAddressListEmpty() override {
    const auto lock = Lock();
    return node_->allowedHostAddr.empty();
  }
  bool IsRootFolder() override { return isRootFolder_; }

 private:
  boost::shared_ptr<IFsItem> Open(const std::string& name) {
    const auto lock = Lock();
    if (!backend_->isAvailable)
      return {};
    const auto child = node_->children.find(name);
    return child == node_->children.end() ? boost::shared_ptr<IFsItem>() : MakeItem(name, child->second);
  }
  void Delete(const std::string& name) {
    const auto lock = Lock();
    ThrowFailure();
    const auto child = node_->children.find(name);
    if (child == node_->children.end())
      return;
    child->second->isDeleted = true;
    node_->children.erase(child);
  }
  boost::shared_ptr<IFsItem> Create(const std::string& name, const std::string& allowedHostAddr, bool isFolder) {
    const auto lock = Lock();
    ThrowFailure();
    auto& child = node_->children[name];
    if (!child)
      child = std::make_shared<SFakeNode>();
    child->isFolder = isFolder;
    child->allowedHostAddr = allowedHostAddr;
    child->content.clear();
    return MakeItem(name, child);
  }
  boost::shared_ptr<IFsItem> MakeItem(const std::string& name, const std::shared_ptr<SFakeNode>& node) const {
    const std::string path = path_.empty() ? name : path_ + "//" + name;
    if (node->isFolder)
      return boost::make_shared<CFakeFolder>(backend_, node, path);
    const auto file = boost::make_shared<CFakeFile>(backend_, node, path);
    return backend_->wrapFile ? backend_->wrapFile(file) : file;
  }
  void ThrowFailure() {
    if (const int failure = backend_->failure.exchange(0)) {
      throw exc::win_sys_exc_t("The backend fails.", static_cast<platform::error_t>(failure));
    }
  }

  bool isRootFolder_ = false;
};

}  // namespace test
