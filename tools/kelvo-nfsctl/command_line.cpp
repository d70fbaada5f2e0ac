#include "kelvo-nfsctl/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>

#include "foundation/exc.h"
#include "kelvo-nfsctl/commands.h"
#include "kelvo-nfsctl/failure.h"
#include "kelvo-nfsctl/usage_error.h"

namespace nfsctl {
namespace {

using dcerpc::auth_level_t;
using dcerpc::auth_type_t;

const std::map<std::string, auth_type_t> AuthTypes{{"negotiate", auth_type_t::Negotiate},
                                                   {"ntlm", auth_type_t::Ntlm},
                                                   {"kerberos", auth_type_t::Kerberos},
                                                   {"none", auth_type_t::None}};
const std::map<std::string, auth_level_t> AuthLevels{{"connect", auth_level_t::Connect},
                                                     {"packet", auth_level_t::Packet},
                                                     {"integrity", auth_level_t::Integrity},
                                                     {"privacy", auth_level_t::Privacy}};

constexpr const char* Examples = R"(Examples:
  kelvo-nfsctl share create /datastore1
  kelvo-nfsctl host add 10.0.0.5 10.1.0.0/16
  kelvo-nfsctl folder create /datastore1 web-server --allow 10.0.0.5
  kelvo-nfsctl mount publish /datastore1 web-server --vm web-server --pipe agent-1
  kelvo-nfsctl size set 10TiB 4TiB
  kelvo-nfsctl params set --nfs-port 2049
  kelvo-nfsctl --json share show /datastore1
  kelvo-nfsctl share show /datastore1 --endpoint tcp:nfs1.example.com --user 'EXAMPLE\admin'
  kelvo-nfsctl call GetShareConfig shareId={2d4e8f60-0d0b-4c3a-9a54-6f6fd2a1b6aa}

Exit codes: 0 success, 1 failure, 2 bad usage. More: man kelvo-nfsctl.)";

/// What stands on the command line, and the command that was chosen.
class CCommandLine {
 public:
  CCommandLine(const service_factory_t& connect, std::ostream& out, std::ostream& err)
      : connect_(connect), out_(out), err_(err) {
    app_.name("kelvo-nfsctl");
    app_.set_version_flag("--version", KELVO_VERSION);
    app_.footer(Examples);
    app_.require_subcommand(1);
    AddConnectionOptions(app_);
    AddShareCommands();
    AddFolderCommands();
    AddHostCommands();
    AddSizeCommands();
    AddParamsCommands();
    AddMountCommands();
    AddServiceCommands();
  }

  int Run(std::vector<std::string> arguments) {
    try {
      // The parser takes them from the back.
      std::reverse(arguments.begin(), arguments.end());
      app_.parse(arguments);
      CheckConnection();
      return Print(command_());
    } catch (const CLI::ParseError& failure) {
      return app_.exit(failure, out_, err_) == 0 ? Succeeded : BadUsage;
    } catch (const usage_error_t& failure) {
      err_ << "kelvo-nfsctl: " << failure.what() << "\nRun with --help for more information.\n";
      return BadUsage;
    } catch (const std::exception& failure) {
      err_ << FormatFailure(failure.what());
      return Failed;
    }
  }

 private:
  using command_t = std::function<SReport()>;

  /// The options may stand before or after the command, so every command has them.
  void AddConnectionOptions(CLI::App& app) {
    constexpr const char* Group = "Connection";
    app.add_option("--endpoint", endpoint_, "unix:PATH or tcp:HOST[:PORT]; KELVO_ENDPOINT")->group(Group);
    app.add_option("--user", options_.user, "User for TCP, as DOMAIN\\user; without one: Kerberos tickets")
        ->group(Group);
    app.add_option("--password-file", options_.passwordFile,
                   "File that begins with the password, - for standard input; else KELVO_PASSWORD or a prompt")
        ->group(Group);
    app.add_option("--auth", auth_, "How to authenticate over TCP: negotiate (default), ntlm, kerberos, none")
        ->transform(CLI::IsMember(AuthTypes, CLI::ignore_case).name("TYPE"))
        ->group(Group);
    app.add_option("--level", level_, "Protection over TCP: connect, packet, integrity, privacy (default)")
        ->transform(CLI::IsMember(AuthLevels, CLI::ignore_case).name("LEVEL"))
        ->group(Group);
    app.add_option("--timeout", timeout_, "Seconds of silence that are a failure; 0 waits for ever (default 300)")
        ->check(CLI::Range(0, 1000000).name("SECONDS"))
        ->group(Group);
    app.add_flag("--json", isJson_, "Print JSON")->group("Output");
  }

  CLI::App* AddGroup(const char* name, const char* description) {
    CLI::App* const group = app_.add_subcommand(name, description);
    group->require_subcommand(1);
    group->footer(std::string());
    AddConnectionOptions(*group);
    return group;
  }

