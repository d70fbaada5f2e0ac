// What the service needs around it, in a temporary folder.
#pragma once

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "hostfs/host_fs_file_cache.h"
#include "platform/registry.h"
#include "platform/sqlite_registry.h"
#include "service/context/svc_context.h"
#include "support/temp_dir.h"

namespace test {

/// A folder, an environment and a registry of the test's own. One at a time in a process.
class CServiceSurroundings {
 public:
  CServiceSurroundings() : replaced_(platform::registry_t::SetInstance(&registry_)) { HostFsFileCache::Init(); }
  CServiceSurroundings(const CServiceSurroundings&) = delete;
  CServiceSurroundings& operator=(const CServiceSurroundings&) = delete;
  ~CServiceSurroundings() {
    HostFsFileCache::Deinit();
    platform::registry_t::SetInstance(replaced_);
  }

  TempDir dir;

 private:
  ScopedEnvironment appData_{"ALLUSERSPROFILE", dir.Path().string()};
  ScopedEnvironment runtimeDir_{"KELVO_RUNTIME_DIR", dir.Path().string()};
  platform::sqlite_registry_t registry_{dir / "registry.db"};
  platform::registry_t* const replaced_;
};

/// The surroundings with a context in them, which is not published.
struct SServiceHome {
  CServiceSurroundings surroundings;
  boost::shared_ptr<CSvcContext> context = boost::make_shared<CSvcContext>();
};

}  // namespace test
