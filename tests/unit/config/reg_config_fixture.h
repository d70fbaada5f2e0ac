// A configuration and what is stored in it.
#pragma once

#include <cstdint>
#include <string>

#include "config/reg_config.h"
#include "unit/config/config_fixture.h"

namespace test {

inline constexpr std::uint64_t NoFid = ~std::uint64_t{0};

inline const GUID Mount1 = *platform::GuidFromText("{11111111-2222-3333-4444-555555555555}");

class RegConfigTest : public ConfigFixture {
 protected:
  static std::string Share(const std::string& name) { return std::string(Root) + "\\Shared Folders\\" + name; }
  static std::string Mount(const std::string& name) { return std::string(Root) + "\\Dynamic mounts\\" + name; }
  static std::string Item(const std::string& name) { return std::string(Root) + "\\ItemsCache\\" + name; }

  static SFsItemSpec HostFile(const std::string& path) {
    SFsItemSpec spec;
    spec.path = path;
    return spec;
  }
  static SFsItemSpec HostFolder(const std::string& path) {
    SFsItemSpec spec = HostFile(path);
    spec.isFolder = true;
    return spec;
  }
  static SFsItemSpec RemoteFile(const GUID& mount, const std::string& path, std::uint64_t size) {
    SFsItemSpec spec = HostFile(path);
    spec.isRfsItem = true;
    spec.mountUid = mount;
    spec.rfsSize = size;
    return spec;
  }
  static SFsItemSpec RemoteFolder(const GUID& mount, const std::string& path) {
    SFsItemSpec spec = HostFolder(path);
    spec.isRfsItem = true;
    spec.mountUid = mount;
    return spec;
  }

  SRegConfigData Load() {
    SRegConfigData data;
    config.Load(data);
    return data;
  }

  CRegConfig config;
};

}  // namespace test
