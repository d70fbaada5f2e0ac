// LOOKUP, CREATE, MKDIR, REMOVE, RMDIR and RENAME.
#include "virtual_fs_fixture.h"

namespace test {
namespace {

using Names = VirtualFsFixture;

constexpr nfsstat3 NotUtf8 = 1113;
const std::string BadNames[] = {"a/b", "/", "a\\b", "..\\x", "../x", std::string("a\0b", 3), std::string(1, '\0')};

TEST_F(Names, ALookupGivesHandleAndBothAttributes) {
  PutLocal("disk", "hello");
  const auto result = Lookup(root, "disk");
  ASSERT_EQ(result.status, NFS3_OK);
  ASSERT_TRUE(result.attributes);
  EXPECT_EQ(result.attributes->size, 5U);
  EXPECT_EQ(result.attributes->fileid, FidFromHandle(result.object));
  ASSERT_TRUE(result.dirAttributes);
  EXPECT_EQ(result.dirAttributes->fileid, root);
  EXPECT_EQ(Find(root, "disk"), FidFromHandle(result.object));
  EXPECT_EQ(Find(root, "DISK"), FidFromHandle(result.object));
}

TEST_F(Names, ALookupOfNothingIsNotFound) {
  const auto result = Lookup(root, "nothing");
  EXPECT_EQ(result.status, NFS3ERR_NOENT);
  EXPECT_FALSE(result.dirAttributes);
  EXPECT_EQ(Lookup(root, "").status, NFS3ERR_NOENT);
  EXPECT_EQ(Lookup(4711, "x").status, NFS3ERR_NOENT);
  EXPECT_EQ(Lookup(4711, ".").status, NFS3ERR_NOENT);
}

TEST_F(Names, DotIsTheFolderAndDotDotItsParent) {
  const auto folder = MakeFolder(root, "folder");
  const auto result = Lookup(folder, ".");
  ASSERT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(FidFromHandle(result.object), folder);
  EXPECT_EQ(result.attributes, result.dirAttributes);
  EXPECT_EQ(Find(folder, ".."), root);
  EXPECT_EQ(Lookup(root, "..").status, NFS3ERR_NOENT);
}

TEST_F(Names, DotOfAFolderThatHasGoneIsNotFound) {
  const auto folder = MakeFolder(root, "folder");
  std::filesystem::remove(local / "folder");
  EXPECT_EQ(Lookup(folder, ".").status, NFS3ERR_NOENT);
  EXPECT_EQ(GetAttrs(folder).status, NFS3ERR_STALE);
}

TEST_F(Names, AFileThatHasGoneLeavesTheTable) {
  PutLocal("disk");
  const auto fid = Find(root, "disk");
  EXPECT_TRUE(IsStored(fid));
  std::filesystem::remove(local / "disk");
  EXPECT_EQ(Lookup(root, "disk").status, NFS3ERR_NOENT);
  EXPECT_EQ(GetAttrs(fid).status, NFS3ERR_STALE);
  EXPECT_FALSE(IsStored(fid));
}

TEST_F(Names, WhatLeadsOutOfTheFolderIsNeverFound) {
  PutLocal("a/b");
  for (const auto& name : BadNames)
    EXPECT_EQ(Lookup(root, name).status, NFS3ERR_NOENT) << name;
}

TEST_F(Names, ANameThatIsNotUtf8IsAConversionError) {
  const std::string name = "\xff\xfe";
  EXPECT_EQ(Lookup(root, name).status, NotUtf8);
  EXPECT_EQ(Create(root, name).status, NotUtf8);
  EXPECT_EQ(Create(root, name, GUARDED).status, NotUtf8);
  EXPECT_EQ(MakeDir(root, name).status, NotUtf8);
  EXPECT_EQ(Remove(root, name), NotUtf8);
  EXPECT_EQ(RemoveDir(root, name), NotUtf8);
  EXPECT_EQ(Rename(root, name, root, "x"), NotUtf8);
  MakeFile(root, "x");
  EXPECT_EQ(Rename(root, "x", root, name), NotUtf8);
  EXPECT_EQ(List(root), std::vector<std::string>{"x"});
}

TEST_F(Names, ARefusedClientFindsNothing) {
  const auto backend = boost::make_shared<SFakeBackend>();
  const auto secret = backend->Put("secret", false);
  const auto fake = PublishFake(backend);
  secret->refused.insert(client.sin_addr.s_addr);
  EXPECT_EQ(Lookup(fake, "secret").status, NFS3ERR_ACCES);
  EXPECT_EQ(Lookup(fake, "nothing").status, NFS3ERR_NOENT);
  backend->root->refused.insert(client.sin_addr.s_addr);
  for (const auto status : {Lookup(fake, "nothing").status, Create(fake, "x").status,
                            Create(fake, "x", EXCLUSIVE).status, MakeDir(fake, "x").status, Remove(fake, "secret"),
                            RemoveDir(fake, "secret"), Rename(fake, "secret", fake, "y")})
    EXPECT_EQ(status, NFS3ERR_ACCES);
  EXPECT_TRUE(backend->root->children.contains("secret"));
}

TEST_F(Names, ACreatedFileIsEmptyAndStored) {
  sattr3 attributes;
  attributes.setSize = true;
  attributes.size = 7;
  const auto result = Create(root, "disk", UNCHECKED, attributes);
  ASSERT_EQ(result.status, NFS3_OK);
  ASSERT_TRUE(result.object);
  ASSERT_TRUE(result.attributes);
  EXPECT_EQ(result.attributes->size, 7U);
  EXPECT_FALSE(result.dirWcc.before);
  EXPECT_FALSE(result.dirWcc.after);
  EXPECT_TRUE(IsStored(FidFromHandle(*result.object)));
  EXPECT_TRUE(std::filesystem::is_regular_file(local / "disk"));
}

TEST_F(Names, CreatingOverAFileEmptiesItUnderItsHandle) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  EXPECT_EQ(MakeFile(root, "disk"), fid);
  EXPECT_EQ(Read(fid), "");
  EXPECT_EQ(MakeFile(root, "DISK"), fid);
}

TEST_F(Names, AGuardedCreateKeepsWhatIsThere) {
  PutLocal("disk", "hello");
  EXPECT_EQ(Create(root, "disk", GUARDED).status, NFS3ERR_EXIST);
  EXPECT_EQ(Create(root, "DISK", GUARDED).status, NFS3ERR_EXIST);
  EXPECT_EQ(GetLocal("disk"), "hello");
  EXPECT_EQ(Create(root, "other", GUARDED).status, NFS3_OK);
}

TEST_F(Names, AnExclusiveCreateIsNotSupported) {
  EXPECT_EQ(Create(root, "disk", EXCLUSIVE).status, NFS3ERR_NOTSUPP);
  EXPECT_EQ(List(root), std::vector<std::string>{});
}

TEST_F(Names, TheOrderOfChecksOfCreate) {
  const auto file = MakeFile(root, "file");
  EXPECT_EQ(Create(4711, "").status, NFS3ERR_INVAL);
  EXPECT_EQ(Create(4711, "x", EXCLUSIVE).status, NFS3ERR_NOENT);
  EXPECT_EQ(Create(file, "x", EXCLUSIVE).status, NFS3ERR_NOTSUPP);
  EXPECT_EQ(Create(file, "x").status, NFS3ERR_NOTDIR);
  EXPECT_EQ(Create(file, "x", GUARDED).status, NFS3ERR_NOTDIR);
}

TEST_F(Names, ANewEntryHasAProperName) {
  MakeFile(root, "file");
  for (const auto& name : BadNames) {
    EXPECT_EQ(Create(root, name).status, NFS3ERR_INVAL) << name;
    EXPECT_EQ(MakeDir(root, name).status, NFS3ERR_INVAL) << name;
    EXPECT_EQ(Rename(root, "file", root, name), NFS3ERR_INVAL) << name;
  }
  for (const std::string name : {".", "..", ""}) {
    EXPECT_EQ(Create(root, name).status, NFS3ERR_INVAL) << name;
    EXPECT_EQ(MakeDir(root, name).status, NFS3ERR_INVAL) << name;
    EXPECT_EQ(Rename(root, "file", root, name), NFS3ERR_INVAL) << name;
  }
  EXPECT_EQ(List(root), std::vector<std::string>{"file"});
}

TEST_F(Names, AMadeFolderAnswersWithItsOwnAttributes) {
  const auto result = MakeDir(root, "folder");
  ASSERT_EQ(result.status, NFS3_OK);
  ASSERT_TRUE(result.object);
  ASSERT_TRUE(result.attributes);
  EXPECT_EQ(result.attributes->type, NF3DIR);
  EXPECT_FALSE(result.dirWcc.before);
  EXPECT_EQ(result.dirWcc.after, result.attributes);
  EXPECT_TRUE(std::filesystem::is_directory(local / "folder"));
}

TEST_F(Names, MakingAFolderOnceMoreKeepsItsHandle) {
  const auto folder = MakeFolder(root, "folder");
  const auto inside = MakeFile(folder, "disk");
  EXPECT_EQ(MakeFolder(root, "folder"), folder);
  EXPECT_EQ(Find(folder, "disk"), inside);
}

TEST_F(Names, TheOrderOfChecksOfMkdir) {
  const auto file = MakeFile(root, "file");
  EXPECT_EQ(MakeDir(4711, "").status, NFS3ERR_INVAL);
  EXPECT_EQ(MakeDir(4711, "x").status, NFS3ERR_NOENT);
  EXPECT_EQ(MakeDir(file, "x").status, NFS3ERR_NOENT);
}

TEST_F(Names, AnAddressListGoesDownFromARestrictedFolderButNotFromTheRoot) {
  const auto backend = boost::make_shared<SFakeBackend>();
  backend->root->allowedHostAddr = "10.0.0.9";
  const auto restricted = backend->Put("restricted", true);
  restricted->allowedHostAddr = "10.0.0.1";
  const auto fake = PublishFake(backend);
  MakeFile(fake, "top");
  MakeFolder(fake, "topFolder");
  EXPECT_EQ(backend->root->children["top"]->allowedHostAddr, "");
  EXPECT_EQ(backend->root->children["topFolder"]->allowedHostAddr, "");
  const auto folder = Find(fake, "restricted");
  MakeFile(folder, "disk");
  MakeFolder(folder, "sub");
  EXPECT_EQ(restricted->children["disk"]->allowedHostAddr, "10.0.0.1");
  EXPECT_EQ(restricted->children["sub"]->allowedHostAddr, "10.0.0.1");
}

TEST_F(Names, ARemovedFileHasGone) {
  const auto fid = MakeFile(root, "disk");
  EXPECT_EQ(Remove(root, "disk"), NFS3_OK);
  EXPECT_FALSE(std::filesystem::exists(local / "disk"));
  EXPECT_EQ(Read(fid), "status 2");
  EXPECT_FALSE(IsStored(fid));
  EXPECT_EQ(Remove(root, "disk"), NFS3_OK) << "what is not there is as good as removed";
}

TEST_F(Names, ABackendThatCannotRemoveKeepsTheItem) {
  const auto backend = boost::make_shared<SFakeBackend>();
  backend->Put("disk", false);
  const auto fake = PublishFake(backend);
  const auto fid = Find(fake, "disk");
  backend->failure = 5;
  EXPECT_EQ(Remove(fake, "disk"), 5U);
  EXPECT_EQ(Find(fake, "disk"), fid);
}

TEST_F(Names, TheOrderOfChecksOfRemove) {
  const auto file = MakeFile(root, "file");
  EXPECT_EQ(Remove(4711, ""), NFS3ERR_NOENT);
  EXPECT_EQ(Remove(file, ""), NFS3ERR_INVAL);
  EXPECT_EQ(Remove(file, "x"), NFS3ERR_NOTDIR);
  EXPECT_EQ(Remove(root, "."), NFS3ERR_INVAL);
  EXPECT_EQ(Remove(root, ".."), NFS3ERR_INVAL);
}

TEST_F(Names, RemovingWhatLeadsOutOfTheFolderTouchesNothing) {
  PutLocal("a/b", "keep");
  for (const auto& name : BadNames) {
    EXPECT_EQ(Remove(root, name), NFS3_OK) << name;
    EXPECT_EQ(RemoveDir(root, name), NFS3_OK) << name;
  }
  EXPECT_EQ(GetLocal("a/b"), "keep");
}

TEST_F(Names, ARemovedFolderGoesWithAllBelow) {
  const auto folder = MakeFolder(root, "folder");
  const auto sub = MakeFolder(folder, "sub");
  const auto file = MakeFile(sub, "disk");
  ASSERT_EQ(Write(file, 0, "x"), NFS3_OK);
  EXPECT_EQ(RemoveDir(root, "folder"), NFS3_OK);
  EXPECT_FALSE(std::filesystem::exists(local / "folder"));
  for (const auto fid : {folder, sub, file}) {
    EXPECT_EQ(GetAttrs(fid).status, NFS3ERR_STALE);
    EXPECT_FALSE(IsStored(fid));
  }
}

TEST_F(Names, RmdirOfAMissingNameSucceeds) {
  EXPECT_EQ(RemoveDir(root, "nothing"), NFS3_OK);
  EXPECT_EQ(RemoveDir(4711, "nothing"), NFS3_OK);
}

TEST_F(Names, RmdirOfWhatCannotBeAName) {
  const auto folder = MakeFolder(root, "folder");
  for (const std::string name : {"", ".", ".."})
    EXPECT_EQ(RemoveDir(folder, name), NFS3ERR_INVAL) << name;
  EXPECT_EQ(RemoveDir(4711, "."), NFS3ERR_INVAL);
  EXPECT_TRUE(std::filesystem::exists(local / "folder"));
}

TEST_F(Names, RmdirOfAFileDeletesNothing) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Write(fid, 0, "keep"), NFS3_OK);
  EXPECT_EQ(RemoveDir(root, "disk"), NFS3ERR_NOTDIR);
  EXPECT_EQ(Read(fid), "keep");
}

