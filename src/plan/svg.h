// The forecast as a picture: one row a job, one bar a run.
#ifndef ORV_PLAN_SVG_H_
#define ORV_PLAN_SVG_H_

#include <cstdint>
#include <string>

#include "plan/forecast.h"

namespace orv {

// An SVG document of the time from `from` to `to` (Unix seconds), with every enabled job's row and
// a line at each local midnight. Guessed durations are hatched.
[[nodiscard]] std::string forecast_svg(const Config& config, const Forecast& forecast,
                                       std::int64_t from, std::int64_t to);

}  // namespace orv

#endif  // ORV_PLAN_SVG_H_
