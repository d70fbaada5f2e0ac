#include "foundation/log_setup.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "foundation/debug_string_log.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/log_rotation.h"
#include "foundation/win_log_file.h"
#include "platform/sqlite_registry.h"
#include "support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr char CommonKey[] = "SOFTWARE\\Kelvo\\Kelvo Vault";
constexpr char ServiceKey[] = "SOFTWARE\\Kelvo\\Kelvo NFS";

std::string TextOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& failure) {
    return failure.what();
  }
  return "nothing was thrown";
}

std::vector<std::string> LinesOf(const std::string& path) {
  std::ifstream stream(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

/// What follows the time and the thread.
std::string Body(const std::string& line) {
  return line.substr(std::min(line.size(), line.find("> ") + 2));
}

class LogSetup : public testing::Test {
 protected:
  LogSetup() { platform::registry_t::SetInstance(&registry_); }
  ~LogSetup() override {
    logging::CloseLog();
    logging::TheLog().SetVerbose(false);
    logging::Resume();
    platform::registry_t::SetInstance(nullptr);
  }

  static void Init(std::vector<std::string> arguments, const std::string& name = "Svc.KelvoNFS.log") {
    arguments.insert(arguments.begin(), "KelvoNfsSvc");
    logging::InitLog(name, CCommandLine(std::move(arguments)));
  }

  test::TempDir folder_;
  test::ScopedEnvironment environment_{"ALLUSERSPROFILE", folder_.Path().string()};
  platform::sqlite_registry_t registry_{folder_ / "registry.db"};
};

TEST_F(LogSetup, DefaultFolderLiesInTheCommonData) {
  const ::mode_t mask = ::umask(0);
  Init({});
  ::umask(mask);
  const std::string path = folder_ / "Kelvo/Backup/Svc.KelvoNFS.log";
  EXPECT_EQ(logging::GetLogPath(), path);
  struct stat status {};
  ASSERT_EQ(::stat((folder_ / "Kelvo/Backup").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(LogSetup, RegistryNamesAnotherFolder) {
  registry_.SetText(CommonKey, "LogDirectory", (folder_ / "logs") + "\\deep");
  Init({});
  EXPECT_EQ(logging::GetLogPath(), folder_ / "logs/deep/Svc.KelvoNFS.log");
}

TEST_F(LogSetup, SwitchNamesTheFile) {
  registry_.SetText(CommonKey, "LogDirectory", folder_ / "unused");
  Init({"-LOG", folder_ / "mine.txt"});
  EXPECT_EQ(logging::GetLogPath(), folder_ / "mine.txt");
  EXPECT_FALSE(std::filesystem::exists(folder_ / "unused"));
}

TEST_F(LogSetup, TrailingLogSwitchIsIgnored) {
  Init({"-log"});
  EXPECT_EQ(logging::GetLogPath(), folder_ / "Kelvo/Backup/Svc.KelvoNFS.log");
}

TEST_F(LogSetup, BannerStandsFirst) {
  Init({"-log", folder_ / "a.log"});
  std::vector<std::string> bodies;
  for (const std::string& line : LinesOf(folder_ / "a.log"))
    bodies.push_back(Body(line));
  EXPECT_THAT(bodies, ElementsAre("", std::string(77, '='), "{",
                                  "  Path to the module: " + std::filesystem::read_symlink("/proc/self/exe").string(),
                                  testing::MatchesRegex("  Module version: [0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+"),
                                  testing::MatchesRegex("  Comments: .+"), testing::MatchesRegex("  OS version: .+"),
                                  "  Process Id: " + std::to_string(::getpid()), "}"));
}

TEST_F(LogSetup, VerboseSwitchOpensVerboseLines) {
  Init({"-log", folder_ / "a.log"});
  EXPECT_FALSE(g_log.IsVerbose());
  Init({"-log", folder_ / "b.log", "-Verbose"});
  EXPECT_TRUE(g_log.IsVerbose());
}

TEST_F(LogSetup, HeldFileGivesWayToTheNextNumber) {
  const win::win_log_file_t plain(folder_ / "Svc.KelvoNFS.log");
  {
    const win::win_log_file_t first(folder_ / "Svc.KelvoNFS.1.log");
    Init({"-log", folder_ / "Svc.KelvoNFS.log"});
    EXPECT_EQ(logging::GetLogPath(), folder_ / "Svc.KelvoNFS.2.log");
  }
  logging::CloseLog();
  Init({"-log", folder_ / "Svc.KelvoNFS.log"});
  EXPECT_EQ(logging::GetLogPath(), folder_ / "Svc.KelvoNFS.1.log");
}

TEST_F(LogSetup, FailureToOpenIsChained) {
  const std::string path = folder_ / "missing/a.log";
  EXPECT_THAT(TextOf([&] {
                Init({"-log", path});
              }),
              EndsWith("\nFailed to create or open file [" + path + "].\nError code: 2\nFailed to initialize log [" +
                       path + "]."));
  EXPECT_FALSE(g_log.IsOpen());
}

TEST_F(LogSetup, PathIsUnknownWithoutALog) {
  EXPECT_EQ(TextOf([] { logging::GetLogPath(); }), "Value of the log path is unavailable: log is not initialized");
}

TEST_F(LogSetup, SuspendDropsAndResumeWrites) {
  Init({"-log", folder_ / "a.log"});
  logging::Suspend();
  g_log.Info("dropped");
  logging::Resume();
  g_log.Info("written");
  const auto lines = LinesOf(folder_ / "a.log");
  EXPECT_EQ(lines.size(), 10U);
  EXPECT_EQ(Body(lines.back()), "written");
}

TEST_F(LogSetup, WithoutANameStandardOutputIsUsed) {
  const int saved = ::dup(STDOUT_FILENO);
  const int file = ::open((folder_ / "out").c_str(), O_WRONLY | O_CREAT, 0600);
  ::dup2(file, STDOUT_FILENO);
  Init({}, "");
  const std::string path = logging::GetLogPath();
  g_log.Info("line");
  logging::CloseLog();
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  ::close(file);
  EXPECT_EQ(path, "stdout");
  const auto lines = LinesOf(folder_ / "out");
  ASSERT_EQ(lines.size(), 12U);
  EXPECT_EQ(lines.front(), std::string(74, '/'));
  EXPECT_EQ(Body(lines[10]), "line");
  EXPECT_EQ(lines.back(), std::string(74, '/'));
}

TEST_F(LogSetup, FullStandardOutputIsTold) {
  const int saved = ::dup(STDOUT_FILENO);
  const int full = ::open("/dev/full", O_WRONLY);
  ::dup2(full, STDOUT_FILENO);
  const std::string text = TextOf([] { Init({}, ""); });
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  ::close(full);
  EXPECT_THAT(text, EndsWith("\nError: Failed to initialize stdout log."));
}

TEST_F(LogSetup, LargeFileIsRotatedAtOpening) {
  registry_.SetDword(CommonKey, "AgentMaxLogSize", 10);
  registry_.SetDword(CommonKey, "AgentMaxLogCount", 2);
  std::ofstream(folder_ / "a.log") << "more than ten bytes\n";
  Init({"-log", folder_ / "a.log"});
  EXPECT_TRUE(std::filesystem::exists(folder_ / "a.log.gz"));
  EXPECT_EQ(LinesOf(folder_ / "a.log").size(), 9U);
}

TEST_F(LogSetup, SizeZeroNeverRotates) {
  registry_.SetDword(CommonKey, "AgentMaxLogSize", 0);
  registry_.SetDword(CommonKey, "AgentMaxLogCount", 2);
  std::filesystem::resize_file((std::ofstream(folder_ / "a.log"), folder_ / "a.log"), 20000000);
  Init({"-log", folder_ / "a.log"});
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a.log.gz"));
}

TEST(LogCandidates, NumberStandsBeforeTheExtension) {
  const auto candidates = logging::LogCandidates("/l/Svc.KelvoNFS.log");
  ASSERT_EQ(candidates.size(), 1000U);
  EXPECT_EQ(candidates[0], "/l/Svc.KelvoNFS.log");
  EXPECT_EQ(candidates[1], "/l/Svc.KelvoNFS.1.log");
  EXPECT_EQ(candidates[999], "/l/Svc.KelvoNFS.999.log");
  EXPECT_EQ(logging::LogCandidates("/l/A.LoG")[2], "/l/A.2.LoG");
  EXPECT_EQ(logging::LogCandidates("/l/a.txt")[2], "/l/a.txt.2");
  EXPECT_EQ(logging::LogCandidates("log")[1], "log.1");
}

TEST(OpenFirstFree, TellsAnEmptyListAndAFullOne) {
  const test::TempDir folder;
  EXPECT_EQ(TextOf([] { logging::OpenFirstFree({}); }), "Log paths list is empty.");
  const win::win_log_file_t held(folder / "a.log");
  EXPECT_EQ(TextOf([&] { logging::OpenFirstFree({folder / "a.log", folder / "a.log"}); }), "All log files are locked.");
}

class RotationSettings : public LogSetup {};

TEST_F(RotationSettings, DefaultsStandUnlessBothAreThere) {
  const auto expectDefaults = [] {
    const auto settings = logging::ReadRotationSettings();
    EXPECT_EQ(settings.maxSize, 15728640U);
    EXPECT_EQ(settings.maxCount, 10U);
  };
  expectDefaults();
  registry_.SetDword(CommonKey, "AgentMaxLogSize", 1000);
  expectDefaults();
  registry_.SetText(CommonKey, "AgentMaxLogCount", "5");
  expectDefaults();
  registry_.SetDword(CommonKey, "AgentMaxLogCount", 5);
  registry_.SetText(CommonKey, "AgentMaxLogSize", "1000");
  expectDefaults();
}

TEST_F(RotationSettings, SizeMayBeWideAndCountIsBounded) {
  registry_.SetQword(CommonKey, "AgentMaxLogSize", 5000000000U);
  registry_.SetDword(CommonKey, "AgentMaxLogCount", 5000);
  EXPECT_EQ(logging::ReadRotationSettings().maxSize, 5000000000U);
  EXPECT_EQ(logging::ReadRotationSettings().maxCount, 1000U);
  registry_.SetDword(CommonKey, "AgentMaxLogCount", static_cast<std::uint32_t>(-1));
  EXPECT_EQ(logging::ReadRotationSettings().maxCount, 1000U);
  registry_.SetDword(CommonKey, "AgentMaxLogCount", 0);
  EXPECT_EQ(logging::ReadRotationSettings().maxCount, 0U);
}

/// A UDP socket of this machine.
class UdpPeer {
 public:
  UdpPeer() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    port = ntohs(address.sin_port);
  }
  UdpPeer(const UdpPeer&) = delete;
  UdpPeer& operator=(const UdpPeer&) = delete;
  ~UdpPeer() { ::close(socket_); }

  /// The next datagram, or nothing when none is there.
  std::string Receive() const {
    std::string datagram(65536, '\0');
    const ssize_t length = ::recv(socket_, datagram.data(), datagram.size(), MSG_DONTWAIT);
    datagram.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return datagram;
  }

  std::uint16_t port = 0;

 private:
  int socket_;
};

class UdpCopy : public LogSetup {};

TEST_F(UdpCopy, SettingsComeFromTheServicesKey) {
  EXPECT_THAT(TextOf([] { logging::receiver::ReadUdpCopySettings(); }),
              EndsWith("\nFailed to open registry key [SOFTWARE\\KelvO\\Kelvo NFS].\nError code: 2"));
  registry_.CreateKey(ServiceKey);
  auto settings = logging::receiver::ReadUdpCopySettings();
  EXPECT_FALSE(settings.enabled);
  EXPECT_EQ(settings.host, "127.0.0.1");
  EXPECT_EQ(settings.port, 37183U);
  registry_.SetDword(ServiceKey, "ExtLogEnabled", 2);
  registry_.SetDword(ServiceKey, "ExtLogPort", 4000);
  registry_.SetText(ServiceKey, "ExtLogHost", "127.0.0.2");
  settings = logging::receiver::ReadUdpCopySettings();
  EXPECT_TRUE(settings.enabled);
  EXPECT_EQ(settings.host, "127.0.0.2");
  EXPECT_EQ(settings.port, 4000U);
  registry_.SetDword(ServiceKey, "ExtLogPort", 70000);
  registry_.SetText(ServiceKey, "ExtLogHost", "not an address");
  settings = logging::receiver::ReadUdpCopySettings();
  EXPECT_EQ(settings.host, "127.0.0.1");
  EXPECT_EQ(settings.port, 37183U);
}

TEST_F(UdpCopy, EachLineIsOneDatagramBesideTheFile) {
  const UdpPeer peer;
  registry_.SetDword(ServiceKey, "ExtLogEnabled", 1);
  registry_.SetDword(ServiceKey, "ExtLogPort", peer.port);
  Init({"-log", folder_ / "a.log"});
  g_log.Warning("one\ntwo");
  std::string received;
  std::size_t count = 0;
  for (std::string datagram; !(datagram = peer.Receive()).empty(); ++count) {
    EXPECT_EQ(std::count(datagram.begin(), datagram.end(), '\n'), 1);
    EXPECT_THAT(datagram, EndsWith("\n"));
    received += datagram;
  }
  EXPECT_EQ(count, 11U);
  std::ifstream stream(folder_ / "a.log");
  EXPECT_EQ(received, std::string(std::istreambuf_iterator<char>(stream), {}));
}

TEST_F(UdpCopy, IsOffUnlessAskedFor) {
  const UdpPeer peer;
  registry_.SetDword(ServiceKey, "ExtLogEnabled", 0);
  registry_.SetDword(ServiceKey, "ExtLogPort", peer.port);
  Init({"-log", folder_ / "a.log"});
  EXPECT_EQ(peer.Receive(), "");
}

TEST_F(UdpCopy, SettingsAreAskedForOnceEvenIfTheyFail) {
  int asked = 0;
  logging::receiver::COutputDebugStringLog mirror([&]() -> logging::receiver::udp_copy_settings_t {
    ++asked;
    throw exc::runtime_exc_t("Failed to open registry key [k].");
  });
  EXPECT_THROW(mirror.Write("a\n"), exc::runtime_exc_t);
  EXPECT_NO_THROW(mirror.Write("b\n"));
  EXPECT_EQ(asked, 1);
}

}  // namespace
