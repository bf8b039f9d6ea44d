#include "plan/report.h"

#include <algorithm>
#include <array>

#include "common/files.h"
#include "plan/commands.h"
#include "plan/describe.h"
#include "plan/table.h"
#include "sched/job_log.h"

namespace orv {
namespace {

constexpr std::int64_t kDay = 86400;

ReportedFailure make_failure(const Plan& plan, const Job& job, const PastRun& run,
                             std::uint32_t failures) {
  ReportedFailure failure{&job, run, failures, {}};
  const std::string directory = job_log_directory(plan.job_log_dir, job.name.view());
  failure.lines =
      last_output_lines(job_log_path(directory, run.start), kLogLinesShown, kLogLineBytes);
  return failure;
}

// Jobs that still fail come first, then those that have recovered.
std::vector<ReportedFailure> collect_failures(const Plan& plan, const HealthReport& health,
                                              const History& history) {
  std::vector<ReportedFailure> failures;
  for (const JobHealth& job : health.jobs) {
    if (job.facts.enabled && job.facts.failures > 0) {
      failures.push_back(make_failure(plan, *job.job, *job.facts.last_failure, job.facts.failures));
    }
  }
  // A job is reported once.
  const auto known = [&](const Job* job) {
    return std::any_of(failures.begin(), failures.end(),
                       [&](const ReportedFailure& failure) { return failure.job == job; });
  };
  // From the newest run back: of each job that has recovered the last failure counts.
  for (auto row = history.runs.rbegin(); row != history.runs.rend(); ++row) {
    if (run_failed(row->run.outcome) && !known(row->job)) {
      failures.push_back(make_failure(plan, *row->job, row->run, 0));
    }
  }
  return failures;
}

std::string plural(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

void add_failures(const Report& report, std::string& out) {
  out += "\nFAILED\n";
  for (const ReportedFailure& failure : report.failures) {
    out += "  " + printable(failure.job->name.view()) + ": " + failure_sentence(failure) + "\n";
    for (const std::string& line : failure.lines) out += "    | " + printable(line) + "\n";
  }
}

// Two blanks before each line, so that the headings stand out.
std::string indented(const std::string& text) {
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find('\n', at);
    out += "  " + text.substr(at, end - at) + "\n";
    at = end + 1;
  }
  return out;
}

std::string forecast_table(const Report& report) {
  Table table({"START", "DURATION", "JOB", "WHY"});
  const std::vector<PlannedRun>& runs = report.forecast.runs;
  for (std::size_t i = 0; i < std::min(runs.size(), kForecastRows); ++i) {
    const PlannedRun& run = runs[i];
    table.add({clock_text(run.start), (run.guessed ? "~" : "") + duration_text(run.end - run.start),
               printable(run.job->name.view()), start_reason_name(run.reason)});
  }
  const std::string rest = forecast_rest(report);
  return table.text(false) + (rest.empty() ? "" : rest + "\n");
}

std::string totals_table(const Report& report) {
  Table table({"JOB", "RUNS", "FAILURES", "MEDIAN", "LONGEST"});
  for (const JobTotals& job : report.history.jobs) {
    table.add({printable(job.job->name.view()), std::to_string(job.runs),
               std::to_string(job.failures), duration_cell(job.median_s),
               duration_cell(job.longest_s)});
  }
  return table.text(false);
}

}  // namespace

Report make_report(const Plan& plan, const DaemonProcess& daemon, std::uint32_t days) {
  Report report;
  std::array<char, kMaxHostName + 1> host{};
  report.host = host_name(host);
  report.days = days;
  // All from one plan, so that the parts of the mail cannot contradict each other.
  report.health = make_health_report(plan, daemon, std::nullopt, nullptr);
  report.history = collect_history(plan, plan.now - days * kDay, nullptr);
  report.failures = collect_failures(plan, report.health, report.history);
  ForecastStart start;
  start.now = plan.now;
  start.horizon = plan.now + kDay;  // the coming night, whenever the mail is made
  report.forecast = make_forecast(plan.config, plan.queue, usual_durations(plan), start);
  return report;
}

std::string forecast_rest(const Report& report) {
  const std::size_t count = report.forecast.runs.size();
  if (count <= kForecastRows) return {};
  return "and " + plural(count - kForecastRows, "more run");
}

std::string failure_sentence(const ReportedFailure& failure) {
  const PastRun& run = failure.run;
  std::string text = failure_text(run);
  text += ", run of " + clock_text(run.start);
  if (failure.failures == 0) return text + ", has succeeded since";
  return failure.failures == 1 ? text
                               : text + ", " + std::to_string(failure.failures) + " in a row";
}

// One sentence that may be the mail's subject, and one on the runs.
std::string report_summary(const Report& report) {
  const HealthReport& health = report.health;
  if (!health.config_message.empty()) return "The configuration is refused: no job is known.";
  const auto troubled = static_cast<std::size_t>(
      std::count_if(health.jobs.begin(), health.jobs.end(),
                    [](const JobHealth& job) { return health_is_trouble(job.health); }));
  const auto failed = static_cast<std::size_t>(
      std::count_if(report.history.runs.begin(), report.history.runs.end(),
                    [](const HistoryRun& row) { return run_failed(row.run.outcome); }));
  std::string text = jobs_summary(health) + ".";
  if (troubled > 0) {
    text = std::to_string(troubled) + " of " + plural(health.jobs.size(), "job") +
           (troubled == 1 ? " needs" : " need") + " attention: " + text;
  }
  // What is not known goes first: it makes all that follows doubtful.
  if (!health.logs_message.empty()) text = "Logs cannot be read. " + text;
  if (!health.queue_message.empty()) text = "The queue cannot be read. " + text;
  if (!health.daemon.running.value_or(true)) text = "No daemon is running. " + text;
  text += " " + plural(report.history.runs.size(), "run") + " in the last " +
          (report.days == 1 ? "day" : std::to_string(report.days) + " days");
  return text + (failed == 0 ? ", none failed." : ", " + std::to_string(failed) + " failed.");
}

// Sections without content are left out: what is there is what is to be read.
std::string report_text(const Report& report) {
  std::string out = "orv_sched on " + printable(report.host) + ", " +
                    clock_text(report.health.now) + "\n\n" + report_summary(report) +
                    "\nScheduler: " + scheduler_summary(report.health) + "\n";
  if (!report.failures.empty()) add_failures(report, out);
  std::string stale;
  for (const JobHealth& job : report.health.jobs) {
    if (!health_is_trouble(job.health) || job.health == Health::Failed) continue;
    stale += "  " + printable(job.job->name.view()) + ": " + health_name(job.health) + ", " +
             job.reason + "\n";
  }
  if (!stale.empty()) out += "\nSTALE, LATE, SLOW OR NEVER RUN\n" + stale;
  if (!report.history.jobs.empty()) out += "\nRAN\n" + indented(totals_table(report));
  if (!report.forecast.runs.empty()) {
    out += "\nNEXT 24 HOURS\n" + indented(forecast_table(report));
  }
  if (!report.history.notes.empty()) out += "\nNOTES\n";
  for (const LogNote& note : report.history.notes) {
    out += "  " + printable(note.log) + " " + note.text + "\n";
  }
  return out;
}

// A refused file or an unreadable queue is in the mail, and in the status for what sends it.
int report_command(const Plan& plan, const ReportOptions& options) {
  const Report report =
      make_report(plan, find_daemon(plan.config_path, plan.queue_path), options.days);
  print(options.html ? report_html(plan, report) : report_text(report));
  return plan.config_message.empty() && plan.queue_message.empty() ? kExitOk : kExitFailed;
}

}  // namespace orv
