#include "plan/svg.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <map>
#include <string_view>
#include <vector>

#include "common/times.h"
#include "plan/describe.h"

namespace orv {
namespace {

constexpr int kLabelWidth = 220;
constexpr int kChartWidth = 1000;
constexpr int kRowHeight = 24;
constexpr int kTop = 52;
constexpr std::size_t kMaxLabel = 32;  // bytes of a name
constexpr int kDayLabelWidth = 44;
constexpr int kNarrowestDay = 8;      // that has a line without a label
constexpr double kShortestBar = 1.5;  // a run of seconds is still to be seen

[[gnu::format(printf, 2, 3)]] void add(std::string& out, const char* format, ...) {
  std::array<char, 512> piece{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(piece.data(), piece.size(), format, args);
  va_end(args);
  out += piece.data();
}

// A name as a text of the document.
std::string escape(std::string_view name) {
  std::string out;
  for (const char c : printable(name)) {
    switch (c) {
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '&': out += "&amp;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

// The beginning of a name that is too long for its row.
std::string shortened(std::string_view name) {
  if (name.size() <= kMaxLabel) return std::string(name);
  std::size_t end = kMaxLabel - 3;
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
  return std::string(name.substr(0, end)) + "...";
}

struct Scale {
  std::int64_t from;
  std::int64_t to;
  [[nodiscard]] double x(std::int64_t time) const {
    const double share =
        static_cast<double>(std::clamp(time, from, to) - from) / static_cast<double>(to - from);
    return kLabelWidth + share * kChartWidth;
  }
};

// Midnights through mktime(): a day is not always 24 hours long.
void add_days(std::string& out, const Scale& scale, int bottom) {
  const time_t from = scale.from;
  struct tm day {};
  ::localtime_r(&from, &day);
  double labelled = 0;  // where the last label stands
  while (true) {
    day.tm_hour = day.tm_min = day.tm_sec = 0;
    ++day.tm_mday;
    day.tm_isdst = -1;
    const time_t midnight = ::mktime(&day);
    if (midnight == -1 || midnight > scale.to) return;
    std::array<char, 32> label{};
    (void)::strftime(label.data(), label.size(), "%d %b", &day);
    const bool room = scale.x(midnight) >= labelled + kDayLabelWidth &&
                      scale.x(midnight) + kDayLabelWidth <= kLabelWidth + kChartWidth;
    if (room || kChartWidth * std::int64_t{86400} / (scale.to - scale.from) >= kNarrowestDay) {
      add(out, "<line x1=\"%.1f\" y1=\"%d\" x2=\"%.1f\" y2=\"%d\" stroke=\"#ccc\"/>\n",
          scale.x(midnight), kTop - 6, scale.x(midnight), bottom);
    }
    if (!room) continue;
    labelled = scale.x(midnight);
    add(out, "<text x=\"%.1f\" y=\"%d\" fill=\"#666\">%s</text>\n", labelled + 3, kTop - 10,
        label.data());
  }
}

void add_run(std::string& out, const Scale& scale, const PlannedRun& run, int y) {
  const double width = std::max(kShortestBar, scale.x(run.end) - scale.x(run.start));
  const char* fill = run.guessed                        ? "url(#guess)"
                     : run.reason == StartReason::After ? "#d98e04"
                                                        : "#2f6fb2";
  add(out, "<rect x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"%d\" fill=\"%s\"><title>",
      scale.x(run.start), y + 4, width, kRowHeight - 8, fill);
  out += escape(run.job->name.view());
  add(out, " %s, %s%s</title></rect>\n", local_time_cell(run.start).c_str(),
      run.guessed ? "perhaps " : "", duration_text(run.end - run.start).c_str());
}

}  // namespace

std::string forecast_svg(const Config& config, const Forecast& forecast, std::int64_t from,
                         std::int64_t to) {
  const Scale scale{from, std::max(to, from + 1)};
  std::map<const Job*, int> rows;
  for (const Job& job : config.jobs) {
    if (job.enabled) rows.emplace(&job, kTop + kRowHeight * static_cast<int>(rows.size()));
  }
  // The rows stand in the order of the file, which is that of the jobs' addresses.
  const int bottom = kTop + kRowHeight * static_cast<int>(rows.size());
  std::string out;
  add(out,
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
      "font-family=\"sans-serif\" font-size=\"12\">\n",
      kLabelWidth + kChartWidth + 10, bottom + 10);
  out +=
      "<defs><pattern id=\"guess\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\">"
      "<rect width=\"6\" height=\"6\" fill=\"#b9d0e8\"/><path d=\"M0 6L6 0\" stroke=\"#2f6fb2\"/>"
      "</pattern></defs>\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  add(out,
      "<text x=\"%d\" y=\"14\">%s to %s (blue: at its time, orange: after others, hatched: its "
      "duration is a guess)</text>\n",
      kLabelWidth, local_time_cell(from).c_str(), local_time_cell(to).c_str());
  for (const auto& [job, y] : rows) {
    add(out, "<text x=\"%d\" y=\"%d\" text-anchor=\"end\">", kLabelWidth - 8, y + 16);
    out += escape(shortened(job->name.view())) + "</text>\n";
    add(out, "<line x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\" stroke=\"#eee\"/>\n", kLabelWidth,
        y + kRowHeight, kLabelWidth + kChartWidth, y + kRowHeight);
  }
  add_days(out, scale, bottom);
  for (const PlannedRun& run : forecast.runs) {
    if (const auto row = rows.find(run.job); row != rows.end())
      add_run(out, scale, run, row->second);
  }
  return out + "</svg>\n";
}

}  // namespace orv
