#include "integration/support/service.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <stdexcept>

namespace test {
namespace {

const char* const ServiceKey = "SOFTWARE/KelvO/Kelvo NFS";
const char* const ShareKey = "Shared Folders/{3f1c9a52-0b7d-4f6e-9a61-5d2e8c4b7a10}";

std::string KeyOf(const std::string& subKey) {
  return subKey.empty() ? std::string(ServiceKey) : std::string(ServiceKey) + "/" + subKey;
}

}  // namespace

CService::CService(const SServerKind& kind) : root_(folder_.Path() + "/root"), outputPath_(folder_.Path() + "/output") {
  mkdir(root_.c_str(), 0755);
  mkdir((folder_.Path() + "/state").c_str(), 0700);
  mkdir((folder_.Path() + "/run").c_str(), 0755);
  SetValue("RootFolder", "REG_SZ", root_);
  SetValue("AllowedAddresses", "REG_SZ", "127.0.0.1");
  SetValue("nfsFolderName", "REG_SZ", "/share", ShareKey);
  for (const auto& value : kind.registry)
    SetValue(value[0], value[1], value[2]);
}

CService::~CService() {
  if (testing::Test::HasFailure()) {
    std::printf("--- output\n%s--- log\n%s---\n", Output().c_str(), LogText().c_str());
  }
}

std::map<std::string, std::string> CService::Environment() const {
  return {{"ALLUSERSPROFILE", folder_.Path() + "/state"}, {"KELVO_RUNTIME_DIR", folder_.Path() + "/run"}};
}

void CService::Start(const std::vector<std::string>& switches) {
  std::vector<std::string> command{program_};
  command.insert(command.end(), switches.begin(), switches.end());
  std::map<std::string, std::string> environment = Environment();
  environment.insert(variables_.begin(), variables_.end());
  process_ = std::make_unique<CProcess>(command, environment, outputPath_);
  // The event is what tells another process that the ports are registered.
  const bool ready = WaitUntil([this] {
    return !process_->IsRunning() || RunProgram({Program("KelvoNfsSvc"), "-verifycn"}, Environment()).exitCode == 0;
  });
  ASSERT_TRUE(ready);
  ASSERT_TRUE(process_->IsRunning()) << Output() << LogText();
}

int CService::Stop() {
  process_->Signal(SIGTERM);
  return process_->WaitForExit().value_or(-1);
}

void CService::Kill() {
  process_->Signal(SIGKILL);
  process_->WaitForExit();
}

std::string CService::LogPath() const {
  return folder_.Path() + "/state/Kelvo/Backup/Svc.KelvoNFS.log";
}
std::string CService::LogText() const {
  return ReadFile(LogPath());
}

SResult CService::Reg(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{Program("kelvo-reg")};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return RunProgram(command, Environment());
}

void CService::SetValue(const std::string& name, const std::string& type, const std::string& data,
                        const std::string& subKey) {
  const SResult result = Reg({"set", KeyOf(subKey), name, type, data});
  if (result.exitCode != 0)
    throw std::runtime_error("kelvo-reg: " + result.err);
}

std::string CService::GetValue(const std::string& name, const std::string& subKey) {
  std::string text = Reg({"get", KeyOf(subKey), name}).out;
  while (!text.empty() && text.back() == '\n')
    text.pop_back();
  return text;
}

}  // namespace test
