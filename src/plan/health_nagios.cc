// Health as a monitoring plugin's output: a status line with performance data, then a line for each
// troubled job. https://nagios-plugins.org/doc/guidelines.html
#include <algorithm>

#include "plan/describe.h"
#include "plan/health_report.h"

namespace orv {
namespace {

enum Status { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };
constexpr const char* kStatusNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

Status status_of(Health health) {
  if (health == Health::Failed || health == Health::Stale) return kCritical;
  return health_is_trouble(health) ? kWarning : kOk;
}

Status status_of(const HealthReport& report) {
  const auto any = [&](Status wanted) {
    return std::any_of(report.jobs.begin(), report.jobs.end(),
                       [&](const JobHealth& job) { return status_of(job.health) == wanted; });
  };
  if (!report.daemon.running.value_or(true) || any(kCritical)) return kCritical;
  // What could not be read may hide anything, also what is worse than a warning.
  if (!report.queue_message.empty() || !report.logs_message.empty()) return kUnknown;
  return !report.config_message.empty() || any(kWarning) ? kWarning : kOk;
}

// A bar would begin the performance data, a line feed the next line.
std::string plain(const std::string& text) {
  std::string out;
  for (const char c : printable(text)) {
    if (c == '|') {
      out += "\\x7c";
    } else {
      out += c;
    }
  }
  return out;
}

std::string performance_data(const HealthReport& report) {
  const std::array<unsigned, kHealthCount> counts = count_healths(report);
  std::string out = "jobs=" + std::to_string(report.jobs.size());
  for (const Health health : kHealths) {
    out += std::string(" ") + health_name(health) + "=" +
           std::to_string(counts[static_cast<std::size_t>(health)]);
  }
  return out;
}

}  // namespace

std::string health_nagios(const HealthReport& report, int& status) {
  status = status_of(report);
  std::string out = std::string("ORV_SCHED ") + kStatusNames[status] + " - " +
                    jobs_summary(report) + "; " + plain(scheduler_summary(report));
  if (report.config_message.empty()) out += " | " + performance_data(report);
  out += "\n";
  for (const JobHealth& job : report.jobs) {
    if (!health_is_trouble(job.health)) continue;
    out += std::string(kStatusNames[status_of(job.health)]) + ": " +
           plain(std::string(job.job->name.view())) + " " + health_name(job.health) + ": " +
           plain(job.reason) + "\n";
  }
  return out;
}

}  // namespace orv
