#include "management/dcerpc/ntlm_user_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <vector>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "management/dcerpc/md4.h"
#include "platform/environment.h"
#include "platform/error.h"
#include "platform/text.h"

namespace dcerpc {
namespace {

/// The mechanism goes back to the environment when it is given no file, so it gets one without users.
constexpr std::string_view EmptyFile = "/dev/null";
/// The mechanism reads lines in pieces of this size, the zero at the end included.
constexpr std::size_t LineLimit = 1024;
/// In the place of the digest that the mechanism needs for the oldest form of responses alone, which is not served.
constexpr std::string_view NoLmDigest = "00000000000000000000000000000000";

std::string ConfiguredPath() {
  const std::optional<std::string> path = platform::EnvironmentVariable("NTLM_USER_FILE");
  return path && !path->empty() ? *path : platform::CommonAppDataFolder() + "/Kelvo/ntlm-users";
}

/// Why a file that is there must not be used; empty when it may be.
std::string ReasonAgainst(const struct stat& file) {
  if (!S_ISREG(file.st_mode))
    return "It is not a regular file.";
  if (file.st_uid != ::geteuid() && file.st_uid != 0)
    return "It belongs to another account.";
  if ((file.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    return "Others than its owner may access it; its mode must be 0600.";
  return {};
}

std::string SystemReason() {
  return platform::ErrorText(platform::LastError());
}

/// The content of a file that may be used. Empty with a reason for one that may not, and without for none.
std::string Read(const std::string& path, std::string& reason) {
  // Not to wait for the other end of what is no file.
  const platform::descriptor_t file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (!file.IsOpen()) {
    reason = errno == ENOENT ? std::string() : SystemReason();
    return {};
  }
  reason = ::fstat(file.Get(), &info) == 0 ? ReasonAgainst(info) : SystemReason();
  std::string text;
  std::array<char, 4096> part{};
  while (reason.empty()) {
    const ssize_t got = ::read(file.Get(), part.data(), part.size());
    if (got == 0)
      break;
    if (got > 0) {
      text.append(part.data(), static_cast<std::size_t>(got));
    } else if (errno != EINTR) {
      reason = SystemReason();
    }
  }
  return reason.empty() ? text : std::string();
}

/// Nothing for a password that the mechanism refuses.
std::optional<std::string> HexDigest(std::string_view password) {
  const std::optional<std::u16string> wide = platform::Utf16FromUtf8(password);
  if (!wide || wide->empty())
    return std::nullopt;
  std::vector<std::uint8_t> bytes;
  for (const char16_t unit : *wide) {
    bytes.push_back(static_cast<std::uint8_t>(unit));
    bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
  }
  std::string hex;
  for (const std::uint8_t byte : Md4(bytes)) {
    hex += "0123456789ABCDEF"[byte >> 4];
    hex += "0123456789ABCDEF"[byte & 0xF];
  }
  std::fill(bytes.begin(), bytes.end(), std::uint8_t{0});
  return hex;
}

/// One line without its line feed.
std::string WithoutPassword(std::string_view line) {
  std::string kept(line);
  const std::size_t first = line.find(':');
  if (line.starts_with('#') || first == std::string_view::npos || line.find('\0') != std::string_view::npos)
    return kept;
  const std::size_t second = line.find(':', first + 1);
  // With a third colon it has the other form already.
  if (second == std::string_view::npos || line.find(':', second + 1) != std::string_view::npos)
    return kept;
  const std::string_view domain = line.substr(0, first);
  const std::string_view password = line.substr(second + 1);
  // There the first of these ends the domain.
  if (domain.find('\\') != std::string_view::npos)
    return kept;
  const std::optional<std::string> digest = HexDigest(password.substr(0, password.find('\r')));
  if (!digest)
    return kept;
  const std::string_view user = line.substr(first + 1, second - first - 1);
  std::string made = exc::FormatText("%1\\%2:0:%3:%4:", domain, user, NoLmDigest, *digest);
  return std::max(made.size(), line.size()) + 1 < LineLimit ? made : kept;
}

/// A file in memory; nothing when the system has none, or nobody could open it by a path.
std::shared_ptr<const SNtlmUsers> InMemory(std::string_view text) {
  platform::descriptor_t memory(::memfd_create("ntlm-users", MFD_CLOEXEC));
  if (!memory.IsOpen() || ::fchmod(memory.Get(), S_IRUSR | S_IWUSR) != 0)
    return {};
  while (!text.empty()) {
    const ssize_t written = ::write(memory.Get(), text.data(), text.size());
    if (written < 0)
      return {};
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  const std::string path = exc::FormatText("/proc/self/fd/%1", memory.Get());
  if (::access(path.c_str(), R_OK) != 0)
    return {};
  return std::make_shared<const SNtlmUsers>(SNtlmUsers{path, std::move(memory)});
}

}  // namespace

std::string WithoutPasswords(std::string_view text) {
  std::string made;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    made += WithoutPassword(text.substr(0, end));
    made += '\n';
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return made;
}

CNtlmUserFile::CNtlmUserFile() : path_(ConfiguredPath()) {}

std::shared_ptr<const SNtlmUsers> CNtlmUserFile::Usable() {
  std::string reason;
  const std::string text = Read(path_, reason);
  const std::lock_guard<std::mutex> guard(lock_);
  if (!reason.empty() && reason != refusal_)
    g_rpc_log.Warning("The file of NTLM users [%1] is not used. %2", path_, reason);
  refusal_ = reason;
  if (text.empty())
    return std::make_shared<const SNtlmUsers>(SNtlmUsers{std::string(EmptyFile)});
  return CopyOf(text);
}

/// Under lock_. One copy serves all handshakes until the file changes.
std::shared_ptr<const SNtlmUsers> CNtlmUserFile::CopyOf(const std::string& file) {
  std::string text = WithoutPasswords(file);
  if (copy_ != nullptr && text == copied_)
    return copy_;
  copy_ = InMemory(text);
  copied_ = std::move(text);
  if (copy_ != nullptr)
    return copy_;
  return std::make_shared<const SNtlmUsers>(SNtlmUsers{path_});
}

}  // namespace dcerpc
