// Commands and documents that are harmful, or not for the caller.
#include <filesystem>
#include <vector>

#include "integration/support/management_fixture.h"

namespace {

using namespace test;
using testing::HasSubstr;
namespace fs = std::filesystem;

class ManagementBadDocumentsTest : public CManagementAttackTest {};

constexpr std::uint32_t NoMemory = 0x1c00001b;

/// A document and what the failure tells of it; nothing for one that is served.
struct SDocument {
  std::u16string text;
  const char* refusal;
};

std::u16string Deep(int levels) {
  std::string text = "<InputArguments>";
  for (int i = 0; i < levels; ++i)
    text += "<a>";
  for (int i = 0; i < levels; ++i)
    text += "</a>";
  return Wide(text + "</InputArguments>");
}

std::u16string ManyEntities() {
  std::string text = "<!DOCTYPE x [<!ENTITY a0 \"aaaaaaaaaa\">";
  for (int i = 1; i < 10; ++i) {
    text += "<!ENTITY a" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k)
      text += "&a" + std::to_string(i - 1) + ";";
    text += "\">";
  }
  return Wide(text + "]><InputArguments><mountPoint value=\"&a9;\"/></InputArguments>");
}

TEST_F(ManagementBadDocumentsTest, DocumentsOfAllKindsOfHarm) {
  const char* const parse = "Failed to parse XML content.";
  const char* const unicode = "Unicode string cannot be converted to UTF8 string.";
  const char* const lookup = "RPC: Failed LookupShare.";
  const auto argument = [](const std::string& value) { return Input("<mountPoint value=\"" + value + "\"/>"); };
  const std::u16string good = argument("/share");
  const std::vector<SDocument> documents{
      {good, nullptr},
      {u"<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + good, nullptr},
      {u"<?xml version=\"1.0\" encoding=\"no-such\"?>" + good, nullptr},
      {Deep(10000), parse},
      {std::u16string(10000, u'<'), parse},
      {ManyEntities(), ""},
      {u"<!DOCTYPE x SYSTEM \"file:///etc/passwd\">" + argument("&x;"), ""},
      {argument("&#0;"), lookup},
      {argument("&#xFFFFFFFF;"), ""},
      {argument("&#xD800;"), ""},
      {argument("&unknown;"), lookup},
      {Wide("<InputArguments><mountPoint value=\"") + u'\xD800' + Wide("\"/></InputArguments>"), unicode},
      {u"\xDC00" + good, unicode},
      {u"", parse},
      {u"\xFEFF", parse},
      {u"<InputArguments>", parse},
      {u"<InputArguments><mountPoint value=\"/share\"", parse},
      {u"<InputArguments><mountPoint value=/share/>", ""},
      {u"<Other/>", lookup},
      {u"<InputArguments/>", lookup},
  };
  for (std::size_t i = 0; i < documents.size(); ++i) {
    const auto connection = Local();
    const SRpcResult result = connection->Bind().DoRpc(u"LookupShare", documents[i].text);
    const std::string message = Narrow(result.message.value_or(u""));
    EXPECT_EQ(result.success, documents[i].refusal == nullptr) << i << ": " << message;
    EXPECT_EQ(result.output.has_value(), result.success) << i;
    if (documents[i].refusal != nullptr) {
      EXPECT_THAT(message, HasSubstr(documents[i].refusal)) << i;
    }
    EXPECT_THAT(message, testing::Not(HasSubstr("root:"))) << i;
    EXPECT_LT(message.size(), 10000U) << i;
  }
}

TEST_F(ManagementBadDocumentsTest, NamesAndArgumentsOfAMegabyte) {
  const std::u16string large(std::size_t{1} << 20, u'x');
  const auto connection = Local();
  connection->Bind();
  SRpcResult result = connection->DoRpc(large, u"<InputArguments/>");
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.message, u"Unknown command: '" + large + u"'.");
  const auto call = [&](const std::u16string& command, const std::u16string& argument) {
    return connection->DoRpc(command,
                             u"<InputArguments><" + argument + u" value=\"" + large + u"\"/></InputArguments>");
  };
  for (const auto& [command, argument] :
       std::vector<std::pair<std::u16string, std::u16string>>{{u"LookupShare", u"mountPoint"},
                                                              {u"GetShareConfig", u"shareId"},
                                                              {u"DeleteShare", u"shareId"},
                                                              {u"SetNfsDatastoreSize", u"nfsTotalSpace"},
                                                              {u"TestCompatible", u"backupConsoleVersion"}}) {
    result = call(command, argument);
    EXPECT_FALSE(result.success) << Narrow(command);
    EXPECT_FALSE(result.output) << Narrow(command);
  }
  // A host may be of any text, which an administrator can take back.
  EXPECT_TRUE(call(u"AddEsxHostAddr", u"allowedHostAddr").success);
  EXPECT_TRUE(call(u"DeleteEsxHostAddr", u"allowedHostAddr").success);
  // A name of an argument.
  EXPECT_FALSE(connection->DoRpc(u"LookupShare", u"<InputArguments><" + large + u"/></InputArguments>").success);
}