  /// A command that runs when it was parsed; its callback notes it, so that all options are known by then.
  CLI::App* AddCommand(CLI::App& parent, const char* name, const char* description, command_t command) {
    CLI::App* const app = parent.add_subcommand(name, description);
    app->footer(std::string());
    AddConnectionOptions(*app);
    app->callback([this, command = std::move(command)] { command_ = command; });
    return app;
  }
  CLI::App* AddCall(CLI::App& parent, const char* name, const char* description,
                    std::function<SReport(IService&)> call) {
    return AddCommand(parent, name, description, [this, call = std::move(call)] { return call(Service()); });
  }

  CLI::Option* AddShare(CLI::App& app) {
    return app.add_option("SHARE", share_, "Path or ID of the share")->required();
  }
  CLI::Option* AddAllow(CLI::App& app) {
    return app.add_option("--allow", allow_, "Host or network that alone may use it; several are parted by ;")
        ->type_name("HOST");
  }

  void AddShareCommands();
  void AddFolderCommands();
  void AddHostCommands();
  void AddSizeCommands();
  void AddParamsCommands();
  void AddMountCommands();
  void AddServiceCommands();
  void CheckConnection();
  int Print(const SReport& report);

  IService& Service() {
    if (!service_)
      service_ = connect_(options_);
    return *service_;
  }

