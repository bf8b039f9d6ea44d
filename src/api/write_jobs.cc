// The endpoints that create, change, delete and check jobs.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/commit.h"
#include "api/endpoints.h"
#include "api/job_body.h"
#include "api/snapshot.h"
#include "sched/queue_file.h"
#include "sched/queue_runner.h"

namespace orv {
namespace {

// One job definition on its way from a body into the file's text.
struct JobChange {
  std::string_view name;
  const JsonValue& body;
  const ConfigSnapshot& snapshot;
  const Job* existing;  // null when the job is new
  std::vector<KeyEdit> edits;
};

bool check_name(ApiReply& reply, std::string_view name) {
  if (check_api_job_name(name)) return true;
  reply_error(reply, 400, "invalid_name",
              "job names created through the API must match [A-Za-z0-9][A-Za-z0-9._-]{0,63} and "
              "must not be sched, mail or api");
  return false;
}

std::vector<KeyEdit>::iterator find_edit(std::vector<KeyEdit>& edits, std::string_view key) {
  return std::find_if(edits.begin(), edits.end(),
                      [key](const KeyEdit& edit) { return edit.key == key; });
}

// The command that the job will have.
JobCommand effective_command(JobChange& change) {
  JobCommand command = change.existing != nullptr ? change.existing->command : JobCommand::Agent;
  const auto edit = find_edit(change.edits, "command");
  if (edit == change.edits.end()) return command;
  command = JobCommand::Agent;                                  // what a job without the line runs
  if (edit->value) (void)parse_command(*edit->value, command);  // a known one: it was read so
  return command;
}

bool check_command(ApiCall& call, JobChange& change) {
  const std::uint32_t allowed = call.live.config->api.allowed_commands;
  if (change.existing != nullptr && !command_allowed(allowed, change.existing->command)) {
    reply_error(call.reply, 403, "command_not_allowed",
                "job '%s' has command '%s', which the API may not change ([api] allowed-commands)",
                change.existing->name.c_str(), command_name(change.existing->command));
    return false;
  }
  const JobCommand command = effective_command(change);
  if (command_allowed(allowed, command)) return true;
  reply_error(call.reply, 403, "command_not_allowed",
              "command '%s' may not be used through the API ([api] allowed-commands)",
              command_name(command));
  return false;
}

// Clients send back whole jobs: without leave to change the arguments, the same text is no change,
// and its line is left as it is written.
bool check_args(ApiCall& call, JobChange& change) {
  if (call.live.config->api.allow_args) return true;
  const auto edit = find_edit(change.edits, "args");
  if (edit == change.edits.end()) return true;
  const std::string_view present =
      change.existing != nullptr ? change.existing->args_text.view() : std::string_view{};
  if (edit->value.value_or("") != present) {
    reply_error(call.reply, 403, "args_not_allowed",
                "'args' may not be set or changed through the API ([api] allow-args=no)");
    return false;
  }
  change.edits.erase(edit);
  return true;
}

// The file's text with the job as the body defines it. False after an error reply.
bool build_job_text(ApiCall& call, JobChange& change, DraftText& draft) {
  if (!read_body_fields(call.reply, change.body, job_body_fields(), change.edits)) return false;
  if (!check_command(call, change) || !check_args(call, change)) return false;
  if (change.existing == nullptr) {
    std::erase_if(change.edits, [](const KeyEdit& edit) { return !edit.value; });
  }
  std::optional<std::string> text =
      set_keys(change.snapshot.text.view(), change.name, change.edits);
  if (!text) {
    reply_error(call.reply, 400, "invalid_value",
                "a value cannot be written to the configuration file");
    return false;
  }
  draft.text = std::move(*text);
  return true;
}

// The new text was just proved to load. Should it not do so again (a password file is gone), the
// change is still made, and the reply has its tag.
void reply_written_job(ApiCall& call, const DraftText& draft, const EntityTag& etag,
                       std::uint32_t status) {
  char err[kConfigMessageSize];
  const auto config = std::make_unique<Config>();
  const int rc = config_parse(draft.text, call.live.config_path.c_str(), *config, err);
  const Job* job = rc == 0 ? find_job(*config, call.name()) : nullptr;
  if (job != nullptr) {
    reply_job(call, etag, *config, *job, status);
    return;
  }
  call.reply.json.begin_object();
  write_config_etag(call.reply, etag);
  call.reply.json.key("job");
  call.reply.json.null();
  call.reply.json.end_object();
  reply_finish(call.reply, status);
}

// Whether the daemon, or another process of the scheduler, is running the job.
bool is_running(const ApiCall& call, const JobName& job) {
  if (call.live.running.job == job) return true;
  QueueState queue;
  if (queue_load_readonly(queue, call.live.queue_path.c_str()) != ErrorCode::Ok) return false;
  const QueueRecord* record = queue_find(queue, job.view());
  return record != nullptr && queue_runner_alive(*record);
}

const Job* find_dependant(const Config& config, const JobName& name) {
  for (const Job& job : config.jobs) {
    if (job.name == name) continue;
    if (std::find(job.after.begin(), job.after.end(), name) != job.after.end()) return &job;
  }
  return nullptr;
}

bool may_delete(ApiCall& call, const ConfigSnapshot& snapshot, const Job& job) {
  if (!check_if_match(call, snapshot)) return false;
  if (is_running(call, job.name)) {
    reply_error(call.reply, 409, "job_running", "job '%s' is running", job.name.c_str());
    return false;
  }
  const Job* dependant = find_dependant(*snapshot.config, job.name);
  if (dependant == nullptr) return true;
  reply_error(call.reply, 409, "job_referenced", "job '%s' is named in 'after' of job '%s'",
              job.name.c_str(), dependant->name.c_str());
  return false;
}

void reply_verdict(ApiCall& call, bool valid) {
  const std::string error(call.reply.body);  // the reply that a PUT would have got
  call.reply.reset();
  JsonWriter& json = call.reply.json;
  json.begin_object();
  json.boolean_member("valid", valid);
  json.key("result");
  if (valid) {
    json.null();
  } else {
    json.raw(error);
  }
  json.end_object();
  reply_finish(call.reply, 200);
}

}  // namespace

void put_job(ApiCall& call) {
  const auto body = read_body_object(call.reply, call.request.http.body);
  if (!body || !only_known_fields(call.reply, *body, field_names(job_body_fields()))) return;
  if (!check_name(call.reply, call.name())) return;
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return;
  if (!check_if_match(call, snapshot)) return;
  JobChange change{call.name(), *body, snapshot, find_job(*snapshot.config, call.name()), {}};
  DraftText draft;
  if (!build_job_text(call, change, draft)) return;
  const bool created = change.existing == nullptr;
  std::string description = created ? "created job '" : "updated job '";
  description.append(call.name()).append("'");
  EntityTag etag;
  if (!commit_change(call, snapshot, draft, description, etag)) return;
  reply_written_job(call, draft, etag, created ? 201 : 200);
}

void delete_job(ApiCall& call) {
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return;
  const Job* job = find_job(*snapshot.config, call.name());
  std::optional<std::string> text;
  if (job != nullptr) {  // sched, mail and api are never jobs
    if (!may_delete(call, snapshot, *job)) return;
    text = remove_section(snapshot.text.view(), call.name());
  }
  if (!text) {
    reply_no_job(call);
    return;
  }
  DraftText draft;
  draft.text = std::move(*text);
  std::string description = "deleted job '";
  description.append(call.name()).append("'");
  EntityTag etag;
  if (commit_change(call, snapshot, draft, description, etag)) reply_changed(call, etag);
}

void validate_job(ApiCall& call) {
  const auto body = read_body_object(call.reply, call.request.http.body);
  const std::string fields = "name " + field_names(job_body_fields());
  if (!body || !only_known_fields(call.reply, *body, fields)) return;
  const std::optional<std::string_view> name = json_string(json_member(body.get(), "name"));
  if (!name) {
    reply_error(call.reply, 400, "invalid_value", "'name' (string) is required");
    return;
  }
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return;
  JobChange change{*name, *body, snapshot, find_job(*snapshot.config, *name), {}};
  DraftText draft;
  const bool valid = check_name(call.reply, *name) && build_job_text(call, change, draft) &&
                     validate_change(call, draft);
  reply_verdict(call, valid);
}

}  // namespace orv
