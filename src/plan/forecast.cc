#include "plan/forecast.h"

#include <algorithm>
#include <queue>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "plan/past_runs.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

constexpr std::size_t kLogsRead = 10;  // of a job, for its usual duration

// One job of the simulation. Positions stand for jobs: those of the configuration, in its order.
struct Actor {
  const Job* job = nullptr;
  QueueRecord* record = nullptr;  // in the simulation's queue
  std::int64_t duration_s = kGuessedDuration;
  bool guessed = true;
  std::vector<std::size_t> dependants;
};

class Simulation {
 public:
  Simulation(const Config& config, QueueState& queue, const Durations& durations,
             const ForecastStart& start)
      : queue_(queue), start_(start), now_(start.now) {
    make_actors(config, durations);
  }

  Forecast play() {
    finish_running_jobs();
    for (std::size_t i = 0; i < actors_.size(); ++i) expect(i);
    while (now_ <= start_.horizon && !out_.cut) {
      for (; !times_.empty() && times_.top().first <= now_; times_.pop()) {
        candidates_.insert(times_.top().second);
      }
      if (run_first_due()) continue;
      if (times_.empty()) break;
      now_ = times_.top().first;  // what depends on others alone waits for a run
    }
    return std::move(out_);
  }

 private:
  using Time = std::pair<std::int64_t, std::size_t>;  // a moment, and the job it makes due

  void make_actors(const Config& config, const Durations& durations) {
    std::unordered_map<std::string_view, std::size_t> places;
    for (const Job& job : config.jobs) {
      QueueRecord* const record = queue_find(queue_, job.name.view());
      if (record == nullptr) continue;  // unknown to the daemon: it would not start it
      places.emplace(job.name.view(), actors_.size());
      Actor& actor = actors_.emplace_back();
      actor.job = &job;
      actor.record = record;
      if (const auto known = durations.find(job.name.view()); known != durations.end()) {
        actor.duration_s = known->second;
        actor.guessed = false;
      }
    }
    for (std::size_t i = 0; i < actors_.size(); ++i) {
      for (const JobName& name : actors_[i].job->after) {
        const auto at = places.find(name.view());
        if (at != places.end()) actors_[at->second].dependants.push_back(i);
      }
    }
  }

  // A job can become due when its time comes and when a run ends, its own or one that it waits for:
  // only then is it asked again.
  void expect(std::size_t i) {
    candidates_.insert(i);
    const std::int64_t next = actors_[i].record->next_run;
    if (actors_[i].job->enabled && next > now_ && next != kNever) times_.emplace(next, i);
  }

  bool run_first_due() {
    while (!candidates_.empty()) {
      const std::size_t i = *candidates_.begin();
      std::int64_t stamp = 0;
      if (queue_job_due(queue_, *actors_[i].job, now_, stamp)) {
        out_.cut = out_.runs.size() == kMaxForecastRuns;
        if (!out_.cut) run(i, stamp);
        return true;
      }
      candidates_.erase(i);
    }
    return false;
  }

  void run(std::size_t i, std::int64_t stamp) {
    const Actor& actor = actors_[i];
    const Job& job = *actor.job;
    PlannedRun run;
    run.job = &job;
    run.start = now_;
    run.end = now_ + actor.duration_s;
    run.guessed = actor.guessed;
    run.reason = !job.after.empty() ? StartReason::After
                 : job.has_schedule ? StartReason::Schedule
                                    : StartReason::Once;
    const std::int64_t time = actor.record->next_run;
    const bool timed = has_time(job) && time > 0 && time != kNever;
    // Lateness counts from the later of the two things that let the run start.
    const std::int64_t due = std::max(timed ? time : 0, stamp);
    if (due > 0) run.late_s = now_ - due;
    out_.runs.push_back(run);
    record_end(actor, run.start, run.end);
    set_next(actor, run.end, stamp);
    now_ = run.end;  // one at a time: nothing starts in between
    expect(i);
    for (const std::size_t dependant : actor.dependants) candidates_.insert(dependant);
  }

  // Ends the run as the daemon does, as if the tool had exited 0.
  static void record_end(const Actor& actor, std::int64_t start, std::int64_t end) {
    record_set_state(*actor.record, JobState::Done);
    queue_set_runner_pid(*actor.record, 0);
    actor.record->started_at = start;
    actor.record->finished_at = end;
  }

  static void set_next(const Actor& actor, std::int64_t end, std::int64_t stamp) {
    if (actor.job->has_schedule) {
      actor.record->next_run = first_next_run(*actor.job, end);
    } else if (actor.job->has_once) {
      actor.record->next_run = kNever;
    }
    if (!actor.job->after.empty()) actor.record->after_stamp = stamp;
  }

  // What runs at this moment goes on until its usual duration is over, or ends now when it is
  // overdue.
  void finish_running_jobs() {
    for (const Actor& actor : actors_) {
      QueueRecord& record = *actor.record;
      if (record_state(record) != JobState::Running) continue;
      PlannedRun run;
      run.job = actor.job;
      run.reason = StartReason::Running;
      run.start = std::clamp(std::int64_t{record.started_at}, std::int64_t{0}, now_);
      run.end = std::max(now_, run.start + actor.duration_s);
      run.guessed = actor.guessed;
      out_.runs.push_back(run);
      const auto& by_hand = start_.by_hand;
      // The API can also make the daemon run a job ahead of its time.
      const bool asked_for = std::find(by_hand.begin(), by_hand.end(), actor.job) != by_hand.end();
      record_end(actor, run.start, run.end);
      if (!asked_for && (record.next_run <= run.start || !actor.job->after.empty())) {
        set_next_of_running(actor, run);
      }
      now_ = run.end;
    }
  }

  // Which ends of others this run was started for is known to the daemon alone: all up to now.
  void set_next_of_running(const Actor& actor, const PlannedRun& run) {
    std::int64_t stamp = actor.record->after_stamp;
    for (const JobName& name : actor.job->after) {
      const QueueRecord* const other = queue_find(queue_, name.view());
      if (other != nullptr) stamp = std::max(stamp, std::int64_t{other->finished_at});
    }
    const std::int64_t kept = actor.record->next_run;
    set_next(actor, run.end, stamp);
    if (kept > run.start) actor.record->next_run = kept;
  }

  QueueState& queue_;
  const ForecastStart& start_;
  std::int64_t now_;
  std::vector<Actor> actors_;
  std::set<std::size_t> candidates_;  // that may have become due, in the order of the file
  std::priority_queue<Time, std::vector<Time>, std::greater<>> times_;
  Forecast out_;
};

}  // namespace

Durations usual_durations(const Plan& plan) {
  Durations durations;
  for (const Job& job : plan.config.jobs) {
    JobRuns runs = runs_of(plan, job);
    if (const auto seconds = usual_duration(runs, kLogsRead)) {
      durations.emplace(job.name.view(), *seconds);
    }
  }
  return durations;
}

const char* start_reason_name(StartReason reason) {
  switch (reason) {
    case StartReason::Running: return "running";
    case StartReason::Schedule: return "schedule";
    case StartReason::Once: return "once";
    case StartReason::After: return "after";
  }
  return "?";
}

Forecast make_forecast(const Config& config, QueueState queue, const Durations& durations,
                       const ForecastStart& start) {
  return Simulation(config, queue, durations, start).play();
}

}  // namespace orv
