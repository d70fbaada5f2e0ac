#include "remotefs/items/remote_fs_folder.h"

#include <gmock/gmock.h>

#include "remotefs/items/remote_fs_file.h"
#include "support/captured_log.h"
#include "support/failure_text.h"
#include "support/fake_fs_backend.h"
#include "support/manual_clock.h"
#include "support/remote_mount.h"
#include "vfs/items/async_fs_file_wrapper.h"
#include "vfs/items/fs_proc_invoker.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint32_t EnumerateCommand = 0;
constexpr std::uint32_t OpenCommand = 1;
constexpr std::uint32_t GetSizeCommand = 4;
constexpr std::uint64_t HalfHourMs = 1800000;

Bytes ListingRecord(const std::string& name, std::uint64_t size = 0) {
  return WireNumber<std::uint32_t>(0) + WireNumber(size) + WireString(name);
}

class FolderTest : public RemoteMountFixture {
 protected:
  SFsEnumeration Enumerate(CRemoteFsFolder& folderItem) const {
    SFsEnumeration enumeration;
    enumeration.names = {"left over"};
    folderItem.Enumerate(enumeration);
    return enumeration;
  }
  void ExpectUnavailable(CRemoteFsFolder& folderItem) const {
    const SFsEnumeration enumeration = Enumerate(folderItem);
    EXPECT_TRUE(enumeration.unavailable);
    EXPECT_EQ(enumeration.mountUid, mountUid);
  }
  /// The agent lets each lookup fail, and lives on.
  void LetLookupsFail() const { AnswerTo(OpenCommand, AgentReply::Message({})); }
  static std::size_t Told(const CapturedLog& log, const std::string& name) {
    return log.Count("Failed to find RFS item [" + name + "].");
  }
  static CRemoteFsFile& RemoteFile(const boost::shared_ptr<IFsItem>& item) {
    return dynamic_cast<CRemoteFsFile&>(*boost::dynamic_pointer_cast<CAsyncFsFileWrapper>(item)->File());
  }
  FILETIME Now() const {
    constexpr std::int64_t NanosecondsPerSecond = 1000000000;
    return platform::FiletimeFromTimespec({clock.WallNanoseconds() / NanosecondsPerSecond, 0});
  }

  const GUID mountUid = [] {
    GUID uid;
    uid.bytes[3] = 77;
    return uid;
  }();
  ManualClock clock;
  const ScopedClock scopedClock{clock};
  boost::shared_ptr<CRemoteFsConnector> connector = Connected();
  boost::shared_ptr<CRemoteFsFolder> root = boost::make_shared<CRemoteFsFolder>(connector, "", mountUid);
  boost::shared_ptr<CRemoteFsFolder> sub = boost::make_shared<CRemoteFsFolder>(connector, "a", mountUid);
};

TEST_F(FolderTest, TellsWhatIsStoredOfIt) {
  cfg->allowedHostAddr = "10.0.0.1";
  SFsItemSpec spec;
  spec.rfsSize = 5;
  CRemoteFsFolder(connector, "a//b", mountUid).GetItemSpec(spec);
  EXPECT_EQ(spec, (SFsItemSpec{.path = "a//b",
                               .isFolder = true,
                               .isRfsItem = true,
                               .mountUid = mountUid,
                               .rfsSize = 0,
                               .allowedHostAddr = ""}));
  GUID uid;
  EXPECT_TRUE(root->GetMountUid(uid));
  EXPECT_EQ(uid, mountUid);
}

