// Commands about runs: starting, stopping, listing and following them.
#include <sysexits.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "client/commands.h"
#include "client/output.h"

namespace orv {
namespace {

// How often a run is asked for. When nothing new comes, it must stay below one request in two
// seconds, whatever the request: the server takes fewer than seven a second of all its clients.
constexpr std::chrono::milliseconds kFirstPause{1000};  // after something new
constexpr std::chrono::milliseconds kPause{2500};

// The id of the newest run; empty when there is none.
std::string newest_of(const JsonValue* reply) {
  return std::string(json_member_text(json_element(json_member(reply, "runs"), 0), "id"));
}

std::string runs_table(const JsonValue* runs) {
  std::vector<std::vector<std::string>> rows = {{"ID", "START", "FINISH", "EXIT", "NOTE", "BYTES"}};
  for (std::size_t i = 0; i < json_size(runs); ++i) {
    const JsonValue* const run = json_element(runs, i);
    const char* const note = !json_member_flag(run, "finished")   ? "not finished"
                             : json_member_flag(run, "timed_out") ? "timed out"
                             : json_member_flag(run, "cancelled") ? "cancelled"
                                                                  : "";
    rows.push_back({cell(run, "id"), cell(run, "start"), cell(run, "finish"),
                    cell(run, "exit_code"), note, cell(run, "size")});
  }
  return table_text(rows);
}

// What is known of the run that a command waits for.
struct Followed {
  std::string job;
  std::string id;  // empty: it has not started yet
  bool is_newest = true;
};

std::string named(const Followed& run) { return "the run of job '" + run.job + "'"; }

// Ends a command by the outcome of the run.
int outcome(Session& session, const Followed& run, const JsonValue* entry) {
  if (entry == nullptr || !json_member_flag(entry, "finished")) {
    return session.fail(kExitRunFailed, "run_lost", named(run) + " was lost: its log has no end");
  }
  // A run that was stopped has an exit code, too, but that tells of the signal.
  if (json_member_flag(entry, "cancelled")) {
    return session.fail(kExitRunStopped, "run_cancelled", named(run) + " was cancelled");
  }
  if (json_member_flag(entry, "timed_out")) {
    return session.fail(kExitRunStopped, "run_timed_out", named(run) + " took too long");
  }
  const std::int64_t code = json_member_integer(entry, "exit_code");
  if (code == 0) return kExitDone;
  if (code == EX_TEMPFAIL) {
    return session.fail(kExitRunBusy, "run_busy",
                        named(run) + " found its tool busy; the job is tried again later");
  }
  return session.fail(kExitRunFailed, "run_failed",
                      named(run) + " failed with exit code " + std::to_string(code));
}

CommandResult end_by_outcome(Session& session, Followed run) {
  const JsonReply reply = co_await session.get(job_path(run.job) + "/runs");
  if (reply == nullptr) co_return session.failed();
  // The server has read the end of each log for this list.
  const JsonValue* const runs = json_member(reply.get(), "runs");
  for (std::size_t i = 0; i < json_size(runs); ++i) {
    const JsonValue* const entry = json_element(runs, i);
    if (json_member_text(entry, "id") == run.id) co_return outcome(session, run, entry);
  }
  co_return session.fail(kExitRefused, "not_found", "the log of " + named(run) + " is gone");
}

// A terminal gets nothing that could steer it; a file gets the log as it is.
void show_chunk(Session& session, const JsonValue* chunk) {
  if (session.options().json) {
    session.show_line(chunk);
    return;
  }
  const std::string_view data = json_member_text(chunk, "data");
  // Asked once: the answer cannot change, and a log has many chunks.
  static const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  session.print(terminal ? printable(data, Lines::Keep) : std::string(data));
}

// Shows the log from `offset` to its present end, which is where it leaves `offset`. Whether the
// log is finished; nothing after a failure.
boost::asio::awaitable<std::optional<bool>> show_log(Session& session, const Followed& run,
                                                     std::int64_t& offset) {
  for (;;) {
    const JsonReply chunk =
        co_await session.get(job_path(run.job) + "/runs/" + path_segment(run.id) + "/log",
                             "offset=" + std::to_string(offset));
    if (chunk == nullptr) co_return std::nullopt;
    const std::int64_t next = json_member_integer(chunk.get(), "next_offset");
    const bool news = next > offset;
    if (news || offset == 0) show_chunk(session, chunk.get());
    offset = news ? next : offset;
    // A server that promises more and gives nothing would be asked for ever.
    if (!news || next >= json_member_integer(chunk.get(), "size"))
      co_return json_member_flag(chunk.get(), "finished");
  }
}

// Shows the log until the run has ended. Every few looks at the log, one at the job instead: a run
// that was lost never writes its log's end.
CommandResult follow(Session& session, Followed run) {
  session.set_interrupt_note(named(run) + " goes on");
  std::int64_t offset = 0;
  bool over = !run.is_newest;  // nobody writes to the log any more
  for (int quiet = 0;; ++quiet) {
    const bool look_at_job = !over && quiet % 4 == 1;
    if (look_at_job) {
      const JsonReply reply = co_await session.get(job_path(run.job));
      if (reply == nullptr) co_return session.failed();
      const JsonValue* const state = json_member(json_member(reply.get(), "job"), "state");
      over = cell(state, "status") != "RUNNING";
      if (over) continue;  // what it wrote last is still to be read
    } else {
      const std::int64_t before = offset;
      const std::optional<bool> finished = co_await show_log(session, run, offset);
      if (!finished) co_return session.failed();
      if (*finished) co_return co_await end_by_outcome(session, run);
      if (over) co_return outcome(session, run, nullptr);
      if (offset != before) quiet = 0;
    }
    co_await session.pause(quiet == 0 ? kFirstPause : kPause);
  }
}

// Waits until a run has started that is another one than `run.id`, and puts its id there. Done, or
// the exit status after a failure.
CommandResult wait_for_start(Session& session, Followed& run) {
  session.set_interrupt_note(named(run) + " stays queued");
  const std::string path = job_path(run.job);
  for (int look = 0, gone = 0; gone < 2; ++look) {
    const JsonReply reply = co_await session.get(path);
    if (reply == nullptr) co_return session.failed();
    const JsonValue* const state = json_member(json_member(reply.get(), "job"), "state");
    if (!json_member_flag(state, "run_requested")) {
      const JsonReply runs = co_await session.get(path + "/runs");
      if (runs == nullptr) co_return session.failed();
      const std::string newest = newest_of(runs.get());
      // Ids are UTC times of one width: the later one is the greater text.
      if (newest > run.id) {
        run.id = newest;
        session.wait_for({});
        co_return kExitDone;
      }
      // It may be about to start: it counts as gone only when it is so twice.
      if (cell(state, "status") != "RUNNING") ++gone;
    }
    session.wait_for(named(run) + " is queued");
    if (gone < 2) co_await session.pause(look == 0 ? kFirstPause : kPause);
  }
  co_return session.fail(kExitRunStopped, "run_removed",
                         named(run) + " was taken out of the queue");
}

// Finds the run that is meant when no id is given: the newest, or with `--follow` the one that was
// just asked for, once it has started.
CommandResult find_newest(Session& session, Followed& run, bool following) {
  const std::string path = job_path(run.job);
  const JsonReply runs = co_await session.get(path + "/runs");
  if (runs == nullptr) co_return session.failed();
  run.id = newest_of(runs.get());
  if (following) {
    const JsonReply reply = co_await session.get(path);
    if (reply == nullptr) co_return session.failed();
    const JsonValue* const state = json_member(json_member(reply.get(), "job"), "state");
    if (json_member_flag(state, "run_requested")) co_return co_await wait_for_start(session, run);
  }
  if (!run.id.empty()) co_return kExitDone;
  co_return session.fail(kExitRefused, "not_found", "job '" + run.job + "' has no runs");
}

std::string queued_text(const std::string& job, const JsonValue* reply) {
  const JsonValue* const running = json_member(reply, "running_job");
  std::string text = "the run of job '" + job + "' is queued";
  if (json_member_flag(reply, "already_queued")) text += " already";
  text += ", number " + cell(reply, "position");
  if (json_kind(running) == JsonKind::String) {
    text += ", after the running job '" + readable({}, running) + "'";
  }
  return printable(text) + "\n";
}

}  // namespace

CommandResult run_command(Session& session, const Arguments& given) {
  Followed run{given.word(0), {}};
  const std::string path = job_path(run.job);
  const bool wait = given.has("--wait");
  if (wait) {
    const JsonReply runs = co_await session.get(path + "/runs");
    if (runs == nullptr) co_return session.failed();
    run.id = newest_of(runs.get());
  }
  // The newest run was asked for before: whatever is newer from now on may be the one.
  const JsonReply reply = co_await session.request("POST", path + "/run");
  if (reply == nullptr) co_return session.failed();
  // The log follows, a chunk a line: one document over several lines would break that.
  if (wait && session.options().json) {
    session.show_line(reply.get());
  } else {
    session.show(reply.get(), [&] { return queued_text(run.job, reply.get()); });
  }
  if (!wait) co_return kExitDone;
  const int status = co_await wait_for_start(session, run);
  if (status != kExitDone) co_return status;
  co_return co_await follow(session, run);
}

CommandResult cancel_command(Session& session, const Arguments& given) {
  const std::string& name = given.word(0);
  const JsonReply reply = co_await session.request("POST", job_path(name) + "/cancel");
  if (reply == nullptr) co_return session.failed();
  session.show(reply.get(), [&] {
    const std::string what = cell(reply.get(), "cancelled");
    if (what == "stop_requested")
      return printable("the running job '" + name + "' is told to stop\n", Lines::Keep);
    if (what == "queued_run_removed") {
      return printable("the run of job '" + name + "' is taken out of the queue\n", Lines::Keep);
    }
    return printable(name + ": " + what) + "\n";
  });
  co_return kExitDone;
}

CommandResult runs_command(Session& session, const Arguments& given) {
  const JsonReply reply = co_await session.get(job_path(given.word(0)) + "/runs");
  if (reply == nullptr) co_return session.failed();
  session.show(reply.get(), [&] { return runs_table(json_member(reply.get(), "runs")); });
  co_return kExitDone;
}

CommandResult log_command(Session& session, const Arguments& given) {
  Followed run{given.word(0), given.words.size() > 1 ? given.word(1) : ""};
  const bool following = given.has("--follow");
  if (run.id.empty()) {
    const int status = co_await find_newest(session, run, following);
    if (status != kExitDone) co_return status;
  } else if (following) {
    const JsonReply runs = co_await session.get(job_path(run.job) + "/runs");
    if (runs == nullptr) co_return session.failed();
    // A run that others have followed has ended, even when its log has no end.
    run.is_newest = run.id == newest_of(runs.get());
  }
  if (following) co_return co_await follow(session, run);
  std::int64_t offset = 0;
  const std::optional<bool> finished = co_await show_log(session, run, offset);
  co_return finished ? kExitDone : session.failed();
}

}  // namespace orv
