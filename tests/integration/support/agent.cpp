#include "integration/support/agent.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <utility>

namespace test {

CMountAgent::CMountAgent(const CService& service, std::string pipe, std::string source,
                         std::optional<std::vector<std::string>> options)
    : service_(service),
      pipe_(std::move(pipe)),
      source_(std::move(source)),
      options_(options ? std::move(*options) : std::vector<std::string>{"--overlay", OverlayFolder()}) {
  mkdir(OverlayFolder().c_str(), 0700);
}

void CMountAgent::Start() {
  const std::size_t before = Output().size();
  std::vector<std::string> command{Program("kelvo-mount-agent"), "--pipe", pipe_, "--source", source_};
  command.insert(command.end(), options_.begin(), options_.end());
  process_ = std::make_unique<CProcess>(command, service_.Environment(), folder_.Path() + "/output");
  // A socket's file is no sign of life: a killed agent leaves it. What the agent says after it listens is one.
  const auto isServing = [&] { return Output().find("Serving [", before) != std::string::npos; };
  ASSERT_TRUE(WaitUntil([&] { return !process_->IsRunning() || isServing(); }));
  ASSERT_TRUE(isServing()) << Output();
}

int CMountAgent::Stop() {
  process_->Signal(SIGTERM);
  return process_->WaitForExit().value_or(-1);
}

void CMountAgent::Kill() {
  process_->Signal(SIGKILL);
  process_->WaitForExit();
}

SResult CMountAgent::Ctl(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{Program("kelvo-nfsctl")};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return RunProgram(command, service_.Environment());
}

std::string CMountAgent::Publish(const std::string& share, const std::string& folder) {
  const SResult result = Ctl({"mount", "publish", share, folder, "--vm", pipe_, "--pipe", pipe_, "--json"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return result.exitCode == 0 ? nlohmann::json::parse(result.out).at("mountId").get<std::string>() : std::string();
}

}  // namespace test