TEST_F(Names, ARenamedFileAnswersUnderItsHandle) {
  const auto fid = MakeFile(root, "a");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  EXPECT_EQ(Rename(root, "a", root, "b"), NFS3_OK);
  EXPECT_EQ(Lookup(root, "a").status, NFS3ERR_NOENT);
  EXPECT_EQ(Find(root, "b"), fid);
  EXPECT_EQ(Read(fid), "hello");
  EXPECT_EQ(Write(fid, 5, "!"), NFS3_OK);
  EXPECT_EQ(GetLocal("b"), "hello!");
  EXPECT_FALSE(std::filesystem::exists(local / "a"));
}

TEST_F(Names, EverythingBelowARenamedFolderFollows) {
  const auto folder = MakeFolder(root, "a");
  const auto sub = MakeFolder(folder, "sub");
  const auto fid = MakeFile(sub, "disk");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  EXPECT_EQ(Rename(root, "a", root, "b"), NFS3_OK);
  EXPECT_EQ(Read(fid), "hello");
  EXPECT_EQ(Write(fid, 0, "HELLO"), NFS3_OK);
  EXPECT_EQ(GetLocal("b/sub/disk"), "HELLO");
  EXPECT_EQ(Find(root, "b"), folder);
  EXPECT_EQ(Find(folder, "sub"), sub);
  EXPECT_EQ(Find(sub, "disk"), fid);
}

