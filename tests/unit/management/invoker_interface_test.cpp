#include "management/invoker_interface.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include "config/address_checker.h"
#include "config/nfs_share_cfg.h"
#include "management/caller_test.h"
#include "management_fixture.h"

namespace test {
namespace {

using dcerpc::byte_order_t;
using dcerpc::fault_exc_t;
using dcerpc::SCaller;

constexpr std::uint16_t DoRpc = 0;
constexpr std::uint16_t DoRpcWithBinary = 1;
constexpr std::uint16_t InvokerTestConnection = 2;

/// Proved an identity that is no administrator's on any machine.
const SCaller Stranger{.account = "nobody",
                       .principal = "nobody",
                       .origin = "10.0.0.1:5000",
                       .level = dcerpc::auth_level_t::Privacy,
                       .authenticated = true};
const SCaller LocalRoot{.account = "root",
                        .principal = "root",
                        .origin = "unix:1",
                        .level = dcerpc::auth_level_t::Privacy,
                        .authenticated = true};

constexpr char NotMember[] =
    "Access is denied.\nRPC client is not a member of built-in Administrators group.\nError code: 2147942405";

class InvokerInterface : public ManagementFixture {
 protected:
  dcerpc::SInvokeResponse CallAs(const SCaller& caller, const std::string& name, const std::string& input) {
    const dcerpc::bytes_t request =
        dcerpc::EncodeDoRpcRequest({.name = dcerpc::WideText(name), .arguments = dcerpc::WideText(input), .data = {}});
    return dcerpc::DecodeDoRpcResponse(served.Call(DoRpc, request, byte_order_t::Little, caller), byte_order_t::Little);
  }
  std::uint32_t FaultOf(std::uint16_t opnum, const dcerpc::bytes_t& stub) {
    try {
      served.Call(opnum, stub, byte_order_t::Little, LocalRoot);
    } catch (const fault_exc_t& fault) {
      return fault.Status();
    }
    return 0;
  }
  bool HasLineOf(std::string_view start) const {
    const std::vector<std::string> texts = log.Texts();
    return std::any_of(texts.begin(), texts.end(),
                       [&](const std::string& text) { return platform::Trim(text, " ").starts_with(start); });
  }
  /// All that a command could change.
  std::map<std::string, std::string> State() {
    std::map<std::string, std::string> state;
    platform::registry_node_t tree;
    EXPECT_EQ(registry.ReadTree("", tree), 0U);
    AddKey("", tree, state);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(Local()))
      state["disk " + entry.path().string()] = "";
    bool isSet = false;
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
    Fs().GetDatastoreSize(isSet, totalBytes, freeBytes);
    state["size"] = std::to_string(isSet) + " " + std::to_string(totalBytes) + " " + std::to_string(freeBytes);
    state["hosts"] = context->GetAddressChecker()->ToString();
    std::set<GUID> shares;
    Fs().ItemsTab()->GetShareUids(shares);
    for (const GUID& share : shares)
      state["share " + platform::GuidToText(share)] = Fs().GetShareCfgCopy(share)->nfsFolderName;  // throws if locked
    return state;
  }
  static void AddKey(const std::string& path, const platform::registry_node_t& node,
                     std::map<std::string, std::string>& state) {
    state["key " + path] = "";
    for (const platform::registry_value_t& value : node.values) {
      std::visit([&](const auto& data) { state["value " + path + " " + value.name] = exc::ToText(data); }, value.data);
    }
    for (const platform::registry_node_t& key : node.keys)
      AddKey(path + "\\" + key.name, key, state);
  }

