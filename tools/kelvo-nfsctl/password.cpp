// Passwords come from anywhere but the command line, which every account of the machine can read.
#include <termios.h>
#include <unistd.h>

#include <fstream>
#include <iostream>

#include "foundation/exc.h"
#include "kelvo-nfsctl/service.h"
#include "platform/environment.h"

namespace nfsctl {
namespace {

/// Keeps the terminal from showing what is typed.
class CQuietTerminal {
 public:
  CQuietTerminal() {
    isChanged_ = ::tcgetattr(STDIN_FILENO, &saved_) == 0;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    if (isChanged_)
      ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  }
  CQuietTerminal(const CQuietTerminal&) = delete;
  CQuietTerminal& operator=(const CQuietTerminal&) = delete;
  ~CQuietTerminal() {
    if (isChanged_)
      ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
  }

 private:
  termios saved_{};
  bool isChanged_ = false;
};

std::string FirstLine(std::istream& stream, const std::string& where) {
  std::string line;
  if (!std::getline(stream, line))
    throw exc::runtime_exc_t("The password cannot be read from %1.", where);
  if (line.ends_with('\r'))
    line.pop_back();
  return line;
}

}  // namespace

std::string ReadPassword(const std::string& user, const std::string& file) {
  if (file == "-")
    return FirstLine(std::cin, "standard input");
  if (!file.empty()) {
    std::ifstream stream(file);
    return FirstLine(stream, "[" + file + "]");
  }
  if (auto password = platform::EnvironmentVariable("KELVO_PASSWORD"))
    return *std::move(password);
  if (::isatty(STDIN_FILENO) == 0) {
    throw exc::runtime_exc_t(
        "There is no password for [%1]: set KELVO_PASSWORD, name a file with --password-file, or"
        " run the command on a terminal.",
        user);
  }
  std::cerr << "Password of " << user << ": " << std::flush;
  const CQuietTerminal quiet;
  std::string password = FirstLine(std::cin, "the terminal");
  std::cerr << '\n';
  return password;
}

}  // namespace nfsctl