TEST_F(FolderTest, HasAttributesOfItsOwn) {
  const FILETIME made = Now();
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  attributes.sizeHigh = attributes.sizeLow = 7;
  root->GetAttributes(attributes);
  EXPECT_EQ(attributes.attributes, 16U);
  EXPECT_EQ(attributes.Size(), 0U);
  EXPECT_EQ(attributes.creationTime, made);
  EXPECT_EQ(attributes.lastAccessTime, made);
  EXPECT_EQ(attributes.lastWriteTime, made);

  clock.Advance(1000);
  root->SetPermissions(true, true);
  root->GetAttributes(attributes);
  EXPECT_EQ(attributes.creationTime, made);
  EXPECT_EQ(attributes.lastAccessTime, Now());
  EXPECT_EQ(attributes.lastWriteTime, Now());

  const FILETIME creation = 10;
  const FILETIME access = 20;
  const FILETIME write = 30;
  root->SetTimes(&creation, nullptr, &write);
  root->GetAttributes(attributes);
  EXPECT_EQ(attributes.creationTime, creation);
  EXPECT_EQ(attributes.lastAccessTime, Now());
  EXPECT_EQ(attributes.lastWriteTime, write);
  root->SetTimes(nullptr, &access, nullptr);
  root->GetAttributes(attributes);
  EXPECT_EQ(attributes.lastAccessTime, access);

  EXPECT_TRUE(root->Exists());
  bool notFound = true;
  root->Reopen(notFound);
  EXPECT_FALSE(notFound);
  EXPECT_THAT(agent->Requests(), IsEmpty());
}

TEST_F(FolderTest, IsForEveryoneWithoutAnAddressList) {
  EXPECT_TRUE(root->IsAddressAllowed(Client("192.168.7.7")));
  EXPECT_TRUE(root->IsAddressListEmpty());
  EXPECT_EQ(root->GetAllowedHostAddr(), "");
  EXPECT_FALSE(root->IsRootFolder());
}

TEST_F(FolderTest, IsForTheMountsHostAlone) {
  cfg->allowedHostAddr = "10.0.0.1";
  CRemoteFsFolder restricted(connector, "", mountUid);
  EXPECT_TRUE(restricted.IsAddressAllowed(Client("10.0.0.1")));
  EXPECT_FALSE(restricted.IsAddressAllowed(Client("10.0.0.2")));
  EXPECT_FALSE(restricted.IsAddressListEmpty());
  EXPECT_EQ(restricted.GetAllowedHostAddr(), "10.0.0.1");
  EXPECT_FALSE(restricted.IsRootFolder());
}

TEST_F(FolderTest, ListsTheRootWithoutAPath) {
  Answer(AgentReply::Message(WireNumber<std::uint32_t>(3) + ListingRecord("zeta") + ListingRecord("alpha", 1) +
                             ListingRecord("Ünter")));
  const SFsEnumeration enumeration = Enumerate(*root);
  EXPECT_EQ(LastRequest(), Bytes(8));
  EXPECT_FALSE(enumeration.unavailable);
  EXPECT_THAT(enumeration.names, ElementsAre("zeta", "alpha", "Ünter")) << "as the agent tells them";
  EXPECT_FALSE(enumeration.state) << "nobody can tell whether an agent would list the same again";
}

TEST_F(FolderTest, ListsASubfolderWithItsPath) {
  agent->SetFile("a//b", {});
  agent->SetFile("c", {});
  const SFsEnumeration enumeration = Enumerate(*sub);
  EXPECT_EQ(LastRequest(), WireNumber(EnumerateCommand) + WireString("a"));
  EXPECT_THAT(enumeration.names, ElementsAre("b"));
}

TEST_F(FolderTest, AnEmptyListingIsOne) {
  const SFsEnumeration enumeration = Enumerate(*root);
  EXPECT_FALSE(enumeration.unavailable);
  EXPECT_THAT(enumeration.names, IsEmpty());
}

TEST_F(FolderTest, IsUnavailableRatherThanEmptyWhileTheAgentIsAway) {
  agent->SetFile("disk", {});
  Lose(*connector);
  const std::size_t requests = agent->Requests().size();
  const CapturedLog log;
  ExpectUnavailable(*root);
  EXPECT_THAT(log.Texts("Warning"), IsEmpty()) << "that it is away has been told";
  EXPECT_EQ(agent->Requests().size(), requests);

  CRemoteFsFolder unconnected(MakeConnector(), "", mountUid);
  ExpectUnavailable(unconnected);
}

