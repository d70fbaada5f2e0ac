#include "foundation/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "foundation/line_format.h"
#include "recording_log.h"
#include "support/refused_memory.h"

namespace {

using logging::format_mode_t;
using logging::level_t;
using test::RecordingLog;
using testing::ElementsAre;
using testing::IsEmpty;

std::string Formatted(format_mode_t mode, const logging::format::line_t& line) {
  std::string out;
  logging::format::AppendLine(out, mode, line);
  return out;
}

std::time_t LocalTime() {
  std::tm parts{};
  parts.tm_year = 126;
  parts.tm_mon = 10;
  parts.tm_mday = 5;
  parts.tm_hour = 9;
  parts.tm_min = 8;
  parts.tm_sec = 7;
  parts.tm_isdst = -1;
  return std::mktime(&parts);
}

TEST(LineFormat, NormalLineHasItsSixPieces) {
  const std::time_t time = LocalTime();
  logging::format::line_t line{level_t::Error, false, 2, 1234, &time, "nfs", "Client"};
  EXPECT_EQ(Formatted(format_mode_t::Normal, line), "[05.11.2026 09:08:07] <  1234> nfs| ERR |    Client\n");
  line.level = level_t::Warning;
  line.depth = 0;
  EXPECT_EQ(Formatted(format_mode_t::Normal, line), "[05.11.2026 09:08:07] <  1234> nfs| WARN|Client\n");
  line.level = level_t::Info;
  line.name = "";
  line.threadId = 12345678;
  EXPECT_EQ(Formatted(format_mode_t::Normal, line), "[05.11.2026 09:08:07] <12345678> Client\n");
  line.level = level_t::Verbose;
  line.threadId = 123456;
  EXPECT_EQ(Formatted(format_mode_t::Normal, line), "[05.11.2026 09:08:07] <123456> Client\n");
}

TEST(LineFormat, ContinuationsAreMarkedOnWarningsAndErrorsAlone) {
  logging::format::line_t line{level_t::Warning, true, 1, 1, nullptr, "", "more"};
  EXPECT_EQ(Formatted(format_mode_t::Normal, line), "TIME ---<     1> >>  |  more\n");
  line.level = level_t::Error;
  EXPECT_EQ(Formatted(format_mode_t::Normal, line), "TIME ---<     1> >>  |  more\n");
  line.level = level_t::Info;
  EXPECT_EQ(Formatted(format_mode_t::Normal, line), "TIME ---<     1>   more\n");
}

TEST(LineFormat, ShortAndBareModesHaveLevelWords) {
  const std::time_t time = LocalTime();
  logging::format::line_t line{level_t::Info, false, 1, 12305, &time, "nfs", "text"};
  EXPECT_EQ(Formatted(format_mode_t::Short, line), "[05.11.2026 09:08:07] < 5> Info       text\n");
  line.threadId = 42;
  line.level = level_t::Warning;
  EXPECT_EQ(Formatted(format_mode_t::Short, line), "[05.11.2026 09:08:07] <42> Warning    text\n");
  line.level = level_t::Error;
  EXPECT_EQ(Formatted(format_mode_t::Bare, line), "Error      text\n");
}

TEST(Log, LineCarriesTheTimeAndTheThread) {
  RecordingLog recorded(format_mode_t::Normal);
  logging::log_handle_t("nfs", recorded.log).Error("Client %1", 5);
  ASSERT_EQ(recorded.Lines().size(), 1U);
  std::string thread = std::to_string(::gettid());
  thread.insert(0, 6 - std::min<std::size_t>(thread.size(), 6), ' ');
  const std::string line = recorded.Lines()[0];
  ASSERT_GE(line.size(), 22U);
  EXPECT_EQ(line.substr(22), "<" + thread + "> nfs| ERR |Client 5\n");
  EXPECT_THAT(line.substr(0, 22),
              testing::MatchesRegex("\\[[0-9]{2}\\.[0-9]{2}\\.[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\\] "));
}

TEST(Log, LineFeedSplitsAMessage) {
  RecordingLog recorded(format_mode_t::Normal);
  recorded.handle.Warning("one\ntwo\n");
  const auto lines = recorded.Lines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_THAT(lines[0], testing::EndsWith("> WARN|one\n"));
  EXPECT_THAT(lines[1], testing::EndsWith("> >>  |two\n"));
  EXPECT_THAT(lines[2], testing::EndsWith("> >>  |\n"));
}

TEST(Log, TextWithoutArgumentsIsNotExpanded) {
  RecordingLog recorded;
  recorded.handle.Info("%1 stays");
  recorded.handle.Info("%1 %2", "%2", 'a' == 97);
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     %1 stays\n", "Info     %2 true\n"));
}

TEST(Log, WithoutReceiverLinesAreDropped) {
  logging::log_t log;
  const logging::log_handle_t handle("", log);
  EXPECT_FALSE(handle.IsOpen());
  EXPECT_FALSE(handle.IsVerbose());
  handle.Error("nobody hears");
}

TEST(Log, SuspendedLinesAreDropped) {
  RecordingLog recorded;
  recorded.log.SetVerbose(true);
  recorded.log.SetSuspended(true);
  EXPECT_FALSE(recorded.handle.IsOpen());
  EXPECT_FALSE(recorded.handle.IsVerbose());
  recorded.handle.Info("lost");
  recorded.handle.WriteText(level_t::Error, "lost too");
  recorded.log.SetSuspended(false);
  recorded.handle.Info("kept");
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     kept\n"));
}

TEST(Log, VerboseLinesNeedTheSwitch) {
  RecordingLog recorded;
  recorded.handle.Verbose("lost");
  EXPECT_FALSE(recorded.handle.IsVerbose());
  recorded.log.SetVerbose(true);
  EXPECT_TRUE(recorded.handle.IsVerbose());
  recorded.handle.Verbose("kept %1", 1);
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     kept 1\n"));
}

TEST(Log, FailedWriteIsSwallowedAndTheNextOneIsTried) {
  RecordingLog recorded;
  recorded.receiver->SetFailing(true);
  recorded.handle.Info("lost");
  recorded.receiver->SetFailing(false);
  recorded.handle.Info("kept");
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     kept\n"));
}

TEST(Log, MirrorGetsEachLineEvenIfTheFileDoesNot) {
  RecordingLog recorded;
  const auto mirror = boost::make_shared<test::RecordingReceiver>();
  recorded.log.SetMirror(mirror);
  recorded.handle.Info("one");
  recorded.receiver->SetFailing(true);
  recorded.handle.Info("two");
  recorded.receiver->SetFailing(false);
  mirror->SetFailing(true);
  recorded.handle.Info("three");
  EXPECT_THAT(mirror->Lines(), ElementsAre("Info     one\n", "Info     two\n"));
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     one\n", "Info     three\n"));
}

TEST(Log, LinesTogetherLeaveAtTheEndAndInOrder) {
  RecordingLog recorded;
  recorded.handle.Info("before");
  {
    const logging::lines_together_t outer;
    recorded.handle.Info("one");
    {
      const logging::lines_together_t inner;
      recorded.handle.Warning("two\nand a half");
    }
    EXPECT_THAT(recorded.Lines(), ElementsAre("Info     before\n"));
  }
  recorded.handle.Info("after");
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     before\n", "Info     one\n", "Warning  two\n",
                                            "Warning  and a half\n", "Info     after\n"));
}

