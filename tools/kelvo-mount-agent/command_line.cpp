#include "kelvo-mount-agent/command_line.h"

#include <poll.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>
#include <ostream>

#include "kelvo-mount-agent/folder_content.h"
#include "mount-agent-lib/server.h"
#include "platform/location.h"

namespace mount_agent {
namespace {

constexpr const char* Description =
    "Offers the files of a folder to the NFS service as a backup, from which machines can be started. Sub-folders are "
    "not offered: each is a backup of its own. Ends in order on SIGTERM and SIGINT.";

constexpr const char* Examples = R"(
Nothing that guests write is accepted unless --overlay or --write-through says where it goes.

Examples:
  Offer a backup, and publish it:
    kelvo-mount-agent --pipe vm1 --source /backups/vm1
    kelvo-nfsctl mount publish /datastore1 vm1 --vm vm1 --pipe vm1

  Let the machine write, and leave the backup as it is:
    kelvo-mount-agent --pipe vm1 --source /backups/vm1 --overlay /var/lib/Kelvo/overlays/vm1

  Look at the machine's state afterwards, with no writes at all:
    kelvo-mount-agent --pipe vm1 --source /backups/vm1 --overlay /var/lib/Kelvo/overlays/vm1 --read-only

Exit codes: 0 ended by a signal, 1 a failure, told on standard error, 2 bad usage.
)";

struct SArguments {
  std::string pipe;
  std::string source;
  std::string overlay;
  bool readOnly = false;
  bool writeThrough = false;
  bool sync = false;
};

/// The exit code for arguments that end the program here; nothing when it can go on.
std::optional<int> Parse(const std::vector<std::string>& arguments, SArguments& parsed, std::ostream& out,
                         std::ostream& err) {
  CLI::App app(Description, "kelvo-mount-agent");
  app.set_version_flag("--version", KELVO_VERSION);
  app.footer(Examples);
  app.add_option("--pipe", parsed.pipe, "The name that the backup is published by")->required()->type_name("NAME");
  app.add_option("--source", parsed.source, "The folder whose files are offered")->required()->type_name("DIR");
  CLI::Option* overlay =
      app.add_option("--overlay", parsed.overlay,
                     "Keep what guests write in this folder, made if it is missing, and never change the source")
          ->type_name("DIR");
  CLI::Option* readOnly = app.add_flag("--read-only", parsed.readOnly,
                                       "Refuse writes, which is the default without "
                                       "--overlay; with it, show what it holds");
  app.add_flag("--write-through", parsed.writeThrough, "Let guests change the files of the source themselves")
      ->excludes(overlay)
      ->excludes(readOnly);
  app.add_flag("--sync", parsed.sync,
               "Bring each write to the disk before it is answered, so that it survives the loss of power")
      ->needs(overlay)
      ->excludes(readOnly);
  // CLI11 takes them from the back.
  std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
  try {
    app.parse(std::move(reversed));
  } catch (const CLI::ParseError& failure) {
    return app.exit(failure, out, err) == 0 ? Succeeded : BadUsage;
  }
  // The number of the pipe is appended to it.
  if (!platform::IsPlainName(parsed.pipe) || parsed.pipe.size() > 200) {
    err << "kelvo-mount-agent: [" << parsed.pipe << "] cannot be the name of a pipe.\n";
    return BadUsage;
  }
  return std::nullopt;
}

SFolderOptions OptionsOf(const SArguments& arguments) {
  SFolderOptions options;
  options.source = arguments.source;
  options.overlay = arguments.overlay;
  if (arguments.writeThrough)
    options.writes = writes_t::ToSource;
  else if (!arguments.overlay.empty() && !arguments.readOnly)
    options.writes = arguments.sync ? writes_t::ToOverlaySync : writes_t::ToOverlay;
  return options;
}

const char* Describe(writes_t writes) {
  switch (writes) {
    case writes_t::Refused:
      return "Writes are refused.";
    case writes_t::ToSource:
      return "Writes change the files of the source.";
    case writes_t::ToOverlay:
    case writes_t::ToOverlaySync:
      break;
  }
  return "Writes go to the overlay.";
}

/// Every open file of the backup takes a descriptor.
void AllowManyFiles() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

void WaitUntilReadable(int descriptor) {
  pollfd entry{descriptor, POLLIN, 0};
  while (::poll(&entry, 1, -1) <= 0) {
  }
}

/// A failure's sentences, the cause first, one a line.
std::string TextOf(const std::exception& failure) {
  std::string text = failure.what();
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 3))
    text.replace(at, 1, "\n  ");
  return text;
}

}  // namespace

int Run(const std::vector<std::string>& arguments, int stop, std::ostream& out, std::ostream& err) {
  SArguments parsed;
  if (const std::optional<int> code = Parse(arguments, parsed, out, err))
    return *code;
  AllowManyFiles();
  const SFolderOptions options = OptionsOf(parsed);
  try {
    CFolderContent content(options);
    {
      const CAgentServer server(parsed.pipe, content,
                                [&err](const std::string& text) { err << "kelvo-mount-agent: " << text << std::endl; });
      out << "Serving [" << options.source << "] on the pipe [" << parsed.pipe << "]. " << Describe(options.writes)
          << std::endl;
      WaitUntilReadable(stop);
    }
    const platform::error_t failure = content.Flush();
    if (failure == platform::error::Success)
      return Succeeded;
    err << "kelvo-mount-agent: What was written could not be brought to the disk. " << platform::ErrorText(failure)
        << '\n';
  } catch (const std::exception& failure) {
    err << "kelvo-mount-agent: " << TextOf(failure) << '\n';
  }
  return Failed;
}

}  // namespace mount_agent
