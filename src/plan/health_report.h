// The health of all jobs and of the scheduler at one moment. Each format has a renderer of its own,
// which decides nothing.
#ifndef ORV_PLAN_HEALTH_REPORT_H_
#define ORV_PLAN_HEALTH_REPORT_H_

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "plan/daemon_process.h"
#include "plan/health.h"
#include "plan/plan.h"

namespace orv {

struct JobHealth {
  const Job* job = nullptr;  // borrowed from the plan's configuration
  JobFacts facts;
  Health health = Health::Ok;
  std::string reason;
  std::vector<LogNote> notes;  // faults of the logs that were read
};

struct HealthReport {
  std::int64_t now = 0;                 // Unix seconds
  std::optional<std::int64_t> max_age;  // seconds; --max-age
  DaemonProcess daemon;
  std::string config_path;
  std::string config_message;              // empty: the file on disk would load
  std::optional<std::int64_t> config_age;  // seconds since it was written; none: not there
  std::string queue_path;
  std::string queue_message;  // empty: readable, or not there yet
  std::string logs_path;
  std::string logs_message;     // empty: all that was needed could be read
  std::vector<JobHealth> jobs;  // the worst first, else in the order of the file
};

// The health of `only`, or of every job when it is null. `plan` outlives the report. A refused
// configuration leaves no jobs.
[[nodiscard]] HealthReport make_health_report(const Plan& plan, const DaemonProcess& daemon,
                                              std::optional<std::int64_t> max_age, const Job* only);

// Whether anything is wrong: a job in trouble, no daemon, a refused file, something unreadable.
[[nodiscard]] bool health_wrong(const HealthReport& report);

// How many jobs have each health, in the order of kHealths.
[[nodiscard]] std::array<unsigned, kHealthCount> count_healths(const HealthReport& report);

// "2 failed, 1 stale"; when no job is in trouble "5 jobs, nothing wrong", or "none in trouble" when
// something else is wrong.
[[nodiscard]] std::string jobs_summary(const HealthReport& report);
// The scheduler's line: daemon, configuration, queue and logs.
[[nodiscard]] std::string scheduler_summary(const HealthReport& report);

// For a person: the scheduler's line, then a row a job.
[[nodiscard]] std::string health_text(const HealthReport& report, bool color);
// One JSON object.
[[nodiscard]] std::string health_json(const HealthReport& report);
// The text exposition format.
[[nodiscard]] std::string health_prometheus(const HealthReport& report);
// `text` as the value of a label, without its quotes. Bytes that are no UTF-8 become "\xff", and a
// backslash that would read like such a code becomes "\x5c": two names never have the same label.
[[nodiscard]] std::string prometheus_label(std::string_view text);
// A monitoring plugin's output; `status` takes 0 OK, 1 WARNING, 2 CRITICAL or 3 UNKNOWN.
[[nodiscard]] std::string health_nagios(const HealthReport& report, int& status);

}  // namespace orv

#endif  // ORV_PLAN_HEALTH_REPORT_H_
