#include "console/known_server.h"

#include <sysexits.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <unordered_map>
#include <utility>

#include "json/json_writer.h"

namespace orv {
namespace {

// Bytes. A reply has 61,439 at most, and an escape makes six of one.
constexpr std::size_t kScratch = std::size_t{512} << 10;

void write_value(JsonWriter& json, const JsonValue& value, std::string_view without);

void write_members(JsonWriter& json, const JsonValue& object, std::string_view without) {
  json.begin_object();
  for (std::size_t i = 0; i < object.keys.size(); ++i) {
    if (object.keys[i] == without) continue;
    json.key(object.keys[i]);
    write_value(json, *object.values[i], {});
  }
  json.end_object();
}

// A number that is no integer of 64 bits. No field of the API is one.
void write_number(JsonWriter& json, double number) {
  std::array<char, 40> text{};
  (void)std::snprintf(text.data(), text.size(), "%.17g", number);
  json.raw(text.data());
}

void write_value(JsonWriter& json, const JsonValue& value, std::string_view without) {
  switch (value.kind) {
    case JsonKind::Null: return json.null();
    case JsonKind::Boolean: return json.boolean(value.boolean);
    case JsonKind::Number:
      return value.is_integer ? json.integer(value.integer) : write_number(json, value.number);
    case JsonKind::String: return json.string(value.string);
    case JsonKind::Array:
      json.begin_array();
      for (const auto& element : value.values) write_value(json, *element, {});
      return json.end_array();
    case JsonKind::Object: return write_members(json, value, without);
  }
}

// The value as compact JSON, without the member of that name of its own.
std::string json_text(const JsonValue& value, std::string_view without = {}) {
  static std::vector<char> scratch(kScratch);  // one thread
  JsonWriter json(scratch);
  write_value(json, value, without);
  return json.overflow() ? std::string("null") : std::string(json.text());
}

bool read_job(const JsonValue* node, KnownJob& job) {
  job.name = json_member_text(node, "name");
  if (json_kind(node) != JsonKind::Object || job.name.empty()) return false;
  const JsonValue* state = json_member(node, "state");
  job.last.start = json_member_integer(state, "last_run");
  job.last.finish = json_member_integer(state, "last_finish");
  job.running = json_member_text(state, "status") == "RUNNING";
  // Written anew and not cut out of the reply: what goes to the page is known to be well-formed.
  job.json = json_text(*node);
  return true;
}

const char* outcome_of(const JsonValue* run) {
  // In this order: a run that was stopped has an exit code, too, but it tells of the signal.
  if (!json_member_flag(run, "finished")) return "unfinished";
  if (json_member_flag(run, "timed_out")) return "timed out";
  if (json_member_flag(run, "cancelled")) return "cancelled";
  const std::int64_t exit = json_integer(json_member(run, "exit_code")).value_or(-1);
  return exit == 0 ? "done" : exit == EX_TEMPFAIL ? "busy" : "failed";
}

std::string runs_json(const JsonValue* runs, std::int64_t now) {
  std::string out = "[";
  for (std::size_t i = 0; i < json_size(runs); ++i) {
    const JsonValue* run = json_element(runs, i);
    const std::int64_t start = json_member_integer(run, "start");
    // The list is newest first, so nothing after this one is younger.
    if (i >= kRunsKept && start < now - kRunsKeptFor) break;
    const auto finish = json_integer(json_member(run, "finish"));
    if (i > 0) out += ',';
    out += '[' + std::to_string(start) + ',';
    out += finish ? std::to_string(*finish) : "null";
    out.append(",\"").append(outcome_of(run)).append("\"]");
  }
  return out + "]";
}

std::string quoted(std::string_view text) {
  std::vector<char> buffer(16 + 6 * text.size());
  JsonWriter json(buffer);
  json.string(text);
  return std::string(json.text());
}

}  // namespace

KnownJob* known_find_job(KnownServer& server, std::string_view name) {
  const auto found = std::find_if(server.jobs.begin(), server.jobs.end(),
                                  [&](const KnownJob& job) { return job.name == name; });
  return found == server.jobs.end() ? nullptr : &*found;
}

bool known_take_info(KnownServer& server, const JsonValue& reply) {
  KnownInfo info;
  info.config_etag = json_member_text(&reply, "config_etag");
  if (info.config_etag.empty()) return false;
  info.running_job = json_member_text(&reply, "running_job");
  info.daemon_started = json_member_integer(&reply, "daemon_started");
  const JsonValue* queue = json_member(&reply, "run_queue");
  for (std::size_t i = 0; i < json_size(queue); ++i) {
    info.run_queue.emplace_back(json_string(json_element(queue, i)).value_or(""));
  }
  server.info = std::move(info);
  server.info_json = json_text(reply);
  // The clock alone must not wake every browser every five seconds.
  std::string timeless = json_text(reply, "time");
  if (timeless != server.info_timeless) {
    server.info_timeless = std::move(timeless);
    ++server.version;
  }
  return true;
}

bool known_read_page(const JsonValue& reply, std::vector<KnownJob>& jobs, JobsPage& page) {
  const JsonValue* list = json_member(&reply, "jobs");
  page.config_etag = json_member_text(&reply, "config_etag");
  page.next_offset = json_integer(json_member(&reply, "next_offset")).value_or(-1);
  if (json_kind(list) != JsonKind::Array || page.config_etag.empty()) return false;
  for (std::size_t i = 0; i < json_size(list); ++i) {
    KnownJob job;
    if (!read_job(json_element(list, i), job)) return false;
    jobs.push_back(std::move(job));
  }
  return true;
}

void known_take_jobs(KnownServer& server, std::vector<KnownJob> jobs) {
  std::unordered_map<std::string_view, KnownJob*> before;
  for (KnownJob& job : server.jobs) before.emplace(job.name, &job);
  bool changed = !server.jobs_known || jobs.size() != server.jobs.size();
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    // Place by place: the page shows the order of the file, so another order is a change.
    changed = changed || jobs[i].json != server.jobs[i].json;
    const auto known = before.find(jobs[i].name);
    if (known == before.end()) continue;
    jobs[i].runs = known->second->runs;
    jobs[i].runs_upto = known->second->runs_upto;
  }
  server.jobs = std::move(jobs);
  server.jobs_known = true;
  if (changed) ++server.version;
}

