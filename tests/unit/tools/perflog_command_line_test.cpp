// kelvo-perflog from its arguments to what it prints.
#include "kelvo-perflog/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "foundation/perf_logger.h"
#include "support/temp_dir.h"
#include "unit/tools/perflog_bytes.h"

namespace {

using perflog::BadUsage;
using perflog::Failed;
using perflog::Succeeded;
using test::BytesOfData;
using test::Operation;
using test::PerfRecord;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
namespace event = perf::event;

constexpr std::int64_t Second = 1'000'000'000;

class Perflog : public testing::Test {
 protected:
  /// Runs the tool; the log's path is added unless the arguments are whole.
  int Run(std::vector<std::string> arguments, bool withPath = true) {
    if (withPath)
      arguments.push_back(path_);
    std::istringstream in(input_);
    std::ostringstream out;
    std::ostringstream err;
    const int code = perflog::Run(arguments, in, out, err);
    out_ = out.str();
    err_ = err.str();
    return code;
  }
  void Put(const std::string& bytes) { std::ofstream(path_, std::ios::binary) << bytes; }
  std::string Content(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  }
  /// Two seconds: four READs that take 1, 2, 3 and 100 us, one of which fails, and one WRITE of 1 ms.
  static std::string Sample() {
    std::string bytes = Operation(true, Second, Second + 1000);
    bytes += Operation(true, Second + 2000, Second + 4000);
    bytes += Operation(true, Second + 5000, Second + 8000, 100, 4096, false);
    bytes += Operation(true, Second + 10000, Second + 110000, 101, 65536);
    return bytes + Operation(false, 3 * Second - 1'000'000, 3 * Second, 100, 512, true, 9, 1048576);
  }

  test::TempDir folder_;
  const std::string path_ = folder_ / "log";
  std::string input_;
  std::string out_;
  std::string err_;
};

TEST_F(Perflog, PrintsEachEventAndTheSums) {
  Put(Sample());
  EXPECT_EQ(Run({}), Succeeded);
  EXPECT_EQ(err_, "");
  EXPECT_THAT(out_,
              StartsWith("       SECONDS    THREAD  EVENT                                FID          OFFSET        "
                         "BYTES  OK             US  TEXT\n"
                         "      0.000000       100  READ begin                             7               0         "
                         "4096\n"
                         "      0.000001       100  READ end                               7               0         "
                         "4096  yes           1.0\n"));
  EXPECT_THAT(out_,
              HasSubstr("      0.000008       100  READ end                               7               0         "
                        "4096  no            3.0\n"));
  EXPECT_THAT(out_,
              HasSubstr("      2.000000       100  WRITE end                              9         1048576          "
                        "512  yes        1000.0\n\n10 events of 2 threads in 2.000 s\n"));
  EXPECT_THAT(out_,
              EndsWith("\nCODE  EVENT        COUNT  FAILED  BYTES  PER S  MIB/S  P50 US  P90 US  P99 US  P99.9 US  "
                       "MAX US\n"
                       "  11  WRITE begin      1       -    512    0.5    0.0       -       -       -         -       "
                       "-\n"
                       "  12  WRITE end        1       0    512    0.5    0.0  1000.0  1000.0  1000.0    1000.0  "
                       "1000.0\n"
                       "  21  READ begin       4       -  77824    2.0    0.0       -       -       -         -       "
                       "-\n"
                       "  22  READ end         4       1  73728    2.0    0.0     2.0   100.0   100.0     100.0   "
                       "100.0\n"));
}

TEST_F(Perflog, SummaryIsTheSumsAlone) {
  Put(Sample());
  EXPECT_EQ(Run({"--summary"}), Succeeded);
  EXPECT_THAT(out_, StartsWith("10 events of 2 threads in 2.000 s\n\nCODE  EVENT "));
}

TEST_F(Perflog, CsvIsTheEventsAlone) {
  Put(PerfRecord(5, event::SocketAccept, 3, "remote: \"a\",b\n\x1B[2J") + Sample());
  EXPECT_EQ(Run({"--csv"}), Succeeded);
  EXPECT_THAT(out_, StartsWith("seconds,thread,code,event,fid,offset,bytes,success,microseconds,text\n"
                               "0.000000,3,32,socket accept,,,,,,\"remote: \"\"a\"\",b??[2J\"\n"
                               "1.000000,100,21,READ begin,7,0,4096,,,\n"
                               "1.000001,100,22,READ end,7,0,4096,yes,1.0,\n"));
  EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), 12);
}