TEST(Log, LinesTogetherAreOfOneLogAndOneThread) {
  RecordingLog recorded;
  RecordingLog other;
  const logging::lines_together_t together;
  recorded.handle.Info("waits");
  other.handle.Info("at once");
  std::thread([&] { recorded.handle.Info("another's"); }).join();
  EXPECT_THAT(other.Lines(), ElementsAre("Info     at once\n"));
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     another's\n"));
}

TEST(Log, LinesTogetherDoNotWaitWithoutEnd) {
  RecordingLog recorded;
  const logging::lines_together_t together;
  const std::string text(1000, 'x');
  for (int i = 0; i < 66; ++i)
    recorded.handle.Info(text);
  EXPECT_THAT(recorded.Lines(), testing::SizeIs(65));
}

TEST(Log, ALineThatFailsCostsNoneOfThoseBesideIt) {
  class CPickyReceiver : public test::RecordingReceiver {
   public:
    void Write(std::string_view line) override {
      if (line.find("bad") != std::string_view::npos)
        throw exc::runtime_exc_t(std::string("refused"));
      RecordingReceiver::Write(line);
    }
  };
  RecordingLog recorded;
  const auto picky = boost::make_shared<CPickyReceiver>();
  recorded.log.SetMirror(picky);
  recorded.handle.Info("one\nbad\nthree");
  EXPECT_THAT(picky->Lines(), ElementsAre("Info     one\n", "Info     three\n"));
  EXPECT_THAT(recorded.Lines(), testing::SizeIs(3));
}

