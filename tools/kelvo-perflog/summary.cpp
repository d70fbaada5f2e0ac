#include "kelvo-perflog/summary.h"

#include <algorithm>
#include <cmath>

#include "foundation/exc.h"
#include "foundation/perf_events.h"
#include "kelvo-perflog/text_table.h"

namespace perflog {
namespace {

constexpr double Mebibyte = 1048576;

double SecondsOf(const CTimeline& timeline) {
  return static_cast<double>(timeline.Elapsed()) / 1e9;
}

/// Nothing for a log that is a single moment.
std::optional<double> Rate(double amount, double seconds) {
  return seconds > 0 ? std::optional(amount / seconds) : std::nullopt;
}

std::string Cell(const std::optional<double>& number) {
  return number ? Fixed(*number, 1) : "-";
}

std::string UnpairedText(const char* name, const SUnpaired& unpaired) {
  std::string text;
  if (unpaired.begins != 0)
    text += exc::FormatText("%1 that began and did not end in this log: %2\n", name, unpaired.begins);
  if (unpaired.ends != 0)
    text += exc::FormatText("%1 that ended and did not begin in this log: %2\n", name, unpaired.ends);
  return text;
}

nlohmann::ordered_json UnpairedJson(const SUnpaired& unpaired) {
  return {{"begins", unpaired.begins}, {"ends", unpaired.ends}};
}

nlohmann::ordered_json LatencyJson(const SPercentiles& latency) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  const auto add = [&json](const char* name, std::uint64_t value) { json[name] = static_cast<double>(value) / 1000; };
  add("p50", latency.p50);
  add("p90", latency.p90);
  add("p99", latency.p99);
  add("p99.9", latency.p999);
  add("max", latency.max);
  return json;
}

template <typename Value>
nlohmann::ordered_json OrNull(const std::optional<Value>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
}

}  // namespace

std::optional<SPercentiles> PercentilesOf(std::vector<std::uint64_t>& values) {
  if (values.empty())
    return std::nullopt;
  std::sort(values.begin(), values.end());
  const auto at = [&values](std::uint64_t permille) {
    const std::uint64_t rank = (values.size() * permille + 999) / 1000;
    return values[static_cast<std::size_t>(std::max<std::uint64_t>(rank, 1) - 1)];
  };
  return SPercentiles{at(500), at(900), at(990), at(999), values.back()};
}

void CSummary::Add(const SRecord& record, const SDetails& details, const std::optional<SOperation>& operation) {
  namespace event = perf::event;
  const std::uint32_t type = record.header.eventType;
  ++count_;
  threads_.insert(record.header.threadId);
  SEventSum& sum = events_[type];
  ++sum.count;
  if (type == event::ThreadBusy) {
    SBusySum& busy = busy_[record.header.threadId];
    const auto period = static_cast<double>(*details.nanoseconds);
    busy.period += period;
    busy.busy += period * *details.permille / 1000;
    busy.maxPermille = std::max(busy.maxPermille, *details.permille);
    return;
  }
  if (details.success)
    sum.failed = sum.failed.value_or(0) + (*details.success ? 0 : 1);
  if (type == event::SocketTotals) {
    // Each tells the whole life of a process.
    sum.bytes = sum.bytes.value_or(0) + details.bytes.value_or(0);
  } else if (operation) {
    sum.bytes = sum.bytes.value_or(0) + (operation->success ? operation->bytes : 0);
    sum.durations.push_back(static_cast<std::uint64_t>(operation->end - operation->begin));
  } else if (details.bytes) {
    sum.bytes = sum.bytes.value_or(0) + (details.success.value_or(true) ? *details.bytes : 0);
    if (details.nanoseconds)
      sum.durations.push_back(*details.nanoseconds);
  }
}

