#include "integration/support/crash_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace test {

namespace fs = std::filesystem;

void CCrashTest::SetUp() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the signals are the sanitizer's";
#endif
}

void CCrashTest::SetOption(const std::string& name, const std::string& type, const std::string& data) {
  const SResult result = service_.Reg({"set", "SOFTWARE/Kelvo/Kelvo Vault", name, type, data});
  ASSERT_EQ(result.exitCode, 0) << result.err;
}

void CCrashTest::Start() {
  service_.SetVariable("LD_PRELOAD", Program("crash_injection.so"));
  service_.Start();
  // The ports answer before the main thread has come to its wait for the stop, where its stack is looked for.
  const std::string call = "/proc/" + std::to_string(service_.Process().Pid()) + "/syscall";
  const std::string waiting = std::to_string(SYS_rt_sigtimedwait) + " ";
  ASSERT_TRUE(WaitUntil([&] { return ReadFile(call).starts_with(waiting); })) << ReadFile(call);
}

std::string CCrashTest::CopyProgram(const std::string& folder) {
  const std::string path = copies_.Path() + "/" + folder;
  fs::create_directory(path);
  fs::copy_file(Program("KelvoNfsSvc"), path + "/KelvoNfsSvc");
  service_.SetProgram(path + "/KelvoNfsSvc");
  return path;
}

std::optional<int> CCrashTest::WaitingThread(const std::string& name) {
  const std::string tasks = "/proc/" + std::to_string(service_.Process().Pid()) + "/task";
  for (const auto& task : fs::directory_iterator(tasks)) {
    const std::string stat = ReadFile(task.path().string() + "/stat");
    if (stat.find(" (" + name + ") S ") != std::string::npos)
      return std::stoi(task.path().filename().string());
  }
  return {};
}

int CCrashTest::ThreadId(const std::string& name) {
  std::optional<int> id;
  if (!WaitUntil([&] { return (id = WaitingThread(name)).has_value(); }))
    throw std::runtime_error("no thread " + name);
  return *id;
}

void CCrashTest::Inject(injected_t how, const std::string& thread) {
  siginfo_t info{};
  info.si_signo = SIGUSR2;
  info.si_code = SI_QUEUE;
  info.si_pid = getpid();
  info.si_value.sival_int = static_cast<int>(how);
  ASSERT_EQ(syscall(SYS_rt_tgsigqueueinfo, service_.Process().Pid(), ThreadId(thread), SIGUSR2, &info), 0)
      << std::strerror(errno);
}

void CCrashTest::SendSignal(int signal, const std::string& thread) {
  ASSERT_EQ(syscall(SYS_tgkill, service_.Process().Pid(), ThreadId(thread), signal), 0) << std::strerror(errno);
}

void CCrashTest::ExpectEnd(int signal) {
  ASSERT_TRUE(service_.Process().WaitForExit(120s).has_value()) << "it hangs";
  EXPECT_EQ(service_.Process().EndSignal(), signal);
}

std::string CCrashTest::Folder() const {
  return fs::path(service_.LogPath()).parent_path().string();
}

std::string CCrashTest::DumpPath(int number, const std::string& extension) const {
  return Folder() + "/NFS_crash_" + std::to_string(number) + "." + extension;
}

void CCrashTest::MakeOldDumps(int first, int last) {
  constexpr time_t SecondsPerDay = 86400;
  for (int number = first; number <= last; ++number) {
    WriteFile(DumpPath(number), "old");
    const time_t when = 1000000000 + number * SecondsPerDay;
    const timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, DumpPath(number).c_str(), times, 0), 0);
  }
}

std::vector<std::string> CCrashTest::DumpNames() const {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(Folder())) {
    if (entry.path().extension() == ".mdmp")
      names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string CCrashTest::Debug(const std::string& dump, const std::vector<std::string>& commands) {
  std::vector<std::string> command{"lldb", "--batch", "--no-lldbinit", "-o", "target create --core " + dump};
  for (const std::string& line : commands) {
    command.push_back("-o");
    command.push_back(line);
  }
  const SResult result = RunProgram(command);
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return result.out;
}

std::vector<std::string> LinesFrom(const std::string& log, const std::string& text) {
  constexpr std::size_t TimeLength = 22;
  std::istringstream stream(log);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    if (lines.empty() && line.find(text) == std::string::npos)
      continue;
    // "[21.11.2026 19:07:21] < 30797> "
    const std::size_t thread = line.find("> ", TimeLength);
    lines.push_back(thread == std::string::npos ? line : line.substr(thread + 2));
  }
  return lines;
}

std::vector<std::string> CCrashTest::CrashLines() const {
  return LinesFrom(service_.LogText(), "Trying to generate crash dump");
}

}  // namespace test
