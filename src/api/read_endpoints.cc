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
    json.boolean_member("profile", row.takes_background);
    json.boolean_member("retention", row.takes_retention);
    json.end_object();
  }
  json.end_array();
}

void write_limits(JsonWriter& json) {
  json.key("limits");
  json.begin_object();
  json.integer_member("max_body_bytes", static_cast<std::int64_t>(kJsonRequestLimits.max_bytes));
  json.integer_member("jobs_page_max", kJobsPageMax);
  json.integer_member("log_chunk_max", kLogChunkMax);
  json.integer_member("timestamp_window_seconds", kTimestampWindow);
  json.end_object();
}

void write_mail(JsonWriter& json, const MailSection& mail) {
  json.begin_object();
  json.text_member("smtp_host", mail.smtp_host.view());
  json.integer_member("smtp_port", mail.smtp_port);
  json.text_member("tls", tls_mode_name(mail.tls));
  json.text_member("smtp_user", mail.smtp_user.view());
  json.boolean_member("smtp_password_set", mail.smtp_password_set);
  const char* const source = mail.smtp_password_kind == SecretKind::File ? "file" : "literal";
  json.text_member("smtp_password_source", mail.smtp_password_set ? source : "");
  json.text_member("from", mail.from.view());
  json.key("to");
  json.begin_array();
  for (const auto& address : mail.to) json.string(address.view());
  json.end_array();
  json.text_member("ca_file", mail.ca_file.view());
  json.integer_member("timeout_seconds", mail.timeout_s);
  json.text_member("notify", notify_name(mail.notify));
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
  json.integer_member("total", total);
  json.integer_member("offset", call.page.offset);
  json.key("jobs");
  json.begin_array();
  for (std::int64_t i = begin; i < end; ++i) {
    write_job(json, jobs[static_cast<std::size_t>(i)], call.live, queue);
  }
  json.end_array();
  json.integer_member("next_offset", end, end < total);
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
  json.integer_member("poll_interval", sched.poll_interval_s, sched.poll_interval_s != 0);
  json.integer_member("busy_retry_seconds", sched.busy_retry_s, sched.busy_retry_s != 0);
  json.integer_member("job_timeout_seconds", sched.job_timeout_s, sched.job_timeout_s != 0);
  json.integer_member("job_log_keep", sched.job_log_keep, sched.job_log_keep != 0);
  json.text_member("job_log_dir", sched.job_log_dir.view());
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
