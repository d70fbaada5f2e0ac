// Logs as the service writes them, and files that are none or no longer whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "foundation/perf_logger.h"
#include "kelvo-perflog/log_reader.h"
#include "kelvo-perflog/operations.h"
#include "kelvo-perflog/summary.h"
#include "kelvo-perflog/timeline.h"
#include "support/temp_dir.h"
#include "unit/tools/perflog_bytes.h"

namespace {

using perflog::CLogReader;
using perflog::damaged_log_t;
using perflog::SRecord;
using test::BytesOfData;
using test::Operation;
using test::PerfRecord;
using testing::HasSubstr;
using testing::StartsWith;
namespace event = perf::event;

struct SOutcome {
  std::vector<SRecord> records;
  std::string damage;
  std::uint64_t offset = 0;
};

SOutcome ReadAll(const std::string& bytes) {
  std::istringstream stream(bytes);
  CLogReader reader(stream);
  SOutcome outcome;
  try {
    SRecord record;
    while (reader.Next(record))
      outcome.records.push_back(record);
  } catch (const damaged_log_t& found) {
    outcome.damage = found.what();
    outcome.offset = found.Offset();
  }
  return outcome;
}

TEST(PerflogReader, ReadsWhatTheServiceWrites) {
  const test::TempDir folder;
  {
    perf::CPerfLogger log(folder / "perf", 100);
    for (std::uint32_t i = 0; i < 50; ++i) {
      const std::string data(i, static_cast<char>('a' + i % 26));
      log.WriteEvent(1000 + i, i, data.data());
    }
  }
  std::ifstream stream(folder / "perf", std::ios::binary);
  CLogReader reader(stream);
  SRecord record;
  for (std::uint32_t i = 0; i < 50; ++i) {
    ASSERT_TRUE(reader.Next(record));
    EXPECT_EQ(record.header.eventType, 1000 + i);
    EXPECT_EQ(record.data, std::string(i, static_cast<char>('a' + i % 26)));
  }
  EXPECT_FALSE(reader.Next(record));
}

TEST(PerflogReader, AnEmptyFileHasNoRecords) {
  EXPECT_TRUE(ReadAll("").records.empty());
  EXPECT_EQ(ReadAll("").damage, "");
}

TEST(PerflogReader, AFileThatIsCutTellsWhereAtEachByte) {
  const std::string whole = Operation(true, 1000, 2000) + PerfRecord(3000, event::SocketAccept, 5, "remote: 1.2.3.4:5");
  const std::vector<std::size_t> ends{0, 40, 77, whole.size()};
  for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
    const SOutcome outcome = ReadAll(whole.substr(0, cut));
    const auto next = std::upper_bound(ends.begin(), ends.end(), cut);
    const std::size_t start = *(next - 1);
    EXPECT_EQ(outcome.records.size(), static_cast<std::size_t>(next - ends.begin()) - 1) << cut;
    if (cut == start) {
      EXPECT_EQ(outcome.damage, "") << cut;
      continue;
    }
    EXPECT_EQ(outcome.offset, start) << cut;
    EXPECT_THAT(outcome.damage, StartsWith(cut - start < 20 ? "The file ends inside the header of the record at byte "
                                                            : "The record at byte "))
        << cut;
  }
}

TEST(PerflogReader, ACountThatIsNotThereCostsNoMemory) {
  const perf::record_header_t header{1, 999, 0xFFFFFFFFU, 7};
  const SOutcome outcome = ReadAll(BytesOfData(header) + "some");
  EXPECT_TRUE(outcome.records.empty());
  EXPECT_EQ(
      outcome.damage,
      "The record at byte 0 announces 4294967295 bytes of data, and 4 are there: the file is cut short or damaged.");
}

TEST(PerflogReader, OfLongDataTheBeginningIsKept) {
  const std::string data = std::string(CLogReader::MaxKept, 'a') + std::string(10000, 'b');
  const SOutcome outcome = ReadAll(PerfRecord(1, 999, 7, data) + PerfRecord(2, 998, 7, "next"));
  ASSERT_EQ(outcome.records.size(), 2U);
  EXPECT_EQ(outcome.records[0].data, std::string(CLogReader::MaxKept, 'a'));
  EXPECT_EQ(outcome.records[0].header.dataSize, data.size());
  EXPECT_EQ(outcome.records[1].data, "next");
  // Cut inside what is passed over.
  const SOutcome cut = ReadAll(PerfRecord(1, 999, 7, data).substr(0, 20 + 9000));
  EXPECT_THAT(cut.damage, HasSubstr("announces 14096 bytes of data, and 9000 are there"));
}

TEST(PerflogReader, WhatNoServiceWritesIsDamage) {
  const struct {
    std::string bytes;
    const char* why;
  } cases[] = {
      {std::string(100, '\0'), "no thread has the id 0."},
      {"This is a text file, and no log of anything.\n", "no thread has the id "},
      {PerfRecord(-1, 1, 7, ""), "its time is negative."},
      {PerfRecord(1, 1, 4194305, ""), "no thread has the id 4194305."},
      {PerfRecord(1, event::ReadBegin, 7, "short"), "event 21 has 20 bytes of data and not 5."},
      {PerfRecord(1, event::ReadEnd, 7, std::string(18, 'x')), "event 22 has 17 bytes of data and not 18."},
      {PerfRecord(1, event::ThreadBusy, 7, ""), "event 41 has 12 bytes of data and not 0."},
  };
  for (const auto& [bytes, why] : cases) {
    EXPECT_THAT(
        ReadAll(bytes).damage,
        testing::AllOf(StartsWith("This is no performance log: the record at byte 0 cannot be one, "), HasSubstr(why)));
    const SOutcome later = ReadAll(PerfRecord(1, 1, 7, "ab") + bytes);
    EXPECT_EQ(later.records.size(), 1U);
    EXPECT_EQ(later.offset, 22U);
    EXPECT_THAT(later.damage, testing::AllOf(StartsWith("The record at byte 22 is damaged: "), HasSubstr(why)));
  }
}

