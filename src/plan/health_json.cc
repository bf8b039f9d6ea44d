// Health as a JSON object. docs/orv_plan.8 describes it field by field: names are never changed.
#include "plan/health_report.h"
#include "plan/json_document.h"

namespace orv {
namespace {

void write_scheduler(JsonWriter& json, const HealthReport& report) {
  json.key("scheduler");
  json.begin_object();
  // Three answers: null says that the processes of others are hidden from the asker.
  json.key("daemon_running");
  if (report.daemon.running) {
    json.boolean(*report.daemon.running);
  } else {
    json.null();
  }
  json.integer_member("daemon_pid", report.daemon.pid, report.daemon.pid != 0);
  known_member(json, "daemon_since", report.daemon.since);
  json.text_member("configuration", report.config_path);
  json.boolean_member("configuration_valid", report.config_message.empty());
  json.text_member("configuration_message", report.config_message);
  known_member(json, "configuration_age", report.config_age);
  json.text_member("queue", report.queue_path);
  json.text_member("queue_message", report.queue_message);
  json.text_member("logs", report.logs_path);
  json.text_member("logs_message", report.logs_message);
  json.end_object();
}

// Results are those of the newest run that has ended; a running one has none yet.
void write_job(JsonWriter& json, const HealthReport& report, const JobHealth& row) {
  const JobFacts& facts = row.facts;
  json.begin_object();
  json.text_member("job", row.job->name.view());
  json.text_member("health", health_name(row.health));
  json.text_member("reason", row.reason);
  json.boolean_member("enabled", facts.enabled);
  known_member(json, "running_since", facts.running_since);
  known_member(json, "last_run", start_of(facts.last_run));
  json.text_member("last_result",
                   facts.last_finished ? past_outcome_name(facts.last_finished->outcome) : "");
  known_member(json, "last_exit_code",
               facts.last_finished ? facts.last_finished->exit_code : std::nullopt);
  known_member(json, "last_duration",
               facts.last_finished ? facts.last_finished->duration_s() : std::nullopt);
  known_member(json, "last_success", start_of(facts.last_success));
  known_member(json, "usual_duration", facts.usual_s);
  json.integer_member("consecutive_failures", facts.failures, facts.logs_known);
  known_member(json, "failing_since", facts.failing_since);
  known_member(json, "next_run", facts.next_run);
  known_member(json, "due_since", facts.due_since);
  known_member(json, "stale_after", stale_after(facts, report.max_age));
  json.integer_member("time_limit", facts.time_limit);
  known_member(json, "log_bytes", facts.log_bytes);
  json.key("notes");
  json.begin_array();
  for (const LogNote& note : row.notes) json.string(note.log + " " + note.text);
  json.end_array();
  json.end_object();
}

}  // namespace

std::string health_json(const HealthReport& report) {
  return json_document([&](JsonWriter& json) {
    json.begin_object();
    // Ages are left to the reader, who has the time of the answer to subtract from.
    json.integer_member("now", report.now);
    json.boolean_member("healthy", !health_wrong(report));
    write_scheduler(json, report);
    // No jobs and unknown jobs are two answers.
    json.key("jobs");
    if (report.config_message.empty()) {
      json.begin_array();
      for (const JobHealth& row : report.jobs) write_job(json, report, row);
      json.end_array();
    } else {
      json.null();
    }
    json.end_object();
  });
}

}  // namespace orv
