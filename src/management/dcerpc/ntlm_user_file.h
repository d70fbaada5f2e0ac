// The file of NTLM users.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/location.h"

namespace dcerpc {

/// The text of a file of users with the digest of the password in place of each password: a line DOMAIN:user:password
/// becomes DOMAIN\user:0:LM:NT: in the form of smbpasswd, which the mechanism reads as well. Lines of any other form
/// stay as they are, and so do those with a password that the mechanism refuses or that would grow too long for it.
std::string WithoutPasswords(std::string_view text);

/// A file that the mechanism can read while this is held; it lies in memory, or is one without users.
struct SNtlmUsers {
  std::string path;
  platform::descriptor_t memory{-1};
};

/// Finds the file with the names and passwords that NTLM callers are checked against: NTLM_USER_FILE, or else
/// CommonAppDataFolder()/Kelvo/ntlm-users. The folder and the variable are read once. Any thread.
class CNtlmUserFile {
 public:
  CNtlmUserFile();

  /// What the file holds now, without its passwords; without users where it may not be used: a file that others may
  /// read or write, or that is not the service's or root's, holds nothing that proves anything. Says so in the log,
  /// once until it is mended. The mechanism computes the digest of a password anew in each handshake, and loses several
  /// kilobytes of what it needs for that: hence the copy.
  std::shared_ptr<const SNtlmUsers> Usable();

 private:
  std::shared_ptr<const SNtlmUsers> CopyOf(const std::string& file);

  const std::string path_;
  std::mutex lock_;  // Guards the rest.
  /// Why the file was refused when it was looked at last.
  std::string refusal_;
  /// The last copy, and what it holds.
  std::shared_ptr<const SNtlmUsers> copy_;
  std::string copied_;
};

}  // namespace dcerpc
