// Runs as a picture (SVG): one row a job, jobs that wait for others below these, one bar a run.
// Past and planned runs share one time axis.
#ifndef ORV_PLAN_PICTURE_H_
#define ORV_PLAN_PICTURE_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "plan/forecast.h"
#include "plan/history.h"

namespace orv {

// What a bar says, and with it its colour.
enum class BarKind { AtItsTime, AfterOthers, Done, Failed, Busy, Running };

struct Bar {
  const Job* job = nullptr;
  std::int64_t start = 0;  // Unix seconds
  std::int64_t end = 0;
  std::int64_t late_s = 0;  // drawn as a thin line that leads up to the bar
  BarKind kind = BarKind::AtItsTime;
  bool guessed = false;  // hatched: how long it takes is a guess
};

struct Picture {
  std::string title;
  std::int64_t from = 0;  // Unix seconds
  std::int64_t to = 0;
  std::int64_t now = 0;  // a line, when it lies between the two
  std::vector<Bar> bars;
};

// Adds the runs of a history that has `now` as its end, and of a forecast.
void add_history(Picture& picture, const History& history);
void add_forecast(Picture& picture, const Forecast& forecast);

// The document. A row is drawn for every enabled job, and for a disabled one that has a bar. It has
// no foreign parts, keeps its proportions at any size, and has colours for light and dark.
[[nodiscard]] std::string picture_svg(const Config& config, const Picture& picture);

// Text as part of a document of markup: printable() text with <, >, & and quotes escaped.
[[nodiscard]] std::string escape_markup(std::string_view text);

}  // namespace orv

#endif  // ORV_PLAN_PICTURE_H_
