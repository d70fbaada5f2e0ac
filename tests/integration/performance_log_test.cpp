// The performance log of a running service, as kelvo-perflog shows it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "integration/support/service.h"
#include "integration/support/wire.h"

namespace {

using namespace test;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

constexpr const char* GeneralKey = "SOFTWARE/Kelvo/Kelvo Vault";
constexpr const char* FlushFailed =
    "Unable to flush performance log data. Perflog buffer will be erased, data will be lost.";

class PerformanceLogTest : public testing::Test {
 protected:
  PerformanceLogTest() { SetPath(path_); }

  void SetPath(const std::string& path) { service_.SetValue("PerfLogPath", "REG_SZ", path); }
  /// Bytes; small ones show events while the service runs.
  void SetBufferSize(const std::string& size) {
    EXPECT_EQ(service_.Reg({"set", GeneralKey, "PerfBufSize", "REG_DWORD", size}).exitCode, 0);
  }
  SResult Perflog(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), Program("kelvo-perflog"));
    arguments.push_back(path_);
    return RunProgram(arguments);
  }
  /// The sums of a log that must be whole.
  nlohmann::json Sums() {
    const SResult result = Perflog({"--json"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return nlohmann::json::parse(result.out);
  }
  static std::map<std::string, nlohmann::json> ByName(const nlohmann::json& sums) {
    std::map<std::string, nlohmann::json> events;
    for (const auto& event : sums["events"])
      events[event["event"]] = event;
    return events;
  }

  CTempFolder folder_;
  const std::string path_ = folder_.Path() + "/made/by the service/perf.log";
  CService service_;
};

TEST_F(PerformanceLogTest, TellsEachReadAndWriteAsItWas) {
  WriteFile(service_.Root() + "/file", std::string(100000, 'x'));
  service_.Start();
  {
    CNfsClient client;
    const bytes_t root = client.Mount().value();
    bytes_t file;
    ASSERT_EQ(client.Lookup(root, "file", &file), 0U);
    for (std::uint64_t offset = 0; offset < 50000; offset += 1000)
      ASSERT_EQ(client.Read(file, offset, 512).data.size(), 512U);
    for (std::uint64_t offset = 0; offset < 20000; offset += 1000)
      ASSERT_EQ(client.Write(file, offset, std::string(300, 'y')), 0U);
    ASSERT_NE(client.Read(root, 77777, 10).status, 0U);
  }
  EXPECT_FALSE(fs::exists(path_)) << "the buffer is not full";
  EXPECT_EQ(service_.Stop(), 0);
  EXPECT_THAT(service_.LogText(), HasSubstr("Perfomance log is enabled. Path to log: \"" + path_ + "\"."));
  EXPECT_LT(service_.LogText().find("Perfomance log is enabled."),
            service_.LogText().find("Starting server in asynchronous mode."));

  const nlohmann::json sums = Sums();
  auto events = ByName(sums);
  EXPECT_EQ(events["READ begin"]["count"], 51);
  EXPECT_EQ(events["READ begin"]["bytes"], 50 * 512 + 10);
  EXPECT_EQ(events["READ end"]["count"], 51);
  EXPECT_EQ(events["READ end"]["failed"], 1);
  EXPECT_EQ(events["READ end"]["bytes"], 50 * 512);
  EXPECT_GT(events["READ end"]["microseconds"]["p50"], 0);
  EXPECT_LE(events["READ end"]["microseconds"]["p50"], events["READ end"]["microseconds"]["max"]);
  EXPECT_EQ(events["WRITE end"]["count"], 20);
  EXPECT_EQ(events["WRITE end"]["failed"], 0);
  EXPECT_EQ(events["WRITE end"]["bytes"], 20 * 300);
  for (const char* kind : {"READ", "WRITE"}) {
    EXPECT_EQ(sums["unpaired"][kind]["begins"], 0) << kind;
    EXPECT_EQ(sums["unpaired"][kind]["ends"], 0) << kind;
  }
  // The service registers its ports as a client of the portmapper, and counts at the stop.
  EXPECT_GE(events["socket connect"]["count"], 1);
  EXPECT_GE(events["socket send"]["count"], 1);
  EXPECT_EQ(events["socket totals"]["count"], 1);

  const SResult csv = Perflog({"--csv"});
  EXPECT_EQ(csv.exitCode, 0);
  EXPECT_THAT(csv.out, HasSubstr("READ begin,"));
  EXPECT_THAT(csv.out, HasSubstr(",49000,512,"));
  EXPECT_THAT(csv.out, HasSubstr(",77777,10,no,"));
  EXPECT_THAT(csv.out, HasSubstr(",remote: 127.0.0.1:111\n"));
}

TEST_F(PerformanceLogTest, HoldsWhatARealClientMoved) {
  const std::string content(5 << 20, 'z');
  WriteFile(folder_.Path() + "/in", content);
  SetBufferSize("1000");
  service_.Start();
  const SResult in = RunProgram({"nfs-cp", folder_.Path() + "/in", "nfs://127.0.0.1/share/copy"});
  ASSERT_EQ(in.exitCode, 0) << in.err << in.out;
  EXPECT_TRUE(fs::exists(path_)) << "a buffer that is full goes to the disk";
  const SResult out = RunProgram({"nfs-cp", "nfs://127.0.0.1/share/copy", folder_.Path() + "/out"});
  ASSERT_EQ(out.exitCode, 0) << out.err << out.out;
  ASSERT_TRUE(ReadFile(folder_.Path() + "/out") == content);
  EXPECT_EQ(service_.Stop(), 0);

  auto events = ByName(Sums());
  EXPECT_EQ(events["WRITE end"]["bytes"], content.size());
  EXPECT_GE(events["READ end"]["bytes"], content.size());
  EXPECT_EQ(events["WRITE begin"]["count"], events["WRITE end"]["count"]);
  EXPECT_EQ(events["READ begin"]["count"], events["READ end"]["count"]);

  const std::string picture = folder_.Path() + "/latency.svg";
  const SResult plot = Perflog({"--plot", picture});
  EXPECT_EQ(plot.exitCode, 0) << plot.err;
  EXPECT_THAT(ReadFile(picture),
              HasSubstr(">WRITE: " + std::to_string(events["WRITE end"]["count"].get<int>()) + " operations<"));
}

TEST_F(PerformanceLogTest, ARestartAppends) {
  for (int round = 0; round < 2; ++round) {
    service_.Start();
    CNfsClient client;
    EXPECT_NE(client.Read(client.Mount().value(), 0, 10).status, 0U);
    EXPECT_EQ(service_.Stop(), 0);
  }
  auto events = ByName(Sums());
  EXPECT_EQ(events["READ end"]["count"], 2);
  EXPECT_EQ(events["socket totals"]["count"], 2);
}

TEST_F(PerformanceLogTest, AKillLosesTheBufferAlone) {
  WriteFile(service_.Root() + "/file", std::string(1000, 'x'));
  SetBufferSize("1000");
  service_.Start();
  {
    CNfsClient client;
    bytes_t file;
    ASSERT_EQ(client.Lookup(client.Mount().value(), "file", &file), 0U);
    for (int i = 0; i < 500; ++i)
      ASSERT_EQ(client.Read(file, 0, 10).status, 0U);
    service_.Kill();
  }
  auto events = ByName(Sums());
  // A READ has 77 bytes here, and the last thousand at most are lost.
  EXPECT_GE(events["READ end"]["count"], 500 - 1000 / 77 - 1);
  EXPECT_LE(events["READ end"]["count"], 500);
}

TEST_F(PerformanceLogTest, OfTheSynchronousServerSocketsAndDatagramsAreTold) {
  WriteFile(service_.Root() + "/file", "0123456789");
  service_.SetValue("AsyncTcp", "REG_DWORD", "0");
  service_.Start();
  {
    CNfsClient client;
    bytes_t file;
    ASSERT_EQ(client.Lookup(client.Mount().value(), "file", &file), 0U);
    // Its two ends lie on two threads.
    EXPECT_EQ(client.Read(file, 0, 10).data, "0123456789");
    const bytes_t arguments = CEncoder().Opaque(file).U64(3).U32(5);
    const auto reply = CallUdp(2049, CallMessage(1, NfsProgram, 3, Read, arguments));
    ASSERT_TRUE(reply.has_value());
    EXPECT_TRUE(reply->IsSuccess());
  }
  EXPECT_EQ(service_.Stop(), 0);
  auto events = ByName(Sums());
  EXPECT_EQ(events["READ begin"]["count"], 1);
  EXPECT_EQ(events["READ end"]["count"], 1);
  EXPECT_EQ(events["READ end"]["bytes"], 5);
  EXPECT_GE(events["socket accept"]["count"], 2);
  EXPECT_EQ(events["socket receivefrom"]["failed"], 0);
  EXPECT_EQ(events["socket sendto"]["count"], events["socket receivefrom"]["count"]);
  EXPECT_THAT(Perflog({"--csv"}).out, HasSubstr("socket accept,,,,,,remote: 127.0.0.1:"));
}

TEST_F(PerformanceLogTest, AFileThatCannotBeWrittenStopsNothing) {
  WriteFile(folder_.Path() + "/obstacle", "");
  SetPath(folder_.Path() + "/obstacle/perf.log");
  SetBufferSize("100");
  WriteFile(service_.Root() + "/file", "0123456789");
  service_.Start();
  {
    CNfsClient client;
    bytes_t file;
    ASSERT_EQ(client.Lookup(client.Mount().value(), "file", &file), 0U);
    for (int i = 0; i < 10; ++i)
      EXPECT_EQ(client.Read(file, 0, 10).data, "0123456789");
  }
  EXPECT_EQ(service_.Stop(), 0);
  const std::string log = service_.LogText();
  EXPECT_THAT(log, HasSubstr(std::string("WARN|") + FlushFailed));
  const std::size_t first = log.find("ERR |Performance logger failed to create directory.");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(log.find("Performance logger failed to create directory.", first + 20), std::string::npos);
}

TEST_F(PerformanceLogTest, NobodyAsksNobodyWrites) {
  EXPECT_EQ(service_.Reg({"delete", "SOFTWARE/KelvO/Kelvo NFS", "PerfLogPath"}).exitCode, 0);
  service_.Start();
  {
    CNfsClient client;
    EXPECT_NE(client.Read(client.Mount().value(), 0, 10).status, 0U);
  }
  EXPECT_EQ(service_.Stop(), 0);
  EXPECT_THAT(service_.LogText(), Not(HasSubstr("Perfomance log is enabled.")));
  EXPECT_FALSE(fs::exists(folder_.Path() + "/made"));
}

}  // namespace
