#include "sched/dispatch.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <memory>
#include <utility>

#include "common/log.h"
#include "common/times.h"
#include "config/config.h"
#include "config/job_command.h"
#include "sched/queue_file.h"
#include "sched/queue_runner.h"
#include "sched/queue_schedule.h"
#include "sched/queue_warnings.h"
#include "sched/result_mail.h"
#include "sched/stop_signals.h"

namespace orv {
namespace {

// What could not be written is kept in memory and tried again in each pass; reading the file
// instead would forget that a job has run, and start it again.
void note_save(Dispatch& d, ErrorCode rc) {
  queue_log_unsaved(d.queue, rc, " -- the changes are kept in memory");
}

bool same_run(const QueueRecord& a, const QueueRecord& b) {
  return a.state_and_pid == b.state_and_pid && a.started_at == b.started_at &&
         a.finished_at == b.finished_at && a.exit_code == b.exit_code;
}

// Brings unsaved changes over to the records just read from the disk. Others only ever add a run:
// one that the disk did not have when memory last agreed with it counts, whatever the clock said,
// but when the job is to run next is decided here alone.
void carry_over(const QueueState& memory, QueueState& disk) {
  QueueState known;
  known.replace_all(memory.saved());
  std::vector<QueueRecord> added;
  for (const QueueRecord& record : memory.records()) {
    const QueueRecord* const before = queue_find(known, record_name(record));
    if (before != nullptr && *before == record) continue;
    QueueRecord* const present = queue_find(disk, record_name(record));
    if (present == nullptr) {
      added.push_back(record);
    } else if (before != nullptr && same_run(*before, *present)) {
      *present = record;
    } else {
      present->next_run = record.next_run;
      present->schedule_fingerprint = record.schedule_fingerprint;
      present->after_stamp = record.after_stamp;
    }
  }
  disk.append(added);
}

void read_queue(Dispatch& d) {
  d.lock = queue_lock(d.queue.path.c_str());
  if (!d.lock.valid()) {
    log_msg(LogLevel::Error, "orv_sched: cannot lock the queue %s -- using the in-memory copy",
            d.queue.path.c_str());
    return;
  }
  QueueState memory;
  const bool unsaved = d.queue.unsaved();
  if (unsaved) memory = d.queue;
  if (queue_reload(d.queue) != ErrorCode::Ok) {
    log_msg(LogLevel::Error, "orv_sched: cannot re-read the queue %s -- using the in-memory copy",
            d.queue.path.c_str());
    return;
  }
  if (!unsaved) return;
  carry_over(memory, d.queue);
  if (d.queue.unsaved()) note_save(d, queue_save(d.queue));
}

void reconcile(Dispatch& d, std::int64_t now) {
  note_save(d, queue_sync_with_config(d.queue, *d.live.config, now));
  note_save(d, queue_drop_far_retries(d.queue, *d.live.config, now, d.settings.busy_retry_s));
}

void reload_config(Dispatch& d, std::int64_t now) {
  std::array<char, kConfigMessageSize> reason{};
  const int rc = dispatch_load_config(d, reason);
  if (rc != 0) {
    log_msg(LogLevel::Error, "orv_sched: config reload failed, keeping previous config: %s",
            reason.data());
    if (rc == kConfigUnreadNow) d.identity = {};  // no file's: the next pass tries again
    reconcile(d, now);
    return;
  }
  log_msg(LogLevel::Info, "orv_sched: reloaded %s", d.settings.config_path.c_str());
  dispatch_adopt_config(d, now);
  dispatch_apply_network(d);
}

// The identity is read before the file: an edit that comes between the two is seen by the next
// pass.
void follow_config_file(Dispatch& d, std::int64_t now) {
  const bool changed_by_api = std::exchange(d.live.config_changed, false);
  const FileIdentity identity = file_identity(d.settings.config_path.c_str());
  const bool same = identity == d.identity;
  d.identity = identity;
  if (changed_by_api || !same) {
    reload_config(d, now);
  } else {
    reconcile(d, now);
  }
}

// Whether a job runs that this process has not started; reported once for each run.
bool busy_elsewhere(Dispatch& d) {
  std::optional<Obstacle> obstacle = find_obstacle(d.queue);
  if (obstacle && obstacle != d.reported_obstacle) {
    const bool odd = obstacle->lost || obstacle->unread != 0;
    log_msg(odd ? LogLevel::Warn : LogLevel::Info, "orv_sched: %s",
            waiting_text(*obstacle).c_str());
  }
  d.reported_obstacle = std::move(obstacle);
  return d.reported_obstacle.has_value();
}

// Whether it is time to wait although there may be more to do. Jobs that are due again by the clock
// as soon as they have run may well keep each other going; so many starts by dependencies alone
// mean that one job was started twice with nothing new in between, which only a cycle can do.
bool guard_trips(Dispatch& d) {
  const std::size_t most = d.live.config->jobs.size() + 1;
  if (++d.passes_since_wait <= most) return false;
  if (d.starts_by_dependency >= most) {
    log_msg(
        LogLevel::Error,
        "orv_sched: safety guard tripped in the dispatch loop (should be impossible, cycles are "
        "rejected at load time)");
  }
  return true;
}

// What the service manager shows for the time of a run; nothing is made up when there is none.
void report_running(const Dispatch& d, const Job& job) {
  if (!d.manager.present()) return;
  d.manager.status("running job '" + std::string(job.name.view()) + "' since " +
                   local_time_cell(std::time(nullptr)));
}

// A run reads the queue again at its end; what could not be saved before it is carried over it.
JobRunResult run(Dispatch& d, const Job& job) {
  report_running(d, job);
  QueueState before;
  if (d.queue.unsaved()) before = d.queue;
  JobRunResult result = run_job(job, d.settings.run, d.queue, d.lock, &d.poller, &d.live.running);
  carry_over(before, d.queue);
  return result;
}

// The end of every run: what happened is written before anybody hears of it. Without the lock it
// waits for the next pass, which tries to have it: others may have changed the queue meanwhile.
void finish_run(Dispatch& d, const Job& job, const JobRunResult& result) {
  if (d.lock.valid()) note_save(d, queue_save(d.queue));
  d.lock.reset();
  send_result_mail(*d.live.config, job.name.view(), result, &d.live.net);
}

void run_requested(Dispatch& d) {
  const RunRequest request = d.live.run_queue.front();
  d.live.run_queue.erase(d.live.run_queue.begin());
  const Job* const job = find_job(*d.live.config, request.job.view());
  if (job == nullptr || queue_find(d.queue, request.job.view()) == nullptr) {
    log_msg(LogLevel::Warn,
            "orv_sched: API run request for job '%s' dropped: no such job (any more)",
            request.job.c_str());
  } else if (!command_allowed(d.live.config->api.allowed_commands, job->command)) {
    log_msg(LogLevel::Warn,
            "orv_sched: API run request for job '%s' dropped: command not allowed through the API",
            request.job.c_str());
  } else {
    log_msg(LogLevel::Info, "orv_sched: job '%s' started on request of API token '%s'",
            request.job.c_str(), request.token.c_str());
    finish_run(d, *job, run(d, *job));
  }
  d.passes_since_wait = 0;
  d.starts_by_dependency = 0;
}

// Sets when the job runs next, and what it need not run for again.
void plan_next_run(Dispatch& d, const Job& job, RunResult result, std::int64_t dependency_finish,
                   std::int64_t now) {
  QueueRecord* const record = queue_find(d.queue, job.name.view());
  if (record == nullptr) return;
  if (result == RunResult::Busy) {
    record->next_run = now + d.settings.busy_retry_s;
    return;
  }
  if (job.has_schedule) {
    record->next_run = first_next_run(job, now);
  } else if (job.has_once) {
    record->next_run = kNever;  // a once job runs once, whatever its result
  }
  record->schedule_fingerprint = schedule_fingerprint(job);
  if (!job.after.empty()) record->after_stamp = dependency_finish;
}

// A signal that is to stop the daemon does not stop the job: whoever sent it wants to know what it
// waits for, which may take hours.
void report_waiting_stop(Dispatch& d) {
  if (!stop_requested() || d.stop_reported) return;
  d.stop_reported = true;
  const std::string text = "stopping after job '" + std::string(d.live.running.job.view()) + "'";
  log_msg(LogLevel::Info, "orv_sched: %s, which is still running", text.c_str());
  d.manager.stopping(text);
}

// Runs the first job that is due; false when none is.
bool run_due(Dispatch& d) {
  for (const Job& job : d.live.config->jobs) {
    std::int64_t dependency_finish = 0;
    if (!queue_job_due(d.queue, job, std::time(nullptr), dependency_finish)) continue;
    const QueueRecord& record = *queue_find(d.queue, job.name.view());
    const bool by_clock = has_time(job) || waits_for_retry(record);
    d.starts_by_dependency = by_clock ? 0 : d.starts_by_dependency + 1;
    const JobRunResult result = run(d, job);
    plan_next_run(d, job, result.result, dependency_finish, std::time(nullptr));
    finish_run(d, job, result);
    return true;
  }
  return false;
}

}  // namespace

Dispatch::Dispatch(const DaemonSettings& settings_in, LiveState& live_in, ApiHandler handler_in,
                   void* handler_context_in)
    : settings(settings_in),
      live(live_in),
      handler(handler_in),
      handler_context(handler_context_in) {
  poller.context = this;
  poller.poll = [](void* context) {
    auto& d = *static_cast<Dispatch*>(context);
    net_pump(d.live.net);
    report_waiting_stop(d);
    return d.live.running.cancel_requested ? StopRequest::Terminate : StopRequest::None;
  };
  poller.wait_fd = [](void* context) {
    return net_wait_fd(static_cast<Dispatch*>(context)->live.net);
  };
}

int dispatch_load_config(Dispatch& d, std::span<char> reason) {
  LiveState& live = d.live;
  const std::string& path = d.settings.config_path;
  if (const SnapshotPtr snapshot = current_snapshot(path, live.snapshot, reason)) {
    live.config = snapshot->config;
  } else {
    // The loader takes files that are too large for a snapshot, and has its own words for faults.
    const auto config = std::make_shared<Config>();
    if (const int rc = config_load(path.c_str(), *config, reason); rc != 0) return rc;
    live.config = config;
  }
  if (!live.config->api.enabled) live.snapshot.reset();  // nobody will ask for it
  return 0;
}

void dispatch_adopt_config(Dispatch& d, std::int64_t now) {
  reconcile(d, now);
  note_save(d, queue_refresh_schedules_and_save(d.queue, *d.live.config, now));
  queue_warn_of_times(d.queue, *d.live.config, now);
}

void dispatch_sweep(Dispatch& d) { note_save(d, queue_sweep_stale_runners(d.queue)); }

void dispatch_apply_network(Dispatch& d) {
  net_set_mail(d.live.net, d.live.config->mail);
  net_set_api(d.live.net, d.live.config->api, d.handler, d.handler_context);
}

PassEnd dispatch_pass(Dispatch& d) {
  read_queue(d);
  follow_config_file(d, std::time(nullptr));
  dispatch_sweep(d);
  PassEnd end = PassEnd::Wait;
  if (!busy_elsewhere(d) && !guard_trips(d)) {
    if (!d.live.run_queue.empty()) {
      run_requested(d);
      end = PassEnd::Again;
    } else if (run_due(d)) {
      end = PassEnd::Again;
    }
    if (end == PassEnd::Again && !stop_requested()) d.manager.status(kIdleStatus);
  }
  d.lock.reset();
  return end;
}

}  // namespace orv
