#include "kelvo-perflog/event_lines.h"

#include <array>

#include "kelvo-perflog/text_table.h"

namespace perflog {
namespace {

/// Lines are written as records are read, so that the widths are the same for every log.
struct SColumn {
  const char* name;
  std::size_t width;
  bool isLeft;
};
constexpr std::array<SColumn, 9> Columns{{{"SECONDS", 14, false},
                                          {"THREAD", 8, false},
                                          {"EVENT", 18, true},
                                          {"FID", 20, false},
                                          {"OFFSET", 14, false},
                                          {"BYTES", 11, false},
                                          {"OK", 3, true},
                                          {"US", 12, false},
                                          {"TEXT", 0, true}}};

template <typename Number>
std::string Text(const std::optional<Number>& number) {
  return number ? std::to_string(*number) : std::string();
}

std::string Seconds(std::int64_t nanoseconds) {
  return Fixed(static_cast<double>(nanoseconds) / 1e9, 6);
}

/// Of the operation that ended here, of the call, or of the period.
std::optional<std::uint64_t> Duration(const SLine& line) {
  if (line.operation)
    return static_cast<std::uint64_t>(line.operation->end - line.operation->begin);
  return line.details.nanoseconds;
}

std::optional<std::uint64_t> Bytes(const SLine& line) {
  return line.operation ? line.operation->bytes : line.details.bytes;
}

std::string YesOrNo(const std::optional<bool>& value) {
  if (!value)
    return {};
  return *value ? "yes" : "no";
}

std::string FreeText(const SDetails& details) {
  if (details.calls)
    return std::to_string(*details.calls) + " calls";
  if (details.permille)
    return "busy " + Fixed(*details.permille / 10.0, 1) + " %";
  return details.text;
}

std::array<std::string, Columns.size()> Cells(const SLine& line) {
  const SDetails& details = line.details;
  const std::optional<std::uint64_t> duration = Duration(line);
  return {Seconds(line.elapsed),
          std::to_string(line.record.header.threadId),
          EventName(line.record.header.eventType),
          Text(details.fid),
          Text(details.offset),
          Text(Bytes(line)),
          YesOrNo(details.success),
          duration ? Microseconds(*duration) : std::string(),
          FreeText(details)};
}

std::string Aligned(const std::array<std::string, Columns.size()>& cells) {
  std::string text;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::string blanks(cells[i].size() < Columns[i].width ? Columns[i].width - cells[i].size() : 0, ' ');
    text += (i == 0 ? "" : "  ") + (Columns[i].isLeft ? cells[i] + blanks : blanks + cells[i]);
  }
  text.erase(text.find_last_not_of(' ') + 1);
  return text + '\n';
}

std::string Quoted(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos)
    return text;
  std::string quoted = "\"";
  for (const char c : text)
    quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + '"';
}

}  // namespace

std::string TableHeading() {
  std::array<std::string, Columns.size()> names;
  for (std::size_t i = 0; i < names.size(); ++i)
    names[i] = Columns[i].name;
  return Aligned(names);
}

std::string TableLine(const SLine& line) {
  return Aligned(Cells(line));
}

std::string CsvHeading() {
  return "seconds,thread,code,event,fid,offset,bytes,success,microseconds,text\n";
}

std::string CsvLine(const SLine& line) {
  const auto cells = Cells(line);
  std::string text = cells[0] + ',' + cells[1] + ',' + std::to_string(line.record.header.eventType);
  for (std::size_t i = 2; i < cells.size(); ++i)
    text += ',' + Quoted(cells[i]);
  return text + '\n';
}

}  // namespace perflog