TEST_F(Names, ARenameReplacesItsTarget) {
  const auto fid = MakeFile(root, "a");
  const auto target = MakeFile(root, "b");
  ASSERT_EQ(Write(fid, 0, "new"), NFS3_OK);
  ASSERT_EQ(Write(target, 0, "old"), NFS3_OK);
  EXPECT_EQ(Rename(root, "a", root, "b"), NFS3_OK);
  EXPECT_EQ(Find(root, "b"), fid);
  EXPECT_EQ(Read(fid), "new");
  EXPECT_EQ(GetAttrs(target).status, NFS3ERR_STALE);
  EXPECT_EQ(List(root), std::vector<std::string>{"b"});
}

TEST_F(Names, AFolderDoesNotMakeWayForWhatLiesInIt) {
  const auto outer = MakeFolder(root, "outer");
  const auto inner = MakeFolder(outer, "inner");
  const auto file = MakeFile(inner, "file");
  EXPECT_EQ(Rename(inner, "file", root, "outer"), NFS3ERR_INVAL);
  EXPECT_EQ(Rename(inner, "file", outer, "inner"), NFS3ERR_INVAL);
  EXPECT_EQ(Find(Find(Find(root, "outer"), "inner"), "file"), file);
  EXPECT_EQ(Find(outer, "inner"), inner);
}

