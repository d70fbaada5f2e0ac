#include "kelvo-perflog/plot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "foundation/exc.h"
#include "kelvo-perflog/summary.h"
#include "kelvo-perflog/text_table.h"

namespace perflog {
namespace {

constexpr int Width = 1000;
constexpr int PanelHeight = 320;
constexpr int Top = 50;
constexpr int Left = 80;
constexpr int Right = 20;
constexpr int Below = 60;  // Of a panel, for the names of its times.
constexpr int Columns = 184;
constexpr int Rows = 64;
constexpr int PlotWidth = Width - Left - Right;
constexpr double ColumnWidth = static_cast<double>(PlotWidth) / Columns;
constexpr double RowHeight = static_cast<double>(PanelHeight) / Rows;
constexpr double NsPerSecond = 1e9;
/// What is faster is drawn as if it took so long: the scale has no zero.
constexpr double ShortestNs = 100;
/// Columns without operations that a line still leads over.
constexpr int WidestGap = 5;
constexpr double MostDecadesWithSteps = 2;

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '&':
        escaped += "&amp;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        // Control characters may not stand in XML, and names of files need not be UTF-8.
        escaped += c < 0x20 || c > 0x7E ? '?' : c;
    }
  }
  return escaped;
}

std::string Label(double x, double y, const char* anchor, const std::string& text) {
  return exc::FormatText("<text x=\"%1\" y=\"%2\" text-anchor=\"%3\">%4</text>\n", Fixed(x, 1), Fixed(y, 1), anchor,
                         Escaped(text));
}

std::string Line(double x1, double y1, double x2, double y2) {
  return exc::FormatText("<line x1=\"%1\" y1=\"%2\" x2=\"%3\" y2=\"%4\"/>\n", Fixed(x1, 1), Fixed(y1, 1), Fixed(x2, 1),
                         Fixed(y2, 1));
}

/// "10 µs", with the unit that keeps the number short.
std::string DurationName(double nanoseconds) {
  constexpr std::array<std::pair<double, const char*>, 4> Units{{{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}, {1, "ns"}}};
  for (const auto& [size, name] : Units) {
    if (nanoseconds >= size)
      return Fixed(nanoseconds / size, 0) + " " + name;
  }
  return "0 ns";
}

/// 1, 2 or 5 times a power of ten: the smallest that makes at most `most` steps.
double NiceStep(double length, int most) {
  const double power = std::pow(10.0, std::floor(std::log10(length / most)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (length <= power * factor * most)
      return power * factor;
  }
  return power * 10;
}

}  // namespace

/// One kind of operations, drawn into a rectangle.
class CPlot::CPanel {
 public:
  CPanel(const std::vector<SPoint>& points, std::int64_t length, int top)
      : points_(points), length_(std::max(static_cast<double>(length), 1.0)), top_(top) {
    double shortest = std::numeric_limits<double>::max();
    double longest = ShortestNs;
    for (const SPoint& point : points_) {
      shortest = std::min(shortest, NsOf(point));
      longest = std::max(longest, NsOf(point));
    }
    low_ = std::floor(std::log10(std::min(shortest, longest)));
    high_ = std::max(std::floor(std::log10(longest)) + 1, low_ + 1);
  }

  std::string Draw(const char* name, const char* color) const {
    std::string text = Label(Left, top_ - 8, "start",
                             exc::FormatText("%1: %2 operations", name, static_cast<std::uint64_t>(points_.size())));
    if (points_.empty())
      return text;
    text += Grid() + Cells(color);
    const auto [median, high] = Percentiles();
    text += Polyline(high, color, "1", " stroke-dasharray=\"4 3\"") + Polyline(median, color, "2", "");
    return text;
  }

 private:
  using line_t = std::vector<std::pair<int, double>>;  ///< Column, nanoseconds.

  static double NsOf(const SPoint& point) { return std::max(static_cast<double>(point.duration), ShortestNs); }
  int ColumnOf(const SPoint& point) const {
    return std::min(static_cast<int>(static_cast<double>(point.elapsed) / length_ * Columns), Columns - 1);
  }
  /// 0 at the bottom, 1 at the top.
  double Height(double nanoseconds) const { return (std::log10(nanoseconds) - low_) / (high_ - low_); }
  double Y(double height) const { return top_ + PanelHeight * (1 - height); }

  std::string Grid() const {
    const double bottom = Y(0);
    std::string text = "<g stroke=\"#ddd\" stroke-width=\"1\">\n";
    std::string labels;
    const double decades = high_ - low_;
    for (double decade = low_; decade <= high_; ++decade) {
      for (const double factor : {1.0, 2.0, 5.0}) {
        const double nanoseconds = std::pow(10.0, decade) * factor;
        if (factor > 1 && (decades > MostDecadesWithSteps || decade == high_))
          continue;
        const double y = Y(Height(nanoseconds));
        text += Line(Left, y, Width - Right, y);
        labels += Label(Left - 6, y + 4, "end", DurationName(nanoseconds));
      }
    }
    const double seconds = length_ / NsPerSecond;
    const double step = NiceStep(seconds, 10);
    const int digits = std::clamp(static_cast<int>(std::ceil(-std::log10(step))), 0, 9);
    for (int i = 0; i * step <= seconds; ++i) {
      const double x = Left + i * step / seconds * PlotWidth;
      text += Line(x, top_, x, bottom);
      labels += Label(x, bottom + 18, "middle", Fixed(i * step, digits));
    }
    return text + "</g>\n" + labels + Label(Width - Right, bottom + 34, "end", "seconds since the first event");
  }