TEST_F(FolderTest, TellsOfAListingThatFails) {
  const CapturedLog log;
  Answer(AgentReply::Message(WireNumber<std::uint32_t>(1)));
  ExpectUnavailable(*sub);
  auto warnings = log.Texts("Warning");
  ASSERT_EQ(warnings.size(), 3U);
  EXPECT_EQ(warnings[0], "Failed to enumerate items of the folder [a]. Pipe: [vm1].");
  EXPECT_EQ(warnings[1], "Invalid data stream");
  Answer(DieInReply());
  ExpectUnavailable(*root);
  warnings = log.Texts("Warning");
  ASSERT_EQ(warnings.size(), 6U);
  EXPECT_EQ(warnings[3], "Failed to enumerate items of the folder []. Pipe: [vm1].");
  EXPECT_EQ(warnings[4], "Timed out waiting for the response from restore agent.");
}

TEST_F(FolderTest, AListingThatAnnouncesMoreThanItHasIsUnavailable) {
  for (const std::uint32_t count : {2U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    Answer(AgentReply::Message(WireNumber(count) + ListingRecord("one")));
    ExpectUnavailable(*root);
  }
  Answer(AgentReply::Message(WireNumber<std::uint32_t>(1) + WireNumber<std::uint32_t>(0) +
                             WireNumber<std::uint64_t>(0) + WireNumber<std::uint32_t>(0xFFFFFFFF) + Bytes(10)));
  ExpectUnavailable(*root);
  EXPECT_TRUE(connector->IsConnected());
}

TEST_F(FolderTest, NamesThatAreNoneAreLeftOut) {
  const CapturedLog log;
  const std::vector<std::string> bad = {"",
                                        ".",
                                        "..",
                                        "a/b",
                                        "a\\b",
                                        "/",
                                        "../../etc/passwd",
                                        "a\xFF",
                                        "\xC0\xAF",
                                        "\xED\xA0\x80",
                                        std::string("a\0b", 3)};
  Bytes listing = WireNumber(static_cast<std::uint32_t>(bad.size() + 1));
  for (const std::string& name : bad)
    listing = listing + ListingRecord(name);
  Answer(AgentReply::Message(listing + ListingRecord("good")));
  EXPECT_THAT(Enumerate(*root).names, ElementsAre("good"));
  EXPECT_EQ(log.Texts("Warning").size(), bad.size());
}

TEST_F(FolderTest, NothingCanBeChangedInIt) {
  EXPECT_EQ(FailureOf([&] { sub->CreateFile("x", ""); }),
            "[RemoteFS] CreateFile() function is not supported. File name: [x].");
  EXPECT_EQ(FailureOf([&] { sub->CreateSubfolder("x", ""); }),
            "[RemoteFS] CreateSubfolder() function is not supported. Folder name: [x].");
  EXPECT_EQ(FailureOf([&] { sub->DeleteChild("x"); }),
            "[RemoteFS] DeleteChild() function is not supported. Child item name: [x]. Folder: [a].");
  EXPECT_EQ(FailureOf([&] { sub->RenameChild("x", "y"); }),
            "[RemoteFS] RenameChild() function is not supported. Old child item name: [x]. New child item name: [y]. "
            "Folder: [a].");
  EXPECT_THAT(agent->Requests(), IsEmpty());
}

TEST_F(FolderTest, OpensAChildOfTheRootByItsName) {
  agent->SetFile("a", Bytes(5));
  const auto child = root->OpenChild("a");
  ASSERT_TRUE(child);
  EXPECT_THAT(agent->Requests(), ElementsAre(WireNumber(OpenCommand) + WireString("a"),
                                             WireNumber(GetSizeCommand) + WireNumber<std::int32_t>(0)));
  SFsItemSpec spec;
  RemoteFile(child).GetItemSpec(spec);
  EXPECT_EQ(spec.path, "a");
  EXPECT_EQ(spec.mountUid, mountUid);
  EXPECT_EQ(spec.rfsSize, 5U);
}

TEST_F(FolderTest, OpensAChildOfASubfolderBehindTwoSlashes) {
  agent->SetFile("a//b", Bytes(5));
  agent->SetFile("c//d//e", Bytes(6));
  const auto child = sub->OpenChild("b");
  ASSERT_TRUE(child);
  EXPECT_EQ(agent->Requests().front(), WireNumber(OpenCommand) + WireString("a//b"));
  const auto deeper = CRemoteFsFolder(connector, "c//d", mountUid).OpenChild("e");
  ASSERT_TRUE(deeper);
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  deeper->GetAttributes(attributes);
  EXPECT_EQ(attributes.Size(), 6U);
}

TEST_F(FolderTest, AChildWorksBehindTheMountsInvoker) {
  agent->SetFile("disk", WireBytes("hello"));
  const auto child = boost::dynamic_pointer_cast<IFsAsyncFile>(root->OpenChild("disk"));
  ASSERT_TRUE(child);
  SFsReadBuffer buffer;
  child->Read(0, 5, buffer);
  EXPECT_EQ(std::string(buffer.data.begin(), buffer.data.begin() + 5), "hello");
  connector->GetInvoker()->Stop();
  EXPECT_EQ(FailureOf([&] { child->Read(0, 5, buffer); }), "Procedure is cancelled.");
}

TEST_F(FolderTest, AChildIsOpenedWhereThereIsOneClient) {
  agent->SetFile("disk", WireBytes("hello"));
  limits.freeClientMs = 0;
  connector = Connected();
  EXPECT_TRUE(CRemoteFsFolder(connector, "", mountUid).OpenChild("disk"))
      << "opening and asking do not wait for another";
}

TEST_F(FolderTest, AnAbsentChildIsNoEvent) {
  const CapturedLog log;
  for (int i = 0; i < 3; ++i)
    EXPECT_FALSE(root->OpenChild("missing"));
  EXPECT_THAT(log.Texts("Error"), IsEmpty());
  EXPECT_THAT(log.Texts("Warning"), IsEmpty());
  EXPECT_EQ(Told(log, "missing"), 0U);
  EXPECT_EQ(agent->Requests().size(), 3U);
}

TEST_F(FolderTest, NamesThatAreNoneAreNotAskedFor) {
  const CapturedLog log;
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                                  std::string("a\\b"), std::string("a\0b", 3), std::string("a\xFF")})
    EXPECT_FALSE(root->OpenChild(name)) << name;
  EXPECT_THAT(agent->Requests(), IsEmpty());
  EXPECT_THAT(log.Texts("Error"), IsEmpty());
}

