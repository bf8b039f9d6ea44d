// GET info: the service, the token that asks, and what it may do.
#include <array>

#include "api/auth.h"
#include "api/endpoints.h"
#include "common/files.h"
#include "common/version.h"
#include "config/config.h"
#include "json/json.h"

namespace orv {
namespace {

// "time" lets clients with a wrong clock sign with the server's.
void write_server(JsonWriter& json, const ApiCall& call) {
  std::array<char, kMaxHostName + 1> host;
  json.integer_member("api_version", 1);
  json.text_member("server", kProgramName);
  json.text_member("version", kVersion);
  json.text_member("build", kBuild);
  json.text_member("host", host_name(host));
  json.integer_member("time", call.request.now);
  json.integer_member("daemon_started", call.live.daemon_started);
  json.text_member("running_job", call.live.running.job.view());
  json.key("run_queue");
  json.begin_array();
  for (const RunRequest& request : call.live.run_queue) json.string(request.job.view());
  json.end_array();
}

// Of the loaded configuration, because that is what requests are judged by.
void write_policy(JsonWriter& json, const ApiSection& api) {
  json.key("policy");
  json.begin_object();
  json.boolean_member("allow_config_write", api.allow_config_write);
  json.boolean_member("allow_args", api.allow_args);
  json.key("allowed_commands");
  json.begin_array();
  for (const JobCommandRow& row : job_commands()) {
    if (command_allowed(api.allowed_commands, row.command)) json.string(row.name);
  }
  json.end_array();
  json.end_object();
}

void write_commands(JsonWriter& json) {
  json.key("commands");
  json.begin_array();
  for (const JobCommandRow& row : job_commands()) {
    json.begin_object();
    json.text_member("name", row.name);
    // The same commands take a profile and --background.
    json.boolean_member("profile", row.takes_background);
    json.boolean_member("retention", row.takes_retention);
    json.end_object();
  }
  json.end_array();
}

// So that a client need not know them: they are the constants that requests are checked against.
void write_limits(JsonWriter& json) {
  json.key("limits");
  json.begin_object();
  json.integer_member("max_body_bytes", static_cast<std::int64_t>(kJsonRequestLimits.max_bytes));
  json.integer_member("jobs_page_max", kJobsPageMax);
  json.integer_member("log_chunk_max", kLogChunkMax);
  json.integer_member("timestamp_window_seconds", kTimestampWindow);
  json.end_object();
}

}  // namespace

void get_info(ApiCall& call) {
  // Only the tag is needed of it. A file that cannot be read is worth an error here, too: a client
  // that starts with this request learns of it at once.
  const SnapshotPtr snapshot = snapshot_of(call);
  if (!snapshot) return;
  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_server(json, call);
  write_config_etag(call.reply, snapshot->etag);
  json.key("token");
  json.begin_object();
  json.text_member("name", call.request.token_name);
  json.text_member("role", role_name(call.request.role));
  json.end_object();
  write_policy(json, call.live.config->api);
  write_commands(json);
  write_limits(json);
  json.boolean_member("mail_configured", call.live.config->mail.present);
  json.end_object();
  reply_finish(call.reply, 200);
}

}  // namespace orv
