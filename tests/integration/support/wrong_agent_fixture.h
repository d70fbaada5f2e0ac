// A service with a mount that is well, and one whose agent is wrong in whatever way a test wants.
#pragma once

#include <sys/un.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "integration/support/backup_fixture.h"

namespace test {

/// After each test the service lives, serves everything else, and has kept no thread and no descriptor.
class CWrongAgentTest : public CBackupTest {
 protected:
  void SetUp() override {
    CBackupTest::SetUp();
    if (HasFatalFailure())
      return;
    WriteFile(HostPath("host.txt"), "host");
    good_ = std::make_unique<FakeMountAgent>("good");
    good_->SetFile("good.img", WireBytes("good"));
    const bytes_t folder = MakeFolder("good");
    Publish("good", "good");
    goodFile_ = HandleOf("good.img", folder);
    hostFile_ = HandleOf("host.txt");
    badFolder_ = MakeFolder("bad");
    WriteFile(HostPath("bad/beside.txt"), "beside");
    for (const bytes_t& listed : {root_, folder, badFolder_})
      NamesIn(listed);
    ExpectOthersServed();
    before_ = SettledFootprint();
  }

  void TearDown() override {
    if (!service_.IsRunning()) {
      ADD_FAILURE() << "the service has died";
      return;
    }
    if (!badMount_.empty())
      Withdraw(badMount_);
    bad_.reset();
    NewClient();
    EXPECT_THAT(NamesIn(badFolder_), testing::ElementsAre("beside.txt"));
    ExpectOthersServed();
    ExpectFootprint(before_);
  }

  /// The files a and b, of five bytes each, in the folder bad.
  void PublishBad() {
    bad_ = std::make_unique<FakeMountAgent>("bad");
    bad_->SetFile("a", WireBytes("aaaaa"));
    bad_->SetFile("b", WireBytes("bbbbb"));
    badMount_ = Publish("bad", "bad");
  }

  /// From now on each request of this command gets this message, and the others what they got.
  void Answer(std::uint32_t command, Bytes bytes) {
    answers_[command] = std::move(bytes);
    bad_->SetScript([answers = answers_](const AgentRequest& request) -> std::optional<AgentReply> {
      const auto found = answers.find(request.command);
      return found == answers.end() ? std::nullopt : std::optional(AgentReply::Message(found->second));
    });
  }
  void AnswerRightly() {
    answers_.clear();
    bad_->SetScript({});
  }

  void ExpectOthersServed() {
    EXPECT_EQ(ContentOf(goodFile_), "good");
    EXPECT_EQ(ContentOf(hostFile_), "host");
  }

  std::unique_ptr<FakeMountAgent> good_;
  std::unique_ptr<FakeMountAgent> bad_;
  std::string badMount_;
  bytes_t badFolder_;
  bytes_t goodFile_;
  bytes_t hostFile_;
  std::map<std::uint32_t, Bytes> answers_;
  SFootprint before_;
};

}  // namespace test
