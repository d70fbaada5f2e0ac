#include "integration/support/judges.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace test {

texts_t Lines(const std::string& text) {
  std::istringstream stream(text);
  texts_t lines;
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

texts_t With(texts_t options, const texts_t& more) {
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

std::string Value(const std::string& name, const std::string& value) {
  return "<" + name + " value=\"" + value + "\" />";
}

std::string Command(const std::string& name, const std::string& arguments) {
  return "DoRpc\t" + name + "\t<InputArguments>" + arguments + "</InputArguments>";
}

std::string Output(const std::string& values) {
  return "1\t<OutputArguments" + (values.empty() ? " />" : ">" + values + "</OutputArguments>") + "\t-";
}

texts_t As(const std::string& user, const std::string& auth, const std::string& level, const std::string& password) {
  return {"--auth", auth, "--level", level, "--user", user, "--domain", "TEST", "--password", password};
}

texts_t ByTicket(const std::string& auth, const std::string& level) {
  return {"--auth", auth, "--level", level};
}

CJudgesTest::CJudgesTest() {
  const std::string folder = service_.Environment().at("ALLUSERSPROFILE") + "/Kelvo";
  std::filesystem::create_directories(folder);
  WriteFile(folder + "/ntlm-users", "TEST:root:secret\nTEST:judge-admin:secret\nTEST:judge-other:secret\n");
  ::chmod((folder + "/ntlm-users").c_str(), 0600);
  // What the mechanisms lose in each handshake, for a service that was built with the leak check.
  WriteFile(judgeFolder_.Path() + "/losses", "leak:gssntlmssp.so\nleak:libcrypto.so\nleak:krb5_build_principal\n");
  ::setenv("LSAN_OPTIONS", ("suppressions=" + judgeFolder_.Path() + "/losses:print_suppressions=0").c_str(), 1);
  WriteFile(judgeFolder_.Path() + "/smb.conf", "[global]\n  interfaces = 127.0.0.1/8\n  bind interfaces only = yes\n");
}

CJudgesTest::~CJudgesTest() {
  ::unsetenv("LSAN_OPTIONS");
}

void CJudgesTest::TearDown() {
  // Whatever the clients did, it runs and ends well; the sanitizers tell by the exit code.
  ASSERT_TRUE(service_.IsRunning());
  EXPECT_EQ(service_.Stop(), 0) << service_.Output();
}

texts_t CJudgesTest::Ask(const std::string& script, const texts_t& options, const texts_t& calls,
                         const std::string& host) {
  texts_t command{"/usr/bin/python3", std::string(KELVO_JUDGES_DIR) + "/" + script, host};
  command.insert(command.end(), options.begin(), options.end());
  std::string input;
  for (const std::string& call : calls)
    input += call + "\n";
  const SResult result = RunProgram(
      command, {{"PYTHONDONTWRITEBYTECODE", "1"}, {"SMB_CONF_PATH", judgeFolder_.Path() + "/smb.conf"}}, input);
  EXPECT_EQ(result.exitCode, 0) << script << ": " << result.err;
  return Lines(result.out);
}

}  // namespace test
