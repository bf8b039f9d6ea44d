#include "api/job_object.h"

#include <algorithm>

#include "sched/queue_file.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

// Not set is null, which is another thing than "no".
void write_tristate(JsonWriter& json, std::string_view key, Tristate value) {
  json.key(key);
  if (value == Tristate::Unset) {
    json.null();
  } else {
    json.boolean(value == Tristate::Yes);
  }
}

void write_state(JsonWriter& json, const Job& job, const LiveState& live, const QueueState& queue) {
  json.key("state");
  const QueueRecord* const found = queue_find(queue, job.name.view());
  if (found == nullptr) {
    json.null();
    return;
  }
  const QueueRecord& record = *found;
  // The record on disk says so as well, but a moment later and not when it could not be saved.
  const bool runs_now = live.running.job == job.name;
  const bool has_run = record.finished_at != 0;
  json.begin_object();
  json.text_member("status", state_name(runs_now ? JobState::Running : record_state(record)));
  // A time that never comes is null, as is one that was never computed.
  json.integer_member("next_run", record.next_run,
                      record.next_run != kNever && record.next_run != 0);
  json.integer_member("last_run", record.started_at, record.started_at != 0);
  json.integer_member("last_finish", record.finished_at, has_run);
  json.integer_member("last_exit_code", record.exit_code, has_run);
  json.boolean_member("run_requested", is_run_queued(live, job.name.view()));
  json.end_object();
}

void write_start_settings(JsonWriter& json, const Job& job) {
  json.text_member("schedule", job.schedule_text.view());
  json.text_member("once", job.once_text.view());
  json.integer_member("once_unix", job.once, job.has_once);
  json.key("after");
  json.begin_array();
  for (const JobName& name : job.after) json.string(name.view());
  json.end_array();
  const char* const mode = job.after_mode == AfterMode::Finished ? "finished" : "success";
  json.text_member("after_mode", job.after_mode_given ? mode : "");
}

}  // namespace

QueueState load_queue_view(const LiveState& live, const Config& config, std::int64_t now) {
  QueueState queue;
  if (queue_load_readonly(queue, live.queue_path.c_str()) == ErrorCode::Ok) {
    queue_view_with_config(queue, config, now);
  }
  return queue;
}

bool is_run_queued(const LiveState& live, std::string_view job) {
  return std::any_of(live.run_queue.begin(), live.run_queue.end(),
                     [job](const RunRequest& request) { return request.job == job; });
}

void write_job(JsonWriter& json, const Job& job, const LiveState& live, const QueueState& queue) {
  json.begin_object();
  json.text_member("name", job.name.view());
  json.text_member("command", command_name(job.command));
  json.text_member("profile", job.profile.view());
  json.text_member("args", job.args_text.view());
  write_start_settings(json, job);
  json.boolean_member("enabled", job.enabled);
  json.integer_member("timeout_seconds", job.timeout_s, job.timeout_s != 0);
  json.text_member("notify", notify_name(job.notify));
  write_tristate(json, "run_background", job.run_background);
  write_tristate(json, "start_background", job.start_background);
  json.text_member("retention", job.retention.view());
  json.text_member("retention_class", job.retention_class.view());
  // By the loaded policy, like every request for a run.
  json.boolean_member("api_allowed",
                      command_allowed(live.config->api.allowed_commands, job.command));
  write_state(json, job, live, queue);
  json.end_object();
}

}  // namespace orv
