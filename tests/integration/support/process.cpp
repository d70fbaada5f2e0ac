#include "integration/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace test {
namespace {

int CodeOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

[[noreturn]] void Execute(const std::vector<std::string>& command,
                          const std::map<std::string, std::string>& environment) {
  for (const auto& [name, value] : environment)
    setenv(name.c_str(), value.c_str(), 1);
  std::vector<char*> arguments;
  // The service runs behind the walls of its unit when the whole suite is to.
  const char* const walls = std::getenv("KELVO_TEST_WALLS");
  const std::string launcher = Program("walled");
  if (walls != nullptr && command[0].ends_with("/KelvoNfsSvc")) {
    arguments.push_back(const_cast<char*>(launcher.c_str()));
    arguments.push_back(const_cast<char*>(walls));
  }
  for (const std::string& argument : command)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

}  // namespace

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end)
      return condition();
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

SResult RunProgram(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment,
                   const std::string& input) {
  CTempFolder folder;
  const std::string in = folder.Path() + "/in";
  const std::string out = folder.Path() + "/out";
  const std::string err = folder.Path() + "/err";
  WriteFile(in, input);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(in.c_str(), O_RDONLY), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    Execute(command, environment);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return {CodeOf(status), ReadFile(out), ReadFile(err)};
}

CProcess::CProcess(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment,
                   const std::string& outputPath) {
  pid_ = fork();
  if (pid_ < 0)
    throw std::runtime_error("fork");
  if (pid_ == 0) {
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, 0);
    const int output = outputPath.empty() ? nothing : open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(output, 1);
    dup2(output, 2);
    Execute(command, environment);
  }
}

CProcess::~CProcess() {
  if (!IsRunning())
    return;
  kill(pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
}

void CProcess::Signal(int number) const {
  kill(pid_, number);
}

bool CProcess::IsRunning() {
  if (exitCode_)
    return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    exitCode_ = CodeOf(status);
    endSignal_ = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
  return !exitCode_;
}

std::optional<int> CProcess::WaitForExit(std::chrono::milliseconds limit) {
  WaitUntil([this] { return !IsRunning(); }, limit);
  return exitCode_;
}

std::string Program(const std::string& name) {
  return std::string(KELVO_BIN_DIR) + "/" + name;
}

CTempFolder::CTempFolder() {
  char pattern[] = "/tmp/kelvo-test-XXXXXX";
  if (mkdtemp(pattern) == nullptr)
    throw std::runtime_error("mkdtemp");
  path_ = pattern;
}

CTempFolder::~CTempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ReadFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream content;
  content << stream.rdbuf();
  return content.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!stream.flush())
    throw std::runtime_error("cannot write " + path);
}

}  // namespace test