  static std::size_t PlaceOf(int column, int row) {
    return static_cast<std::size_t>(column) * Rows + static_cast<std::size_t>(row);
  }

  /// A rectangle wherever operations lie, the darker the more there are.
  std::string Cells(const char* color) const {
    std::vector<std::uint64_t> counts(static_cast<std::size_t>(Columns) * Rows);
    std::uint64_t most = 1;
    for (const SPoint& point : points_) {
      const int row = std::clamp(static_cast<int>(Height(NsOf(point)) * Rows), 0, Rows - 1);
      most = std::max(most, ++counts[PlaceOf(ColumnOf(point), row)]);
    }
    std::string text = exc::FormatText("<g fill=\"%1\">\n", color);
    for (int column = 0; column < Columns; ++column) {
      for (int row = 0; row < Rows; ++row) {
        const std::uint64_t count = counts[PlaceOf(column, row)];
        if (count == 0)
          continue;
        const double opacity =
            0.15 + 0.75 * std::log1p(static_cast<double>(count)) / std::log1p(static_cast<double>(most));
        text += exc::FormatText("<rect x=\"%1\" y=\"%2\" width=\"%3\" height=\"%4\" opacity=\"%5\"/>\n",
                                Fixed(Left + column * ColumnWidth, 2), Fixed(Y(1) + (Rows - 1 - row) * RowHeight, 2),
                                Fixed(ColumnWidth, 2), Fixed(RowHeight, 2), Fixed(opacity, 2));
      }
    }
    return text + "</g>\n";
  }

  std::pair<line_t, line_t> Percentiles() const {
    std::vector<std::vector<std::uint64_t>> durations(Columns);
    for (const SPoint& point : points_)
      durations[static_cast<std::size_t>(ColumnOf(point))].push_back(static_cast<std::uint64_t>(NsOf(point)));
    line_t median;
    line_t high;
    for (int column = 0; column < Columns; ++column) {
      if (const auto percentiles = PercentilesOf(durations[static_cast<std::size_t>(column)])) {
        median.emplace_back(column, static_cast<double>(percentiles->p50));
        high.emplace_back(column, static_cast<double>(percentiles->p99));
      }
    }
    return {median, high};
  }

  std::string Polyline(const line_t& line, const char* color, const char* width, const char* more) const {
    std::string text;
    std::string points;
    for (std::size_t i = 0; i < line.size(); ++i) {
      const auto& [column, nanoseconds] = line[i];
      points += Fixed(Left + (column + 0.5) * ColumnWidth, 1) + "," + Fixed(Y(Height(nanoseconds)), 1) + " ";
      if (i + 1 < line.size() && line[i + 1].first - column <= WidestGap)
        continue;
      text += exc::FormatText("<polyline fill=\"none\" stroke=\"%1\" stroke-width=\"%2\"%3 points=\"%4\"/>\n", color,
                              width, more, points);
      points.clear();
    }
    return text;
  }

  const std::vector<SPoint>& points_;
  const double length_;  ///< Nanoseconds.
  const int top_;
  /// Powers of ten, nanoseconds.
  double low_ = 0;
  double high_ = 0;
};

void CPlot::Add(const SOperation& operation, std::int64_t elapsed) {
  (operation.isRead ? reads_ : writes_).push_back({elapsed, operation.end - operation.begin});
}

std::string CPlot::Svg(const std::string& title) const {
  std::int64_t length = 0;
  for (const std::vector<SPoint>* const points : {&reads_, &writes_}) {
    if (!points->empty())
      length = std::max(length, points->back().elapsed);
  }
  constexpr int SecondTop = Top + PanelHeight + Below + 30;
  constexpr int Height = SecondTop + PanelHeight + Below;
  std::string svg = exc::FormatText(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%1\" height=\"%2\" viewBox=\"0 0 %1 %2\" "
      "font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"%1\" height=\"%2\" fill=\"white\"/>\n",
      Width, Height);
  svg += Label(Left, 20, "start", title);
  svg += Label(Width - Right, 20, "end", "line: median, dashed: 99th percentile, darker: more operations");
  svg += CPanel(reads_, length, Top).Draw("READ", "#1b5e9e");
  svg += CPanel(writes_, length, SecondTop).Draw("WRITE", "#b3471b");
  return svg + "</svg>\n";
}

}  // namespace perflog