TEST(PerflogReader, NoChangedByteIsMoreThanAnErrorOrAnotherRecord) {
  const std::string whole = Operation(true, 1000, 2000) + Operation(false, 3000, 4000);
  for (std::size_t i = 0; i < whole.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string changed = whole;
      changed[i] = static_cast<char>(changed[i] ^ (1 << bit));
      const SOutcome outcome = ReadAll(changed);
      EXPECT_TRUE(outcome.records.size() == 4 || !outcome.damage.empty()) << i << " " << bit;
      perflog::COperations operations;
      for (const SRecord& record : outcome.records)
        operations.Add(record, perflog::ReadDetails(record));
    }
  }
}

class Operations : public testing::Test {
 protected:
  /// The nanoseconds of the operations that end.
  std::vector<std::int64_t> Durations(const std::string& bytes) {
    std::vector<std::int64_t> durations;
    for (const SRecord& record : ReadAll(bytes).records) {
      if (const auto operation = operations_.Add(record, perflog::ReadDetails(record)))
        durations.push_back(operation->end - operation->begin);
    }
    return durations;
  }
  void ExpectUnpaired(bool isRead, std::uint64_t begins, std::uint64_t ends) {
    EXPECT_EQ(operations_.Unpaired(isRead).begins, begins);
    EXPECT_EQ(operations_.Unpaired(isRead).ends, ends);
  }

  static std::string Begin(std::int64_t time, std::uint32_t thread = 100) {
    return Operation(true, time, time, thread).substr(0, 40);
  }
  static std::string End(std::int64_t time, std::uint32_t thread = 100) {
    return Operation(true, time, time, thread).substr(40);
  }

  perflog::COperations operations_;
};

TEST_F(Operations, AnEndBelongsToTheBeginOfItsThread) {
  EXPECT_THAT(Durations(Begin(100, 1) + Begin(200, 2) + End(300, 2) + End(400, 1)), testing::ElementsAre(100, 300));
  ExpectUnpaired(true, 0, 0);
}

TEST_F(Operations, ReadsAndWritesDoNotMix) {
  EXPECT_THAT(Durations(Begin(100) + Operation(false, 200, 250) + End(300)), testing::ElementsAre(50, 200));
}

TEST_F(Operations, WhatHasNoOtherSideIsCounted) {
  EXPECT_THAT(Durations(End(50) + Begin(100) + Begin(200) + End(300) + Begin(400)), testing::ElementsAre(100));
  ExpectUnpaired(true, 2, 1);
  ExpectUnpaired(false, 0, 0);
}

TEST_F(Operations, AnEndOfAnotherPlaceIsNotThatOfTheBegin) {
  const std::string elsewhere = Operation(true, 1, 2, 100, 1, true, 7, 999).substr(40);
  const std::string otherFile = Operation(true, 1, 3, 100, 1, true, 8, 0).substr(40);
  EXPECT_THAT(Durations(Begin(1) + elsewhere + otherFile + End(4)), testing::ElementsAre(3));
  ExpectUnpaired(true, 0, 2);
}

TEST_F(Operations, NothingEndsPastAStartOfTheMachine) {
  EXPECT_TRUE(Durations(Begin(100)).empty());
  operations_.Forget();
  EXPECT_TRUE(Durations(End(200)).empty());
  ExpectUnpaired(true, 1, 1);
}

TEST(Timeline, GoesOnPastAStartOfTheMachine) {
  perflog::CTimeline timeline;
  EXPECT_FALSE(timeline.Add(1000));
  EXPECT_EQ(timeline.Elapsed(), 0);
  EXPECT_FALSE(timeline.Add(1000));
  EXPECT_FALSE(timeline.Add(1500));
  EXPECT_TRUE(timeline.Add(20));
  EXPECT_EQ(timeline.Elapsed(), 500);
  EXPECT_FALSE(timeline.Add(120));
  EXPECT_EQ(timeline.Elapsed(), 600);
  EXPECT_EQ(timeline.Starts(), 1U);
}

TEST(Timeline, NeverOverflows) {
  perflog::CTimeline timeline;
  for (int i = 0; i < 3; ++i) {
    timeline.Add(0);
    timeline.Add(INT64_MAX);
  }
  EXPECT_EQ(timeline.Elapsed(), INT64_MAX);
}

TEST(Percentiles, AreValuesThatWereMeasured) {
  std::vector<std::uint64_t> values;
  EXPECT_FALSE(perflog::PercentilesOf(values).has_value());
  values = {5};
  EXPECT_EQ(perflog::PercentilesOf(values)->p50, 5U);
  EXPECT_EQ(perflog::PercentilesOf(values)->max, 5U);
  values.clear();
  for (std::uint64_t i = 1000; i > 0; --i)
    values.push_back(i);
  const auto percentiles = perflog::PercentilesOf(values);
  EXPECT_EQ(percentiles->p50, 500U);
  EXPECT_EQ(percentiles->p90, 900U);
  EXPECT_EQ(percentiles->p99, 990U);
  EXPECT_EQ(percentiles->p999, 999U);
  EXPECT_EQ(percentiles->max, 1000U);
}

}  // namespace
