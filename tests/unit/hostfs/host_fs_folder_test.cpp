// Finding, making, listing and deleting what lies in a host folder.
#include "hostfs/host_fs_folder.h"

#include <chrono>
#include <future>

#include "hostfs/files_access_permissions.h"
#include "hostfs/host_folders.h"
#include "unit/hostfs/host_fs_fixture.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using Strings = std::vector<std::string>;

class HostFsFolder : public test::HostFs {
 protected:
  const std::string withZero{"a\0b", 3};
  const std::string notUtf8{"a\xff"};
};

TEST_F(HostFsFolder, ChildrenAreFoundAsWhatTheyAre) {
  Put("file", "text");
  fs::create_directory(Path("folder"));
  EXPECT_TRUE(boost::dynamic_pointer_cast<CAsyncFsFileWrapper>(root->OpenChild("file")));
  const auto folder = Folder("folder");
  ASSERT_TRUE(folder);
  EXPECT_FALSE(folder->IsRootFolder());
  EXPECT_TRUE(root->IsRootFolder());
  EXPECT_FALSE(root->OpenChild("absent"));
  EXPECT_FALSE(root->ResumeChild("absent", {}));
  EXPECT_FALSE(AsFolder(root->OpenChild("folder"))->OpenChild("absent"));
  EXPECT_EQ(AsFolder(root->OpenChild("FOLDER"))->LocalPath(), Path("folder"));
}

TEST_F(HostFsFolder, HostileNamesNeverReachTheHost) {
  Put("file", "text");
  fs::create_directory(Path("folder"));
  Put("folder/file", "text");
  for (const std::string& name : {std::string("folder/file"), std::string("folder\\file"), std::string("/file"),
                                  std::string("../share/file"), std::string("file\0", 5), withZero}) {
    EXPECT_FALSE(root->OpenChild(name));
    EXPECT_FALSE(root->ResumeChild(name, {}));
    root->DeleteChild(name);
    EXPECT_EQ(StatusOf([&] { root->CreateFile(name, ""); }), NFS3ERR_INVAL);
    EXPECT_EQ(StatusOf([&] { root->CreateSubfolder(name, ""); }), NFS3ERR_INVAL);
    EXPECT_EQ(StatusOf([&] { root->RenameChild("file", name); }), NFS3ERR_INVAL);
    EXPECT_EQ(NumberOf([&] { root->RenameChild(name, "new"); }), error::FileNotFound);
  }
  EXPECT_EQ(Names(*root), (Strings{"file", "folder"}));
  EXPECT_EQ(Get("folder/file"), "text");
}

TEST_F(HostFsFolder, DotsAndEmptyNamesAreInvalidForChanges) {
  Put("file", "text");
  for (const std::string name : {".", "..", ""}) {
    EXPECT_FALSE(root->OpenChild(name));
    EXPECT_EQ(StatusOf([&] { root->CreateFile(name, ""); }), NFS3ERR_INVAL);
    EXPECT_EQ(StatusOf([&] { root->CreateSubfolder(name, ""); }), NFS3ERR_INVAL);
    EXPECT_EQ(StatusOf([&] { root->DeleteChild(name); }), NFS3ERR_INVAL);
    EXPECT_EQ(StatusOf([&] { root->RenameChild("file", name); }), NFS3ERR_INVAL);
    EXPECT_EQ(StatusOf([&] { root->RenameChild(name, "new"); }), NFS3ERR_INVAL);
  }
  EXPECT_EQ(Names(*root), (Strings{"file"}));
}