std::string CSummary::EventTable(double seconds) {
  std::vector<std::vector<std::string>> rows{{"CODE", "EVENT", "COUNT", "FAILED", "BYTES", "PER S", "MIB/S", "P50 US",
                                              "P90 US", "P99 US", "P99.9 US", "MAX US"}};
  for (auto& [code, sum] : events_) {
    std::vector<std::string> row{std::to_string(code),
                                 EventName(code),
                                 std::to_string(sum.count),
                                 sum.failed ? std::to_string(*sum.failed) : "-",
                                 sum.bytes ? std::to_string(*sum.bytes) : "-",
                                 Cell(Rate(static_cast<double>(sum.count), seconds)),
                                 sum.bytes ? Cell(Rate(static_cast<double>(*sum.bytes) / Mebibyte, seconds)) : "-"};
    if (const std::optional<SPercentiles> latency = PercentilesOf(sum.durations)) {
      for (const std::uint64_t value : {latency->p50, latency->p90, latency->p99, latency->p999, latency->max})
        row.push_back(Microseconds(value));
    } else {
      row.insert(row.end(), 5, "-");
    }
    rows.push_back(std::move(row));
  }
  return FormatTable(rows, {1});
}

std::string CSummary::BusyTable() const {
  if (busy_.empty())
    return {};
  std::vector<std::vector<std::string>> rows{{"THREAD", "SECONDS", "BUSY %", "MAX %"}};
  for (const auto& [thread, sum] : busy_) {
    rows.push_back({std::to_string(thread), Fixed(sum.period / 1e9, 1),
                    Fixed(sum.period > 0 ? sum.busy / sum.period * 100 : 0, 1), Fixed(sum.maxPermille / 10.0, 1)});
  }
  return "\n" + FormatTable(rows, {});
}

std::string CSummary::Text(const CTimeline& timeline, const COperations& operations) {
  const double seconds = SecondsOf(timeline);
  std::string text = exc::FormatText("%1 events of %2 threads in %3 s\n", count_, threads_.size(), Fixed(seconds, 3));
  if (timeline.Starts() != 0)
    text += exc::FormatText("Starts of the machine in between: %1\n", timeline.Starts());
  if (count_ == 0)
    return text;
  text += "\n" + EventTable(seconds);
  const std::string unpaired =
      UnpairedText("READ", operations.Unpaired(true)) + UnpairedText("WRITE", operations.Unpaired(false));
  if (!unpaired.empty())
    text += "\n" + unpaired;
  return text + BusyTable();
}

nlohmann::ordered_json CSummary::Json(const CTimeline& timeline, const COperations& operations) {
  const double seconds = SecondsOf(timeline);
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  json["records"] = count_;
  json["threads"] = threads_.size();
  json["seconds"] = seconds;
  json["starts"] = timeline.Starts();
  json["events"] = nlohmann::ordered_json::array();
  for (auto& [code, sum] : events_) {
    nlohmann::ordered_json row = nlohmann::ordered_json::object();
    row["code"] = code;
    row["event"] = EventName(code);
    row["count"] = sum.count;
    row["failed"] = OrNull(sum.failed);
    row["bytes"] = OrNull(sum.bytes);
    row["perSecond"] = OrNull(Rate(static_cast<double>(sum.count), seconds));
    row["bytesPerSecond"] =
        sum.bytes ? OrNull(Rate(static_cast<double>(*sum.bytes), seconds)) : nlohmann::ordered_json();
    const std::optional<SPercentiles> latency = PercentilesOf(sum.durations);
    row["microseconds"] = latency ? LatencyJson(*latency) : nlohmann::ordered_json();
    json["events"].push_back(std::move(row));
  }
  json["unpaired"] = {{"READ", UnpairedJson(operations.Unpaired(true))},
                      {"WRITE", UnpairedJson(operations.Unpaired(false))}};
  json["busy"] = nlohmann::ordered_json::array();
  for (const auto& [thread, sum] : busy_) {
    json["busy"].push_back({{"thread", thread},
                            {"seconds", sum.period / 1e9},
                            {"share", sum.period > 0 ? sum.busy / sum.period : 0},
                            {"max", sum.maxPermille / 1000.0}});
  }
  return json;
}

}  // namespace perflog
