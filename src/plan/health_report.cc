#include "plan/health_report.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "plan/describe.h"
#include "plan/job_facts.h"
#include "plan/nominal.h"

namespace orv {
namespace {

std::optional<std::int64_t> age_of(const std::string& path, std::int64_t now) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return std::max<std::int64_t>(0, now - status.st_mtim.tv_sec);
}

// What keeps the logs from being read: the directory of all, else the first log that was refused.
std::string logs_message(const HealthReport& report) {
  // A directory that is not there yet belongs to a scheduler that has not run a job.
  if (::access(report.logs_path.c_str(), R_OK | X_OK) != 0 && errno != ENOENT) {
    return printable(report.logs_path) + " cannot be read: " + ::strerror(errno);
  }
  for (const JobHealth& job : report.jobs) {
    for (const LogNote& note : job.notes) {
      if (note.fault == LogFault::Unreadable) return printable(note.log) + " " + note.text;
    }
  }
  return {};
}

std::string daemon_summary(const HealthReport& report) {
  // With /proc hidden nothing can be said, which is no sign of trouble.
  if (!report.daemon.running) return "daemon not visible to this user";
  if (!*report.daemon.running) return "no daemon is running";
  std::string text = "daemon running (pid " + std::to_string(report.daemon.pid) + ")";
  if (report.daemon.since) text += " since " + clock_text(*report.daemon.since);
  return text;
}

std::string config_summary(const HealthReport& report) {
  if (report.config_message.empty()) return "configuration valid";
  std::string text = "configuration refused: " + printable(report.config_message);
  if (report.config_age) text += " (written " + duration_text(*report.config_age) + " ago)";
  return text;
}

}  // namespace

HealthReport make_health_report(const Plan& plan, const DaemonProcess& daemon,
                                std::optional<std::int64_t> max_age, const Job* only) {
  HealthReport report;
  report.now = plan.now;
  report.max_age = max_age;
  report.daemon = daemon;
  report.config_path = plan.config_path;
  report.config_message = plan.config_message;
  // Of a refused file the age says since when: the daemon goes on with what it had before.
  report.config_age = age_of(plan.config_path, plan.now);
  report.queue_path = plan.queue_path;
  report.queue_message = plan.queue_message;
  report.logs_path = plan.job_log_dir;
  LongestGaps gaps(plan.config, plan.now);  // shared: a job needs the gaps of those it waits for
  for (const Job& job : plan.config.jobs) {
    if (only != nullptr && only != &job) continue;
    JobRuns runs = runs_of(plan, job);
    JobHealth row;
    row.job = &job;
    row.facts = collect_facts(plan, job, runs, gaps);
    row.health = job_health(row.facts, plan.now, max_age);
    row.reason = health_reason(row.facts, row.health, plan.now, max_age);
    row.notes = runs.notes();
    report.jobs.push_back(std::move(row));
  }
  // The words are in the order of trouble; jobs of one word stay in the order of the file.
  std::stable_sort(report.jobs.begin(), report.jobs.end(),
                   [](const JobHealth& a, const JobHealth& b) { return a.health < b.health; });
  report.logs_message = logs_message(report);
  return report;
}

// Hidden processes are no sign of trouble: value_or() gives the daemon the benefit of the doubt.
bool health_wrong(const HealthReport& report) {
  return !report.config_message.empty() || !report.queue_message.empty() ||
         !report.logs_message.empty() || !report.daemon.running.value_or(true) ||
         std::any_of(report.jobs.begin(), report.jobs.end(),
                     [](const JobHealth& job) { return health_is_trouble(job.health); });
}

std::array<unsigned, kHealthCount> count_healths(const HealthReport& report) {
  std::array<unsigned, kHealthCount> counts{};
  for (const JobHealth& job : report.jobs) ++counts[static_cast<std::size_t>(job.health)];
  return counts;
}

// Only the words of trouble: how many are well is no news.
std::string jobs_summary(const HealthReport& report) {
  const std::array<unsigned, kHealthCount> counts = count_healths(report);
  std::string text;
  for (const Health health : kHealths) {
    const unsigned count = counts[static_cast<std::size_t>(health)];
    if (count == 0 || !health_is_trouble(health)) continue;
    text += std::string(text.empty() ? "" : ", ") + std::to_string(count) + " " +
            (health == Health::Never ? "never run" : health_name(health));
  }
  if (!text.empty()) return text;
  if (!report.config_message.empty()) return "jobs not known";
  text = std::to_string(report.jobs.size()) + (report.jobs.size() == 1 ? " job" : " jobs");
  // With no daemon, say, something is wrong all the same.
  return text + (health_wrong(report) ? ", none in trouble" : ", nothing wrong");
}

std::string scheduler_summary(const HealthReport& report) {
  std::string text = daemon_summary(report) + "; " + config_summary(report);
  if (report.queue_message.empty() && report.logs_message.empty()) {
    return text + "; queue and logs readable";
  }
  if (!report.queue_message.empty()) {
    text += "; queue " + printable(report.queue_path) + " cannot be read: " + report.queue_message;
  }
  if (!report.logs_message.empty()) text += "; logs: " + report.logs_message;
  return text;
}

}  // namespace orv
