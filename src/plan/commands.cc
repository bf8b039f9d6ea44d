#include "plan/commands.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <string_view>
#include <vector>

#include "common/files.h"
#include "config/job_command.h"
#include "plan/describe.h"
#include "plan/findings.h"
#include "plan/forecast.h"
#include "plan/history.h"
#include "plan/svg.h"
#include "sched/job_log.h"
#include "sched/job_run.h"
#include "sched/obstacle.h"
#include "sched/queue_runner.h"
#include "sched/queue_schedule.h"
#include "sched/result_mail.h"

namespace orv {
namespace {

constexpr int kNextRunsShown = 5;
constexpr std::size_t kLastRunsShown = 5;
constexpr std::int64_t kDay = 86400;
constexpr int kWidestColumn = 40;

const char* emphasis(const Plan& plan, const char* sequence) { return plan.color ? sequence : ""; }

std::string join(const std::vector<JobName>& names) {
  std::string text;
  for (const JobName& name : names) {
    if (!text.empty()) text += ",";
    text += printable(name.view());
  }
  return text;
}

// What starts the job, in words.
std::string trigger_in_words(const Job& job) {
  std::string text;
  if (job.has_schedule) {
    text = schedule_in_words(job.schedule) + " (" + printable(job.schedule_text.view()) + ")";
  } else if (job.has_once) {
    text = "once at " + clock_text(job.once);
  }
  if (!job.after.empty()) {
    text += std::string(text.empty() ? "" : ", ") + "after " + join(job.after) +
            (job.after_mode == AfterMode::Finished ? " (finished)" : "");
  }
  return text.empty() ? "by hand only" : text;
}

void print_next_runs(const Job& job, const QueueRecord& record, std::int64_t now) {
  std::int64_t next = record.next_run;
  // A running job's time is the one that it was started for.
  if (record_state(record) == JobState::Running && next <= now) {
    next = job.has_schedule ? first_next_run(job, now) : kNever;
  }
  if (!job.enabled || (!job.has_schedule && !job.has_once) || next == kNever) {
    const bool waits = job.enabled && !job.has_schedule && !job.has_once;
    std::printf("next runs:  %s\n", waits ? "when what it waits for has ended" : "-");
    return;
  }
  const char* label = "next runs:";
  for (int i = 0; i < kNextRunsShown && next > 0 && next != kNever; ++i) {
    const bool overdue = next <= now;
    std::printf("%-11s %s%s\n", label, clock_text(next).c_str(), overdue ? " (overdue)" : "");
    label = "";
    next = job.has_schedule ? cron_next_run(job.schedule, overdue ? now : next, false) : kNever;
  }
}

void print_last_runs(const Plan& plan, const Job& job) {
  const std::vector<PastRun> runs = past_runs(plan.job_log_dir, job.name.view(), kLastRunsShown);
  if (runs.empty()) {
    std::printf("last runs:  - (no logs in %s)\n", printable(plan.job_log_dir).c_str());
  }
  const char* label = "last runs:";
  for (const PastRun& run : runs) {
    std::printf("%-11s %s  ", label, clock_text(run.start).c_str());
    label = "";
    if (!run.trailer.finished) {
      std::printf("not finished\n");
      continue;
    }
    const bool good = run.trailer.exit_code == 0 && !run.trailer.timed_out;
    std::printf("%sexit %" PRId32 "%s%s%s  %s\n", emphasis(plan, good ? "" : "\033[31m"),
                run.trailer.exit_code, run.trailer.timed_out ? " (timed out)" : "",
                run.trailer.cancelled ? " (cancelled)" : "", emphasis(plan, good ? "" : "\033[0m"),
                run.duration_s() < 0 ? "?" : duration_text(run.duration_s()).c_str());
  }
}

int write_svg(const Plan& plan, const Forecast& forecast, std::int64_t horizon, const char* path) {
  const std::string picture = forecast_svg(plan.config, forecast, plan.now, horizon);
  ScopedFd file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (file.valid() && write_all(file.get(), picture) == ErrorCode::Ok &&
      ::close(file.release()) == 0) {
    return 0;
  }
  std::fprintf(stderr, "error: cannot write %s: %s\n", path, ::strerror(errno));
  return 1;
}

// When the next job can start: now, unless a tool outlived its scheduler. That is told.
std::int64_t free_at(const Plan& plan, const Durations& durations) {
  const std::optional<Obstacle> obstacle = find_obstacle(plan.queue);
  if (!obstacle || !obstacle->lost) return plan.now;
  std::printf(
      "The tool of a run of job '%s' whose scheduler is gone is still running: nothing "
      "starts before it ends.\n\n",
      printable(obstacle->job).c_str());
  const QueueRecord* const record = queue_find(plan.queue, obstacle->job);
  const auto known = durations.find(obstacle->job);
  return std::max(plan.now, (record != nullptr ? std::int64_t{record->started_at} : plan.now) +
                                (known != durations.end() ? known->second : kGuessedDuration));
}

// True when one of the durations is a guess.
bool print_runs(const Forecast& forecast) {
  std::vector<std::array<std::string, 5>> rows = {{"START", "DURATION", "NAME", "WHY", "LATE"}};
  bool guessed = false;
  for (const PlannedRun& run : forecast.runs) {
    guessed = guessed || run.guessed;
    rows.push_back({clock_text(run.start),
                    (run.guessed ? "~" : "") + duration_text(run.end - run.start),
                    printable(run.job->name.view()), start_reason_name(run.reason),
                    run.late_s > 0 ? duration_text(run.late_s) : "-"});
  }
  std::array<int, 5> widths = {20, 9, 24, 9, 0};
  for (const auto& row : rows) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      widths[i] = std::clamp(static_cast<int>(row[i].size()), widths[i], kWidestColumn);
    }
  }
  for (const auto& row : rows) {
    std::printf("%-*s %-*s %-*s %-*s %s\n", widths[0], row[0].c_str(), widths[1], row[1].c_str(),
                widths[2], row[2].c_str(), widths[3], row[3].c_str(), row[4].c_str());
  }
  return guessed;
}