TEST_F(HostFsFolder, NamesThatAreNoUtf8AreTheConversionError) {
  Put("file", "text");
  EXPECT_EQ(NumberOf([&] { root->OpenChild(notUtf8); }), error::NoUnicodeTranslation);
  EXPECT_EQ(NumberOf([&] { root->ResumeChild(notUtf8, {}); }), error::NoUnicodeTranslation);
  EXPECT_EQ(NumberOf([&] { root->CreateFile(notUtf8, ""); }), error::NoUnicodeTranslation);
  EXPECT_EQ(NumberOf([&] { root->CreateSubfolder(notUtf8, ""); }), error::NoUnicodeTranslation);
  EXPECT_EQ(NumberOf([&] { root->DeleteChild(notUtf8); }), error::NoUnicodeTranslation);
  EXPECT_EQ(NumberOf([&] { root->RenameChild("file", notUtf8); }), error::NoUnicodeTranslation);
  EXPECT_EQ(NumberOf([&] { root->RenameChild(notUtf8, "new"); }), error::NoUnicodeTranslation);
}

TEST_F(HostFsFolder, ListingLeavesOutWhatCannotBeNamed) {
  Put("\xc3\xa4", "");
  Put(notUtf8, "");
  Put(notUtf8 + "b", "");
  Put("back\\slash", "");
  const test::CapturedLog log;
  EXPECT_EQ(Names(*root), (Strings{"\xc3\xa4"}));
  EXPECT_EQ(log.Count("Folder [" + (dir / "share") + "] has 2 entries without a name."), 1U);
}

TEST_F(HostFsFolder, ListingHidesCaseVariantsWithOneWarning) {
  Put("a", "");
  Put("A", "");
  Put("b", "");
  const test::CapturedLog log;
  EXPECT_EQ(Names(*root), (Strings{"A", "b"}));
  EXPECT_EQ(Names(*root), (Strings{"A", "b"}));
  EXPECT_EQ(log.Texts("Warning").size(), 1U);
}

TEST_F(HostFsFolder, ListingFailures) {
  const auto folder = AsFolder(root->CreateSubfolder("folder", ""));
  for (const platform::error_t failure : {error::FileNotFound, error::PathNotFound, error::NoMoreFiles}) {
    files.faults.onList = [failure](const platform::location_t&) { return failure; };
    EXPECT_EQ(Names(*folder), Strings{});
  }
  files.faults.onList = [](const platform::location_t&) { return error::AccessDenied; };
  const test::CapturedLog log;
  const std::string text = "File search operation has failed. Search mask: [" + Path("folder") + "/*].";
  EXPECT_EQ(NumberOf([&] { Names(*folder); }, text), error::AccessDenied);
  EXPECT_GE(log.Texts("Error").size(), 1U);
  files.faults.onList = nullptr;
  fs::remove(Path("folder"));
  EXPECT_EQ(Names(*folder), Strings{});
}

TEST_F(HostFsFolder, CreatingAFileEmptiesWhatIsThere) {
  Put("file", "text");
  const auto file = AsFile(root->CreateFile("file", ""));
  ASSERT_TRUE(file);
  EXPECT_EQ(Get("file"), "");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
  Write(*file, "new");
  EXPECT_EQ(Get("file"), "new");
  fs::create_directory(Path("folder"));
  EXPECT_EQ(
      NumberOf([&] { root->CreateFile("folder", ""); }, "Failed to create or open file [" + Path("folder") + "]."),
      error::AccessDenied);
}

TEST_F(HostFsFolder, CreatingOverACachedFileDropsItsHandle) {
  Put("file", "text");
  fs::create_hard_link(Path("file"), Path("other"));
  fs::create_directory(Path("folder"));
  fs::create_symlink("../file", Path("folder/link"));
  const auto file = File("file");
  for (const std::string name : {"file", "FILE", "other"}) {
    Write(*file, "text");
    EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
    EXPECT_TRUE(root->CreateFile(name, "")) << name;
    EXPECT_EQ(Get("file"), "") << name;
    EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
  }
  Write(*file, "text");
  EXPECT_TRUE(Folder("folder")->CreateFile("link", ""));
  EXPECT_EQ(Get("file"), "");
}

TEST_F(HostFsFolder, CreatingOverAFileInUseSucceeds) {
  Put("file", "text");
  const auto location = platform::location_t(boost::make_shared<platform::root_folder_t>(dir / "share"), "file");
  const auto inUse = HostFsFileCache::GetFile(location, files);
  EXPECT_TRUE(root->CreateFile("file", ""));
  EXPECT_EQ(Get("file"), "");
  std::uint64_t size = 7;
  EXPECT_EQ(inUse->GetSize(size), error::Success);
  EXPECT_EQ(size, 0U);
}

