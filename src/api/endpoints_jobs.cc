// The endpoints that show, create, change, delete and check jobs.
#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/body_fields.h"
#include "api/commit.h"
#include "api/endpoints.h"
#include "api/job_body.h"
#include "api/job_change.h"
#include "api/job_object.h"
#include "sched/obstacle.h"
#include "sched/queue_file.h"

namespace orv {
namespace {

// Replies the tag and the job, one of the snapshot's, with its queue state.
void reply_job(ApiCall& call, const ConfigSnapshot& snapshot, const Job& job,
               std::uint32_t status) {
  const QueueState queue = load_queue_view(call.live, *snapshot.config, call.request.now);
  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_config_etag(call.reply, snapshot.etag);
  json.key("job");
  write_job(json, job, call.live, queue);
  json.end_object();
  reply_finish(call.reply, status);
}

// Whether the daemon, or another process of the scheduler, is running the job.
bool is_running(const ApiCall& call, const JobName& job) {
  if (call.live.running.job == job) return true;
  QueueState queue;
  // A queue that cannot be read leaves the run files to ask.
  (void)queue_load_readonly(queue, call.live.queue_path.c_str());
  return job_runs_elsewhere(queue, job.view());
}

// The loader refuses an 'after' that names no job; this says it before the file is touched, and
// says which job is in the way.
const Job* find_dependant(const Config& config, const JobName& name) {
  for (const Job& job : config.jobs) {
    if (job.name == name) continue;
    if (std::find(job.after.begin(), job.after.end(), name) != job.after.end()) return &job;
  }
  return nullptr;
}

bool may_delete(ApiCall& call, const ConfigSnapshot& snapshot, const Job& job) {
  // The tag first: what follows is only true of the configuration that the client has seen.
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

// Wraps the reply that a PUT would have got.
void reply_verdict(ApiCall& call, bool valid) {
  const std::string error(call.reply.body);  // the reply buffer is about to be written anew
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

void get_jobs(ApiCall& call) {
  const std::int64_t limit = call.page.count.value_or(kJobsPageMax);
  if (limit < 1 || limit > kJobsPageMax) {
    reply_error(call.reply, 400, "bad_query", "limit must be 1..%d",
                static_cast<int>(kJobsPageMax));
    return;
  }
  const SnapshotPtr snapshot = snapshot_of(call);
  if (!snapshot) return;
  // One view of the queue for the whole page, so that the jobs' states fit together.
  const QueueState queue = load_queue_view(call.live, *snapshot->config, call.request.now);
  const std::vector<Job>& jobs = snapshot->config->jobs;
  const auto total = static_cast<std::int64_t>(jobs.size());
  const std::int64_t begin = std::min(call.page.offset, total);
  const std::int64_t end = std::min(begin + limit, total);

  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_config_etag(call.reply, snapshot->etag);
  json.integer_member("total", total);
  json.integer_member("offset", call.page.offset);  // as asked for, also past the end
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
  const SnapshotPtr snapshot = snapshot_of(call);
  if (!snapshot) return;
  const Job* const job = job_of(call, *snapshot);
  if (job != nullptr) reply_job(call, *snapshot, *job, 200);
}

void put_job(ApiCall& call) {
  // What needs no configuration comes first: body, fields, name; then the client's tag.
  const auto body = read_body_object(call.reply, call.request.http.body);
  if (!body || !only_known_fields(call.reply, *body, job_body_fields())) return;
  if (!check_job_name(call, call.name())) return;
  const SnapshotPtr before = begin_change(call);
  if (!before) return;
  const Job* const existing = find_job(*before->config, call.name());
  std::optional<SecretString> text = changed_job_text(call, *before, call.name(), existing, *body);
  if (!text) return;
  // In the log and in the subject of the change mail.
  std::string description = existing == nullptr ? "created job '" : "updated job '";
  description.append(call.name()).append("'");
  const SnapshotPtr after = commit_change(call, before, std::move(*text), description);
  if (!after) return;
  // As it was proved to load before the file was replaced; nothing is read again.
  const Job* const job = find_job(*after->config, call.name());
  if (job != nullptr) reply_job(call, *after, *job, existing == nullptr ? 201 : 200);
}

void delete_job(ApiCall& call) {
  const SnapshotPtr before = snapshot_of(call);
  if (!before) return;
  // sched, mail and api are never jobs. An unknown name is 404 with and without a tag.
  const Job* const job = job_of(call, *before);
  if (job == nullptr || !may_delete(call, *before, *job)) return;
  std::optional<SecretString> text = remove_section(before->text, call.name());
  if (!text) {
    reply_no_job(call);
    return;
  }
  std::string description = "deleted job '";
  description.append(call.name()).append("'");
  const SnapshotPtr after = commit_change(call, before, std::move(*text), description);
  if (after) reply_changed(call, after->etag);
}

void validate_job(ApiCall& call) {
  const auto body = read_body_object(call.reply, call.request.http.body);
  if (!body || !only_known_fields(call.reply, *body, job_body_fields(), "name")) return;
  const std::optional<std::string_view> name = json_string(json_member(body.get(), "name"));
  if (!name) {
    (void)refuse(call, 400, "invalid_value", "'name' (string) is required");
    return;
  }
  const SnapshotPtr snapshot = snapshot_of(call);
  if (!snapshot) return;
  // From here on an error is not this request's own but the verdict on the definition.
  std::optional<SecretString> text;
  if (check_job_name(call, *name)) {
    const Job* const existing = find_job(*snapshot->config, *name);
    text = changed_job_text(call, *snapshot, *name, existing, *body);
  }
  reply_verdict(call, text && validate_change(call, *snapshot, *text));
}

}  // namespace orv
