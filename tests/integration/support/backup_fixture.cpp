#include "integration/support/backup_fixture.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace test {

CReader::CReader(const bytes_t& handle, std::uint32_t count)
    : thread_([this, handle, count] {
        const auto begin = std::chrono::steady_clock::now();
        try {
          result_ = CNfsClient().Read(handle, 0, count);
        } catch (const std::exception& failure) {
          ADD_FAILURE() << "A call got no answer: " << failure.what();
          result_.status = ~0U;
        }
        took_ = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
        isDone_ = true;
      }) {}

const SReadResult& CReader::Wait() {
  if (thread_.joinable())
    thread_.join();
  return result_;
}

CBackupTest::CBackupTest() {
  setenv("KELVO_RUNTIME_DIR", service_.Environment().at("KELVO_RUNTIME_DIR").c_str(), 1);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
}

SResult CBackupTest::Ctl(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{Program("kelvo-nfsctl")};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return RunProgram(command, service_.Environment());
}

namespace {

std::vector<std::string> PublishCommand(const std::string& pipe, const std::string& folder,
                                        const std::vector<std::string>& options) {
  std::vector<std::string> command{"mount", "publish", "/share", folder, "--vm", pipe, "--pipe", pipe, "--json"};
  command.insert(command.end(), options.begin(), options.end());
  return command;
}

}  // namespace

std::string CBackupTest::Publish(const std::string& pipe, const std::string& folder,
                                 const std::vector<std::string>& options) {
  const SResult result = Ctl(PublishCommand(pipe, folder, options));
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return result.exitCode == 0 ? nlohmann::json::parse(result.out).at("mountId").get<std::string>() : std::string();
}

std::string CBackupTest::Refused(const std::string& pipe, const std::string& folder,
                                 const std::vector<std::string>& options) {
  const SResult result = Ctl(PublishCommand(pipe, folder, options));
  EXPECT_EQ(result.exitCode, 1) << result.out;
  return result.err;
}

void CBackupTest::Withdraw(const std::string& mountId) {
  const SResult result = Ctl({"mount", "withdraw", mountId});
  EXPECT_EQ(result.exitCode, 0) << result.err;
}

std::set<std::string> CBackupTest::Locks() const {
  const SResult result = Ctl({"locks", "--json"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  std::set<std::string> names;
  const auto output = nlohmann::json::parse(result.out);
  for (const auto& lock : output.at("locks"))
    names.insert(lock.at("BackupConsole").get<std::string>());
  return names;
}

std::set<std::string> CBackupTest::NamesIn(const bytes_t& folder) {
  std::set<std::string> names;
  for (const SEntry& entry : Client().List(folder)) {
    EXPECT_TRUE(names.insert(entry.name).second) << entry.name << " is listed twice";
    EXPECT_EQ(entry.handle.empty(), false);
  }
  return names;
}

bytes_t CBackupTest::MakeFolder(const std::string& path) {
  std::filesystem::create_directories(HostPath(path));
  bytes_t handle = root_;
  for (const auto& component : std::filesystem::path(path))
    handle = HandleOf(component.string(), handle);
  return handle;
}

SAttributes CBackupTest::AttributesOf(const bytes_t& handle) {
  SAttributes attributes;
  EXPECT_EQ(Client().GetAttr(handle, &attributes), Ok);
  return attributes;
}

bytes_t CBackupTest::ContentOf(const bytes_t& handle, std::uint32_t count) {
  const SReadResult result = Client().Read(handle, 0, count);
  EXPECT_EQ(result.status, Ok);
  return result.data;
}

bool CBackupTest::IsReadable(const bytes_t& handle) {
  return Client().Read(handle, 0, 1).status == Ok;
}

std::size_t CBackupTest::LinesInLog(const std::string& text) const {
  const std::string log = service_.LogText();
  std::size_t count = 0;
  for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size()))
    ++count;
  return count;
}

SFootprint CBackupTest::SettledFootprint() {
  // What is made at the first call of a kind is made now.
  Locks();
  EXPECT_EQ(Ctl({"mount", "withdraw", "{11111111-2222-3333-4444-555555555555}"}).exitCode, 0);
  SFootprint last = Footprint();
  int still = 0;
  EXPECT_TRUE(WaitUntil([&] {
    const SFootprint now = Footprint();
    still = now.threads == last.threads && now.descriptors == last.descriptors ? still + 1 : 0;
    last = now;
    return still == 20;
  }));
  return last;
}

void CBackupTest::ExpectFootprint(const SFootprint& before) {
  SFootprint after;
  EXPECT_TRUE(WaitUntil([&] {
    after = Footprint();
    return after.threads == before.threads && after.descriptors == before.descriptors;
  })) << after.threads
      << " threads instead of " << before.threads << ", " << after.descriptors << " descriptors instead of "
      << before.descriptors;
}

}  // namespace test
