// The endpoints that show the service, the jobs and the settings.
#include <algorithm>
#include <array>

#include "api/auth.h"
#include "api/endpoints.h"
#include "api/job_object.h"
#include "api/snapshot.h"
#include "common/files.h"
#include "common/version.h"

namespace orv {
namespace {

void write_text(JsonWriter& json, std::string_view key, std::string_view text) {
  json.key(key);
  json.string_or_null(text);
}

void write_integer(JsonWriter& json, std::string_view key, std::int64_t value) {
  json.key(key);
  json.integer(value);
}

void write_boolean(JsonWriter& json, std::string_view key, bool value) {
  json.key(key);
  json.boolean(value);
}

void write_integer_if_set(JsonWriter& json, std::string_view key, std::int64_t value) {
  json.key(key);
  if (value != 0) {
    json.integer(value);
  } else {
    json.null();
  }
}

void write_server(JsonWriter& json, const ApiCall& call) {
  std::array<char, kMaxHostName + 1> host;
  write_integer(json, "api_version", 1);
  write_text(json, "server", kProgramName);
  write_text(json, "version", kVersion);
  write_text(json, "build", kBuild);
  write_text(json, "host", host_name(host));
  write_integer(json, "time", call.request.now);
  write_integer(json, "daemon_started", call.live.daemon_started);
  write_text(json, "running_job", call.live.running.job.view());
  json.key("run_queue");
  json.begin_array();
  for (const RunRequest& request : call.live.run_queue) json.string(request.job.view());
  json.end_array();
}

void write_policy(JsonWriter& json, const ApiSection& api) {
  json.key("policy");
  json.begin_object();
  write_boolean(json, "allow_config_write", api.allow_config_write);
  write_boolean(json, "allow_args", api.allow_args);
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
    write_text(json, "name", row.name);
    write_boolean(json, "profile", row.takes_background);
    write_boolean(json, "retention", row.takes_retention);
    json.end_object();
  }
  json.end_array();
}

void write_limits(JsonWriter& json) {
  json.key("limits");
  json.begin_object();
  write_integer(json, "max_body_bytes", static_cast<std::int64_t>(kJsonRequestLimits.max_bytes));
  write_integer(json, "jobs_page_max", kJobsPageMax);
  write_integer(json, "log_chunk_max", kLogChunkMax);
  write_integer(json, "timestamp_window_seconds", kTimestampWindow);
  json.end_object();
}

void write_mail(JsonWriter& json, const MailSection& mail) {
  json.begin_object();
  write_text(json, "smtp_host", mail.smtp_host.view());
  write_integer(json, "smtp_port", mail.smtp_port);
  write_text(json, "tls", tls_mode_name(mail.tls));
  write_text(json, "smtp_user", mail.smtp_user.view());
  write_boolean(json, "smtp_password_set", mail.smtp_password_set);
  const char* const source = mail.smtp_password_kind == SecretKind::File ? "file" : "literal";
  write_text(json, "smtp_password_source", mail.smtp_password_set ? source : "");
  write_text(json, "from", mail.from.view());
  json.key("to");
  json.begin_array();
  for (const auto& address : mail.to) json.string(address.view());
  json.end_array();
  write_text(json, "ca_file", mail.ca_file.view());
  write_integer(json, "timeout_seconds", mail.timeout_s);
  write_text(json, "notify", notify_name(mail.notify));
  json.end_object();
}

}  // namespace

void get_info(ApiCall& call) {
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return;
  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_server(json, call);
  write_config_etag(call.reply, snapshot.etag);
  json.key("token");
  json.begin_object();
  write_text(json, "name", call.request.token_name);
  write_text(json, "role", role_name(call.request.role));
  json.end_object();
  write_policy(json, call.live.config->api);
  write_commands(json);
  write_limits(json);
  write_boolean(json, "mail_configured", call.live.config->mail.present);
  json.end_object();
  reply_finish(call.reply, 200);
}

void get_jobs(ApiCall& call) {
  const std::int64_t limit = call.page.count.value_or(kJobsPageMax);
  if (limit < 1 || limit > kJobsPageMax) {
    reply_error(call.reply, 400, "bad_query", "limit must be 1..%d",
                static_cast<int>(kJobsPageMax));
    return;
  }
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return;
  const QueueState queue = load_queue_view(call.live, *snapshot.config, call.request.now);
  const std::vector<Job>& jobs = snapshot.config->jobs;
  const auto total = static_cast<std::int64_t>(jobs.size());
  const std::int64_t begin = std::min(call.page.offset, total);
  const std::int64_t end = std::min(begin + limit, total);

  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_config_etag(call.reply, snapshot.etag);
  write_integer(json, "total", total);
  write_integer(json, "offset", call.page.offset);
  json.key("jobs");
  json.begin_array();
  for (std::int64_t i = begin; i < end; ++i) {
    write_job(json, jobs[static_cast<std::size_t>(i)], call.live, queue);
  }
  json.end_array();
  json.key("next_offset");
  if (end < total) {
    json.integer(end);
  } else {
    json.null();
  }
  json.end_object();
  reply_finish(call.reply, 200);
}

void get_job(ApiCall& call) {
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return;
  const Job* job = find_job(*snapshot.config, call.name());
  if (job == nullptr) {
    reply_no_job(call);
    return;
  }
  reply_job(call, snapshot.etag, *snapshot.config, *job, 200);
}

void get_sched_settings(ApiCall& call) {
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return;
  const SchedSection& sched = snapshot.config->sched;
  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_config_etag(call.reply, snapshot.etag);
  json.key("sched");
  json.begin_object();
  write_integer_if_set(json, "poll_interval", sched.poll_interval_s);
  write_integer_if_set(json, "busy_retry_seconds", sched.busy_retry_s);
  write_integer_if_set(json, "job_timeout_seconds", sched.job_timeout_s);
  write_integer_if_set(json, "job_log_keep", sched.job_log_keep);
  write_text(json, "job_log_dir", sched.job_log_dir.view());
  json.end_object();
  json.end_object();
  reply_finish(call.reply, 200);
}

void get_mail_settings(ApiCall& call) {
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return;
  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_config_etag(call.reply, snapshot.etag);
  json.key("mail");
  if (snapshot.config->mail.present) {
    write_mail(json, snapshot.config->mail);
  } else {
    json.null();
  }
  json.end_object();
  reply_finish(call.reply, 200);
}

void reply_job(ApiCall& call, const EntityTag& etag, const Config& config, const Job& job,
               std::uint32_t status) {
  const QueueState queue = load_queue_view(call.live, config, call.request.now);
  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_config_etag(call.reply, etag);
  json.key("job");
  write_job(json, job, call.live, queue);
  json.end_object();
  reply_finish(call.reply, status);
}

}  // namespace orv
