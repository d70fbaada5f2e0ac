#include "management/dcerpc/ntlm_user_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "foundation/log.h"
#include "platform/environment.h"
#include "platform/error.h"

namespace dcerpc {
namespace {

/// The mechanism goes back to the environment when it is given no file, so it gets one without users.
constexpr std::string_view EmptyFile = "/dev/null";

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

}  // namespace

CNtlmUserFile::CNtlmUserFile() : path_(ConfiguredPath()) {}

std::string CNtlmUserFile::UsablePath() {
  struct stat file {};
  std::string reason;
  const bool exists = ::stat(path_.c_str(), &file) == 0;
  if (exists) {
    reason = ReasonAgainst(file);
  } else if (errno != ENOENT) {
    reason = platform::ErrorText(platform::ErrorFromErrno(errno));
  }
  const std::lock_guard<std::mutex> guard(lock_);
  if (!reason.empty() && reason != refusal_)
    g_rpc_log.Warning("The file of NTLM users [%1] is not used. %2", path_, reason);
  refusal_ = reason;
  return exists && reason.empty() ? path_ : std::string(EmptyFile);
}

}  // namespace dcerpc
