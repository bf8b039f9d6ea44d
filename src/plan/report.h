// The morning's mail: what failed, what ran, what is too old, what comes next.
#ifndef ORV_PLAN_REPORT_H_
#define ORV_PLAN_REPORT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "plan/forecast.h"
#include "plan/health_report.h"
#include "plan/history.h"

namespace orv {

inline constexpr std::size_t kLogLinesShown = 10;  // of each failure
inline constexpr std::size_t kLogLineBytes = 300;  // a longer line is cut
inline constexpr std::size_t kForecastRows = 100;  // of a mail that is to be read

// A job that failed in the time reported on, or whose newest finished run failed before it.
struct ReportedFailure {
  const Job* job = nullptr;
  PastRun run;                     // the newest failed one
  std::uint32_t failures = 0;      // in a row up to now; 0: it has succeeded since
  std::vector<std::string> lines;  // the last ones of its log
};

struct Report {
  std::string host;
  std::uint32_t days = 1;  // back from now that it is about
  HealthReport health;
  History history;
  Forecast forecast;  // of the next 24 hours
  std::vector<ReportedFailure> failures;
};

// `plan` outlives the report. Of a plan that is not complete only the scheduler's part is filled.
[[nodiscard]] Report make_report(const Plan& plan, const DaemonProcess& daemon, std::uint32_t days);

// "and 43 more runs" beyond kForecastRows of the forecast; empty when there are none.
[[nodiscard]] std::string forecast_rest(const Report& report);
// "exit 1, run of 2026-11-22 02:30:00, 3 in a row".
[[nodiscard]] std::string failure_sentence(const ReportedFailure& failure);
// "2 of 12 jobs need attention: 1 failed, 1 stale. 14 runs in the last day, 3 of them failed."
[[nodiscard]] std::string report_summary(const Report& report);

[[nodiscard]] std::string report_text(const Report& report);
// One file without foreign parts, the picture inside it.
[[nodiscard]] std::string report_html(const Plan& plan, const Report& report);

}  // namespace orv

#endif  // ORV_PLAN_REPORT_H_
