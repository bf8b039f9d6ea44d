// why, show and check: what is to be known about one job, or about the whole configuration.
#include <array>
#include <cstdio>
#include <cstdlib>

#include "config/after_list.h"
#include "config/job_argv.h"
#include "plan/check.h"
#include "plan/commands.h"
#include "plan/daemon_process.h"
#include "plan/describe.h"
#include "plan/json_document.h"
#include "plan/nominal.h"
#include "plan/table.h"
#include "plan/why_not.h"
#include "sched/job_log.h"
#include "sched/job_run.h"
#include "sched/queue_runner.h"
#include "sched/queue_schedule.h"
#include "sched/result_mail.h"

namespace orv {
namespace {

constexpr std::size_t kNextRunsShown = 5;
constexpr std::size_t kLastRunsShown = 5;

// What starts the job, in words.
std::string trigger_in_words(const Job& job) {
  std::string text;
  if (job.has_schedule) {
    // The words are ours, the text in brackets is what the file has to be searched for.
    text = schedule_in_words(job.schedule) + " (" + printable(job.schedule_text.view()) + ")";
  } else if (job.has_once) {
    text = "once at " + clock_text(job.once);
  }
  if (!job.after.empty()) {
    text += std::string(text.empty() ? "" : ", ") + "after " + printable(after_text(job));
  }
  return text.empty() ? "by hand only" : text;
}

// The next times that start the job, an overdue one first.
std::vector<std::int64_t> next_runs(const Plan& plan, const Job& job, const QueueRecord& record) {
  const bool running = record_state(record) == JobState::Running;
  const std::optional<std::int64_t> next = next_start(job, record, plan.now, running);
  if (!next || !has_time(job)) return {};
  std::vector<std::int64_t> times = {*next};
  if (job.has_schedule) {
    const std::vector<std::int64_t> more =
        next_matches(job.schedule, std::max(*next, plan.now), kNextRunsShown - 1);
    times.insert(times.end(), more.begin(), more.end());
  }
  return times;
}

// What keeps the record from being taken as it stands.
const char* state_note(const QueueRecord* seen) {
  if (seen == nullptr) return " (the daemon has not seen the job yet)";
  const bool lost = record_state(*seen) == JobState::Running && !queue_runner_alive(*seen);
  return lost ? " (its record says RUNNING, but that process is gone)" : "";
}

// Everything that 'why' says.
struct WhyAnswer {
  const Plan& plan;
  const Job& job;
  const QueueRecord& record;
  DaemonProcess daemon;
  std::vector<std::int64_t> next;
  std::vector<PastRun> last;  // newest first
  std::vector<LogNote> notes;
  std::vector<std::string> reasons;
};

// Collects the answer once; the two renderers below only write it down.
WhyAnswer explain(const Plan& plan, const Job& job) {
  const QueueRecord& record = *queue_find(plan.queue, job.name.view());
  WhyAnswer answer{plan, job, record, find_daemon(plan.config_path, plan.queue_path),
                   {},   {},  {},     {}};
  answer.next = next_runs(plan, job, record);
  JobRuns runs = runs_of(plan, job);
  // Each run costs the reading of its log: no more are opened than are shown.
  for (std::size_t i = 0; i < runs.size() && answer.last.size() < kLastRunsShown; ++i) {
    if (const PastRun* const run = runs.run(i)) answer.last.push_back(*run);
  }
  answer.notes = runs.notes();  // of the logs that were opened
  answer.reasons = reasons_not_now(plan, job, answer.daemon);
  return answer;
}

// A label, then a line for each of the values.
std::string lines(const char* label, const std::vector<std::string>& values) {
  std::string out;
  std::array<char, 16> lead{};
  for (const std::string& value : values) {
    std::snprintf(lead.data(), lead.size(), "%-11s ", out.empty() ? label : "");
    out += lead.data() + value + "\n";
  }
  return out;
}

std::string run_line(const PastRun& run, bool color) {
  const std::string start = clock_text(run.start) + "  ";
  if (run.outcome == PastOutcome::Running) return start + toned("running", Tone::Active, color);
  if (!run.exit_code) {  // a run whose scheduler died has no trailer
    return start + toned("not finished (its scheduler was gone)", Tone::Bad, color);
  }
  std::string text = "exit " + std::to_string(*run.exit_code);
  // The exit code of a tool that was ended says nothing without the reason for its end.
  const bool cut = run.outcome == PastOutcome::TimedOut || run.outcome == PastOutcome::Cancelled;
  if (cut) text += std::string(" (") + past_outcome_name(run.outcome) + ")";
  const std::optional<std::int64_t> took = run.duration_s();
  return start + toned(text, run_failed(run.outcome) ? Tone::Bad : Tone::Plain, color) + "  " +
         (took ? duration_text(*took) : "?");
}

// As "orv_sched list" shows the state.
Tone tone_of(JobState state) {
  switch (state) {
    case JobState::Pending: return Tone::Waiting;
    case JobState::Running: return Tone::Active;
    case JobState::Done: return Tone::Good;
    case JobState::Failed: return Tone::Bad;
    case JobState::Disabled: break;
  }
  return Tone::Plain;
}

// A screen of labels and lines, in the order in which a person asks.
std::string why_text(const WhyAnswer& answer) {
  const Job& job = answer.job;
  const bool color = answer.plan.color;
  const JobState state = record_state(answer.record);
  std::string out =
      lines("job:", {printable(job.name.view())}) + lines("command:", {command_name(job.command)}) +
      lines("enabled:", {job.enabled ? "yes" : "no"}) + lines("runs:", {trigger_in_words(job)}) +
      lines("state:", {toned(state_name(state), tone_of(state), color) +
                       state_note(queue_find(answer.plan.seen, job.name.view()))});
  std::vector<std::string> next;
  for (const std::int64_t time : answer.next) {
    next.push_back(clock_text(time) + (time <= answer.plan.now ? " (overdue)" : ""));
  }
  // A job without a time of its own starts when others end.
  const bool waits = job.enabled && !has_time(job);
  if (next.empty()) next.emplace_back(waits ? "after its dependencies finish" : "-");
  std::vector<std::string> last;
  for (const PastRun& run : answer.last) last.push_back(run_line(run, color));
  for (const LogNote& note : answer.notes) last.push_back(printable(note.log) + " " + note.text);
  if (last.empty()) last.push_back("- (no logs in " + printable(answer.plan.job_log_dir) + ")");
  out += lines("next runs:", next) + lines("last runs:", last);
  if (!answer.reasons.empty()) return out + lines("not now:", answer.reasons);
  return out + lines("now:", {toned("nothing blocks it: it starts at the daemon's next check",
                                    Tone::Good, color)});
}

void write_past_run(JsonWriter& json, const PastRun& run) {
  json.begin_object();
  json.integer_member("start", run.start);
  known_member(json, "end", run.end);
  known_member(json, "duration", run.duration_s());
  json.text_member("result", past_outcome_name(run.outcome));
  known_member(json, "exit_code", run.exit_code);
  json.end_object();
}

void write_texts(JsonWriter& json, const char* name, const std::vector<std::string>& texts) {
  json.key(name);
  json.begin_array();
  for (const std::string& text : texts) json.string(text);
  json.end_array();
}

// docs/orv_plan.8 describes the fields: their names are never changed.
std::string why_json(const WhyAnswer& answer) {
  const Job& job = answer.job;
  return json_document([&](JsonWriter& json) {
    json.begin_object();
    json.integer_member("now", answer.plan.now);
    json.text_member("job", job.name.view());
    json.text_member("command", command_name(job.command));
    json.boolean_member("enabled", job.enabled);
    json.text_member("schedule", job.schedule_text.view());
    json.integer_member("once", job.once, job.has_once);
    json.key("after");
    json.begin_array();
    for (const JobName& name : job.after) json.string(name.view());
    json.end_array();
    json.text_member("after_mode", job.after.empty()                       ? ""
                                   : job.after_mode == AfterMode::Finished ? "finished"
                                                                           : "success");
    json.text_member("runs", trigger_in_words(job));
    json.text_member("state", state_name(record_state(answer.record)));
    json.key("next_runs");
    json.begin_array();
    for (const std::int64_t time : answer.next) json.integer(time);
    json.end_array();
    json.key("last_runs");
    json.begin_array();
    for (const PastRun& run : answer.last) write_past_run(json, run);
    json.end_array();
    json.boolean_member("starts_now", answer.reasons.empty());
    write_texts(json, "reasons", answer.reasons);
    std::vector<std::string> notes;
    for (const LogNote& note : answer.notes) notes.push_back(note.log + " " + note.text);
    write_texts(json, "notes", notes);
    json.end_object();
  });
}

// When the job mails: its own wish, else that of [mail]; without that section there is no mail.
const char* mail_wish(const Plan& plan, const Job& job) {
  if (!plan.config.mail.present) return "never";
  return notify_name(effective_notify(job, plan.config.mail));
}

std::string show_text(const Plan& plan, const Job& job, const std::vector<const char*>& argv) {
  std::string out = lines("job:", {printable(job.name.view())});
  // One line for each argument: blanks and quotes in it then need no explanation.
  for (std::size_t i = 0; i + 1 < argv.size(); ++i) {
    const std::string label = "argv[" + std::to_string(i) + "]:";
    out += lines(label.c_str(), {printable(argv[i])});
  }
  const std::int64_t limit = time_limit(job, plan.config.sched.job_timeout_s);
  return out +
         lines("time limit:", {duration_text(limit) + " (" + std::to_string(limit) + " seconds)"}) +
         lines("logs:", {printable(job_log_directory(plan.job_log_dir, job.name.view())) + "/"}) +
         lines("mail:", {std::string(mail_wish(plan, job)) +
                         (plan.config.mail.present ? "" : " (there is no [mail] section)")});
}

std::string show_json(const Plan& plan, const Job& job, const std::vector<const char*>& argv) {
  return json_document([&](JsonWriter& json) {
    json.begin_object();
    json.text_member("job", job.name.view());
    json.key("argv");
    json.begin_array();
    for (std::size_t i = 0; i + 1 < argv.size(); ++i) json.string(argv[i]);
    json.end_array();
    json.integer_member("time_limit", time_limit(job, plan.config.sched.job_timeout_s));
    json.text_member("log_directory", job_log_directory(plan.job_log_dir, job.name.view()));
    json.text_member("mail", mail_wish(plan, job));
    json.end_object();
  });
}

// `kind` is for programs: the wording of a finding may be improved.
std::string check_json(const std::vector<Finding>& findings, std::size_t jobs) {
  return json_document([&](JsonWriter& json) {
    json.begin_object();
    json.integer_member("jobs", static_cast<std::int64_t>(jobs));
    json.key("findings");
    json.begin_array();
    for (const Finding& finding : findings) {
      json.begin_object();
      json.text_member("kind", finding.kind);
      json.text_member("job", finding.job);
      json.text_member("text", finding.text);
      json.end_object();
    }
    json.end_array();
    json.end_object();
  });
}

}  // namespace

int why_command(const Plan& plan, const Job& job, bool json) {
  const WhyAnswer answer = explain(plan, job);
  print(json ? why_json(answer) : why_text(answer));
  return kExitOk;
}

// The vector is that of the daemon, which never passes --background.
int show_command(const Plan& plan, const Job& job, bool json) {
  std::array<char, kConfigMessageSize> err{};
  std::vector<const char*> argv;
  if (!build_argv(job, false, argv, err)) {
    std::fprintf(stderr, "error: [%s]: %s\n", printable(job.name.view()).c_str(), err.data());
    return kExitFailed;
  }
  print(json ? show_json(plan, job, argv) : show_text(plan, job, argv));
  return kExitOk;
}

// The tools are looked for where a shell would: the daemon's own PATH may be another, see the unit.
int check_command(const Plan& plan, bool json) {
  const char* const path = std::getenv("PATH");
  const std::vector<Finding> findings =
      check_plan(plan, usual_durations(plan), path != nullptr ? path : "/usr/bin:/bin");
  if (json) {
    print(check_json(findings, plan.config.jobs.size()));
  } else if (findings.empty()) {
    print("nothing surprising in " + std::to_string(plan.config.jobs.size()) + " job(s)\n");
  } else {
    for (const Finding& finding : findings) print(finding_text(finding) + "\n");
  }
  return findings.empty() ? kExitOk : kExitFailed;
}

}  // namespace orv