class MarkingFilter : public logging::text_filter_t {
 public:
  std::string Apply(std::string_view text) override { return "<" + std::string(text) + ">"; }
};

TEST(Log, FilterChangesTheTextOfEachLineAlone) {
  RecordingLog recorded;
  recorded.log.SetFilter(boost::make_shared<MarkingFilter>());
  const logging::indent_t indent;
  recorded.handle.Warning("a\nb");
  recorded.log.SetFilter(nullptr);
  recorded.handle.Info("c");
  EXPECT_THAT(recorded.Lines(), ElementsAre("Warning    <a>\n", "Warning    <b>\n", "Info       c\n"));
}

class SilentException : public std::exception {
 public:
  const char* what() const noexcept override { return nullptr; }
};

TEST(LogException, TellsTheLinesAndTheThread) {
  RecordingLog recorded;
  const exc::win_sys_exc_t failure("Receive failed", 10054);
  recorded.handle.Error("Cannot go on.", failure);
  EXPECT_THAT(recorded.Lines(),
              ElementsAre("Error    Cannot go on.\n", "Error    " + platform::ErrorText(10054) + "\n",
                          "Error    Receive failed\n", "Error    Error code: 10054\n",
                          "Error    An exception was thrown from thread [" + std::to_string(::gettid()) + "].\n"));
}

TEST(LogException, FillsTheTextOrTellsItAsItIs) {
  const std::string name = "a name that is longer than a text keeps in itself";
  const std::runtime_error failure("failure");
  test::UntilNoneIsRefused([&](std::size_t granted) {
    RecordingLog recorded;
    bool isRefused = false;
    {
      const test::RefusedRequest refusal(granted);
      recorded.handle.Error("Cannot use '%1'.", failure, name);
      isRefused = refusal.HasHappened();
    }
    const std::vector<std::string> lines = recorded.Lines();
    const std::string filled = "Error    Cannot use '" + name + "'.\n";
    if (!isRefused) {
      EXPECT_THAT(lines,
                  ElementsAre(filled, "Error    failure\n", "Error    An exception was thrown from thread [n/a].\n"));
    } else if (granted == 0) {
      EXPECT_THAT(lines, testing::Contains("Error    Cannot use '%1'.\n"));
    }
    return isRefused;
  });
}

TEST(LogException, ForeignExceptionsHaveNoThread) {
  RecordingLog recorded;
  recorded.handle.Warning("Text.", std::out_of_range("range"));
  recorded.handle.Warning("Text.", SilentException());
  EXPECT_THAT(recorded.Lines(), ElementsAre("Warning  Text.\n", "Warning  range\n",
                                            "Warning  An exception was thrown from thread [n/a].\n", "Warning  Text.\n",
                                            "Warning  Exception message is not available.\n",
                                            "Warning  An exception was thrown from thread [n/a].\n"));
}

TEST(LogScope, IndentsWhatIsInside) {
  RecordingLog recorded;
  {
    logging::log_scope_t outer(recorded.handle, "outer");
    recorded.handle.Info("in");
    {
      logging::log_scope_t inner(recorded.handle, "inner");
      recorded.handle.Info("deep");
      inner.Success();
    }
    outer.Success("outer is done");
  }
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     outer\n", "Info       in\n", "Info       inner\n",
                                            "Info         deep\n", "Info     outer is done\n"));
  EXPECT_EQ(logging::IndentationDepth(), 0);
}

TEST(LogScope, SuccessOkRepeatsTheText) {
  RecordingLog recorded;
  {
    logging::log_scope_t scope(recorded.handle, "Mounting %1");
    scope.SuccessOk();
    recorded.handle.Info("after");
  }
  EXPECT_THAT(recorded.Lines(),
              ElementsAre("Info     Mounting %1\n", "Info     Mounting %1 ok.\n", "Info     after\n"));
}

