// The file of NTLM users.
#pragma once

#include <mutex>
#include <string>

namespace dcerpc {

/// Finds the file with the names and passwords that NTLM callers are checked against: NTLM_USER_FILE, or else
/// CommonAppDataFolder()/Kelvo/ntlm-users. The folder and the variable are read once. Any thread.
class CNtlmUserFile {
 public:
  CNtlmUserFile();

  /// The path of a file that may be used now, or of an empty one: a file that others may read or write, or that is not
  /// the service's or root's, holds nothing that proves anything. Says so in the log, once until it is mended.
  std::string UsablePath();

 private:
  const std::string path_;
  std::mutex lock_;
  /// Guarded by lock_: why the file was refused when it was looked at last.
  std::string refusal_;
};

}  // namespace dcerpc