TEST_F(Names, ARenameToItsOwnNameInAnySpellingKeepsTheItem) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  EXPECT_EQ(Rename(root, "disk", root, "disk"), NFS3_OK);
  EXPECT_EQ(Find(root, "disk"), fid);
  EXPECT_EQ(Rename(root, "disk", root, "Disk"), NFS3_OK);
  EXPECT_EQ(Find(root, "disk"), fid);
  EXPECT_EQ(Read(fid), "hello");
  EXPECT_EQ(List(root), std::vector<std::string>{"Disk"});
}

TEST_F(Names, AcrossFoldersTheNodeMovesAndReadsWhereTheFileIs) {
  const auto from = MakeFolder(root, "from");
  const auto to = MakeFolder(root, "to");
  const auto fid = MakeFile(from, "a");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  EXPECT_EQ(Rename(from, "a", to, "b"), NFS3_OK);
  EXPECT_EQ(Find(to, "b"), fid);
  EXPECT_EQ(Lookup(from, "a").status, NFS3ERR_NOENT);
  EXPECT_EQ(Read(fid), "hello");
  EXPECT_TRUE(std::filesystem::exists(local / "from/b"));
}

TEST_F(Names, WhatCannotBeRenamed) {
  const auto file = MakeFile(root, "file");
  EXPECT_EQ(Rename(root, "nothing", root, "x"), NFS3ERR_NOENT);
  EXPECT_EQ(Rename(4711, "file", root, "x"), NFS3ERR_NOENT);
  EXPECT_EQ(Rename(root, "file", 4711, "x"), NFS3ERR_NOENT);
  EXPECT_EQ(Rename(root, "file", file, "x"), NFS3ERR_NOTDIR);
  EXPECT_EQ(Rename(root, ".", root, "x"), NFS3ERR_INVAL);
  EXPECT_EQ(Rename(root, "..", root, "x"), NFS3ERR_INVAL);
  EXPECT_EQ(Rename(root, "a/b", root, "x"), NFS3ERR_NOENT);
  EXPECT_EQ(Rename(root, "", root, "x"), NFS3ERR_NOENT);
  EXPECT_EQ(List(root), std::vector<std::string>{"file"});
  EXPECT_EQ(Find(root, "file"), file);
}

