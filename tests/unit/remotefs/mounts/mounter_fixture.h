// A mounter over the fixture's share and agent.
#pragma once

#include "mounts_fixture.h"

namespace test {

class MounterTest : public MountsFixture {
 protected:
  MounterTest() { mounter = MakeMounter(); }

  std::uint64_t MountFolder() const { return tab->LookupChild(root, "backup"); }
  std::vector<std::string> MirrorPaths(std::uint64_t fid) const {
    std::vector<boost::shared_ptr<IFsFolder>> mirrors;
    tab->GetFolderMirrors(fid, mirrors);
    std::vector<std::string> kinds;
    for (const auto& mirror : mirrors) {
      GUID uid;
      kinds.push_back(mirror->GetMountUid(uid) ? platform::GuidToText(uid) : "host");
    }
    return kinds;
  }
};

}  // namespace test