TEST_F(FolderTest, AFailingLookupIsToldOnceInHalfAnHour) {
  const CapturedLog log;
  LetLookupsFail();
  EXPECT_FALSE(root->OpenChild("disk"));
  auto errors = log.Texts("Error");
  ASSERT_EQ(errors.size(), 4U);
  EXPECT_EQ(errors[0], "Failed to find RFS item [disk].");
  EXPECT_EQ(errors[1], "Invalid data stream");
  EXPECT_EQ(errors[2], "Failed to open backup item [disk].");
  EXPECT_FALSE(root->OpenChild("disk")) << "in the same millisecond";
  EXPECT_EQ(Told(log, "disk"), 1U);
  clock.Advance(HalfHourMs - 1);
  EXPECT_FALSE(root->OpenChild("disk"));
  EXPECT_EQ(Told(log, "disk"), 1U);
  clock.Advance(1);
  EXPECT_FALSE(root->OpenChild("disk"));
  EXPECT_EQ(Told(log, "disk"), 2U) << "the time counts from what was told, not from what was tried";
  clock.Advance(HalfHourMs - 1);
  EXPECT_FALSE(root->OpenChild("disk"));
  EXPECT_EQ(Told(log, "disk"), 2U);
}

TEST_F(FolderTest, EachNameHasItsOwnHalfHour) {
  const CapturedLog log;
  LetLookupsFail();
  root->OpenChild("one");
  root->OpenChild("two");
  root->OpenChild("one");
  EXPECT_EQ(Told(log, "one"), 1U);
  EXPECT_EQ(Told(log, "two"), 1U);
  CRemoteFsFolder(connector, "", mountUid).OpenChild("one");
  EXPECT_EQ(Told(log, "one"), 2U) << "and so has each folder";
}