  const service_factory_t& connect_;
  std::ostream& out_;
  std::ostream& err_;
  CLI::App app_{"Manages the running NFS service: shares, folders, hosts, sizes, settings and published backups."};
  std::unique_ptr<IService> service_;
  command_t command_;
  SConnectionOptions options_;
  std::string endpoint_;
  std::string auth_;
  std::string level_;
  int timeout_ = -1;
  bool isJson_ = false;
  std::string share_;
  std::string path_;
  std::string allow_;
  std::string text_;
  std::string freeText_;
  std::vector<std::string> list_;
  std::optional<std::string> document_;
  SParams params_;
  SMount mount_;
};

void CCommandLine::AddShareCommands() {
  CLI::App& group = *AddGroup("share", "Shares, which hosts mount");
  AddCall(group, "create", "Create a share", [this](IService& service) { return CreateShare(service, path_); })
      ->add_option("PATH", path_, "The path that hosts mount, as /datastore1")
      ->required();
  CLI::App* const show =
      AddCommand(group, "show", "Show a share, or on the machine of the service all of them",
                 [this] { return share_.empty() ? ListShares(options_.endpoint) : ShowShare(Service(), share_); });
  AddShare(*show)->required(false);
  AddShare(*AddCall(group, "delete", "Delete a share; its files stay",
                    [this](IService& service) { return DeleteShare(service, share_); }));
}

void CCommandLine::AddFolderCommands() {
  CLI::App& group = *AddGroup("folder", "Folders in shares");
  CLI::App* const create = AddCall(group, "create", "Create a folder with its parents",
                                   [this](IService& service) { return CreateFolder(service, share_, path_, allow_); });
  CLI::App* const remove = AddCall(group, "delete", "Delete a folder with everything in it",
                                   [this](IService& service) { return DeleteFolder(service, share_, path_); });
  for (CLI::App* const app : {create, remove}) {
    AddShare(*app);
    app->add_option("PATH", path_, "Path of the folder below the share")->required();
  }
  AddAllow(*create);
}

void CCommandLine::AddHostCommands() {
  CLI::App& group = *AddGroup("host", "Hosts that may connect");
  CLI::App* const add =
      AddCall(group, "add", "Let hosts connect", [this](IService& service) { return AddHosts(service, list_); });
  CLI::App* const remove = AddCall(group, "remove", "Take hosts off the list",
                                   [this](IService& service) { return RemoveHosts(service, list_); });
  for (CLI::App* const app : {add, remove})
    app->add_option("HOST", list_, "IPv4 address, or network as 10.1.0.0/16")->required();
  AddCommand(group, "list", "List the hosts, on the machine of the service",
             [this] { return ListHosts(options_.endpoint); });
}

void CCommandLine::AddSizeCommands() {
  CLI::App& group = *AddGroup("size", "The size that hosts are told");
  CLI::App* const set = AddCall(group, "set", "Tell hosts a size, until it is reset or the service restarts",
                                [this](IService& service) { return SetSize(service, text_, freeText_); });
  set->add_option("TOTAL", text_, "Bytes, or a number with a unit, as 10TiB")->required();
  set->add_option("FREE", freeText_, "As TOTAL")->required();
  AddCall(group, "get", "Show the size that is told", [](IService& service) { return GetSize(service); });
  AddCall(group, "reset", "Tell hosts the size of the disk", [](IService& service) { return ResetSize(service); });
}

void CCommandLine::AddParamsCommands() {
  CLI::App& group = *AddGroup("params", "Root folder and ports");
  AddCall(group, "get", "Show the stored settings", [](IService& service) { return GetParams(service); });
  CLI::App* const set = AddCall(group, "set", "Store settings for the next start; what is not given stays",
                                [this](IService& service) { return SetParams(service, params_); });
  set->add_option("--root-folder", params_.rootFolder, "Folder that holds the shares")->type_name("PATH");
  set->add_option("--rpc-port", params_.rpcPort, "Management port; none for the default")->type_name("PORT");
  set->add_option("--mount-port", params_.mountPort, "Port of MOUNT")->type_name("PORT");
  set->add_option("--nfs-port", params_.nfsPort, "Port of NFS")->type_name("PORT");
}

void CCommandLine::AddMountCommands() {
  CLI::App& group = *AddGroup("mount", "Backups that a mount agent offers");
  CLI::App* const publish = AddCall(group, "publish", "Publish the files of an agent in a share",
                                    [this](IService& service) { return PublishMount(service, mount_); });
  publish->add_option("SHARE", mount_.share, "Path or ID of the share")->required();
  publish->add_option("PATH", mount_.path, "Folder below the share to publish them in")->required();
  publish->add_option("--vm", mount_.vmName, "Name of the machine")->type_name("NAME")->required();
  publish->add_option("--pipe", mount_.pipe, "Pipe of the agent")->type_name("NAME")->required();
  publish->add_option("--description", mount_.description, "Any text")->type_name("TEXT");
  publish->add_option("--allow", mount_.hosts, "Host or network that alone may use it; several are parted by ;")
      ->type_name("HOST");
  publish->add_option("--id", mount_.id, "ID of the mount; a new one when it is not given")->type_name("GUID");
  AddCall(group, "withdraw", "Withdraw what was published",
          [this](IService& service) { return WithdrawMount(service, text_); })
      ->add_option("ID", text_, "The ID that publish told")
      ->required();
  AddCommand(group, "list", "List what is published, on the machine of the service",
             [this] { return ListMounts(options_.endpoint); });
}

void CCommandLine::AddServiceCommands() {
  AddCall(app_, "locks", "List the machines that are in use", [](IService& service) { return ListLocks(service); });
  AddCall(app_, "log-folder", "Show the folder of the service's log",
          [](IService& service) { return GetLogFolder(service); });
  AddCall(app_, "compat", "Tell whether a console of a version fits the service",
          [this](IService& service) { return CheckVersion(service, text_); })
      ->add_option("VERSION", text_, "Four numbers, as 1.0.0.0")
      ->required();
  AddCall(app_, "ping", "Tell whether the service answers; anyone may ask",
          [](IService& service) { return Ping(service); });
  CLI::App* const call =
      AddCall(app_, "call", "Call a command as it stands on the wire; prints the document it answers",
              [this](IService& service) { return CallCommand(service, text_, list_, document_); });
  call->add_option("COMMAND", text_, "Name of the command, as GetParams")->required();
  call->add_option("ARGUMENT", list_, "name=value");
  call->add_option("--xml", document_, "Document of the arguments, sent as it stands")->type_name("TEXT");
}

void CCommandLine::CheckConnection() {
  if (!endpoint_.empty()) {
    options_.endpoint = ParseEndpoint(endpoint_);
  } else if (const char* const variable = std::getenv("KELVO_ENDPOINT"); variable != nullptr && *variable != '\0') {
    options_.endpoint = ParseEndpoint(variable);
  }
  if (options_.endpoint.IsLocal() && !(options_.user.empty() && auth_.empty() && level_.empty()))
    throw usage_error_t("--user, --auth and --level are for TCP; on this machine the service knows who calls.");
  if (!auth_.empty())
    options_.auth = AuthTypes.at(auth_);
  if (!level_.empty())
    options_.level = AuthLevels.at(level_);
  if (options_.auth == auth_type_t::Ntlm && options_.user.empty())
    throw usage_error_t("NTLM needs a user: --user DOMAIN\\user.");
  if (timeout_ >= 0)
    options_.limit = std::chrono::seconds(timeout_);
}

int CCommandLine::Print(const SReport& report) {
  if (isJson_) {
    out_ << report.json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
  } else {
    out_ << report.text;
  }
  out_ << std::flush;
  if (out_)
    return Succeeded;
  err_ << "kelvo-nfsctl: The output could not be written.\n";
  return Failed;
}

}  // namespace

int Run(std::vector<std::string> arguments, const service_factory_t& connect, std::ostream& out, std::ostream& err) {
  return CCommandLine(connect, out, err).Run(std::move(arguments));
}

}  // namespace nfsctl
