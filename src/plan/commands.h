// The commands of orv_plan. Each writes its answer to standard output, errors to standard error,
// and returns the exit status.
#ifndef ORV_PLAN_COMMANDS_H_
#define ORV_PLAN_COMMANDS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "plan/plan.h"

namespace orv {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // or health or check found something
inline constexpr int kExitUsage = 2;

// A picture goes to the file `svg`; "-" is standard output, which then holds nothing else.
struct ForecastOptions {
  std::uint32_t days = 7;
  std::uint32_t past = 0;  // days of history in the picture
  const char* svg = nullptr;
  bool json = false;
};
// The serial plan of the next days.
int forecast_command(const Plan& plan, const ForecastOptions& options);

struct HistoryOptions {
  std::uint32_t days = 7;
  const Job* job = nullptr;  // null: all
  const char* svg = nullptr;
  bool json = false;
};
// What ran in the last days.
int history_command(const Plan& plan, const HistoryOptions& options);

enum class HealthFormat { Text, Json, Prometheus, Nagios };
struct HealthOptions {
  const char* job = nullptr;            // name; null: all
  std::optional<std::int64_t> max_age;  // seconds without a success; none: by the longest gap
  HealthFormat format = HealthFormat::Text;
  const char* output = nullptr;  // replaced whole; null: standard output
};
// The health of jobs and scheduler. The only command that takes a plan which is not complete.
int health_command(const Plan& plan, const HealthOptions& options);

struct ReportOptions {
  std::uint32_t days = 1;
  bool html = false;
};
// The morning's mail.
int report_command(const Plan& plan, const ReportOptions& options);

// One screen on one job: settings, next runs, last runs, and what keeps it from running now.
int why_command(const Plan& plan, const Job& job, bool json);
// What exactly would be started for a job, and under which limits.
int show_command(const Plan& plan, const Job& job, bool json);
// What is legal but surprising. 0 when there is nothing to report, 1 otherwise.
int check_command(const Plan& plan, bool json);

// Writes all of `text` to standard output; a failure shows when that is flushed.
void print(const std::string& text);
// Writes a picture to the file `path`, or to standard output for "-".
int write_picture(const std::string& svg, const char* path);

}  // namespace orv

#endif  // ORV_PLAN_COMMANDS_H_