TEST_F(FolderTest, AnOpenedChildForgetsItsFailure) {
  agent->SetFile("disk", {});
  agent->SetFile("other", {});
  const CapturedLog log;
  LetLookupsFail();
  root->OpenChild("disk");
  root->OpenChild("other");
  AnswerWell();
  EXPECT_TRUE(root->OpenChild("disk"));
  LetLookupsFail();
  root->OpenChild("disk");
  root->OpenChild("other");
  EXPECT_EQ(Told(log, "disk"), 2U);
  EXPECT_EQ(Told(log, "other"), 1U);
}

TEST_F(FolderTest, AnAbsentChildForgetsNothing) {
  const CapturedLog log;
  LetLookupsFail();
  root->OpenChild("disk");
  AnswerWell();
  EXPECT_FALSE(root->OpenChild("disk"));
  LetLookupsFail();
  root->OpenChild("disk");
  EXPECT_EQ(Told(log, "disk"), 1U);
}

TEST_F(FolderTest, AChildWhoseSizeIsNotToBeHadIsALookupThatFails) {
  agent->SetFile("disk", {});
  const CapturedLog log;
  AnswerTo(GetSizeCommand, AgentReply::Message({1}));
  EXPECT_FALSE(root->OpenChild("disk"));
  EXPECT_EQ(Told(log, "disk"), 1U);
  EXPECT_EQ(log.Count("Failed to open file [disk] using pipe [vm1]."), 1U);
  EXPECT_FALSE(root->OpenChild("disk"));
  EXPECT_EQ(Told(log, "disk"), 1U) << "a handle alone is no success";
}

TEST_F(FolderTest, TicksThatComeRoundAreToldOnceMoreAtOnce) {
  constexpr std::uint64_t Round = std::uint64_t{1} << 32;
  clock.Advance(Round - 1000 - clock.MonotonicMilliseconds());
  const CapturedLog log;
  LetLookupsFail();
  root->OpenChild("disk");
  clock.Advance(500);
  root->OpenChild("disk");
  EXPECT_EQ(Told(log, "disk"), 1U);
  clock.Advance(1000);
  root->OpenChild("disk");
  EXPECT_EQ(Told(log, "disk"), 2U);
}

TEST_F(FolderTest, EndlessNewNamesDoNotGrowIt) {
  const CapturedLog log;
  connector->Stop();
  for (int i = 0; i < 10001; ++i)
    root->OpenChild("name" + std::to_string(i));
  root->OpenChild("name10000");
  EXPECT_EQ(Told(log, "name10000"), 1U);
  root->OpenChild("name0");
  EXPECT_EQ(Told(log, "name0"), 2U) << "the older ones were forgotten";
}

TEST_F(FolderTest, ALostAgentIsALookupThatFails) {
  const CapturedLog log;
  Answer(DieInReply());
  EXPECT_FALSE(root->OpenChild("disk"));
  EXPECT_EQ(Told(log, "disk"), 1U);
  EXPECT_FALSE(root->OpenChild("other"));
  EXPECT_EQ(log.Count("Pipe pool is hanging. Base pipe name: [vm1]."), 1U);
}

TEST_F(FolderTest, ResumesAChildFromTheAgent) {
  agent->SetFile("a//disk", Bytes(5));
  SFsItemSpec spec;
  spec.path = "elsewhere";
  spec.rfsSize = 99;
  const auto child = sub->ResumeChild("disk", spec);
  ASSERT_TRUE(child);
  SFsItemSpec resumed;
  child->GetItemSpec(resumed);
  EXPECT_EQ(resumed.path, "a//disk");
  EXPECT_EQ(resumed.rfsSize, 5U);
}

