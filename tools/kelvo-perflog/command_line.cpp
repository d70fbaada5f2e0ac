#include "kelvo-perflog/command_line.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>

#include "foundation/exc.h"
#include "kelvo-perflog/event_lines.h"
#include "kelvo-perflog/log_reader.h"
#include "kelvo-perflog/plot.h"
#include "kelvo-perflog/summary.h"

namespace perflog {
namespace {

constexpr const char* Description =
    "Shows what a performance log of the NFS service holds: every event as a line, and below them what they come to.";

constexpr const char* Examples = R"(
Examples:
  kelvo-perflog /var/log/kelvo.perf | less
  kelvo-perflog --summary /var/log/kelvo.perf
  kelvo-perflog --csv /var/log/kelvo.perf > events.csv
  kelvo-perflog --plot latency.svg /var/log/kelvo.perf

Exit codes: 0 success, 1 a failure or a damaged log, told on standard error, 2 bad usage. More: man kelvo-perflog.)";

struct SArguments {
  std::string file;
  std::string plot;
  bool isCsv = false;
  bool isSummary = false;
  bool isJson = false;

  /// The sums alone: who wants a picture does not want a line for each event beside it.
  bool HasTable() const { return !isCsv && !isSummary && !isJson && plot.empty(); }
};

/// The exit code for arguments that end the program here; nothing when it can go on.
std::optional<int> Parse(const std::vector<std::string>& arguments, SArguments& parsed, std::ostream& out,
                         std::ostream& err) {
  CLI::App app(Description, "kelvo-perflog");
  app.set_version_flag("--version", KELVO_VERSION);
  app.footer(Examples);
  app.add_option("FILE", parsed.file, "The log; - is standard input")->required();
  CLI::Option* csv = app.add_flag("--csv", parsed.isCsv, "Print the events as CSV, and no sums");
  CLI::Option* summary = app.add_flag("--summary", parsed.isSummary, "Print the sums alone")->excludes(csv);
  app.add_flag("--json", parsed.isJson, "Print the sums as JSON")->excludes(csv)->excludes(summary);
  app.add_option("--plot", parsed.plot, "Draw how long READs and WRITEs took over time, into this SVG file")
      ->type_name("FILE");
  // CLI11 takes them from the back.
  std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
  try {
    app.parse(std::move(reversed));
  } catch (const CLI::ParseError& failure) {
    return app.exit(failure, out, err) == 0 ? Succeeded : BadUsage;
  }
  return std::nullopt;
}

/// One run over one log.
class CReport {
 public:
  CReport(const SArguments& arguments, std::ostream& out) : arguments_(arguments), out_(out) {}

  /// Throws what CLogReader throws; what was read before is kept.
  void Read(std::istream& stream) {
    if (arguments_.HasTable())
      out_ << TableHeading();
    if (arguments_.isCsv)
      out_ << CsvHeading();
    CLogReader reader(stream);
    SRecord record;
    // Whoever no longer listens is not talked to.
    while (out_ && reader.Next(record))
      Add(record);
  }

  void Finish(const std::string& damage) {
    if (arguments_.isJson) {
      auto json = summary_.Json(timeline_, operations_);
      json["damage"] = damage.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(damage);
      out_ << json.dump(2) << '\n';
    } else if (!arguments_.isCsv) {
      out_ << (arguments_.HasTable() ? "\n" : "") << summary_.Text(timeline_, operations_);
    }
    out_ << std::flush;
    if (!out_)
      throw exc::runtime_exc_t("The output could not be written.");
    if (arguments_.plot.empty())
      return;
    std::ofstream picture(arguments_.plot, std::ios::binary | std::ios::trunc);
    picture << plot_.Svg(arguments_.file) << std::flush;
    if (!picture)
      throw exc::runtime_exc_t("The picture [%1] could not be written.", arguments_.plot);
  }

 private:
  void Add(const SRecord& record) {
    if (timeline_.Add(record.header.timestamp))
      operations_.Forget();
    const SDetails details = ReadDetails(record);
    const std::optional<SOperation> operation = operations_.Add(record, details);
    summary_.Add(record, details, operation);
    if (operation && !arguments_.plot.empty())
      plot_.Add(*operation, timeline_.Elapsed());
    const SLine line{timeline_.Elapsed(), record, details, operation};
    if (arguments_.isCsv)
      out_ << CsvLine(line);
    else if (arguments_.HasTable())
      out_ << TableLine(line);
  }

  const SArguments& arguments_;
  std::ostream& out_;
  CTimeline timeline_;
  COperations operations_;
  CSummary summary_;
  CPlot plot_;
};

}  // namespace

int Run(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out, std::ostream& err) {
  SArguments parsed;
  if (const std::optional<int> code = Parse(arguments, parsed, out, err))
    return *code;
  std::string failure;
  try {
    std::ifstream file;
    if (parsed.file != "-") {
      errno = 0;
      file.open(parsed.file, std::ios::binary);
      if (!file)
        throw exc::runtime_exc_t("The file cannot be opened: %1.", std::strerror(errno));
    }
    CReport report(parsed, out);
    std::string damage;
    try {
      report.Read(parsed.file == "-" ? in : file);
    } catch (const damaged_log_t& found) {
      damage = found.what();
      failure = damage;
    }
    report.Finish(damage);
  } catch (const std::exception& found) {
    failure += (failure.empty() ? "" : " ") + std::string(found.what());
  }
  if (failure.empty())
    return Succeeded;
  err << "kelvo-perflog: " << parsed.file << ": " << failure << '\n';
  return Failed;
}

}  // namespace perflog
