// A realm of a test's own: a KDC on a loopback port, a keytab and tickets, all in a temporary folder.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/temp_dir.h"
#include "unit/management/dcerpc/security_pair.h"

namespace test {

/// Needs the Debian packages krb5-kdc, krb5-admin-server and krb5-user, and no privileges. The realm has the users
/// "admin", "admin/other" and "stranger", and the service host/server.test. Sets the environment of the process.
class TestKdc {
 public:
  TestKdc() {
    WriteFile(folder_ / "kdc.conf", "[realms]\nKELVO.TEST = {\n database_name = " + (folder_ / "principal") +
                                        "\n key_stash_file = " + (folder_ / "stash") +
                                        "\n acl_file = " + (folder_ / "acl") + "\n max_life = 1h\n}\n");
    WriteFile(folder_ / "krb5.conf", QuietKerberos);
    Run("/usr/sbin/kdb5_util create -s -r KELVO.TEST -P master");
    Administer("addprinc -randkey host/server.test");
    Administer("ktadd -k " + ServiceKeys() + " host/server.test");
    for (const char* user : {"admin", "admin/other", "stranger"}) {
      Administer(std::string("addprinc -pw secret ") + user);
      Administer("ktadd -norandkey -k " + (folder_ / "users.keytab") + ' ' + user);
    }
    constexpr int MaxPorts = 10;
    for (int i = 0; i < MaxPorts; ++i) {
      if (Start())
        return;
    }
    throw std::runtime_error("krb5kdc found no port");
  }
  TestKdc(const TestKdc&) = delete;
  TestKdc& operator=(const TestKdc&) = delete;
  ~TestKdc() { Stop(); }

  std::string ServiceKeys() const { return folder_ / "service.keytab"; }
  /// Fetches tickets for the user into the cache that initiators use.
  void LogIn(const std::string& user) { Run("kinit -k -t " + (folder_ / "users.keytab") + ' ' + user); }
  std::string operator/(const std::string& name) const { return folder_ / name; }

 private:
  static void Run(const std::string& command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
      throw std::runtime_error(command + " failed");
  }
  static void Administer(const std::string& request) {
    Run("/usr/sbin/kadmin.local -r KELVO.TEST -q '" + request + "'");
  }

  static in_port_t FreePort() {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    const bool bound = ::bind(socket, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                       ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    ::close(socket);
    if (!bound)
      throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
  }
  static sockaddr_in Loopback(in_port_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
  }
  static bool Answers(in_port_t port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(port);
    const bool connected = ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(socket);
    return connected;
  }

  /// False when the KDC ended, as it does when someone else took the port meanwhile.
  bool Start() {
    const in_port_t port = FreePort();
    const std::string place = "127.0.0.1:" + std::to_string(port);
    WriteFile(folder_ / "krb5.conf", QuietKerberos + std::string("[realms]\nKELVO.TEST = {\n kdc = ") + place +
                                         "\n}\n[kdcdefaults]\nkdc_listen = \"\"\nkdc_tcp_listen = " + place + "\n");
    child_ = ::fork();
    if (child_ == 0) {
      ::execl("/usr/sbin/krb5kdc", "krb5kdc", "-n", "-r", "KELVO.TEST", nullptr);
      ::_exit(127);
    }
    while (!Answers(port)) {
      if (::waitpid(child_, nullptr, WNOHANG) == child_) {
        child_ = -1;
        return false;
      }
      std::this_thread::yield();
    }
    return true;
  }
  void Stop() {
    if (child_ <= 0)
      return;
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
    child_ = -1;
  }

  TempDir folder_;
  ScopedEnvironment config_{"KRB5_CONFIG", folder_ / "krb5.conf"};
  ScopedEnvironment profile_{"KRB5_KDC_PROFILE", folder_ / "kdc.conf"};
  ScopedEnvironment keys_{"KRB5_KTNAME", folder_ / "service.keytab"};
  ScopedEnvironment tickets_{"KRB5CCNAME", "FILE:" + (folder_ / "tickets")};
  ScopedEnvironment replays_{"KRB5RCACHENAME", "file2:" + (folder_ / "replays")};
  ScopedEnvironment log_{"KRB5_TRACE", "/dev/null"};
  pid_t child_ = -1;
};

}  // namespace test
