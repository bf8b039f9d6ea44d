#include "plan/commands.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string_view>
#include <vector>

#include "common/times.h"
#include "config/job_command.h"
#include "plan/describe.h"
#include "plan/findings.h"
#include "plan/forecast.h"
#include "plan/history.h"
#include "plan/svg.h"
#include "sched/job_log.h"
#include "sched/job_run.h"

namespace orv {
namespace {

constexpr int kNextRunsShown = 5;
constexpr std::size_t kLastRunsShown = 5;
constexpr std::int64_t kDay = 86400;

const char* emphasis(const Plan& plan, const char* sequence) { return plan.color ? sequence : ""; }

std::string join(const std::vector<JobName>& names) {
  std::string text;
  for (const JobName& name : names) {
    if (!text.empty()) text += ",";
    text += name.view();
  }
  return text;
}

// What starts the job, in words.
std::string trigger_in_words(const Job& job) {
  std::string text;
  if (job.has_schedule) {
    text = schedule_in_words(job.schedule) + " (" + job.schedule_text.c_str() + ")";
  } else if (job.has_once) {
    text = "once at " + local_time_cell(job.once);
  }
  if (!job.after.empty()) {
    text += std::string(text.empty() ? "" : ", ") + "after " + join(job.after) +
            (job.after_mode == AfterMode::Finished ? " (finished)" : "");
  }
  return text.empty() ? "by hand only" : text;
}

void print_next_runs(const Job& job, const QueueRecord& record, std::int64_t now) {
  std::int64_t next = record.next_run;
  if ((!job.has_schedule && !job.has_once) || next == kNever) {
    std::printf("next runs:  %s\n", job.after.empty() ? "-" : "when what it waits for has ended");
    return;
  }
  const char* label = "next runs:";
  for (int i = 0; i < kNextRunsShown && next > 0 && next != kNever; ++i) {
    const bool overdue = next <= now;
    std::printf("%-11s %s%s\n", label, local_time_cell(next).c_str(), overdue ? " (overdue)" : "");
    label = "";
    next = job.has_schedule ? cron_next_run(job.schedule, overdue ? now : next, false) : kNever;
  }
}

void print_last_runs(const Plan& plan, const Job& job) {
  const std::vector<PastRun> runs = past_runs(plan.job_log_dir, job.name.view(), kLastRunsShown);
  if (runs.empty()) std::printf("last runs:  - (no logs in %s)\n", plan.job_log_dir.c_str());
  const char* label = "last runs:";
  for (const PastRun& run : runs) {
    std::printf("%-11s %s  ", label, local_time_cell(run.start).c_str());
    label = "";
    if (!run.trailer.finished) {
      std::printf("not finished\n");
      continue;
    }
    const bool good = run.trailer.exit_code == 0 && !run.trailer.timed_out;
    std::printf("%sexit %" PRId32 "%s%s%s  %s\n", emphasis(plan, good ? "" : "\033[31m"),
                run.trailer.exit_code, run.trailer.timed_out ? " (timed out)" : "",
                run.trailer.cancelled ? " (cancelled)" : "", emphasis(plan, good ? "" : "\033[0m"),
                duration_text(run.duration_s()).c_str());
  }
}

int write_svg(const Plan& plan, const Forecast& forecast, std::int64_t horizon, const char* path) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << forecast_svg(plan.config, forecast, plan.now, horizon);
  file.close();
  if (file) return 0;
  std::fprintf(stderr, "error: cannot write %s\n", path);
  return 1;
}

}  // namespace

