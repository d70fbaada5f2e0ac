// Performance logs as files, in all that kelvo-perflog makes of them.
#include <nlohmann/json.hpp>
#include <sstream>

#include "fuzz/fuzz_input.h"
#include "kelvo-perflog/event_lines.h"
#include "kelvo-perflog/log_reader.h"
#include "kelvo-perflog/plot.h"
#include "kelvo-perflog/summary.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace perflog;
  std::istringstream stream(fuzz::TextOf({data, size}));
  CLogReader reader(stream);
  CTimeline timeline;
  COperations operations;
  CSummary summary;
  CPlot plot;
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;
  bool isDamaged = false;
  try {
    SRecord record;
    while (reader.Next(record)) {
      ++records;
      bytes += sizeof(record.header) + record.header.dataSize;
      fuzz::Require(record.data.size() <= CLogReader::MaxKept, "memory is bounded");
      if (timeline.Add(record.header.timestamp))
        operations.Forget();
      const SDetails details = ReadDetails(record);
      const auto operation = operations.Add(record, details);
      fuzz::Require(!operation || operation->end >= operation->begin, "nothing ends before it begins");
      summary.Add(record, details, operation);
      if (operation)
        plot.Add(*operation, timeline.Elapsed());
      const SLine line{timeline.Elapsed(), record, details, operation};
      for (const std::string& text : {TableLine(line), CsvLine(line)}) {
        fuzz::Require(std::count(text.begin(), text.end(), '\n') == 1, "an event is a line");
        fuzz::Require(std::all_of(text.begin(), text.end() - 1, [](char c) { return c >= 0x20 && c <= 0x7E; }),
                      "nothing from the file steers a terminal");
      }
    }
  } catch (const damaged_log_t& damage) {
    isDamaged = true;
    fuzz::Require(damage.Offset() == bytes, "the damage is told where it is");
  }
  fuzz::Require(isDamaged ? bytes < size : bytes == size, "a log is read to its end or to its damage");
  summary.Text(timeline, operations);
  const auto json = nlohmann::json::parse(summary.Json(timeline, operations).dump());
  fuzz::Require(json["records"] == records, "every record counts");
  const std::string svg = plot.Svg("log");
  fuzz::Require(svg.find("nan") == std::string::npos && svg.find("=\"inf") == std::string::npos,
                "a picture has numbers");
  // The name of a file is any text, and adds no element.
  const std::string named = plot.Svg(fuzz::TextOf({data, size}));
  fuzz::Require(std::count(named.begin(), named.end(), '<') == std::count(svg.begin(), svg.end(), '<'),
                "a name is text");
  return 0;
}