TEST_F(FolderTest, DoesNotResumeWhatTheAgentHasNoMore) {
  const CapturedLog log;
  EXPECT_FALSE(sub->ResumeChild("disk", {}));
  SFsItemSpec folderSpec;
  folderSpec.isFolder = true;
  EXPECT_FALSE(sub->ResumeChild("disk", folderSpec)) << "an agent opens files alone";
  EXPECT_THAT(log.Texts("Error"), IsEmpty());
}

TEST_F(FolderTest, ResumesAFileAsAPlaceholderWhileTheAgentIsAway) {
  const auto unconnected = MakeConnector();
  CRemoteFsFolder away(unconnected, "a", mountUid);
  const CapturedLog log;
  SFsItemSpec spec{.path = "a//stored",
                   .isFolder = false,
                   .isRfsItem = true,
                   .mountUid = {},
                   .rfsSize = std::uint64_t{1} << 40,
                   .allowedHostAddr = "10.0.0.1"};
  const auto child = away.ResumeChild("disk", spec);
  ASSERT_TRUE(child);
  EXPECT_EQ(log.Count("[RFS] Item [a//stored] mounted in disconnected state. Size hint: [1099511627776]."), 1U);
  SFsItemSpec resumed;
  child->GetItemSpec(resumed);
  EXPECT_EQ(resumed.path, "a//stored") << "as it stands in the record";
  EXPECT_EQ(resumed.mountUid, mountUid);
  EXPECT_EQ(resumed.rfsSize, std::uint64_t{1} << 40);
  EXPECT_EQ(child->GetAllowedHostAddr(), "") << "the mount decides who may use it";
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  child->GetAttributes(attributes);
  EXPECT_EQ(attributes.Size(), std::uint64_t{1} << 40);
  EXPECT_THAT(agent->Requests(), IsEmpty());

  agent->SetFile("a//stored", Bytes(3));
  ASSERT_TRUE(unconnected->Reconnect());
  bool notFound = true;
  RemoteFile(child).Reopen(notFound);
  EXPECT_FALSE(notFound);
  child->GetAttributes(attributes);
  EXPECT_EQ(attributes.Size(), 3U);
}

TEST_F(FolderTest, ResumesAFolderAsAPlaceholderWhileTheAgentIsAway) {
  CRemoteFsFolder away(MakeConnector(), "a", mountUid);
  SFsItemSpec spec;
  spec.isFolder = true;
  spec.path = "a//stored";
  const auto child = boost::dynamic_pointer_cast<CRemoteFsFolder>(away.ResumeChild("b", spec));
  ASSERT_TRUE(child);
  SFsItemSpec resumed;
  child->GetItemSpec(resumed);
  EXPECT_EQ(resumed.path, "a//stored");
  EXPECT_EQ(resumed.mountUid, mountUid);
  EXPECT_TRUE(resumed.isFolder);
}

TEST_F(FolderTest, AnAgentThatFailsWhileItResumesLeavesAPlaceholder) {
  agent->SetFile("a//disk", Bytes(3));
  SFsItemSpec spec;
  spec.path = "a//disk";
  spec.rfsSize = 42;
  for (const std::uint32_t command : {OpenCommand, GetSizeCommand}) {
    AnswerTo(command, AgentReply::Message({}));
    const auto child = sub->ResumeChild("disk", spec);
    ASSERT_TRUE(child);
    WIN32_FILE_ATTRIBUTE_DATA attributes;
    child->GetAttributes(attributes);
    EXPECT_EQ(attributes.Size(), 42U);
    EXPECT_TRUE(connector->IsConnected());
    // Nobody has to reconnect: the next call opens it.
    agent->SetScript({});
    child->GetAttributes(attributes);
    EXPECT_EQ(attributes.Size(), 3U);
  }
  Answer(DieInReply());
  EXPECT_TRUE(sub->ResumeChild("disk", spec)) << "nor has one that goes just now";
}

}  // namespace
}  // namespace test