TEST_F(ManagementBadDocumentsTest, ADocumentOfAHundredMebibytes) {
  // Answered to who may call; refused, before there is so much of it, to who has proved nothing. What stays is less
  // than two of the copies that were made.
  growthKiB_ = std::size_t{160} * 1024;
  std::u16string document = u"<InputArguments><unused value=\"";
  document.append(std::size_t{100} << 20, u'x');
  document += u"\"/></InputArguments>";
  const bytes_t request = Fragments(DoRpcOpnum, DoRpcStub(u"GetNfsDatastoreSize", document));
  {
    const auto connection = Local();
    ASSERT_TRUE(connection->Bind().Send(request));
    const std::optional<SDceAnswer> answer = connection->Answer();
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->type, dce_pdu_t::Response);
    EXPECT_TRUE(ParseRpcResult(answer->stub).success);
  }
  {
    CDceConnection connection;
    ASSERT_TRUE(connection.Bind().Send(request));
    const std::optional<SDceAnswer> answer = connection.Answer();
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->IsFault(NoMemory)) << answer->status;
  }
}

TEST_F(ManagementBadDocumentsTest, NoCommandIsForWhoProvedNothing) {
  const std::string id = "<shareId value=\"{3f1c9a52-0b7d-4f6e-9a61-5d2e8c4b7a10}\"/>";
  const std::string host = "<allowedHostAddr value=\"10.9.9.9\"/>";
  const std::string mount = "<mountId value=\"{11111111-0b7d-4f6e-9a61-5d2e8c4b7a10}\"/>";
  const std::string path = "<nfsRelativePath value=\"made\"/>";
  const std::vector<std::pair<std::string, std::string>> commands{
      {"EnumLocks", ""},
      {"GetLogFolder", ""},
      {"TestCompatible", "<backupConsoleVersion value=\"1.0.0.0\"/>"},
      {"CreateShare", "<nfsFolderPath value=\"/made\"/>"},
      {"LookupShare", "<mountPoint value=\"/share\"/>"},
      {"GetShareConfig", id},
      {"DeleteShare", id},
      {"MountBackup", mount + id + path + "<vmName value=\"vm\"/><description value=\"d\"/><pipeName value=\"p\"/>"},
      {"DismountBackup", mount},
      {"CreateFolder", id + path},
      {"DeleteFolder", id + "<nfsRelativePath value=\"kept\"/>"},
      {"GetParams", ""},
      {"Reconfigure", "<rootFolder value=\"/\"/><rpcPort value=\"1\"/><mountPort value=\"2\"/><nfsPort value=\"3\"/>"},
      {"AddEsxHostAddr", host},
      {"DeleteEsxHostAddr", "<allowedHostAddr value=\"127.0.0.1\"/>"},
      {"SetNfsDatastoreSize", "<nfsTotalSpace value=\"1000\"/><nfsFreeSpace value=\"1\"/>"},
      {"GetNfsDatastoreSize", ""},
      {"ResetNfsDatastoreSize", ""},
  };
  ASSERT_EQ(commands.size(), 18U);
  fs::create_directory(service_.Root() + "/kept");
  const auto administrator = Local();
  administrator->Bind();
  EXPECT_TRUE(
      administrator
          ->DoRpc(u"SetNfsDatastoreSize", Input("<nfsTotalSpace value=\"4096\"/><nfsFreeSpace value=\"1024\"/>"))
          .success);
  const auto size = [&] { return administrator->DoRpc(u"GetNfsDatastoreSize", Input("")).output.value_or(u""); };
  const std::u16string sizeBefore = size();
  EXPECT_THAT(Narrow(sizeBefore), HasSubstr("4096"));
  CDceConnection stranger;
  stranger.Bind();
  for (const auto& [command, arguments] : commands) {
    const SRpcResult result = stranger.DoRpc(Wide(command), Input(arguments));
    EXPECT_FALSE(result.success) << command;
    EXPECT_FALSE(result.output) << command;
    EXPECT_EQ(Narrow(result.message.value_or(u"")),
              "Access is denied.\nRPC client is not a member of built-in Administrators group.\n"
              "Error code: 2147942405")
        << command;
    EXPECT_EQ(Settings(), settings_) << command;
  }
  EXPECT_EQ(size(), sizeBefore);
  EXPECT_TRUE(fs::is_directory(service_.Root() + "/kept"));
  EXPECT_FALSE(fs::exists(service_.Root() + "/made"));
  // The service is not locked, either, as it would be by a change of its settings.
  const SRpcResult second = administrator->DoRpc(u"CreateShare", Input("<nfsFolderPath value=\"/share\"/>"));
  EXPECT_FALSE(second.success);
  EXPECT_THAT(Narrow(second.message.value_or(u"")), testing::Not(HasSubstr("locked")));
}

}  // namespace