int plan_forecast(const Plan& plan, unsigned days, const char* svg_path) {
  const Durations durations = last_durations(plan.job_log_dir, plan.config);
  const std::int64_t horizon = plan.now + days * kDay;
  const Forecast forecast =
      make_forecast(plan.config, plan.queue, durations, plan.now, horizon);
  std::printf("%-20s %-9s %-24s %-9s %s\n", "START", "DURATION", "NAME", "WHY", "LATE");
  bool guessed = false;
  for (const PlannedRun& run : forecast.runs) {
    guessed = guessed || run.guessed;
    const std::string duration = (run.guessed ? "~" : "") + duration_text(run.end - run.start);
    std::printf("%-20s %-9s %-24s %-9s %s\n", local_time_cell(run.start).c_str(), duration.c_str(),
                run.job->name.c_str(), start_reason_name(run.reason),
                run.late_s > 0 ? duration_text(run.late_s).c_str() : "-");
  }
  if (guessed) {
    std::printf("~ a guess: no log of the job tells how long it takes (%s is assumed)\n",
                duration_text(kGuessedDuration).c_str());
  }
  if (forecast.cut) std::printf("(cut after %zu runs)\n", forecast.runs.size());
  return svg_path == nullptr ? 0 : write_svg(plan, forecast, horizon, svg_path);
}

int plan_why(const Plan& plan, const Job& job) {
  const QueueRecord& record = *queue_find(plan.queue, job.name.view());
  const bool seen = queue_find(plan.seen, job.name.view()) != nullptr;
  std::printf("job:        %s\n", job.name.c_str());
  std::printf("command:    %s\n", command_name(job.command));
  std::printf("enabled:    %s\n", job.enabled ? "yes" : "no");
  std::printf("runs:       %s\n", trigger_in_words(job).c_str());
  std::printf("state:      %s%s\n", state_name(record_state(record)),
              seen ? "" : " (the daemon has not seen the job yet)");
  print_next_runs(job, record, plan.now);
  print_last_runs(plan, job);
  const std::vector<std::string> reasons = blockers(plan.queue, job, plan.now);
  if (reasons.empty()) {
    std::printf("now:        %snothing keeps it: it starts at the daemon's next look%s\n",
                emphasis(plan, "\033[32m"), emphasis(plan, "\033[0m"));
  }
  const char* label = "not now:";
  for (const std::string& reason : reasons) {
    std::printf("%-11s %s\n", label, reason.c_str());
    label = "";
  }
  return 0;
}

int plan_show(const Plan& plan, const Job& job) {
  std::array<char, kConfigMessageSize> err{};
  std::vector<const char*> argv;
  if (build_argv(job, false, argv, err) != 0) {
    std::fprintf(stderr, "error: [%s]: %s\n", job.name.c_str(), err.data());
    return 1;
  }
  std::printf("job:        %s\n", job.name.c_str());
  for (std::size_t i = 0; i + 1 < argv.size(); ++i) {
    std::printf("argv[%zu]:%s%s\n", i, i < 10 ? "    " : "   ", argv[i]);
  }
  const std::uint32_t limit = job.timeout_s != 0                     ? job.timeout_s
                              : plan.config.sched.job_timeout_s != 0 ? plan.config.sched.job_timeout_s
                                                                     : kDefaultJobTimeout;
  std::printf("time limit: %s (%" PRIu32 " seconds)\n", duration_text(limit).c_str(), limit);
  std::printf("logs:       %s/\n", job_log_directory(plan.job_log_dir, job.name.view()).c_str());
  const Notify notify = job.notify == Notify::Inherit ? plan.config.mail.notify : job.notify;
  std::printf("mail:       %s%s\n", plan.config.mail.present ? notify_name(notify) : "never",
              plan.config.mail.present ? "" : " (there is no [mail] section)");
  return 0;
}

int plan_check(const Plan& plan) {
  const Durations durations = last_durations(plan.job_log_dir, plan.config);
  const std::vector<std::string> findings =
      check_jobs(plan.config, plan.queue, durations, plan.now);
  for (const std::string& finding : findings) std::printf("%s\n", finding.c_str());
  if (findings.empty()) std::printf("nothing surprising in %zu job(s)\n", plan.config.jobs.size());
  return findings.empty() ? 0 : 1;
}

}  // namespace orv
