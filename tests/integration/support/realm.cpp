#include "integration/support/realm.h"

#include <sys/mount.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace test {
namespace {

constexpr const char* Realm = "JUDGE.TEST";
constexpr const char* Kdb5Util = "/usr/sbin/kdb5_util";
constexpr const char* KadminLocal = "/usr/sbin/kadmin.local";
constexpr const char* Krb5Kdc = "/usr/sbin/krb5kdc";

/// What a realm puts into the environment, and the file of its folder that each names.
constexpr std::array<std::pair<const char*, const char*>, 4> Variables{{{"KRB5_CONFIG", "krb5.conf"},
                                                                        {"KRB5_KDC_PROFILE", "kdc.conf"},
                                                                        {"KRB5_KTNAME", "keytab"},
                                                                        {"KRB5CCNAME", "tickets"}}};

void MustRun(const std::vector<std::string>& command, const std::string& input = {}) {
  const SResult result = RunProgram(command, {}, input);
  if (result.exitCode != 0)
    throw std::runtime_error(command.front() + ": " + result.out + result.err);
}

}  // namespace

CTestAccounts::CTestAccounts() {
  const std::array<std::pair<const char*, std::string>, 3> files{
      {{"passwd",
        "root:x:0:0::/root:/bin/sh\nnobody:x:65534:65534::/:/bin/false\n"
        "judge-admin:x:4001:4001::/:/bin/false\njudge-other:x:4002:4002::/:/bin/false\n"},
       {"group",
        "root:x:0:\nnogroup:x:65534:\njudge-admin:x:4001:\njudge-other:x:4002:\nkelvo-admins:x:4100:judge-admin\n"},
       {"hosts", std::string("127.0.0.1 localhost ") + RealmHost + "\n"}}};
  for (const auto& [name, content] : files) {
    const std::string path = folder_.Path() + "/" + name;
    WriteFile(path, content);
    if (::mount(path.c_str(), (std::string("/etc/") + name).c_str(), nullptr, MS_BIND, nullptr) != 0)
      throw std::runtime_error(std::string("cannot mount a file over /etc/") + name);
  }
}

CRealm::CRealm() {
  WriteConfiguration();
  for (const auto& [variable, file] : Variables)
    ::setenv(variable, Path(file).c_str(), 1);
  MustRun({Kdb5Util, "create", "-s", "-r", Realm, "-P", "master"});
  const std::string host = std::string("host/") + RealmHost;
  Administer("addprinc -randkey " + host);
  Administer("ktadd -k " + Path("keytab") + " " + host);
  centre_ = std::make_unique<CProcess>(std::vector<std::string>{Krb5Kdc, "-n"}, std::map<std::string, std::string>(),
                                       Path("output"));
}

CRealm::~CRealm() {
  for (const auto& [variable, file] : Variables)
    ::unsetenv(variable);
}

void CRealm::WriteConfiguration() const {
  WriteFile(Path("krb5.conf"), std::string("[libdefaults]\n  default_realm = ") + Realm +
                                   "\n  dns_lookup_kdc = false\n  dns_lookup_realm = false\n"
                                   "  dns_canonicalize_hostname = false\n  rdns = false\n"
                                   "[realms]\n  " +
                                   Realm +
                                   " = {\n    kdc = 127.0.0.1:88\n  }\n"
                                   "[domain_realm]\n  " +
                                   RealmHost + " = " + Realm + "\n");
  WriteFile(Path("kdc.conf"),
            std::string("[kdcdefaults]\n  kdc_listen = 127.0.0.1:88\n  kdc_tcp_listen = 127.0.0.1:88\n"
                        "[realms]\n  ") +
                Realm + " = {\n    database_name = " + Path("principals") + "\n    key_stash_file = " + Path("stash") +
                "\n  }\n");
}

void CRealm::Administer(const std::string& query) {
  MustRun({KadminLocal, "-r", Realm, "-q", query});
}

void CRealm::Add(const std::string& user, const std::string& password) {
  Administer("addprinc -pw " + password + " " + user);
}

void CRealm::LogIn(const std::string& user, const std::string& password) {
  // The first answer tells that the centre is up.
  SResult result;
  const bool answered = WaitUntil([&] {
    result = RunProgram({"kinit", user}, {}, password + "\n");
    return result.exitCode == 0 || result.err.find("Cannot contact any KDC") == std::string::npos;
  });
  if (!answered || result.exitCode != 0)
    throw std::runtime_error("kinit: " + result.err + ReadFile(Path("output")));
  MustRun({"kvno", std::string("host/") + RealmHost});
}

void CRealm::LogOut() {
  MustRun({"kdestroy"});
}

}  // namespace test
