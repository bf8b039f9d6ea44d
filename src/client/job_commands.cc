// Commands about the server and its jobs.
#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

#include "client/commands.h"
#include "client/output.h"
#include "common/times.h"

namespace orv {
namespace {

const JsonValue* state_of(const JsonValue* job) { return json_member(job, "state"); }

std::string jobs_table(const JsonValue* jobs) {
  std::vector<std::vector<std::string>> rows = {
      {"NAME", "COMMAND", "STATUS", "NEXT-RUN", "LAST-RUN", "EXIT", "AFTER"}};
  for (std::size_t i = 0; i < json_size(jobs); ++i) {
    const JsonValue* const job = json_element(jobs, i);
    const JsonValue* const state = state_of(job);
    rows.push_back({cell(job, "name"), cell(job, "command"), cell(state, "status"),
                    cell(state, "next_run"), cell(state, "last_run"), cell(state, "last_exit_code"),
                    cell(job, "after")});
  }
  return table_text(rows);
}

std::string job_pairs(const JsonValue* reply) { return pairs_text(json_member(reply, "job")); }

// "1:02:05", or "2:05" below an hour.
std::string elapsed_text(std::int64_t seconds) {
  // Both times are the server's: a clock that jumped, or a lie, gives no duration.
  if (seconds < 0 || seconds > 100LL * 365 * 86400) return "-";
  std::array<char, 32> text{};
  const long long hours = seconds / 3600, minutes = seconds / 60 % 60, rest = seconds % 60;
  if (hours > 0) {
    std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", hours, minutes, rest);
  } else {
    std::snprintf(text.data(), text.size(), "%lld:%02lld", minutes, rest);
  }
  return text.data();
}

// What the status table says of one server.
struct Standing {
  std::string version, running, next_job;
  std::int64_t running_since = 0, now = 0, next_run = 0;  // 0: not known, or none
  std::vector<std::string> failed;
};

Standing standing_of(const JsonValue* info, const JsonValue* jobs) {
  Standing at;
  at.version = json_member_text(info, "version");
  at.running = json_member_text(info, "running_job");
  at.now = json_member_integer(info, "time");
  for (std::size_t i = 0; i < json_size(jobs); ++i) {
    const JsonValue* const job = json_element(jobs, i);
    const JsonValue* const state = state_of(job);
    const std::string name(json_member_text(job, "name"));
    // A running job's last run is the one under way.
    if (name == at.running) at.running_since = json_member_integer(state, "last_run");
    if (json_member_text(state, "status") == "FAILED") at.failed.push_back(name);
    const std::int64_t next = json_member_integer(state, "next_run");
    if (next > 0 && (at.next_run == 0 || next < at.next_run)) {
      at.next_run = next;
      at.next_job = name;
    }
  }
  return at;
}

std::vector<std::string> status_row(const std::string& server, const Standing& at) {
  constexpr std::size_t kShownNames = 3;
  std::string failed = std::to_string(at.failed.size());
  for (std::size_t i = 0; i < std::min(at.failed.size(), kShownNames); ++i) {
    failed += (i == 0 ? " (" : ", ") + at.failed[i];
  }
  // The table stays as wide as a terminal, the number is whole.
  if (at.failed.size() > kShownNames) failed += ", ...";
  if (!at.failed.empty()) failed += ")";
  const bool runs = !at.running.empty();
  return {server,
          "yes",
          at.version,
          runs ? at.running : "-",
          runs && at.running_since > 0 ? elapsed_text(at.now - at.running_since) : "-",
          failed,
          at.next_run > 0 ? local_time_cell(at.next_run) + " " + at.next_job : "-"};
}

// The same as a JSON object. Absent values are null.
JsonReply status_object(const Standing& at) {
  auto object = std::make_unique<JsonValue>();
  object->kind = JsonKind::Object;
  const auto add = [&](const char* key) -> JsonValue& {
    object->keys.emplace_back(key);
    return *object->values.emplace_back(std::make_unique<JsonValue>());
  };
  const auto add_text = [&](const char* key, const std::string& text) {
    JsonValue& value = add(key);
    value.kind = text.empty() ? JsonKind::Null : JsonKind::String;
    value.string = text;
  };
  const auto add_number = [&](const char* key, std::int64_t number) {
    JsonValue& value = add(key);
    value.kind = number > 0 ? JsonKind::Number : JsonKind::Null;
    value.is_integer = true;
    value.integer = number;
  };
  add_text("version", at.version);
  add_number("time", at.now);
  add_text("running_job", at.running);
  add_number("running_since", at.running_since);
  JsonValue& failed = add("failed_jobs");
  failed.kind = JsonKind::Array;
  for (const std::string& name : at.failed) {
    JsonValue& value = *failed.values.emplace_back(std::make_unique<JsonValue>());
    value.kind = JsonKind::String;
    value.string = name;
  }
  add_text("next_job", at.next_job);
  add_number("next_run", at.next_run);
  return object;
}

}  // namespace

std::string job_path(const std::string& name) { return "jobs/" + path_segment(name); }

std::vector<std::string> status_head() {
  return {"SERVER", "REACHABLE", "VERSION", "RUNNING", "FOR", "FAILED", "NEXT-RUN"};
}

CommandResult info_command(Session& session, const Arguments& /*none*/) {
  const JsonReply reply = co_await session.get("info");
  if (reply == nullptr) co_return session.failed();
  session.show(reply.get(), [&] { return pairs_text(reply.get(), "commands"); });
  co_return kExitDone;
}

CommandResult status_command(Session& session, const Arguments& /*none*/) {
  const JsonReply info = co_await session.get("info");
  if (info == nullptr) co_return session.failed();
  const JsonReply all = co_await session.all_jobs();
  if (all == nullptr) co_return session.failed();
  const Standing at = standing_of(info.get(), json_member(all.get(), "jobs"));
  session.set_row(status_row(session.target().name, at));
  const JsonReply object = status_object(at);
  session.show(object.get(), [] { return std::string(); });
  co_return kExitDone;
}

CommandResult jobs_command(Session& session, const Arguments& /*none*/) {
  const JsonReply all = co_await session.all_jobs();
  if (all == nullptr) co_return session.failed();
  const JsonValue* const jobs = json_member(all.get(), "jobs");
  session.show(jobs, [&] { return jobs_table(jobs); });
  co_return kExitDone;
}

CommandResult job_command(Session& session, const Arguments& given) {
  const std::string& action = given.word(0);
  const std::string& name = given.word(1);
  const std::string path = job_path(name);
  if (action == "get") {
    const JsonReply reply = co_await session.get(path);
    if (reply == nullptr) co_return session.failed();
    session.show(reply.get(), [&] { return job_pairs(reply.get()); });
    co_return kExitDone;
  }
  const bool put = action == "put";
  // Only the fields given are sent: the server leaves the others as they are.
  const Session::MakeBody body = [&](const JsonValue* /*info*/) {
    return put ? object_text(given.members) : SecretString();
  };
  const JsonReply reply = co_await session.change(put ? "PUT" : "DELETE", path,
                                                  given.value("--if-match"), "info", body);
  if (reply == nullptr) co_return session.failed();
  session.show(reply.get(), [&] {
    return put ? job_pairs(reply.get()) : "job '" + printable(name) + "' is deleted\n";
  });
  co_return kExitDone;
}

CommandResult validate_command(Session& session, const Arguments& given) {
  BodyMembers members = given.members;
  // Last, so that the word wins over a "name" in the file.
  set_member(members, "name", json_quoted(given.word(0)));
  const JsonReply reply =
      co_await session.request("POST", "validate/job", {}, object_text(members));
  if (reply == nullptr) co_return session.failed();
  const bool valid = json_member_flag(reply.get(), "valid");
  session.show(reply.get(), [&] {
    if (valid) return std::string("valid\n");
    const JsonValue* const error = json_member(json_member(reply.get(), "result"), "error");
    return "not valid: " + printable(cell(error, "message")) + "\n";
  });
  co_return valid ? kExitDone : kExitNotValid;
}

}  // namespace orv
