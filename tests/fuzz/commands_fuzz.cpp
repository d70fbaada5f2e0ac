// The management commands on a running service, as a caller who may do everything sends them: one after the other, with
// the identities that earlier answers gave.
#include <sys/stat.h>

#include <array>
#include <string>
#include <vector>

#include "fuzz/service_world.h"
#include "management/argument_names.h"
#include "management/dcerpc/wide_text.h"
#include "management/invoke_call.h"
#include "management/nfs_invoke_dispatcher.h"
#include "management/output_arguments.h"

namespace {

fuzz::CServiceWorld& World() {
  static fuzz::CServiceWorld world;
  return world;
}

class CAdministrator {
 public:
  explicit CAdministrator(fuzz::CInput input) : input_(input) {}

  void Run() {
    constexpr int MostCalls = 24;
    for (int i = 0; i < MostCalls && !input_.IsEmpty(); ++i)
      MakeCall();
    for (const std::string& mount : mounts_)
      Call("DismountBackup", {{argument_names::MountId(), mount}});
    for (const std::string& share : shares_)
      Call("DeleteShare", {{argument_names::ShareId(), share}});
    Call("ResetNfsDatastoreSize", {});
    if (isReconfigured_)
      Forget();
    std::filesystem::remove_all(World().Share());
    World().CheckOutside();
  }

 private:
  using arguments_t = std::vector<std::pair<std::string, std::string>>;

  /// What was stored for the next start, and that nothing can be changed until then.
  static void Forget() {
    World().Stop();
    World().registry.DeleteKey("SOFTWARE");
    World().Start();
  }

  void MakeCall() {
    constexpr std::uint8_t RawCall = 0xf0;
    const std::uint8_t which = input_.Byte();
    const auto commands = CNfsInvokeDispatcher::Commands();
    const std::string name(commands[which % commands.size()].name);
    if (which >= RawCall) {
      // The whole document is the input's.
      const std::string document = fuzz::TextOf(input_.Take(input_.Byte()));
      isReconfigured_ = true;
      Send(name, document);
      return;
    }
    Call(name, Arguments());
  }

  arguments_t Arguments() {
    using namespace argument_names;
    const std::array names{AllowedHostAddr(), BackupConsoleVersion(),
                           Description(),     MountId(),
                           MountPoint(),      MountPort(),
                           NfsFolderPath(),   NfsFreeSpace(),
                           NfsPort(),         NfsRelativePath(),
                           NfsTotalSpace(),   PipeName(),
                           RootFolder(),      RpcPort(),
                           ShareId(),         VmName()};
    arguments_t arguments;
    // Unless the input says otherwise each argument is there, with a value that it can have.
    for (const std::string& name : names)
      arguments.emplace_back(name, Usual(name));
    constexpr int Most = 8;
    for (int changes = input_.Byte() % Most; changes > 0; --changes) {
      auto& changed = arguments[input_.Byte() % names.size()];
      changed.second = Value();
    }
    return arguments;
  }

  std::string Usual(const std::string& name) {
    using namespace argument_names;
    if (name == ShareId())
      return shares_.empty() ? Nobody : shares_.back();
    if (name == MountId())
      return mounts_.empty() ? "{11111111-2222-3333-4444-555555555555}" : mounts_.back();
    if (name == PipeName())
      return fuzz::CServiceWorld::AgentPipe;
    if (name == MountPort() || name == NfsPort() || name == RpcPort() || name == NfsFreeSpace() ||
        name == NfsTotalSpace())
      return "4096";
    if (name == AllowedHostAddr())
      return "10.0.0.1";
    if (name == RootFolder())
      return World().Share().string();
    return name == BackupConsoleVersion() ? "1.0.0.5" : "folder";
  }

  std::string Value() {
    static const std::array<std::string, 20> Values{"",
                                                    "folder",
                                                    "/folder/",
                                                    "a\\b/c",
                                                    "..",
                                                    "../../outside",
                                                    "/",
                                                    "a",
                                                    "-1",
                                                    "65536",
                                                    "18446744073709551615",
                                                    "4294967296",
                                                    "10.0.0.0/8;x",
                                                    "no-agent",
                                                    "\xc3\xa4",
                                                    std::string(300, 'n'),
                                                    "2.0",
                                                    "%PATH%",
                                                    "{11111111-2222-3333-4444-555555555555}",
                                                    "folder\\inner"};
    constexpr std::uint8_t Own = 0xe0;
    constexpr std::uint8_t Known = 0x80;
    const std::uint8_t which = input_.Byte();
    if (which >= Own)
      return fuzz::TextOf(input_.Take(input_.Byte()));
    if (which >= Known && !shares_.empty())
      return shares_[which % shares_.size()];
    return Values[which % Values.size()];
  }

  static std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
      switch (c) {
        case '&':
          escaped += "&amp;";
          break;
        case '<':
          escaped += "&lt;";
          break;
        case '"':
          escaped += "&quot;";
          break;
        default:
          escaped += c;
      }
    }
    return escaped;
  }

  void Call(const std::string& name, const arguments_t& arguments) {
    std::string document = "<InputArguments>";
    for (const auto& [argument, value] : arguments)
      document += "<" + argument + " value=\"" + Escaped(value) + "\"/>";
    document += "</InputArguments>";
    const dcerpc::SInvokeResponse response = Send(name, document);
    if (!response.result.success)
      return;
    if (name == "CreateShare")
      shares_.push_back(Result(*response.output, argument_names::ShareId()));
    for (const auto& [argument, value] : arguments) {
      if (name == "MountBackup" && argument == argument_names::MountId())
        mounts_.push_back(value);
    }
  }

  dcerpc::SInvokeResponse Send(const std::string& name, const std::string& document) {
    isReconfigured_ = isReconfigured_ || name == "Reconfigure" || name.ends_with("EsxHostAddr");
    CNfsInvokeDispatcher dispatcher;
    const dcerpc::SInvokeResponse response = InvokeCall(
        dispatcher, [] {}, dcerpc::WideTextOrReplaced(name), dcerpc::WideTextOrReplaced(document));
    fuzz::Require(response.result.success == response.output.has_value(), "an answer is there on success alone");
    fuzz::Require(response.result.success != response.result.message.has_value(), "a failure has a message");
    if (response.output)
      fuzz::Require(fuzz::Try([&] { winxml::ParseDocument(*response.output); }), "an answer is a document");
    dcerpc::EncodeDoRpcResponse(response);
    return response;
  }

  static std::string Result(const std::string& output, const std::string& name) {
    const auto root = winxml::GetElement(winxml::DocumentNode(winxml::ParseDocument(output)), "OutputArguments");
    return winxml::GetAttribute(winxml::GetElement(root, name), "value");
  }

  static constexpr const char* Nobody = "{00000000-0000-0000-0000-000000000001}";

  fuzz::CInput input_;
  std::vector<std::string> shares_;
  std::vector<std::string> mounts_;
  bool isReconfigured_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  fuzz::StoreInMemory();
  ::umask(077);
  World();
  return 0;
}

/// Calls: the command, how many of its arguments are other than usual, and which.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CAdministrator({data, size}).Run();
  return 0;
}
