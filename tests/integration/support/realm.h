// Accounts and a Kerberos realm of a test's own.
#pragma once

#include <memory>
#include <string>

#include "integration/support/process.h"

namespace test {

/// Puts files of its own over /etc/passwd, /etc/group and /etc/hosts, for as long as the mount namespace of the process
/// lives: the accounts judge-admin, who is in kelvo-admins, and judge-other, who is not, and RealmHost on loopback.
class CTestAccounts {
 public:
  CTestAccounts();

 private:
  CTempFolder folder_;
};

inline constexpr const char* RealmHost = "nfs.judge.test";

/// A key distribution centre on loopback, for the realm JUDGE.TEST. Its configuration and the keytab with the key of
/// host/RealmHost are in the environment of the process, and so of its children, until the destructor.
class CRealm {
 public:
  CRealm();
  ~CRealm();

  /// Makes a principal.
  void Add(const std::string& user, const std::string& password);
  /// A ticket of the user, and one for the host, become those of the programs that the test runs. Throws when the
  /// centre refuses.
  void LogIn(const std::string& user, const std::string& password);
  void LogOut();

 private:
  std::string Path(const std::string& name) const { return folder_.Path() + "/" + name; }
  void Administer(const std::string& query);
  void WriteConfiguration() const;

  CTempFolder folder_;
  std::unique_ptr<CProcess> centre_;
};

}  // namespace test