bool known_take_job(KnownServer& server, const JsonValue& reply) {
  KnownJob job;
  if (!read_job(json_member(&reply, "job"), job)) return false;
  KnownJob* known = known_find_job(server, job.name);
  // Deleted since it was asked for: the next list settles that.
  if (known == nullptr || known->json == job.json) return true;
  job.runs = std::move(known->runs);
  job.runs_upto = known->runs_upto;
  *known = std::move(job);
  ++server.version;
  return true;
}

bool known_take_runs(KnownServer& server, std::string_view job, const LastRun& upto,
                     const JsonValue& reply, std::int64_t now) {
  const JsonValue* list = json_member(&reply, "runs");
  if (json_kind(list) != JsonKind::Array) return false;
  KnownJob* known = known_find_job(server, job);
  if (known == nullptr) return true;
  std::string runs = runs_json(list, now);
  // Also when nothing is new, or the same would be asked again and again.
  known->runs_upto = upto;
  if (runs != known->runs) {
    known->runs = std::move(runs);
    ++server.version;
  }
  return true;
}

void known_take_outcome(KnownServer& server, bool reachable, bool trusted, std::string_view error,
                        std::int64_t now) {
  const bool changed = server.asked == 0 || server.reachable != reachable ||
                       server.trusted != trusted || server.error != error;
  server.reachable = reachable;
  server.trusted = trusted;
  server.error = error;
  server.asked = now;
  if (changed) ++server.version;
}

std::string known_server_json(const KnownServer& server, bool read_only) {
  // The parts of the server are JSON already; only what the console says itself is quoted here.
  std::string out = "{\"name\":" + quoted(server.name);
  out.append(",\"reachable\":").append(server.reachable ? "true" : "false");
  out.append(",\"trusted\":").append(server.trusted ? "true" : "false");
  out.append(",\"error\":").append(server.error.empty() ? "null" : quoted(server.error));
  out.append(",\"asked\":").append(server.asked == 0 ? "null" : std::to_string(server.asked));
  out.append(",\"read_only\":").append(read_only ? "true" : "false");
  out.append(",\"info\":").append(server.info_json.empty() ? "null" : server.info_json);
  std::string runs;
  out.append(",\"jobs\":").append(server.jobs_known ? "[" : "null");
  for (std::size_t i = 0; i < server.jobs.size(); ++i) {
    const KnownJob& job = server.jobs[i];
    out.append(i == 0 ? "" : ",").append(job.json);
    if (job.runs.empty()) continue;
    runs.append(runs.empty() ? "" : ",").append(quoted(job.name)).append(":").append(job.runs);
  }
  if (server.jobs_known) out += ']';
  return out.append(",\"runs\":{").append(runs).append("}}");
}

}  // namespace orv
