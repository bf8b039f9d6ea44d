#include <algorithm>
#include <cinttypes>

#include "plan/commands.h"
#include "plan/daemon_process.h"
#include "plan/describe.h"
#include "plan/forecast.h"
#include "plan/history.h"
#include "plan/json_document.h"
#include "plan/local_clock.h"
#include "plan/picture.h"
#include "plan/table.h"
#include "sched/daemon.h"
#include "sched/queue_runner.h"

namespace orv {
namespace {

constexpr std::int64_t kDay = 86400;

std::uint32_t poll_interval_s(const Plan& plan) {
  const std::uint32_t configured = plan.config.sched.poll_interval_s;
  return configured != 0 ? configured : kDefaultPollInterval;
}

// The job whose tool outlived its scheduler, if there is one: nothing starts before it ends.
const std::string* lost_run(const Plan& plan) {
  return plan.obstacle && plan.obstacle->lost ? &plan.obstacle->job : nullptr;
}

// When the next job can start: now, or when a lost run has taken its usual time.
std::int64_t free_at(const Plan& plan, const Durations& durations) {
  const std::string* const lost = lost_run(plan);
  const QueueRecord* const record = lost != nullptr ? queue_find(plan.seen, *lost) : nullptr;
  if (record == nullptr) return plan.now;
  const auto known = durations.find(*lost);
  return std::max(
      plan.now, record->started_at + (known != durations.end() ? known->second : kGuessedDuration));
}

// The running jobs whose runner is no daemon.
std::vector<const Job*> running_by_hand(const Plan& plan) {
  std::vector<const Job*> jobs;
  for (const QueueRecord& record : plan.seen.records()) {
    // A run that a client of the API asked for is the daemon's own, and looks like a due one.
    if (!queue_runner_alive(record) || is_daemon(queue_get_runner_pid(record))) continue;
    if (const Job* const job = find_job(plan.config, record_name(record))) jobs.push_back(job);
  }
  return jobs;
}

std::string forecast_text(const Plan& plan, const Forecast& forecast, std::uint32_t days) {
  if (forecast.runs.empty()) {  // an empty table would look like a fault
    return "nothing is planned for the next " + std::to_string(days) +
           (days == 1 ? " day\n" : " days\n");
  }
  // Columns as wide as those of "orv_sched list", so that a few runs do not jump about.
  Table table({"START", "DURATION", "NAME", "WHY", "LATE"}, {20, 9, 24, 9}, 1);
  LocalClock clock;
  bool guessed = false;
  for (const PlannedRun& run : forecast.runs) {
    guessed = guessed || run.guessed;
    table.add({clock.text(run.start), (run.guessed ? "~" : "") + duration_text(run.end - run.start),
               printable(run.job->name.view()), start_reason_name(run.reason),
               run.late_s > 0 ? duration_text(run.late_s) : "-"},
              run.reason == StartReason::Running ? Tone::Active : Tone::Plain);
  }
  std::string out = table.text(plan.color);
  if (guessed) {
    out += "~ a guess: no log of the job shows a successful run (" +
           duration_text(kGuessedDuration) + " is assumed)\n";
  }
  if (forecast.cut) out += "(cut after " + std::to_string(forecast.runs.size()) + " runs)\n";
  return out + "An idle daemon checks every " + duration_text(poll_interval_s(plan)) +
         ": a start may be that much later.\n";
}

// docs/orv_plan.8 describes the fields: their names are never changed.
std::string forecast_json(const Plan& plan, const Forecast& forecast, std::int64_t horizon,
                          const std::string* lost) {
  return json_document([&](JsonWriter& json) {
    json.begin_object();
    json.integer_member("now", plan.now);
    json.integer_member("until", horizon);
    json.integer_member("poll_interval", poll_interval_s(plan));
    json.text_member("lost_run", lost != nullptr ? *lost : std::string());
    json.boolean_member("cut", forecast.cut);
    json.key("runs");
    json.begin_array();
    for (const PlannedRun& run : forecast.runs) {
      json.begin_object();
      json.text_member("job", run.job->name.view());
      json.integer_member("start", run.start);
      json.integer_member("end", run.end);
      json.integer_member("duration", run.end - run.start);
      json.boolean_member("guessed", run.guessed);
      json.text_member("why", start_reason_name(run.reason));
      json.integer_member("late", run.late_s);
      json.end_object();
    }
    json.end_array();
    json.end_object();
  });
}

std::string forecast_picture(const Plan& plan, const Forecast& forecast, std::int64_t horizon,
                             std::uint32_t past) {
  // Past and future on one axis, now between them.
  Picture picture;
  picture.now = plan.now;
  picture.from = plan.now - past * kDay;
  picture.to = horizon;
  picture.title = clock_text(picture.from) + " to " + clock_text(picture.to);
  if (past > 0) add_history(picture, collect_history(plan, picture.from, nullptr));
  add_forecast(picture, forecast);
  return picture_svg(plan.config, picture);
}

}  // namespace

int forecast_command(const Plan& plan, const ForecastOptions& options) {
  const Durations durations = usual_durations(plan);
  const std::string* const lost = lost_run(plan);
  ForecastStart start;
  start.now = free_at(plan, durations);
  start.horizon = plan.now + options.days * kDay;  // from now, also when nothing can start yet
  start.by_hand = running_by_hand(plan);
  const Forecast forecast = make_forecast(plan.config, plan.queue, durations, start);
  // With the picture on standard output, nothing else goes there.
  if (options.svg == nullptr || std::string_view(options.svg) != "-") {
    if (options.json) {
      print(forecast_json(plan, forecast, start.horizon, lost));
    } else {
      if (lost != nullptr) {
        print("The tool of a run of job '" + printable(*lost) +
              "' whose scheduler is gone is still running: nothing starts before it ends.\n\n");
      }
      print(forecast_text(plan, forecast, options.days));
    }
  }
  if (options.svg == nullptr) return kExitOk;
  return write_picture(forecast_picture(plan, forecast, start.horizon, options.past), options.svg);
}

int history_command(const Plan& plan, const HistoryOptions& options) {
  const History history = collect_history(plan, plan.now - options.days * kDay, options.job);
  // With the picture on standard output, nothing else goes there.
  if (options.svg == nullptr || std::string_view(options.svg) != "-") {
    print(options.json ? history_json(plan, history) : history_text(plan, history));
  }
  if (options.svg == nullptr) return kExitOk;
  Picture picture;
  picture.now = picture.to = plan.now;
  picture.from = history.from;
  picture.title = clock_text(picture.from) + " to " + clock_text(picture.to);
  add_history(picture, history);
  return write_picture(picture_svg(plan.config, picture), options.svg);
}

}  // namespace orv
