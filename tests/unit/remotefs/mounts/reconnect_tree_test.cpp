// What becomes of a mount's items when its agent is there again.
#include "mounter_fixture.h"
#include "remotefs/items/remote_fs_folder.h"
#include "support/fake_fs_backend.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class ReconnectTree : public MounterTest {
 protected:
  ReconnectTree() {
    for (const char* path : {"a", "b", "sub//c", "sub//d"})
      agent->SetFile(path, WireBytes(path));
    std::ofstream(host / "backup" / "notes") << "of the host";
    mounter->Mount(mountUid, cfg);
    backup = MountFolder();
    connector = TheConnector();
    a = Find(backup, "a");
    b = Find(backup, "b");
    notes = Find(backup, "notes");
    sub = tab->AddItem(backup, "sub", boost::make_shared<CRemoteFsFolder>(connector, "sub", mountUid));
    c = Find(sub, "c");
    d = Find(sub, "d");
  }

  void Reconnect() {
    Lose(*connector);
    ASSERT_TRUE(connector->Reconnect());
    requestsBefore = agent->Requests().size();
    mounter->ReconnectTree(mounter->ResolveMountRootFid(mountUid), mountUid);
  }
  std::vector<std::string> OpenedPaths() const {
    std::vector<std::string> paths;
    const auto requests = agent->Requests();
    for (std::size_t i = requestsBefore; i < requests.size(); ++i) {
      const AgentRequest request(requests[i]);
      paths.push_back(request.command == 1 ? request.path : "command " + std::to_string(request.command));
    }
    return paths;
  }

  boost::shared_ptr<CRemoteFsConnector> connector;
  std::uint64_t backup = InvalidFid;
  std::uint64_t a = InvalidFid;
  std::uint64_t b = InvalidFid;
  std::uint64_t notes = InvalidFid;
  std::uint64_t sub = InvalidFid;
  std::uint64_t c = InvalidFid;
  std::uint64_t d = InvalidFid;
  std::size_t requestsBefore = 0;
};

TEST_F(ReconnectTree, OpensEveryFileAnewParentsFirstInTheOrderOfTheFids) {
  const CapturedLog log(true);
  Reconnect();
  // What is expected, from the FIDs as they were drawn.
  std::map<std::uint64_t, std::pair<std::string, std::string>> below{{a, {"RFS file [", "vol/backup/a"}},
                                                                     {b, {"RFS file [", "vol/backup/b"}},
                                                                     {sub, {"RFS folder [", "vol/backup/sub"}}};
  std::map<std::uint64_t, std::pair<std::string, std::string>> deeper{{c, {"RFS file [", "vol/backup/sub/c"}},
                                                                      {d, {"RFS file [", "vol/backup/sub/d"}}};
  std::vector<std::string> expected{"RFS folder [" + tab->GetItemPath(backup) + "] was reconnected."};
  std::vector<std::string> expectedPaths;
  for (const auto& [fid, item] : below) {
    expected.push_back(item.first + tab->GetItemPath(fid) + "] was reconnected.");
    if (fid != sub) {
      expectedPaths.push_back(item.second.substr(item.second.rfind('/') + 1));
      continue;
    }
    for (const auto& [deeperFid, inner] : deeper) {
      expected.push_back(inner.first + tab->GetItemPath(deeperFid) + "] was reconnected.");
      expectedPaths.push_back("sub//" + inner.second.substr(inner.second.rfind('/') + 1));
    }
  }
  std::vector<std::string> told;
  for (const std::string& line : log.Texts()) {
    if (line.starts_with("RFS "))
      told.push_back(line);
  }
  EXPECT_EQ(told, expected);
  EXPECT_EQ(OpenedPaths(), expectedPaths);
}

TEST_F(ReconnectTree, SaysNothingOfItemsUnlessItIsAskedTo) {
  const CapturedLog log(false);
  Reconnect();
  for (const std::string& line : log.Texts())
    EXPECT_FALSE(line.starts_with("RFS ")) << line;
}