TEST_F(Names, AFolderDoesNotMoveBelowItself) {
  const auto folder = MakeFolder(root, "a");
  const auto sub = MakeFolder(folder, "sub");
  EXPECT_EQ(Rename(root, "a", sub, "x"), NFS3ERR_INVAL);
  EXPECT_EQ(Rename(root, "a", folder, "x"), NFS3ERR_INVAL);
  EXPECT_TRUE(std::filesystem::exists(local / "a/sub"));
  EXPECT_EQ(Find(folder, "sub"), sub);
}

TEST_F(Names, ARenameThatTheBackendRefusesKeepsTheSource) {
  const auto backend = boost::make_shared<SFakeBackend>();
  backend->Put("a", false);
  const auto fake = PublishFake(backend);
  const auto fid = Find(fake, "a");
  backend->failure = 112;
  EXPECT_EQ(Rename(fake, "a", fake, "b"), 112U);
  EXPECT_EQ(Find(fake, "a"), fid);
}

TEST_F(Names, ALookupFindsWhatAMountHas) {
  const auto folder = MakeFolder(root, "backup");
  const auto mount = boost::make_shared<SFakeBackend>(Guid(7));
  mount->Put("disk", false, "from the backup");
  fs->ItemsTab()->MountMirroredFolder(folder, Guid(7), CFakeFolder::Root(mount));
  const auto fid = Find(folder, "disk");
  EXPECT_EQ(Read(fid), "from the backup");
  mount->isAvailable = false;
  EXPECT_EQ(Find(folder, "disk"), fid) << "an outage does not take the item away";
  EXPECT_EQ(Read(fid), "status 10006");
}

}  // namespace
}  // namespace test