TEST_F(Perflog, JsonHasTheSums) {
  Put(Sample() + PerfRecord(3 * Second, event::ThreadBusy, 100, BytesOfData(perf::thread_busy_t{2 * Second, 250})));
  EXPECT_EQ(Run({"--json"}), Succeeded);
  const auto json = nlohmann::json::parse(out_);
  EXPECT_EQ(json["records"], 11);
  EXPECT_EQ(json["threads"], 2);
  EXPECT_EQ(json["seconds"], 2.0);
  EXPECT_EQ(json["starts"], 0);
  EXPECT_TRUE(json["damage"].is_null());
  const auto& read = json["events"][3];
  EXPECT_EQ(read["code"], 22);
  EXPECT_EQ(read["event"], "READ end");
  EXPECT_EQ(read["count"], 4);
  EXPECT_EQ(read["failed"], 1);
  EXPECT_EQ(read["bytes"], 73728);
  EXPECT_EQ(read["perSecond"], 2.0);
  EXPECT_EQ(read["bytesPerSecond"], 36864.0);
  EXPECT_EQ(read["microseconds"]["p50"], 2.0);
  EXPECT_EQ(read["microseconds"]["p99.9"], 100.0);
  EXPECT_EQ(json["unpaired"]["READ"]["begins"], 0);
  EXPECT_EQ(json["busy"][0]["thread"], 100);
  EXPECT_EQ(json["busy"][0]["share"], 0.25);
}

TEST_F(Perflog, UnpairedEventsStartsAndBusyThreadsAreTold) {
  Put(Operation(true, 900, 1000).substr(40) + Operation(false, 2000, 3000).substr(0, 40) + Operation(true, 100, 200) +
      PerfRecord(300, event::ThreadBusy, 55, BytesOfData(perf::thread_busy_t{Second, 500})) +
      PerfRecord(400, event::ThreadBusy, 55, BytesOfData(perf::thread_busy_t{3 * Second, 100})));
  EXPECT_EQ(Run({"--summary"}), Succeeded);
  EXPECT_THAT(out_, HasSubstr("Starts of the machine in between: 1\n"));
  EXPECT_THAT(out_, HasSubstr("\nREAD that ended and did not begin in this log: 1\n"
                              "WRITE that began and did not end in this log: 1\n"));
  EXPECT_THAT(out_, EndsWith("\nTHREAD  SECONDS  BUSY %  MAX %\n    55      4.0    20.0   50.0\n"));
}

TEST_F(Perflog, SocketEventsAndUnknownOnesAreShown) {
  Put(PerfRecord(1, event::SocketSend, 7, BytesOfData(perf::socket_transfer_t{1000, 2500, 1})) +
      PerfRecord(2, event::SocketSend, 7, BytesOfData(perf::socket_transfer_t{500, 9500, 0})) +
      PerfRecord(3, event::SocketTotals, 7, BytesOfData(perf::socket_totals_t{12, 3456})) +
      PerfRecord(4, 4000, 7, "\x01\xFFz") + PerfRecord(5, 4001, 7, std::string(100, 'a')));
  EXPECT_EQ(Run({"--csv"}), Succeeded);
  EXPECT_THAT(out_, HasSubstr(",34,socket send,,,1000,yes,2.5,\n"));
  EXPECT_THAT(out_, HasSubstr(",34,socket send,,,500,no,9.5,\n"));
  EXPECT_THAT(out_, HasSubstr(",37,socket totals,,,3456,,,12 calls\n"));
  EXPECT_THAT(out_, HasSubstr(",4000,event 4000,,,,,,01ff7a\n"));
  EXPECT_THAT(out_, HasSubstr(",4001,event 4001,,,,,,61616161"));
  EXPECT_THAT(out_, EndsWith("...\n"));
  EXPECT_EQ(Run({"--json"}), Succeeded);
  const auto json = nlohmann::json::parse(out_);
  EXPECT_EQ(json["events"][0]["bytes"], 1000) << "of a failed transfer nothing is counted";
  EXPECT_EQ(json["events"][0]["failed"], 1);
  EXPECT_EQ(json["events"][0]["microseconds"]["max"], 9.5);
  EXPECT_TRUE(json["events"][2]["bytes"].is_null());
}

