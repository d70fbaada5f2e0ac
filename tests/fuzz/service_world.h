// A running service in a folder of its own, with a mount agent beside it.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "config/reg_keys.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/quiet_registry.h"
#include "hostfs/host_fs_file_cache.h"
#include "kelvo-mount-agent/folder_content.h"
#include "mount-agent-lib/server.h"
#include "platform/sqlite_registry.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"
#include "support/temp_dir.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace fuzz {

/// For all inputs of a target: an input takes back what it has made. The shares lie in one folder; beside it lies what
/// nobody may reach through them.
class CServiceWorld {
 public:
  static constexpr std::string_view Secret = "what lies outside of the share";
  static constexpr const char* AgentPipe = "agent";

  CServiceWorld() {
    platform::registry_t::SetInstance(&registry);
    std::filesystem::create_directories(Outside());
    std::ofstream(Outside() / "secret") << Secret;
    std::filesystem::create_directories(Backup());
    std::ofstream(Backup() / "disk.img") << std::string(20000, 'b');
    std::ofstream(Backup() / "notes") << "notes";
    agent_ = std::make_unique<mount_agent::CAgentServer>(AgentPipe, content_.emplace(BackupOptions()),
                                                         [](const std::string&) {});
    HostFsFileCache::Init();
    Start();
  }
  CServiceWorld(const CServiceWorld&) = delete;
  CServiceWorld& operator=(const CServiceWorld&) = delete;
  ~CServiceWorld() {
    Stop();
    HostFsFileCache::Deinit();
    platform::registry_t::SetInstance(nullptr);
  }

  /// Wherever the stored root folder has got to.
  void Start() {
    Require(registry.SetText(regkeys::Root, "RootFolder", Share().string()) == 0, "the registry takes a setting");
    context_ = boost::make_shared<CSvcContext>();
    fs_ = context_->GetFs();
    CSvcContextHolder::Set(context_);
  }
  void Stop() {
    CSvcContextHolder::Set({});
    fs_.reset();
    context_.reset();
  }

  CVirtualFs& Fs() { return *fs_; }
  std::filesystem::path Share() const { return dir_.Path() / "share"; }
  std::filesystem::path Outside() const { return dir_.Path() / "outside"; }

  void CheckOutside() const {
    std::ifstream secret(Outside() / "secret");
    const std::string content{std::istreambuf_iterator<char>(secret), std::istreambuf_iterator<char>()};
    Require(content == Secret, "what lies outside of the share stays as it is");
    namespace fs = std::filesystem;
    Require(std::distance(fs::directory_iterator(Outside()), fs::directory_iterator()) == 1,
            "nothing comes to lie outside of the share");
  }

 private:
  std::filesystem::path Backup() const { return dir_.Path() / "backup"; }
  mount_agent::SFolderOptions BackupOptions() const { return {Backup().string(), {}, mount_agent::writes_t::ToSource}; }

  test::TempDir dir_;
  test::ScopedEnvironment appData_{"ALLUSERSPROFILE", dir_.Path().string()};
  test::ScopedEnvironment runtimeDir_{"KELVO_RUNTIME_DIR", dir_.Path().string()};
  platform::sqlite_registry_t stored_{dir_ / "registry.db"};
  std::optional<mount_agent::CFolderContent> content_;
  std::unique_ptr<mount_agent::CAgentServer> agent_;
  boost::shared_ptr<CSvcContext> context_;
  boost::shared_ptr<CVirtualFs> fs_;

 public:
  CQuietRegistry registry{stored_};
};

}  // namespace fuzz
