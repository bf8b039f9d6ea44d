#include "api/job_object.h"

#include <algorithm>

namespace orv {
namespace {

void write_number_or_null(JsonWriter& json, std::int64_t value, bool known) {
  if (known) {
    json.integer(value);
  } else {
    json.null();
  }
}

void write_tristate(JsonWriter& json, Tristate value) {
  if (value == Tristate::Unset) {
    json.null();
  } else {
    json.boolean(value == Tristate::Yes);
  }
}

void write_text(JsonWriter& json, std::string_view key, std::string_view text) {
  json.key(key);
  json.string_or_null(text);
}

void write_state(JsonWriter& json, const Job& job, const LiveState& live, const QueueState& queue) {
  json.key("state");
  const QueueRecord* const found = queue_find(queue, job.name.view());
  if (found == nullptr) {
    json.null();
    return;
  }
  const QueueRecord& record = *found;
  const bool runs_now = live.running.job == job.name;
  const bool has_run = record.finished_at != 0;
  json.begin_object();
  json.key("status");
  json.string(state_name(runs_now ? JobState::Running : record_state(record)));
  json.key("next_run");
  write_number_or_null(json, record.next_run, record.next_run != kNever && record.next_run != 0);
  json.key("last_run");
  write_number_or_null(json, record.started_at, record.started_at != 0);
  json.key("last_finish");
  write_number_or_null(json, record.finished_at, has_run);
  json.key("last_exit_code");
  write_number_or_null(json, record.exit_code, has_run);
  json.key("run_requested");
  json.boolean(is_run_queued(live, job.name.view()));
  json.end_object();
}

void write_start_settings(JsonWriter& json, const Job& job) {
  write_text(json, "schedule", job.schedule_text.view());
  write_text(json, "once", job.once_text.view());
  json.key("once_unix");
  write_number_or_null(json, job.once, job.has_once);
  json.key("after");
  json.begin_array();
  for (const JobName& name : job.after) json.string(name.view());
  json.end_array();
  const char* const mode = job.after_mode == AfterMode::Finished ? "finished" : "success";
  write_text(json, "after_mode", job.after_mode_given ? mode : "");
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
  write_text(json, "name", job.name.view());
  write_text(json, "command", command_name(job.command));
  write_text(json, "profile", job.profile.view());
  write_text(json, "args", job.args_text.view());
  write_start_settings(json, job);
  json.key("enabled");
  json.boolean(job.enabled);
  json.key("timeout_seconds");
  write_number_or_null(json, job.timeout_s, job.timeout_s != 0);
  write_text(json, "notify", notify_name(job.notify));
  json.key("run_background");
  write_tristate(json, job.run_background);
  json.key("start_background");
  write_tristate(json, job.start_background);
  write_text(json, "retention", job.retention.view());
  write_text(json, "retention_class", job.retention_class.view());
  json.key("api_allowed");
  json.boolean(command_allowed(live.config->api.allowed_commands, job.command));
  write_state(json, job, live, queue);
  json.end_object();
}

}  // namespace orv
