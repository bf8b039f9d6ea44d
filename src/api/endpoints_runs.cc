// The endpoints of a job's runs: those that have been, with their logs, and those that a client
// asks for or withdraws. The daemon loop does the rest: it takes requests from the front of the
// queue, and the running job polls the cancel slot.
#include <algorithm>
#include <string>
#include <vector>

#include "api/endpoints.h"
#include "api/job_object.h"
#include "api/log_chunk.h"
#include "common/files.h"
#include "common/log.h"
#include "sched/job_log.h"

namespace orv {
namespace {

// Whether the configuration file has the job of the call; false after an error reply.
bool job_exists(ApiCall& call) {
  const SnapshotPtr snapshot = snapshot_of(call);
  return snapshot && job_of(call, *snapshot) != nullptr;
}

// Without a trailer a run goes on or was lost: what a trailer would say is null.
void write_run(JsonWriter& json, std::string_view id, const JobLogFile& log) {
  JobLogTrailer trailer;
  read_job_log_trailer(log.file.get(), log.size, trailer);
  json.begin_object();
  json.text_member("id", id);
  json.integer_member("start", run_start(id));
  json.boolean_member("finished", trailer.finished);
  json.integer_member("finish", trailer.finish_unix, trailer.finished);
  json.integer_member("exit_code", trailer.exit_code, trailer.finished);
  json.boolean_member("timed_out", trailer.timed_out);
  json.boolean_member("cancelled", trailer.cancelled);
  json.integer_member("size", log.size);
  json.end_object();
}

void reply_no_run(ApiCall& call) { reply_error(call.reply, 404, "not_found", "no such run"); }

// The bytes of the chunk at the call's offset, cut so that no UTF-8 sequence is split.
bool read_chunk(const ApiCall& call, const JobLogFile& log, std::int64_t length,
                std::vector<char>& out) {
  if (call.page.offset >= log.size) return true;
  out.resize(static_cast<std::size_t>(std::min(length, log.size - call.page.offset)));
  std::size_t got = 0;
  const auto offset = static_cast<std::uint64_t>(call.page.offset);
  if (read_at(log.file.get(), offset, out, got) != ErrorCode::Ok) return false;
  const bool at_end = call.page.offset + static_cast<std::int64_t>(got) >= log.size;
  out.resize(at_end ? got : whole_utf8({out.data(), got}));
  return true;
}

// "finished" and "size" are of the same moment as the data: a client that has read to "size" of a
// finished log has read all of it.
void write_chunk(ApiCall& call, const JobLogFile& log, std::string_view chunk) {
  JobLogTrailer trailer;
  read_job_log_trailer(log.file.get(), log.size, trailer);
  JsonWriter& json = call.reply.json;
  json.begin_object();
  json.text_member("id", call.variables[1].view());
  json.integer_member("offset", call.page.offset);
  json.integer_member("size", log.size);
  json.boolean_member("finished", trailer.finished);
  json.key("data");
  const auto length = static_cast<std::int64_t>(json.string_limited(chunk, kLogChunkEscaped));
  json.integer_member("length", length);
  json.integer_member("next_offset", call.page.offset + length);
  json.end_object();
}

void log_action(const ApiCall& call, const char* action) {
  log_msg(LogLevel::Info, "orv_sched API: token '%.*s' from %s %s '%s'",
          static_cast<int>(call.request.token_name.size()), call.request.token_name.data(),
          call.request.http.client.c_str(), action, call.variables[0].c_str());
}

// Counted from 1.
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
  const SnapshotPtr snapshot = snapshot_of(call);
  const Job* const job = snapshot ? job_of(call, *snapshot) : nullptr;
  if (job == nullptr) return false;
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
  // The first who asks is the one that the log names.
  if (!slot.cancel_requested) slot.cancelled_by.set_truncated(call.request.token_name);
  slot.cancel_requested = true;
  reply_cancelled(call, "stop_requested");
}

}  // namespace

void get_runs(ApiCall& call) {
  if (!job_exists(call)) return;
  const std::string directory = job_log_directory(call.live.job_log_dir, call.name());
  JsonWriter& json = call.reply.json;
  json.begin_object();
  json.text_member("job", call.name());
  json.key("runs");
  json.begin_array();
  std::size_t listed = 0;
  for (const std::string& id : list_run_ids(directory)) {
    JobLogFile log;
    if (!open_job_log(directory, id, log)) continue;  // a link, a directory, or just rotated away
    write_run(json, id, log);
    if (++listed == kRunsListed) break;
  }
  json.end_array();
  json.end_object();
  reply_finish(call.reply, 200);
}

void get_log_chunk(ApiCall& call) {
  const std::int64_t length = call.page.count.value_or(kLogChunkMax);
  if (length < 1 || length > kLogChunkMax) {
    reply_error(call.reply, 400, "bad_query", "length must be 1..%u",
                static_cast<unsigned>(kLogChunkMax));
    return;
  }
  const std::string_view id = call.variables[1].view();
  // The form is checked before a path is made of it: no id leads out of the directory.
  if (!is_run_id(id)) {
    reply_no_run(call);
    return;
  }
  if (!job_exists(call)) return;
  JobLogFile log;
  if (!open_job_log(job_log_directory(call.live.job_log_dir, call.name()), id, log)) {
    reply_no_run(call);
    return;
  }
  std::vector<char> chunk;
  if (!read_chunk(call, log, length, chunk)) {
    reply_error(call.reply, 500, "internal", "cannot read the log of run %s", id.data());
    return;
  }
  write_chunk(call, log, {chunk.data(), chunk.size()});
  reply_finish(call.reply, 200);
}

void run_job_now(ApiCall& call) {
  if (!may_run(call)) return;
  LiveState& live = call.live;
  if (is_run_queued(live, call.name())) {
    reply_queued(call, true);
    return;
  }
  // Bounded: a client must not fill the daemon's memory, nor its night.
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
  // The running job first, and without the file: a run must be stoppable while the file is broken.
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
  if (!job_exists(call)) return;
  reply_error(call.reply, 409, "not_running", "job '%s' is not running", call.variables[0].c_str());
}

}  // namespace orv
