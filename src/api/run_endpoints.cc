// The endpoints that show a job's runs and their logs.
#include <algorithm>
#include <string>
#include <vector>

#include "api/endpoints.h"
#include "api/log_chunk.h"
#include "api/snapshot.h"
#include "common/files.h"
#include "sched/job_log.h"

namespace orv {
namespace {

// Whether the configuration file has the job of the call; false after an error reply.
bool job_exists(ApiCall& call) {
  ConfigSnapshot snapshot;
  if (!take_snapshot_or_reply(call.live.config_path, call.reply, snapshot)) return false;
  if (find_job(*snapshot.config, call.name()) != nullptr) return true;
  reply_no_job(call);
  return false;
}

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
    if (!open_job_log(directory, id, log)) continue;
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

}  // namespace orv
