// The endpoints that ask the daemon for a run and take such a wish, or the run itself, back. The
// loop does the rest: it takes requests from the front of the queue, and looks at the cancel slot.
#include <algorithm>
#include <cstddef>
#include <vector>

#include "api/endpoints.h"
#include "api/job_object.h"
#include "api/snapshot.h"
#include "common/log.h"

namespace orv {
namespace {

void log_action(const ApiCall& call, const char* action) {
  log_msg(LogLevel::Info, "orv_sched API: token '%.*s' from %s %s '%s'",
          static_cast<int>(call.request.token_name.size()), call.request.token_name.data(),
          call.request.http.client.c_str(), action, call.variables[0].c_str());
}

std::size_t queue_position(const LiveState& live, std::string_view job) {
  const auto found = std::find_if(live.run_queue.begin(), live.run_queue.end(),
                                  [job](const RunRequest& run) { return run.job == job; });
  return static_cast<std::size_t>(found - live.run_queue.begin()) + 1;
}

void reply_queued(ApiCall& call, bool already_queued) {
  JsonWriter& json = call.reply.json;
  json.begin_object();
  json.boolean_member("queued", true);
  json.boolean_member("already_queued", already_queued);
  json.integer_member("position",
                      static_cast<std::int64_t>(queue_position(call.live, call.name())));
  json.text_member("running_job", call.live.running.job.view());
  json.end_object();
  reply_finish(call.reply, 200);
}

// Whether a run of the job of the call may be asked for; false after an error reply.
bool may_run(ApiCall& call) {
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return false;
  const Job* job = find_job(*snapshot.config, call.name());
  if (job == nullptr) {
    reply_no_job(call);
    return false;
  }
  if (!command_allowed(call.live.config->api.allowed_commands, job->command)) {
    reply_error(call.reply, 403, "command_not_allowed",
                "jobs with command '%s' may not be started through the API",
                command_name(job->command));
    return false;
  }
  if (call.live.running.job == job->name) {
    reply_error(call.reply, 409, "job_running", "job '%s' is already running", job->name.c_str());
    return false;
  }
  return true;
}

void reply_cancelled(ApiCall& call, const char* what) {
  JsonWriter& json = call.reply.json;
  json.begin_object();
  json.text_member("cancelled", what);
  json.end_object();
  reply_finish(call.reply, 200);
}

// The running job's command is the loaded configuration's: the file may say something else by now.
void cancel_running(ApiCall& call) {
  const Config& config = *call.live.config;
  const Job* job = find_job(config, call.name());
  if (job != nullptr && !command_allowed(config.api.allowed_commands, job->command)) {
    reply_error(call.reply, 403, "command_not_allowed",
                "jobs with command '%s' may not be cancelled through the API",
                command_name(job->command));
    return;
  }
  log_action(call, "cancels running job");
  CancelSlot& slot = call.live.running;
  if (!slot.cancel_requested) slot.cancelled_by.set_truncated(call.request.token_name);
  slot.cancel_requested = true;
  reply_cancelled(call, "stop_requested");
}

}  // namespace

void run_job_now(ApiCall& call) {
  if (!may_run(call)) return;
  LiveState& live = call.live;
  if (is_run_queued(live, call.name())) {
    reply_queued(call, true);
    return;
  }
  if (live.run_queue.size() >= kMaxQueuedRuns) {
    reply_error(call.reply, 503, "run_queue_full", "too many queued runs");
    return;
  }
  RunRequest& run = live.run_queue.emplace_back();
  run.job.set_truncated(call.name());
  run.token.set_truncated(call.request.token_name);
  log_action(call, "queued a run of job");
  reply_queued(call, false);
}

void cancel_job(ApiCall& call) {
  LiveState& live = call.live;
  if (live.running.job == call.name() && !live.running.job.empty()) {
    cancel_running(call);
    return;
  }
  if (is_run_queued(live, call.name())) {
    std::erase_if(live.run_queue, [&](const RunRequest& run) { return run.job == call.name(); });
    log_action(call, "removed the queued run of job");
    reply_cancelled(call, "queued_run_removed");
    return;
  }
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(live.config_path, call.reply, snapshot)) return;
  if (find_job(*snapshot.config, call.name()) == nullptr) {
    reply_no_job(call);
    return;
  }
  reply_error(call.reply, 409, "not_running", "job '%s' is not running", call.variables[0].c_str());
}

}  // namespace orv