TEST_F(Perflog, ALogOfTheRealLoggerIsRead) {
  perf::StartLog(path_, 200);
  for (int i = 0; i < 100; ++i) {
    perf::WriteRecord(event::ReadBegin, perf::io_begin_t{1, 2, 3});
    perf::WriteRecord(event::ReadEnd, perf::io_end_t{1, 2, 1});
  }
  perf::StopLog();
  EXPECT_EQ(Run({"--json"}), Succeeded);
  const auto json = nlohmann::json::parse(out_);
  EXPECT_EQ(json["events"][1]["count"], 100);
  EXPECT_EQ(json["events"][1]["bytes"], 300);
  EXPECT_EQ(json["unpaired"]["READ"]["begins"], 0);
}

TEST_F(Perflog, AnEmptyLogIsNoFailure) {
  Put("");
  EXPECT_EQ(Run({"--summary"}), Succeeded);
  EXPECT_EQ(out_, "0 events of 0 threads in 0.000 s\n");
  EXPECT_EQ(Run({}), Succeeded);
  EXPECT_EQ(Run({"--plot", folder_ / "p.svg"}), Succeeded);
  EXPECT_THAT(Content(folder_ / "p.svg"), HasSubstr(">READ: 0 operations<"));
}

TEST_F(Perflog, OneMomentHasNoRates) {
  Put(PerfRecord(1, 4000, 7, ""));
  EXPECT_EQ(Run({"--json"}), Succeeded);
  EXPECT_TRUE(nlohmann::json::parse(out_)["events"][0]["perSecond"].is_null());
}

TEST_F(Perflog, StandardInputIsRead) {
  input_ = Sample();
  EXPECT_EQ(Run({"--summary", "-"}, false), Succeeded);
  EXPECT_THAT(out_, StartsWith("10 events "));
}

TEST_F(Perflog, OfADamagedLogAllIsPrintedThatStandsBeforeTheDamage) {
  Put(Sample() + std::string(50, '\0'));
  for (const char* option : {"--summary", "--csv"}) {
    EXPECT_EQ(Run({option}), Failed);
    EXPECT_EQ(err_, "kelvo-perflog: " + path_ + ": The record at byte 385 is damaged: no thread has the id 0.\n");
  }
  EXPECT_EQ(Run({"--json"}), Failed);
  EXPECT_EQ(nlohmann::json::parse(out_)["damage"], "The record at byte 385 is damaged: no thread has the id 0.");
  EXPECT_EQ(Run({"--plot", folder_ / "p.svg"}), Failed);
  EXPECT_THAT(Content(folder_ / "p.svg"), HasSubstr(">READ: 4 operations<"));
  Put(Sample().substr(0, 300));
  EXPECT_EQ(Run({}), Failed);
  EXPECT_THAT(err_, HasSubstr("the file is cut short or damaged.\n"));
  EXPECT_THAT(out_, HasSubstr("7 events of 2 threads"));
}

TEST_F(Perflog, FilesThatCannotBeReadAreFailures) {
  EXPECT_EQ(Run({}), Failed);
  EXPECT_EQ(err_, "kelvo-perflog: " + path_ + ": The file cannot be opened: No such file or directory.\n");
  EXPECT_EQ(out_, "");
  EXPECT_EQ(Run({"--summary", folder_.Path().string()}, false), Failed);
  EXPECT_EQ(err_, "kelvo-perflog: " + folder_.Path().string() + ": The file cannot be read.\n");
  EXPECT_EQ(out_, "");
}

TEST_F(Perflog, APictureThatCannotBeWrittenIsAFailure) {
  Put(Sample());
  EXPECT_EQ(Run({"--plot", folder_ / "missing/p.svg"}), Failed);
  EXPECT_THAT(err_, HasSubstr("The picture [" + (folder_ / "missing/p.svg") + "] could not be written.\n"));
}

TEST_F(Perflog, OutputThatCannotBeWrittenIsAFailure) {
  Put(Sample());
  std::istringstream in;
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  std::ostringstream err;
  EXPECT_EQ(perflog::Run({path_}, in, out, err), Failed);
  EXPECT_THAT(err.str(), EndsWith("The output could not be written.\n"));
}

