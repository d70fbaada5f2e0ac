// Shares and their folders.
#include <filesystem>

#include "config/nfs_share_cfg.h"
#include "config/reg_config_root_folder.h"
#include "management_fixture.h"

namespace test {
namespace {

using testing::ElementsAre;

constexpr char Nil[] = "{00000000-0000-0000-0000-000000000000}";

using ShareCommands = ManagementFixture;

std::string NotRegistered(const std::string& uid) {
  return "NFS shared folder with ID \"" + uid + "\" is not registered or disconnected.";
}

TEST_F(ShareCommands, AShareIsCreatedShownFoundAndDeleted) {
  const std::string uid = NewShare("/datastore1");
  EXPECT_TRUE(platform::GuidFromText(uid)) << uid;
  EXPECT_EQ(Fs().GetShareCfgCopy(*platform::GuidFromText(uid))->localPath, Local());
  EXPECT_TRUE(HasTrimmed("[COM] Creating NFS share [/datastore1] (Local path: [" + Local() + "])."));
  EXPECT_TRUE(HasTrimmed("[COM] NFS share \"/datastore1\" is created."));
  EXPECT_EQ(Run("GetShareConfig", {{"shareId", uid}}), Output({{"nfsFolderPath", "/datastore1"}}));
  EXPECT_EQ(Run("LookupShare", {{"mountPoint", "datastore1"}}), Output({{"shareId", uid}}));
  EXPECT_EQ(Run("DeleteShare", {{"shareId", uid}}), "<OutputArguments />");
  EXPECT_TRUE(HasTrimmed("[COM] NFS share was dismounted."));
  EXPECT_THAT(Fail("GetShareConfig", {{"shareId", uid}}),
              ElementsAre(NotRegistered(uid), "RPC: Failed GetShareConfig."));
  EXPECT_EQ(Run("DeleteShare", {{"shareId", uid}}), "<OutputArguments />") << "one that is gone is no fault";
}

TEST_F(ShareCommands, TheConfiguredRootFolderIsUsedAsItIsHeld) {
  context->GetRootFolder()->Set("%ALLUSERSPROFILE%/other");
  const std::string uid = NewShare("a");
  EXPECT_EQ(Fs().GetShareCfgCopy(*platform::GuidFromText(uid))->localPath, folder / "other");
}

TEST_F(ShareCommands, AnAliasIsTakenOnce) {
  NewShare("vol");
  const auto texts = Fail("CreateShare", {{"nfsFolderPath", "VOL"}});
  ASSERT_GE(texts.size(), 2U);
  EXPECT_EQ(texts[texts.size() - 2],
            "Failed to create NFS share. NFS folder path: [VOL]. Local folder name: [" + Local() + "].");
  EXPECT_EQ(texts.back(), "RPC: Failed CreateShare.");
}

TEST_F(ShareCommands, NamesOfAllLanguagesPass) {
  const std::string uid = NewShare("Datensätze/日本 &amp; &lt;mehr&gt;");
  EXPECT_EQ(Run("GetShareConfig", {{"shareId", uid}}),
            Output({{"nfsFolderPath", "Datensätze/日本 &amp; &lt;mehr&gt;"}}));
}

TEST_F(ShareCommands, ArgumentsForgiveCaseAndWarn) {
  const std::string uid = NewShare("vol");
  EXPECT_EQ(Run("GetShareConfig", {{"SHAREID", uid}}), Output({{"nfsFolderPath", "vol"}}));
  std::size_t warnings = 0;
  for (const auto& line : log.Lines()) {
    if (line.level != "Warning")
      continue;
    ++warnings;
    EXPECT_EQ(platform::Trim(line.text, " "),
              "[winxml] Found XML element with case-insensitive search, this is deprecated and will stop working in "
              "the future. Expected name: [shareId], got [SHAREID] instead.");
  }
  EXPECT_EQ(warnings, 1U);
}

TEST_F(ShareCommands, AnUnknownShareIsTold) {
  EXPECT_THAT(Fail("GetShareConfig", {{"shareId", Nil}}),
              ElementsAre(NotRegistered(Nil), "RPC: Failed GetShareConfig."));
  EXPECT_THAT(Fail("LookupShare", {{"mountPoint", "none"}}),
              ElementsAre("The specified NFS folder is not registered  (none).", "RPC: Failed LookupShare."));
  EXPECT_THAT(
      Fail("CreateFolder", {{"shareId", Nil}, {"nfsRelativePath", "a/b"}}),
      ElementsAre("There is no NFS folder with UID [" + std::string(Nil) + "].",
                  "Failed to create folder. NFS share ID: [" + std::string(Nil) + "]. Folder relative path: [a/b].",
                  "RPC: Failed CreateFolder."));
  EXPECT_THAT(
      Fail("DeleteFolder", {{"shareId", Nil}, {"nfsRelativePath", "a/b"}}),
      ElementsAre("There is no NFS folder with UID [" + std::string(Nil) + "].",
                  "Failed to remove folder. NFS share ID: [" + std::string(Nil) + "]. Folder relative path: [a/b].",
                  "RPC: Failed DeleteFolder."));
}

TEST_F(ShareCommands, AFailureLeavesTheScopeTwiceInTheLog) {
  Fail("GetShareConfig", {{"shareId", Nil}});
  EXPECT_EQ(CountTrimmed("RPC: GetShareConfig"), 1U);
  EXPECT_EQ(CountTrimmed("RPC: GetShareConfig Failed."), 1U);
  EXPECT_TRUE(HasTrimmed("RPC method call has failed (GetShareConfig)."));
  log.Clear();
  NewShare("vol");
  EXPECT_EQ(CountTrimmed("RPC: CreateShare"), 1U);
  EXPECT_EQ(CountTrimmed("RPC: CreateShare Failed."), 0U);
}

TEST_F(ShareCommands, FoldersAreMadeAndRemoved) {
  const std::string uid = NewShare("vol");
  EXPECT_EQ(Run("CreateFolder", {{"shareId", uid}, {"nfsRelativePath", "vm\\disk"}, {"allowedHostAddr", "10.0.0.1"}}),
            Output({{"hostFsPath", Local() + "/vm/disk"}}));
  EXPECT_TRUE(std::filesystem::is_directory(Local() + "/vm/disk"));
  EXPECT_TRUE(HasTrimmed("Creating folder [vm\\disk] in the NFS share with ID [" + uid +
                         "]. Allow access from host [10.0.0.1]."));
  EXPECT_EQ(Run("DeleteFolder", {{"shareId", uid}, {"nfsRelativePath", "vm"}}), "<OutputArguments />");
  EXPECT_FALSE(std::filesystem::exists(Local() + "/vm"));
}

TEST_F(ShareCommands, AnAbsentAddressListIsEmptyAndOneWithoutValueAFailure) {
  const std::string uid = NewShare("vol");
  EXPECT_EQ(Run("CreateFolder", {{"shareId", uid}, {"nfsRelativePath", "vm"}}),
            Output({{"hostFsPath", Local() + "/vm"}}));
  EXPECT_TRUE(HasTrimmed("Creating folder [vm] in the NFS share with ID [" + uid + "]. Allow access from host []."));
  EXPECT_THAT(Fail("CreateFolder", "<InputArguments><shareId value=\"" + uid +
                                       "\"/><nfsRelativePath value=\"other\"/><allowedHostAddr/></InputArguments>"),
              ElementsAre("Attribute value is not specified. Attribute: [value].",
                          "Failed to retrieve value of the multibyte attribute 'allowedHostAddr'.",
                          "RPC: Failed CreateFolder."));
  EXPECT_FALSE(std::filesystem::exists(Local() + "/other"));
}

TEST_F(ShareCommands, ArgumentsAreReadInTheirOrder) {
  const auto missing = [](const std::string& name) { return "Value of the argument '" + name + "' is not defined."; };
  EXPECT_THAT(Fail("CreateShare"), ElementsAre(missing("nfsFolderPath"),
                                               "Failed to retrieve value of the multibyte attribute 'nfsFolderPath'.",
                                               "RPC: Failed CreateShare."));
  EXPECT_THAT(Fail("LookupShare"),
              ElementsAre(missing("mountPoint"), "Failed to retrieve value of the multibyte attribute 'mountPoint'.",
                          "RPC: Failed LookupShare."));
  for (const char* command : {"GetShareConfig", "DeleteShare", "CreateFolder", "DeleteFolder"}) {
    EXPECT_THAT(Fail(command),
                ElementsAre(missing("shareId"), "Failed to retrieve value of the GUID attribute 'shareId'.",
                            "RPC: Failed " + std::string(command) + "."));
  }
  for (const char* command : {"CreateFolder", "DeleteFolder"})
    EXPECT_EQ(Fail(command, {{"shareId", Nil}}).front(), missing("nfsRelativePath"));
}

TEST_F(ShareCommands, WithoutServiceTheyFail) {
  CSvcContextHolder::Set({});
  EXPECT_THAT(Fail("LookupShare", {{"mountPoint", "a"}}),
              ElementsAre("Service context is not initialized.", "RPC: Failed LookupShare."));
}

TEST_F(ShareCommands, AfterTheLockTheyFail) {
  const std::string uid = NewShare("vol");
  Fs().Lock();
  const std::vector<std::pair<std::string, arguments_t>> calls = {
      {"CreateShare", {{"nfsFolderPath", "new"}}},
      {"LookupShare", {{"mountPoint", "vol"}}},
      {"GetShareConfig", {{"shareId", uid}}},
      {"DeleteShare", {{"shareId", uid}}},
      {"CreateFolder", {{"shareId", uid}, {"nfsRelativePath", "a"}}},
      {"DeleteFolder", {{"shareId", uid}, {"nfsRelativePath", "a"}}},
  };
  for (const auto& [command, arguments] : calls) {
    EXPECT_THAT(Fail(command, arguments),
                ElementsAre("Virtual file system is locked.", "RPC: Failed " + command + "."));
  }
}

}  // namespace
}  // namespace test
