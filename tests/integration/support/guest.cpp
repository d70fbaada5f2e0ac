#include "integration/support/guest.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace test {
namespace {

namespace fs = std::filesystem;

/// Where the root file system begins on the disk, in bytes.
constexpr const char* RootOffset = "1048576";

/// One conversation with the emulator's control socket.
class CControl {
 public:
  explicit CControl(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() < sizeof address.sun_path)
      std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    connected_ = ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  CControl(const CControl&) = delete;
  CControl& operator=(const CControl&) = delete;
  ~CControl() { ::close(socket_); }

  void Send(const std::string& name) {
    const std::string text = "{\"execute\": \"" + name + "\"}\n";
    connected_ = connected_ && ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL) > 0;
  }
  /// The next line that holds the word; empty when none comes.
  std::string LineWith(const std::string& word) {
    while (true) {
      std::string line = Line();
      if (line.empty() || line.find(word) != std::string::npos)
        return line;
    }
  }

 private:
  std::string Line() {
    while (connected_ && buffer_.find('\n') == std::string::npos) {
      pollfd poll{socket_, POLLIN, 0};
      char piece[4096];
      const ssize_t count = ::poll(&poll, 1, 5000) == 1 ? ::recv(socket_, piece, sizeof piece, 0) : -1;
      connected_ = count > 0;
      if (connected_)
        buffer_.append(piece, static_cast<std::size_t>(count));
    }
    const std::size_t end = buffer_.find('\n');
    if (end == std::string::npos)
      return {};
    std::string line = buffer_.substr(0, end + 1);
    buffer_.erase(0, end + 1);
    return line;
  }

  int socket_;
  bool connected_ = false;
  std::string buffer_;
};

std::string FirstWord(const std::string& text) {
  return text.substr(0, text.find_first_of(" \n"));
}

}  // namespace

CGuestDisk::CGuestDisk() {
  const SResult built = RunProgram({KELVO_SCRIPTS_DIR "/build-guest-disk"});
  if (built.exitCode != 0)
    throw std::runtime_error("The disk of the guest is not there and cannot be built:\n" + built.err);
  path_ = built.out.substr(0, built.out.find('\n'));
}

std::string CGuestDisk::Folder() const {
  return fs::path(path_).parent_path();
}

void CGuestDisk::CopyTo(const std::string& path) const {
  const SResult copied = RunProgram({"cp", "--sparse=always", path_, path});
  if (copied.exitCode != 0)
    throw std::runtime_error(copied.err);
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
}

std::string CGuestDisk::Sha256Of(const std::string& path) {
  const SResult result = RunProgram({"sha256sum", path});
  if (result.exitCode != 0)
    throw std::runtime_error(result.err);
  return FirstWord(result.out);
}

bool CGuestDisk::HoldsIntact(const std::string& disk, const std::string& path) {
  CTempFolder folder;
  const auto take = [&](const std::string& from, const std::string& to) {
    RunProgram({"/sbin/debugfs", "-R", "dump " + from + " " + to, disk + "?offset=" + RootOffset});
    return fs::exists(to);
  };
  const std::string content = folder.Path() + "/content";
  const std::string sum = folder.Path() + "/sum";
  return take(path, content) && take(path + ".sum", sum) && fs::file_size(content) > 0 &&
         FirstWord(ReadFile(sum)) == Sha256Of(content);
}

CGuest::CGuest(const std::string& url, const SGuestOptions& options)
    : consolePath_(folder_.Path() + "/console"), controlPath_(folder_.Path() + "/control") {
  const std::string policy = options.onError == OnDiskError::Stop ? "stop" : "report";
  // No COMMIT is served, and the emulator takes that for an error: so it must not flush.
  const std::string drive = "if=virtio,format=raw,cache=unsafe,rerror=" + policy + ",werror=" + policy + ",file=" + url;
  std::vector<std::string> command{"qemu-system-x86_64"};
  for (const auto& [option, value] : std::vector<std::pair<std::string, std::string>>{
           {"-accel", "tcg"},
           {"-cpu", "max"},
           {"-m", "256"},
           {"-serial", "stdio"},
           {"-qmp", "unix:" + controlPath_ + ",server=on,wait=off"},
           {"-smbios", "type=1,serial=files=" + std::to_string(options.files)},
           {"-drive", drive}})
    command.insert(command.end(), {option, value});
  command.insert(command.end(), {"-nodefaults", "-no-user-config", "-nographic", "-no-reboot"});
  const std::map<std::string, std::string> noEnvironment;
  process_ = std::make_unique<CProcess>(command, noEnvironment, consolePath_);
}

CGuest::~CGuest() = default;

bool CGuest::WaitFor(const std::string& text, std::chrono::milliseconds limit) {
  const auto shown = [&] {
    const std::string console = Console();
    // To the end of its line, for what comes behind the text is looked at, too.
    return console.find('\n', console.find(text)) != std::string::npos;
  };
  WaitUntil([&] { return shown() || !IsRunning(); }, limit);
  return shown();
}

std::string CGuest::Console() const {
  static const std::regex control("\r|\x1b(c|\\[[?0-9;]*[A-Za-z])");
  return std::regex_replace(ReadFile(consolePath_), control, "");
}

std::string CGuest::LastLines(unsigned count) const {
  const std::string text = Console();
  std::size_t begin = text.size();
  for (unsigned lines = 0; begin > 0; --begin)
    if (text[begin - 1] == '\n' && lines++ == count)
      break;
  return "--- the last lines of the console\n" + text.substr(begin) + "---\n";
}

std::string CGuest::Command(const std::string& name) {
  CControl control(controlPath_);
  control.LineWith("\"QMP\"");
  control.Send("qmp_capabilities");
  control.LineWith("\"return\"");
  control.Send(name);
  return control.LineWith("\"return\"");
}

std::string CGuest::Status() {
  const std::string reply = Command("query-status");
  std::smatch match;
  return std::regex_search(reply, match, std::regex("\"status\": \"([^\"]*)\"")) ? match[1].str() : std::string();
}

void CGuest::Continue() {
  Command("cont");
}

}  // namespace test