TEST_F(Perflog, BadUsageIsTold) {
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{{},
                                                                                         {"--summary"},
                                                                                         {"--unknown", path_},
                                                                                         {path_, path_},
                                                                                         {"--csv", "--summary", path_},
                                                                                         {"--csv", "--json", path_},
                                                                                         {"--json", "--summary", path_},
                                                                                         {path_, "--plot"}}) {
    EXPECT_EQ(Run(arguments, false), BadUsage);
    EXPECT_NE(err_, "");
  }
  EXPECT_EQ(Run({"--help"}, false), Succeeded);
  EXPECT_THAT(out_, HasSubstr("--plot FILE"));
  EXPECT_EQ(Run({"--version"}, false), Succeeded);
}

/// Elements of one name in the whole document.
int Count(const TiXmlElement& element, const std::string& name) {
  int count = element.ValueStr() == name ? 1 : 0;
  for (const TiXmlElement* child = element.FirstChildElement(); child != nullptr; child = child->NextSiblingElement())
    count += Count(*child, name);
  return count;
}

TEST_F(Perflog, ThePictureShowsWhatIsInTheLog) {
  Put(Sample());
  const std::string picture = folder_ / "p.svg";
  EXPECT_EQ(Run({"--plot", picture}), Succeeded);
  EXPECT_THAT(out_, StartsWith("10 events ")) << "the sums alone";
  TiXmlDocument document;
  document.Parse(Content(picture).c_str());
  ASSERT_FALSE(document.Error()) << document.ErrorDesc();
  const TiXmlElement& svg = *document.RootElement();
  EXPECT_EQ(svg.ValueStr(), "svg");
  EXPECT_THAT(Content(picture), HasSubstr(">READ: 4 operations<"));
  EXPECT_THAT(Content(picture), HasSubstr(">WRITE: 1 operations<"));
  // The background, three of four READs in places of their own, as 1 and 2 us are apart; and the WRITE.
  EXPECT_EQ(Count(svg, "rect"), 1 + 4 + 1);
  EXPECT_EQ(Count(svg, "polyline"), 4);
  EXPECT_THAT(Content(picture), HasSubstr(">1 us<"));
  EXPECT_THAT(Content(picture), HasSubstr(">1 ms<"));
}

TEST_F(Perflog, NoLineLeadsOverAPause) {
  std::string bytes;
  for (const std::int64_t second : {0, 1, 2, 100, 101, 102})
    bytes += Operation(true, second * Second, second * Second + 5000);
  Put(bytes);
  EXPECT_EQ(Run({"--plot", folder_ / "p.svg"}), Succeeded);
  TiXmlDocument document;
  document.Parse(Content(folder_ / "p.svg").c_str());
  EXPECT_EQ(Count(*document.RootElement(), "polyline"), 2 * 2);
}

TEST_F(Perflog, ThePictureStaysSmallAndSoundForAnyLog) {
  std::string bytes;
  std::int64_t time = 0;
  for (int i = 0; i < 20000; ++i) {
    bytes += Operation(i % 2 == 0, time, time + i * 37);
    time += i * 37 + 11;
  }
  // Latencies of nothing and of nearly all time.
  bytes += Operation(true, time, time) + Operation(true, time, INT64_MAX - 1);
  Put(bytes);
  const std::string picture = folder_ / "p.svg";
  EXPECT_EQ(Run({"--plot", picture}), Succeeded);
  const std::string svg = Content(picture);
  EXPECT_LT(svg.size(), 3'000'000U);
  EXPECT_THAT(svg, Not(HasSubstr("nan")));
  EXPECT_THAT(svg, Not(HasSubstr("inf")));
  TiXmlDocument document;
  document.Parse(svg.c_str());
  EXPECT_FALSE(document.Error()) << document.ErrorDesc();
}

TEST_F(Perflog, TheTitleOfThePictureCannotBreakIt) {
  const std::string name = folder_ / "<a&b\x01\xFF>";
  std::ofstream(name, std::ios::binary) << Sample();
  EXPECT_EQ(Run({"--plot", folder_ / "p.svg", name}, false), Succeeded);
  EXPECT_THAT(Content(folder_ / "p.svg"), HasSubstr("&lt;a&amp;b??&gt;"));
}

}  // namespace