TEST(LogScope, LeftByAnExceptionFails) {
  RecordingLog recorded;
  try {
    logging::log_scope_t outer(recorded.handle, "outer");
    logging::log_scope_t inner(recorded.handle, "inner");
    throw std::runtime_error("away");
  } catch (const std::runtime_error&) {
  }
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     outer\n", "Info       inner\n", "Info       inner Failed.\n",
                                            "Info     outer Failed.\n"));
  EXPECT_EQ(logging::IndentationDepth(), 0);
}

TEST(LogScope, DepthBelongsToTheThread) {
  RecordingLog recorded;
  logging::log_scope_t scope(recorded.handle, "scope");
  std::thread([&] { recorded.handle.Info("elsewhere"); }).join();
  scope.Success();
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     scope\n", "Info     elsewhere\n"));
}

TEST(QuietLogScope, SaysNothingUnlessItFails) {
  RecordingLog recorded;
  {
    logging::quiet_log_scope_t scope(recorded.handle, "Data size: [%1]. Error code: [%2].", 5, 6);
    recorded.handle.Info("inside");
    scope.Success();
  }
  { logging::quiet_log_scope_t scope(recorded.handle, "Data size: [%1]. Error code: [%2].", 5, 18446744073709551615U); }
  EXPECT_THAT(recorded.Lines(), ElementsAre("Info     inside\n",
                                            "Info     Data size: [5]. Error code: [18446744073709551615]. Failed.\n"));
}

std::string ScopeText(std::size_t index) {
  char text[200] = {};
  monitoring::CurrentTrace()->ScopeText(index, text, sizeof(text));
  return text;
}

TEST(LogScope, IsNotedInTheThreadsTraceUntilItIsLeft) {
  RecordingLog recorded;
  const std::size_t before = monitoring::CurrentTrace()->OpenScopes();
  {
    logging::log_scope_t outer(recorded.handle, "outer text");
    EXPECT_EQ(monitoring::CurrentTrace()->Depth(), 1);
    logging::quiet_log_scope_t inner(recorded.handle, "Data size: [%1]. Error code: [%2].", 5, 6);
    EXPECT_EQ(monitoring::CurrentTrace()->Depth(), 1);
    EXPECT_EQ(ScopeText(before), "outer text");
    EXPECT_EQ(ScopeText(before + 1), "Data size: [5]. Error code: [6].");
    inner.Success();
    EXPECT_EQ(monitoring::CurrentTrace()->OpenScopes(), before + 1);
    outer.Success();
    EXPECT_EQ(monitoring::CurrentTrace()->OpenScopes(), before);
    EXPECT_EQ(monitoring::CurrentTrace()->Depth(), 0);
  }
  EXPECT_EQ(monitoring::CurrentTrace()->OpenScopes(), before);
}

TEST(Log, ThreadsNeverMixLines) {
  RecordingLog recorded;
  const std::string first(300, 'a');
  const std::string second(300, 'b');
  const auto write = [&](const std::string& text) {
    for (int count = 0; count < 200; ++count)
      recorded.handle.Info("%1\n%1", text);
  };
  std::thread one(write, first);
  std::thread other(write, second);
  one.join();
  other.join();
  const auto lines = recorded.Lines();
  ASSERT_EQ(lines.size(), 800U);
  for (std::size_t index = 0; index < lines.size(); index += 2) {
    EXPECT_EQ(lines[index], lines[index + 1]);
    EXPECT_TRUE(lines[index] == "Info     " + first + "\n" || lines[index] == "Info     " + second + "\n");
  }
}

TEST(GlobalHandles, ShareOneLog) {
  const auto receiver = boost::make_shared<test::RecordingReceiver>();
  logging::TheLog().SetMode(format_mode_t::Normal);
  logging::TheLog().SetReceiver(receiver);
  g_log.Info("a");
  g_nfs_log.Info("b");
  g_rpc_log.Info("c");
  logging::TheLog().SetReceiver(nullptr);
  g_log.Info("d");
  const auto lines = receiver->Lines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_THAT(lines[0], testing::EndsWith("> a\n"));
  EXPECT_THAT(lines[1], testing::EndsWith("> nfs| b\n"));
  EXPECT_THAT(lines[2], testing::EndsWith("> rpc| c\n"));
}

}  // namespace