// What keeps the record from being taken as it stands.
const char* state_note(const QueueRecord* seen) {
  if (seen == nullptr) return " (the daemon has not seen the job yet)";
  const bool lost = record_state(*seen) == JobState::Running && !queue_runner_alive(*seen);
  return lost ? " (its record says RUNNING, but that process is gone)" : "";
}

}  // namespace

int plan_forecast(const Plan& plan, unsigned days, const char* svg_path) {
  const Durations durations = last_durations(plan.job_log_dir, plan.config);
  const std::int64_t horizon = plan.now + days * kDay;
  const Forecast forecast =
      make_forecast(plan.config, plan.queue, durations, free_at(plan, durations), horizon);
  if (print_runs(forecast)) {
    std::printf("~ a guess: no log of the job tells how long it takes (%s is assumed)\n",
                duration_text(kGuessedDuration).c_str());
  }
  if (forecast.cut) std::printf("(cut after %zu runs)\n", forecast.runs.size());
  return svg_path == nullptr ? 0 : write_svg(plan, forecast, horizon, svg_path);
}

int plan_why(const Plan& plan, const Job& job) {
  const QueueRecord& record = *queue_find(plan.queue, job.name.view());
  std::printf("job:        %s\n", printable(job.name.view()).c_str());
  std::printf("command:    %s\n", command_name(job.command));
  std::printf("enabled:    %s\n", job.enabled ? "yes" : "no");
  std::printf("runs:       %s\n", trigger_in_words(job).c_str());
  std::printf("state:      %s%s\n", state_name(record_state(record)),
              state_note(queue_find(plan.seen, job.name.view())));
  print_next_runs(job, record, plan.now);
  print_last_runs(plan, job);
  std::vector<std::string> reasons = blockers(plan.config, plan.queue, job, plan.now);
  if (daemon_seems_absent()) {
    reasons.emplace_back("no daemon is running (no process 'orv_sched daemon' is to be seen)");
  }
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
    std::fprintf(stderr, "error: [%s]: %s\n", printable(job.name.view()).c_str(), err.data());
    return 1;
  }
  std::printf("job:        %s\n", printable(job.name.view()).c_str());
  for (std::size_t i = 0; i + 1 < argv.size(); ++i) {
    std::printf("argv[%zu]:%s%s\n", i, i < 10 ? "    " : "   ", printable(argv[i]).c_str());
  }
  const std::uint32_t limit = time_limit(job, plan.config.sched.job_timeout_s);
  std::printf("time limit: %s (%" PRIu32 " seconds)\n", duration_text(limit).c_str(), limit);
  std::printf("logs:       %s/\n",
              printable(job_log_directory(plan.job_log_dir, job.name.view())).c_str());
  const Notify notify = effective_notify(job, plan.config.mail);
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