TEST_F(HostFsFolder, OtherFilesAreServedWhileOneIsEmptied) {
  Put("file", "text");
  Put("other", "other");
  const auto other = File("other");
  const auto file = File("file");
  std::future<std::string> reads;
  files.faults.onSetSize = [&] {
    reads = std::async(std::launch::async, [&] { return Read(*other) + Read(*file); });
    EXPECT_EQ(reads.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    return 0U;
  };
  root->CreateFile("file", "");
  EXPECT_EQ(reads.get(), "othertext");
  EXPECT_EQ(Get("file"), "");
  files.faults.onSetSize = [] { return error::DiskFull; };
  EXPECT_EQ(NumberOf([&] { root->CreateFile("file", ""); }, "Failed to create or open file [" + Path("file") + "]."),
            error::DiskFull);
}

TEST_F(HostFsFolder, CreatingAFolderTakesOneThatIsThere) {
  const auto folder = AsFolder(root->CreateSubfolder("Folder", ""));
  ASSERT_TRUE(folder);
  EXPECT_TRUE(fs::is_directory(Path("Folder")));
  EXPECT_EQ(AsFolder(root->CreateSubfolder("folder", ""))->LocalPath(), Path("Folder"));
  Put("file", "text");
  EXPECT_EQ(NumberOf([&] { root->CreateSubfolder("file", ""); },
                     "Failed to create folder [file]. Full path: " + Path("file")),
            error::AlreadyExists);
  fs::remove_all(Path("Folder"));
  EXPECT_EQ(NumberOf([&] { folder->CreateSubfolder("sub", ""); },
                     "Failed to create folder [sub]. Full path: " + Path("Folder/sub")),
            error::FileNotFound);
}

TEST_F(HostFsFolder, DeletingAFile) {
  Put("file", "text");
  const auto file = File("file");
  EXPECT_EQ(Read(*file), "text");
  root->DeleteChild("FILE");
  EXPECT_FALSE(IsThere("file"));
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
  root->DeleteChild("file");
  Put("file", "new");
  const auto kept = File("file");
  EXPECT_EQ(Read(*kept), "new");
  EXPECT_THROW(Read(*file), exc::win_sys_exc_t) << "the new file is another one";
  files.faults.onDeleteFile = [](const platform::location_t&) { return error::AccessDenied; };
  EXPECT_EQ(NumberOf([&] { root->DeleteChild("file"); }, "Failed to delete file: [" + Path("file") + "]."),
            error::AccessDenied);
  EXPECT_EQ(Read(*kept), "new");
}

TEST_F(HostFsFolder, DeletingAFolderTakesAllBelowAndFollowsNoLink) {
  fs::create_directories(Path("folder/a/b"));
  fs::create_directory(Path("kept"));
  Put("kept/file", "kept");
  Put("folder/a/b/file", "text");
  Put("folder/a/b/FILE", "text");
  Put("folder/" + notUtf8, "text");
  Put("folder/back\\slash", "text");
  fs::create_symlink("../kept", Path("folder/inside"));
  fs::create_symlink(dir / "share/kept", Path("folder/outside"));
  fs::create_symlink("nothing", Path("folder/dangling"));
  fs::create_symlink("kept", Path("link"));
  const auto file = AsFile(AsFolder(AsFolder(Folder("folder")->OpenChild("a"))->OpenChild("b"))->OpenChild("file"));
  EXPECT_EQ(Read(*file), "text");
  root->DeleteChild("folder");
  EXPECT_FALSE(IsThere("folder"));
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
  root->DeleteChild("link");
  EXPECT_FALSE(IsThere("link"));
  EXPECT_EQ(Get("kept/file"), "kept");
}

TEST_F(HostFsFolder, FolderThatTurnsIntoALinkWhileItIsDeletedIsNotFollowed) {
  fs::create_directories(Path("folder/sub"));
  fs::create_directory(Path("kept"));
  Put("kept/file", "kept");
  for (const std::string swapped : {"folder/sub", "folder"}) {
    files.faults.onList = [&](const platform::location_t& where) {
      if (where.Path() == Path(swapped)) {
        fs::rename(Path(swapped), Path("aside"));
        fs::create_symlink(swapped == "folder" ? "kept" : "../kept", Path(swapped));
      }
      return 0U;
    };
    EXPECT_NE(NumberOf([&] { root->DeleteChild("folder"); }), 0U) << swapped;
    EXPECT_EQ(Get("kept/file"), "kept") << swapped;
    files.faults.onList = nullptr;
    fs::remove(Path(swapped));
    fs::rename(Path("aside"), Path(swapped));
  }
  root->DeleteChild("folder");
  EXPECT_FALSE(IsThere("folder"));
}

TEST_F(HostFsFolder, FolderThatStaysFullIsTriedThreeTimesMore) {
  fs::create_directory(Path("folder"));
  int tries = 0;
  files.faults.onRemoveFolder = [&](const platform::location_t&) {
    ++tries;
    return error::DirNotEmpty;
  };
  const test::CapturedLog log;
  EXPECT_EQ(NumberOf([&] { root->DeleteChild("folder"); },
                     "Failed to delete existing empty subfolder: [" + Path("folder") + "]."),
            error::DirNotEmpty);
  EXPECT_EQ(tries, 4);
  EXPECT_EQ(clock.Sleeps(), (std::vector<std::uint32_t>{100, 100, 100}));
  for (const std::string number : {"0", "1", "2"}) {
    EXPECT_EQ(log.Count("Retrying remove directory '" + Path("folder") + "'. Retry number: '" + number + "'."), 1U);
  }
  tries = 0;
  files.faults.onRemoveFolder = [&](const platform::location_t&) { return ++tries < 3 ? error::DirNotEmpty : 0U; };
  root->DeleteChild("folder");
  EXPECT_FALSE(IsThere("folder"));
}

TEST_F(HostFsFolder, OtherFailuresOfRemovingAreToldAtOnce) {
  fs::create_directory(Path("folder"));
  files.faults.onRemoveFolder = [](const platform::location_t&) { return error::AccessDenied; };
  EXPECT_EQ(NumberOf([&] { root->DeleteChild("folder"); },
                     "Failed to delete existing empty subfolder: [" + Path("folder") + "]."),
            error::AccessDenied);
  EXPECT_TRUE(clock.Sleeps().empty());
  Put("folder/file", "text");
  files.faults.onDeleteFile = [](const platform::location_t&) { return error::IoDevice; };
  EXPECT_EQ(NumberOf([&] { root->DeleteChild("folder"); }, "Failed to delete file: [" + Path("folder/file") + "]."),
            error::IoDevice);
}

TEST_F(HostFsFolder, TimesOfAFolderCannotBeSet) {
  const std::string text = "Failed to update folder modification/access/creation times (" + (dir / "share") + ").";
  const FILETIME time = 1;
  EXPECT_EQ(TextOf([&] { root->SetTimes(nullptr, nullptr, nullptr); }), text);
  EXPECT_EQ(TextOf([&] { root->SetTimes(nullptr, &time, &time); }), text);
}

TEST_F(HostFsFolder, FileSystemRootExistsWhateverTheSearchSays) {
  files.faults.onGetInfo = [](const platform::location_t&) { return error::AccessDenied; };
  EXPECT_TRUE(MakeRoot("/")->Exists());
  EXPECT_FALSE(root->Exists());
  files.faults.onGetInfo = nullptr;
  EXPECT_TRUE(root->Exists());
  EXPECT_FALSE(MakeRoot(dir / "absent")->Exists());
}

TEST_F(HostFsFolder, ConfiguredRootFolderIsRestored) {
  const std::string configured = dir / "data/Kelvo/Backup/NfsDatastore";
  const auto share = MakeRoot(configured + "/");
  ASSERT_FALSE(fs::exists(configured));
  const test::CapturedLog log;
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  share->GetAttributes(attributes);
  EXPECT_TRUE(attributes.IsDirectory());
  EXPECT_TRUE(fs::is_directory(configured));
  EXPECT_EQ(log.Texts("Warning"),
            (Strings{"Root NFS directory doesn't exist: Restoring directory '" + configured + "'"}));
  EXPECT_TRUE(share->CreateFile("file", ""));
  fs::remove_all(configured);
  share->GetAttributes(attributes);
  EXPECT_TRUE(share->CreateFile("file", ""));
  EXPECT_TRUE(fs::exists(configured + "/file"));
}

TEST_F(HostFsFolder, OtherFoldersAreNotRestored) {
  fs::remove_all(dir / "share");
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  EXPECT_EQ(NumberOf([&] { root->GetAttributes(attributes); },
                     "Failed to retrieve attributes of the file [" + (dir / "share") + "]"),
            error::FileNotFound);
  EXPECT_FALSE(fs::exists(dir / "share"));
  EXPECT_FALSE(root->Exists());
  EXPECT_EQ(Names(*root), Strings{});
  fs::create_directory(dir / "share");
  Put("file", "text");
  root->GetAttributes(attributes);
  EXPECT_EQ(Read(*File("file")), "text");
}

TEST_F(HostFsFolder, AddressListsGoDown) {
  fs::create_directory(Path("folder"));
  Put("folder/file", "");
  const auto restricted = MakeRoot(dir / "share", "10.0.0.0/8");
  EXPECT_FALSE(restricted->IsAddressListEmpty());
  EXPECT_TRUE(root->IsAddressListEmpty());
  EXPECT_TRUE(restricted->IsAddressAllowed(test::Address("10.1.2.3")));
  EXPECT_FALSE(restricted->IsAddressAllowed(test::Address("11.1.2.3")));
  const auto folder = restricted->OpenChild("folder");
  EXPECT_EQ(folder->GetAllowedHostAddr(), "10.0.0.0/8");
  EXPECT_FALSE(AsFolder(folder)->OpenChild("file")->IsAddressAllowed(test::Address("11.1.2.3")));
  EXPECT_EQ(restricted->CreateFile("new", "")->GetAllowedHostAddr(), "");
  EXPECT_EQ(restricted->CreateSubfolder("sub", "10.0.0.1")->GetAllowedHostAddr(), "10.0.0.1");
  SFsItemSpec spec;
  folder->GetItemSpec(spec);
  EXPECT_EQ(spec.path, Path("folder"));
  EXPECT_TRUE(spec.isFolder);
  EXPECT_FALSE(spec.isRfsItem);
  EXPECT_EQ(spec.allowedHostAddr, "10.0.0.0/8");
}

TEST_F(HostFsFolder, LinksOutOfTheShareAreNotThere) {
  fs::create_directory(dir / "outside");
  std::ofstream(dir / "outside/secret") << "secret";
  fs::create_symlink(dir / "outside/secret", Path("absolute"));
  fs::create_symlink("../outside", Path("relative"));
  fs::create_directory(Path("folder"));
  Put("folder/file", "text");
  fs::create_symlink("folder", Path("inside"));
  EXPECT_FALSE(root->OpenChild("absolute"));
  EXPECT_FALSE(root->OpenChild("relative"));
  EXPECT_EQ(Read(*AsFile(Folder("inside")->OpenChild("file"))), "text");
  EXPECT_EQ(NumberOf([&] { root->CreateFile("absolute", ""); }), error::AccessDenied);
  const auto folder = Folder("folder");
  const auto file = AsFile(folder->OpenChild("file"));
  fs::rename(Path("folder"), Path("aside"));
  fs::create_symlink("../outside", Path("folder"));
  std::ofstream(dir / "outside/file") << "secret";
  EXPECT_FALSE(file->Exists());
  EXPECT_EQ(NumberOf([&] { Read(*file); }), error::AccessDenied);
  EXPECT_EQ(NumberOf([&] { Write(*file, "x"); }), error::AccessDenied);
  EXPECT_EQ(NumberOf([&] { folder->CreateFile("new", ""); }), error::AccessDenied);
  EXPECT_FALSE(folder->OpenChild("secret"));
  EXPECT_EQ(NumberOf([&] { Names(*folder); }), error::AccessDenied);
  EXPECT_EQ(NumberOf([&] { folder->DeleteChild("secret"); }), error::AccessDenied);
  EXPECT_TRUE(fs::exists(dir / "outside/secret"));
}

TEST_F(HostFsFolder, NestedShareDoesNotReachOutThroughAHandleOfTheOuterOne) {
  fs::create_directory(Path("inner"));
  Put("inner/file", "inner");
  Put("outer", "outer");
  const auto inner = MakeRoot(dir / "share/inner");
  const auto viaInner = AsFile(inner->OpenChild("file"));
  const auto viaOuter = AsFile(Folder("inner")->OpenChild("file"));
  EXPECT_EQ(Read(*viaOuter), "inner");
  EXPECT_EQ(Read(*viaInner), "inner");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
  HostFsFileCache::Remove(Path("inner/file"));
  fs::remove(Path("inner/file"));
  fs::create_symlink("../outer", Path("inner/file"));
  EXPECT_EQ(Read(*viaOuter), "outer");
  EXPECT_EQ(NumberOf([&] { Read(*viaInner); }), error::AccessDenied);
}

TEST_F(HostFsFolder, WholeFolders) {
  EXPECT_FALSE(HostFolderExists(dir / "a"));
  CreateHostFolderChain(dir / "a\\b//c/");
  EXPECT_TRUE(HostFolderExists(dir / "a/b/c"));
  CreateHostFolderChain(dir / "a/b/c");
  EXPECT_EQ(TextOf([] { CreateHostFolderChain(""); }), "Empty path specified for create directory procedure");
  std::ofstream(dir / "a/file") << "text";
  EXPECT_FALSE(HostFolderExists(dir / "a/file"));
  EXPECT_NE(NumberOf([&] { CreateHostFolderChain(dir / "a/file/sub"); }), error::Success);
  const auto folder = MakeRoot(dir / "a");
  const auto sub = AsFolder(folder->OpenChild("b"));
  EXPECT_GE(sub->GetDiskSpace().totalBytes, sub->GetDiskSpace().freeBytes);
  sub->DeleteRecursively();
  EXPECT_FALSE(fs::exists(dir / "a/b"));
  sub->DeleteRecursively();
  EXPECT_EQ(NumberOf([&] { sub->GetDiskSpace(); }), error::FileNotFound);
}

class RefusingPermissions : public security::IFilesAccessPermissions {
 public:
  void CheckAccess(const std::string& path) override {
    paths.push_back(path);
    throw exc::runtime_exc_t("refused");
  }
  Strings paths;
};

TEST_F(HostFsFolder, EveryPathPassesTheHook) {
  Put("file", "text");
  const auto file = File("file");
  RefusingPermissions refusing;
  security::SetFilesAccessPermissions(&refusing);
  EXPECT_EQ(TextOf([&] { file->Exists(); }), "refused");
  EXPECT_EQ(TextOf([&] { Read(*file); }), "refused");
  EXPECT_EQ(TextOf([&] { root->CreateFile("file", ""); }), "refused");
  EXPECT_EQ(TextOf([&] { root->CreateSubfolder("folder", ""); }), "refused");
  EXPECT_EQ(TextOf([&] { root->DeleteChild("file"); }), "refused");
  EXPECT_EQ(TextOf([&] { root->RenameChild("file", "new"); }), "refused");
  EXPECT_EQ(TextOf([&] { Names(*root); }), "refused");
  security::SetFilesAccessPermissions(nullptr);
  EXPECT_EQ(refusing.paths.front(), Path("file"));
  EXPECT_EQ(Get("file"), "text");
  EXPECT_EQ(Read(*file), "text");
}

}  // namespace