TEST_F(ReconnectTree, FilesAreReadUnderTheirOldHandles) {
  Reconnect();
  EXPECT_EQ(Read(a), "a");
  EXPECT_EQ(Read(b), "b");
  EXPECT_EQ(Read(c), "sub//c");
  EXPECT_EQ(Read(d), "sub//d");
  EXPECT_EQ(Read(notes), "of the host");
}

TEST_F(ReconnectTree, AFileThatTheAgentHasNoMoreLeavesAndItsSiblingsComeBack) {
  agent->RemoveFile("a");
  agent->RemoveFile("sub//c");
  const std::string pathOfA = tab->GetItemPath(a);
  const CapturedLog log(true);
  Reconnect();
  EXPECT_FALSE(tab->GetItem(a));
  EXPECT_FALSE(tab->GetItem(c));
  EXPECT_EQ(tab->LookupChild(backup, "a"), InvalidFid);
  EXPECT_EQ(Read(b), "b");
  EXPECT_EQ(Read(d), "sub//d");
  EXPECT_EQ(Read(notes), "of the host");
  EXPECT_TRUE(log.Has("RFS file [" + pathOfA + "] is orphaned and will be deleted."));
  EXPECT_THAT(log.Texts("Warning"), IsEmpty());
}

TEST_F(ReconnectTree, AFolderIsNeverLost) {
  for (const char* path : {"a", "b", "sub//c", "sub//d"})
    agent->RemoveFile(path);
  Reconnect();
  EXPECT_TRUE(tab->GetItem(sub));
  EXPECT_TRUE(tab->GetItemForMount(backup, mountUid));
}

TEST_F(ReconnectTree, AnItemThatIsNotOfTheMountStopsItsBranch) {
  Lose(*connector);
  ASSERT_TRUE(connector->Reconnect());
  requestsBefore = agent->Requests().size();
  const CapturedLog log(true);
  mounter->ReconnectTree(backup, MountUid(42));
  mounter->ReconnectTree(notes, mountUid);
  mounter->ReconnectTree(4711, mountUid);
  EXPECT_THAT(OpenedPaths(), IsEmpty());
  EXPECT_THAT(log.Texts(), IsEmpty());
}

TEST_F(ReconnectTree, AForeignItemUnderTheMountsIdentityIsTold) {
  const auto foreign = boost::make_shared<SFakeBackend>(mountUid);
  foreign->Put("stranger", false);
  const std::uint64_t stranger = tab->AddItem(backup, "stranger", CFakeFolder::Root(foreign)->OpenChild("stranger"));
  const CapturedLog log;
  Reconnect();
  EXPECT_THAT(log.Texts("Warning"),
              ElementsAre("Item [" + tab->GetItemPath(stranger) + "] does not belong to the mounted filesystem."));
  EXPECT_EQ(Read(b), "b");
}

TEST_F(ReconnectTree, StopsWhenTheAgentIsLostAgain) {
  Lose(*connector);
  ASSERT_TRUE(connector->Reconnect());
  AnswerTo(1, DieInReply());
  EXPECT_THAT(FailureOf([&] { mounter->ReconnectTree(backup, mountUid); }),
              StartsWith("Timed out waiting for the response from restore agent."));
  EXPECT_TRUE(tab->GetItem(a)) << "nothing leaves the tree without the agent's word";
  EXPECT_TRUE(tab->GetItem(b));
  EXPECT_FALSE(connector->IsConnected());
}

TEST_F(ReconnectTree, ATreeOfAnyDepthIsWalked) {
  std::uint64_t parent = backup;
  for (int i = 0; i < 20000; ++i)
    parent = tab->AddItem(parent, "d", boost::make_shared<CRemoteFsFolder>(connector, "d", mountUid));
  mounter->ReconnectTree(backup, mountUid);
  mounter->Dismount(mountUid);
  EXPECT_FALSE(tab->GetItem(parent));
}

}  // namespace
}  // namespace test