  CInvokerInterface served;
};

TEST_F(InvokerInterface, HasItsIdentity) {
  EXPECT_EQ(platform::GuidToText(served.Id().uuid), "{d1c2c07a-d989-48cc-a423-b73ecd518d40}");
  EXPECT_EQ(served.Id().version, 1U);
}

TEST_F(InvokerInterface, ACommandIsAnsweredInItsStub) {
  const auto response = CallAs(LocalRoot, "GetNfsDatastoreSize", "<InputArguments/>");
  EXPECT_EQ(response.result, dcerpc::SRpcResult{});
  EXPECT_EQ(response.output, Output({{"nfsTotalSpace", "0"}, {"nfsFreeSpace", "0"}, {"nfsCustomSize", "false"}}));
}

TEST_F(InvokerInterface, AFailureIsAnsweredInItsStub) {
  const auto response = CallAs(LocalRoot, "Nothing", "<InputArguments/>");
  EXPECT_FALSE(response.output);
  EXPECT_EQ(response.result, (dcerpc::SRpcResult{.success = false, .message = "Unknown command: 'Nothing'."}));
}

TEST_F(InvokerInterface, WhoeverIsNoAdministratorIsRefusedEveryCommand) {
  const std::string uid = NewShare("vol");
  Run("CreateFolder", {{"shareId", uid}, {"nfsRelativePath", "vm"}});
  Run("AddEsxHostAddr", {{"allowedHostAddr", "10.0.0.1"}});
  const std::string input = Input({{"backupConsoleVersion", "1.0.0.0"},
                                   {"nfsFolderPath", "new"},
                                   {"mountPoint", "vol"},
                                   {"shareId", uid},
                                   {"mountId", uid},
                                   {"nfsRelativePath", "vm"},
                                   {"vmName", "vm"},
                                   {"description", "text"},
                                   {"pipeName", "pipe"},
                                   {"rootFolder", folder / "new"},
                                   {"rpcPort", "7000"},
                                   {"mountPort", "7001"},
                                   {"nfsPort", "7002"},
                                   {"allowedHostAddr", "10.0.0.1"},
                                   {"nfsTotalSpace", "2"},
                                   {"nfsFreeSpace", "1"}});
  SCaller anonymous = Stranger;
  anonymous.account.clear();
  anonymous.authenticated = false;
  const auto before = State();
  ASSERT_TRUE(before.contains("share " + uid));
  ASSERT_TRUE(before.contains("disk " + Local() + "/vm"));
  ASSERT_EQ(before.at("hosts"), "10.0.0.1");
  ASSERT_EQ(CNfsInvokeDispatcher::Commands().size(), 18U);
  for (const SNfsCommand& command : CNfsInvokeDispatcher::Commands()) {
    for (const SCaller& caller : {SCaller{}, anonymous, Stranger}) {
      log.Clear();
      const auto response = CallAs(caller, std::string(command.name), input);
      EXPECT_FALSE(response.output) << command.name;
      EXPECT_EQ(response.result, (dcerpc::SRpcResult{.success = false, .message = NotMember})) << command.name;
      EXPECT_EQ(State(), before) << command.name;
      EXPECT_TRUE(HasTrimmed("RPC method call has failed ().")) << command.name;
      EXPECT_FALSE(HasLineOf("[Soap")) << command.name;
      EXPECT_FALSE(HasLineOf("RPC: ")) << command.name;
    }
  }
}

TEST_F(InvokerInterface, TheOtherOperationsSucceedForEveryone) {
  log.Clear();
  const auto binary = dcerpc::EncodeDoRpcWithBinaryRequest({.name = u"x", .arguments = u"y", .data = {1, 2, 3}});
  EXPECT_EQ(dcerpc::DecodeDoRpcWithBinaryResponse(served.Call(DoRpcWithBinary, binary, byte_order_t::Little, SCaller{}),
                                                  byte_order_t::Little),
            dcerpc::SInvokeResponse{});
  EXPECT_EQ(dcerpc::DecodeTestConnectionResponse(
                served.Call(InvokerTestConnection, dcerpc::EncodeTestConnectionRequest(u"anything"),
                            byte_order_t::Little, SCaller{}),
                byte_order_t::Little),
            dcerpc::SRpcResult{});
  EXPECT_FALSE(HasLineOf("[Soap"));
  EXPECT_FALSE(HasLineOf("RPC"));
}

TEST_F(InvokerInterface, OperationsThatAreNotThereAreFaults) {
  for (const std::uint16_t opnum : std::initializer_list<std::uint16_t>{3, 4, 255, 256, 65535})
    EXPECT_EQ(FaultOf(opnum, {}), dcerpc::fault::OperationRange) << opnum;
}

TEST_F(InvokerInterface, StubsThatAreCutAreFaults) {
  const dcerpc::bytes_t request = dcerpc::EncodeDoRpcRequest({.name = u"GetParams", .arguments = u"x", .data = {}});
  for (const std::uint16_t opnum : {DoRpc, DoRpcWithBinary, InvokerTestConnection})
    EXPECT_EQ(FaultOf(opnum, {request.begin(), request.begin() + 5}), dcerpc::fault::BadStubData);
}

/// Fails where the call itself reports its failures.
class BrokenDispatcher : public CNfsInvokeDispatcher {
 public:
  void OnCallFailed(const std::string&, const std::string&, const std::exception&) override {
    throw exc::runtime_exc_t("No report.");
  }
};

TEST_F(InvokerInterface, WhatEscapesTheCallIsAnsweredInTheSameForm) {
  log.Clear();
  CInvokerInterface broken([](const SCaller&) {}, [] { return std::make_unique<BrokenDispatcher>(); });
  const auto request = dcerpc::EncodeDoRpcRequest({.name = u"Nothing", .arguments = u"<a/>", .data = {}});
  const auto response =
      dcerpc::DecodeDoRpcResponse(broken.Call(DoRpc, request, byte_order_t::Little, SCaller{}), byte_order_t::Little);
  EXPECT_EQ(response.result, (dcerpc::SRpcResult{.success = false, .message = "No report."}));
  EXPECT_FALSE(response.output);
  EXPECT_TRUE(HasTrimmed("RPC: DoRpc function call failed."));
}

}  // namespace
}  // namespace test
